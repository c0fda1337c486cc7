#pragma once

#include <filesystem>

namespace OrloCacheTool {

// How long ago something in a cache was changed. An agent may be writing it or removing it at this
// moment, and then it looks wrong in ways that differ from system to system; only its last change
// tells that from damage.
enum class LastChange {
  // It has been removed.
  Gone,
  // Within the last seconds, so that it need not be finished.
  Recent,
  LongAgo
};

LastChange GetLastChange(const std::filesystem::path& path);

// The patience with something that looks wrong: looks at it again for up to two seconds.
class SecondLooks {
 public:
  // Waits a moment and returns true if it was changed recently and another look may show something
  // else. `change` says what was found.
  bool Wait(LastChange change);

 private:
  int m_looks = 0;
};

}  // namespace OrloCacheTool
