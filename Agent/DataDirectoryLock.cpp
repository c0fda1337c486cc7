#include "Agent/DataDirectoryLock.h"

#include <fstream>

#include "WindowsAgentCommon/Exceptions.h"

namespace OrloAgent {

namespace {

[[noreturn]] void Refuse(const std::filesystem::path& directory, const std::string& reason,
                         int line) {
  throw WindowsAgentCommon::InitializationException(
      "DataDirectoryLock", "OrloAgent::DataDirectoryLock::DataDirectoryLock", line,
      "The data directory " + directory.string() + " " + reason);
}

}  // namespace

DataDirectoryLock::DataDirectoryLock(const std::filesystem::path& dataDirectory) {
  const std::filesystem::path file = dataDirectory / "agent.lock";
  if (!std::ofstream(file, std::ios::app)) {
    Refuse(dataDirectory, "can't be locked: " + file.string() + " can't be written", __LINE__);
  }
  try {
    boost::interprocess::file_lock lock(file.c_str());
    if (!lock.try_lock()) {
      Refuse(dataDirectory, "is in use by another agent", __LINE__);
    }
    m_lock.swap(lock);
  } catch (const boost::interprocess::interprocess_exception& exception) {
    Refuse(dataDirectory, std::string("can't be locked (") + exception.what() + ")", __LINE__);
  }
}

DataDirectoryLock::~DataDirectoryLock() {
  try {
    m_lock.unlock();
  } catch (const boost::interprocess::interprocess_exception&) {
    // It ends with the process at the latest.
  }
}

}  // namespace OrloAgent
