#include <atomic>
#include <limits>

#include "Platform/Windows.h"
#include "Platform/testing/TestClock.h"
#include "Platform/windows/testing/Imports.h"

namespace Platform {

namespace {

constexpr std::uint64_t kRunning = std::numeric_limits<std::uint64_t>::max();
constexpr std::int64_t kUnitsPerSecond = 10'000'000;
constexpr std::int64_t kSecondsFrom1601To1970 = 11'644'473'600;

// The time at which a test stopped the clock, or kRunning.
std::atomic<std::uint64_t> stoppedAt{kRunning};

void* originalGetSystemTime;
void* originalGetSystemTimeAsFileTime;
void* originalTime64;

FILETIME ToFileTime(std::uint64_t units) {
  return {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
}

void WINAPI ReplacedGetSystemTime(LPSYSTEMTIME systemTime) {
  const std::uint64_t stopped = stoppedAt.load();
  if (stopped == kRunning) {
    reinterpret_cast<decltype(&GetSystemTime)>(originalGetSystemTime)(systemTime);
    return;
  }
  const FILETIME fileTime = ToFileTime(stopped);
  FileTimeToSystemTime(&fileTime, systemTime);
}

void WINAPI ReplacedGetSystemTimeAsFileTime(LPFILETIME fileTime) {
  const std::uint64_t stopped = stoppedAt.load();
  if (stopped == kRunning) {
    reinterpret_cast<decltype(&GetSystemTimeAsFileTime)>(originalGetSystemTimeAsFileTime)(fileTime);
    return;
  }
  *fileTime = ToFileTime(stopped);
}

__time64_t ReplacedTime64(__time64_t* destination) {
  const std::uint64_t stopped = stoppedAt.load();
  if (stopped == kRunning) {
    return reinterpret_cast<__time64_t (*)(__time64_t*)>(originalTime64)(destination);
  }
  const __time64_t seconds =
      static_cast<std::int64_t>(stopped) / kUnitsPerSecond - kSecondsFrom1601To1970;
  if (destination != nullptr) {
    *destination = seconds;
  }
  return seconds;
}

}  // namespace

namespace TestClock {

void Set(std::uint64_t fileTime) {
  static const Import imports[] = {
      {"GetSystemTime", AddressOf(&ReplacedGetSystemTime), &originalGetSystemTime},
      {"GetSystemTimeAsFileTime", AddressOf(&ReplacedGetSystemTimeAsFileTime),
       &originalGetSystemTimeAsFileTime},
      {"_time64", AddressOf(&ReplacedTime64), &originalTime64}};
  ReplaceImports(imports);
  stoppedAt.store(fileTime);
}

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
