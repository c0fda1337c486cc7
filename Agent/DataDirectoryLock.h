#pragma once

#include <boost/interprocess/sync/file_lock.hpp>
#include <filesystem>

namespace OrloAgent {

// Keeps a second agent out of a data directory for as long as it lives. The system takes the lock
// back when the process ends, however it ends; the file agent.lock stays and means nothing.
class DataDirectoryLock {
 public:
  // The directory must exist. Throws InitializationException when another process holds the lock,
  // or when the file can't be made.
  explicit DataDirectoryLock(const std::filesystem::path& dataDirectory);
  ~DataDirectoryLock();
  DataDirectoryLock(const DataDirectoryLock&) = delete;
  DataDirectoryLock& operator=(const DataDirectoryLock&) = delete;

 private:
  boost::interprocess::file_lock m_lock;
};

}  // namespace OrloAgent
