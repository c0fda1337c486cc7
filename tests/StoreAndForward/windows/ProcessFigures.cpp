#include "tests/StoreAndForward/ProcessFigures.h"

#include <stdexcept>

#include "Platform/Windows.h"
// Must come after windows.h.
#include <psapi.h>

namespace OrloStoreAndForward {

std::size_t CountDescriptors() {
  DWORD count = 0;
  if (GetProcessHandleCount(GetCurrentProcess(), &count) == FALSE) {
    throw std::runtime_error("the handles can't be counted");
  }
  return count;
}

std::uint64_t ResidentBytes() {
  PROCESS_MEMORY_COUNTERS counters{};
  if (GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters)) == FALSE) {
    throw std::runtime_error("the process's memory can't be asked");
  }
  return counters.WorkingSetSize;
}

}  // namespace OrloStoreAndForward
