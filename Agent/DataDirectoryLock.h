#pragma once

#include <filesystem>
#include <memory>

#include "Agent/FileLock.h"

namespace OrloAgent {

// Keeps a second agent out of a data directory for as long as it lives, by a lock on its file
// agent.lock.
class DataDirectoryLock {
 public:
  // The directory must exist. Throws InitializationException when another process holds the lock,
  // or when the file can't be made.
  explicit DataDirectoryLock(const std::filesystem::path& dataDirectory);
  DataDirectoryLock(const DataDirectoryLock&) = delete;
  DataDirectoryLock& operator=(const DataDirectoryLock&) = delete;

 private:
  std::unique_ptr<FileLock> m_lock;
};

}  // namespace OrloAgent
