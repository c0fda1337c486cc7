#pragma once

#include <cstdint>

namespace OrloAgent {

// The current time as the event header has it: UTC, FILETIME.
std::uint64_t GetReceiveTime();

}  // namespace OrloAgent
