#pragma once

#include <cstddef>

namespace WindowsAgentCommon {

// What AllocatePages' addresses are multiples of.
constexpr std::size_t kPagesAlignment = 64 * 1024;

// Zeroed memory straight from the system; null when there is none. `size` is a multiple of
// kPagesAlignment. Any thread.
void* AllocatePages(std::size_t size);

// Gives it back whole, with the size that it was asked for with.
void ReleasePages(void* pages, std::size_t size);

}  // namespace WindowsAgentCommon
