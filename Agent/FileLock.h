#pragma once

#include <filesystem>
#include <memory>

namespace OrloAgent {

// A lock on a file that the system takes back when the process ends, however it ends. The file is
// made if it is missing, stays, and means nothing by itself.
class FileLock {
 public:
  // Throws std::runtime_error, whose text is the reason, when the file can't be written or locked.
  explicit FileLock(const std::filesystem::path& file);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // False: another process holds it.
  bool IsHeld() const { return m_lock != nullptr; }

 private:
  struct Lock;
  std::unique_ptr<Lock> m_lock;
};

}  // namespace OrloAgent
