#include "CacheTool/CacheLock.h"

#include "Agent/PathText.h"
#include "CacheTool/System.h"
#include "CacheTool/ToolError.h"

namespace OrloCacheTool {

CacheLock::CacheLock(const CachePlace& place, const std::string& purpose) {
  if (place.data.empty()) {
    return;
  }
  const std::filesystem::path file = place.data / "agent.lock";
  const OwnersRights rights(place);
  try {
    m_lock = std::make_unique<OrloAgent::FileLock>(file);
  } catch (const std::exception& exception) {
    throw ToolError(purpose +
                    " only while no agent runs, and that can't be told: " + exception.what());
  }
  if (!m_lock->IsHeld()) {
    throw ToolError(purpose +
                    " only while no agent runs: it looks at its cache when it starts, and not "
                    "again. Stop the agent on " +
                    OrloAgent::ToText(place.data) + ", repeat the command, and start it again");
  }
}

}  // namespace OrloCacheTool
