#include "Agent/ReceiveTime.h"

// Alone in its file: ACE has macros with names of the Windows API, so the two don't mix.
#include "Platform/Windows.h"

namespace OrloAgent {

std::uint64_t GetReceiveTime() {
  FILETIME time{};
  GetSystemTimeAsFileTime(&time);
  return (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}

}  // namespace OrloAgent
