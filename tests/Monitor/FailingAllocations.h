#pragma once

#include <atomic>

// Linked into a program, its source replaces the allocation of memory there.
namespace TestSupport {

// How many allocations of threads other than the first one fail from now on.
extern std::atomic<int> allocationFailures;

}  // namespace TestSupport
