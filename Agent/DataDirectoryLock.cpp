#include "Agent/DataDirectoryLock.h"

#include <stdexcept>

#include "Agent/PathText.h"
#include "WindowsAgentCommon/Exceptions.h"

namespace OrloAgent {

namespace {

[[noreturn]] void Refuse(const std::filesystem::path& directory, const std::string& reason,
                         int line) {
  throw WindowsAgentCommon::InitializationException(
      "DataDirectoryLock", "OrloAgent::DataDirectoryLock::DataDirectoryLock", line,
      "The data directory " + ToText(directory) + " " + reason);
}

}  // namespace

DataDirectoryLock::DataDirectoryLock(const std::filesystem::path& dataDirectory) {
  try {
    m_lock = std::make_unique<FileLock>(dataDirectory / "agent.lock");
  } catch (const std::exception& exception) {
    Refuse(dataDirectory, std::string("can't be locked: ") + exception.what(), __LINE__);
  }
  if (!m_lock->IsHeld()) {
    Refuse(dataDirectory, "is in use by another agent", __LINE__);
  }
}

}  // namespace OrloAgent
