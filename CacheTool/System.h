#pragma once

#include <memory>

#include "CacheTool/CachePlace.h"

// What the tool needs of the operating system beyond Platform/Windows.h and the agent's own calls.
namespace OrloCacheTool {

// Whether a person is looking at the standard error.
bool IsErrorTerminal();

// While it lives, root works with the rights of the cache's owner: with his user, and with the
// group of what is his, alone. So what is made is his, and the agent can read and remove it; and
// wherever he leads by links, root goes no further than he could himself. The owner is that of the
// data directory, or, if that is root's, of what lies on the way to the cache.
//
// For anybody but root, where root owns it all, and on Windows, whose directories hand their rights
// down, it does nothing; nor does one that is made while another lives. One thread.
class OwnersRights {
 public:
  // Throws ToolError if the rights can't be taken, or if the cache can't be reached with them.
  explicit OwnersRights(const CachePlace& place);
  ~OwnersRights();
  OwnersRights(const OwnersRights&) = delete;
  OwnersRights& operator=(const OwnersRights&) = delete;

 private:
  // The caller's own; null if they were not left.
  struct Own;
  std::unique_ptr<Own> m_own;
};

}  // namespace OrloCacheTool
