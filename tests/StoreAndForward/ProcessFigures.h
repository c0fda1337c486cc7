#pragma once

#include <cstddef>
#include <cstdint>

// What the system says of this process. Linux only.
namespace OrloStoreAndForward {

// Open descriptors, without the one that counts them.
std::size_t CountDescriptors();

// Bytes of memory that are resident.
std::uint64_t ResidentBytes();

}  // namespace OrloStoreAndForward
