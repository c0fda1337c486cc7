#include "Agent/OutageReasons.h"

namespace OrloAgent {

namespace {

constexpr std::chrono::minutes kBetweenRepeats{10};

// Within that time.
constexpr std::size_t kMostReasons = 10;

}  // namespace

bool OutageReasons::Note(const std::string& reason, Clock::time_point now) {
  m_hasBegun = true;
  std::erase_if(m_told, [&](const auto& one) { return now - one.second >= kBetweenRepeats; });
  if (reason == m_last || m_told.size() >= kMostReasons || !m_told.emplace(reason, now).second) {
    return false;
  }
  m_last = reason;
  return true;
}

void OutageReasons::End() { *this = {}; }

}  // namespace OrloAgent
