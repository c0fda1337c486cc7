#pragma once

#include <memory>

#include "Agent/FileLock.h"
#include "CacheTool/CachePlace.h"

namespace OrloCacheTool {

// Keeps agents away from a cache while a command changes it, by the lock that an agent takes on its
// data directory. A running agent knows what was in the cache when it started and what it has
// written since, and nothing of what others put there or take away.
class CacheLock {
 public:
  // Throws ToolError if an agent is running, or if the lock can't be taken. `purpose` begins the
  // message: "Chunks can be requeued".
  CacheLock(const CachePlace& place, const std::string& purpose);
  CacheLock(const CacheLock&) = delete;
  CacheLock& operator=(const CacheLock&) = delete;

 private:
  std::unique_ptr<OrloAgent::FileLock> m_lock;
};

}  // namespace OrloCacheTool
