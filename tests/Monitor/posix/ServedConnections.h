#pragma once

#include <cstddef>
#include <cstdint>

namespace TestSupport {

// How many connections that were made to the port are open in this process, at the side that
// accepted them. A client can't see that it was closed before it has read all that the system holds
// for it.
std::size_t CountServedConnections(std::uint16_t port);

}  // namespace TestSupport
