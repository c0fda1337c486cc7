#pragma once

#include <cstddef>
#include <cstdint>

#include "WindowsAgentCommon/MessageBlockPtr.h"

namespace Benchmark {

// The size of the head block that goes before every payload, as large as the agent's own for a
// sender with an IPv4 address.
constexpr std::size_t kHeadSize = 11;

// An event as the agent makes them: a head block whose continuation carries the payload. The
// number stands at the start of the head. Ends the program when there is no memory.
WindowsAgentCommon::MessageBlockPtr MakeEvent(std::uint64_t number, std::size_t payloadSize);

std::uint64_t GetNumber(const ACE_Message_Block& event);

}  // namespace Benchmark
