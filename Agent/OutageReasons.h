#pragma once

#include <chrono>
#include <map>
#include <string>

namespace OrloAgent {

// Decides which of the reasons that an outage has, one after the other, are told: the first one,
// and each that differs from what was told last. Reasons that take turns are told once in a while,
// and no more than a few different ones: an outage may last for weeks, with an attempt every
// second. No locking.
class OutageReasons {
 public:
  using Clock = std::chrono::steady_clock;

  // Whether there was a reason since the last End.
  bool HasBegun() const { return m_hasBegun; }

  // Takes down a reason that has just been found. Whether the caller is to tell it now; it counts
  // as told then.
  bool Note(const std::string& reason, Clock::time_point now);

  // The outage is over.
  void End();

 private:
  bool m_hasBegun = false;
  std::string m_last;
  // When each was told, of those that must not be told again yet.
  std::map<std::string, Clock::time_point> m_told;
};

}  // namespace OrloAgent
