#include "Agent/FileLock.h"

#include <boost/interprocess/sync/file_lock.hpp>
#include <fstream>
#include <stdexcept>

namespace OrloAgent {

struct FileLock::Lock {
  boost::interprocess::file_lock lock;
};

FileLock::FileLock(const std::filesystem::path& file) {
  if (!std::ofstream(file, std::ios::app)) {
    throw std::runtime_error(file.string() + " can't be written");
  }
  boost::interprocess::file_lock lock(file.c_str());
  if (lock.try_lock()) {
    m_lock = std::make_unique<Lock>();
    m_lock->lock.swap(lock);
  }
}

FileLock::~FileLock() {
  if (!m_lock) {
    return;
  }
  try {
    m_lock->lock.unlock();
  } catch (const boost::interprocess::interprocess_exception&) {
    // It ends with the process at the latest.
  }
}

}  // namespace OrloAgent
