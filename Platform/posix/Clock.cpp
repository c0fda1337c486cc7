#include "Platform/posix/Clock.h"

#include <atomic>
#include <limits>

#include "Platform/testing/TestClock.h"

namespace Platform {

namespace {

constexpr std::uint64_t kRunning = std::numeric_limits<std::uint64_t>::max();

// The time at which a test stopped the clock, or kRunning.
std::atomic<std::uint64_t> stoppedAt{kRunning};

}  // namespace

std::uint64_t ClockNow() {
  const std::uint64_t stopped = stoppedAt.load();
  if (stopped != kRunning) {
    return stopped;
  }
  std::timespec now{};
  std::timespec_get(&now, TIME_UTC);
  return FileTimeUnits(now);
}

namespace TestClock {

void Set(std::uint64_t fileTime) { stoppedAt.store(fileTime); }

void Advance(std::int64_t hundredNanoseconds) {
  std::uint64_t stopped = stoppedAt.load();
  while (stopped != kRunning &&
         !stoppedAt.compare_exchange_weak(
             stopped, stopped + static_cast<std::uint64_t>(hundredNanoseconds))) {
  }
}

void Reset() { stoppedAt.store(kRunning); }

}  // namespace TestClock

}  // namespace Platform
