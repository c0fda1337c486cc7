#pragma once

#include <cstddef>
#include <cstdint>

// What the system says of this process.
namespace OrloStoreAndForward {

// Open descriptors, without the one that counts them; on Windows handles of every kind.
std::size_t CountDescriptors();

// Bytes of memory that are resident.
std::uint64_t ResidentBytes();

}  // namespace OrloStoreAndForward
