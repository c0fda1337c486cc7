#include "tests/Monitor/FailingAllocations.h"

#include <cstdlib>
#include <new>
#include <thread>

namespace TestSupport {

std::atomic<int> allocationFailures{0};

}  // namespace TestSupport

namespace {

const std::thread::id g_first = std::this_thread::get_id();

}  // namespace

void* operator new(std::size_t size) {
  if (TestSupport::allocationFailures > 0 && std::this_thread::get_id() != g_first) {
    --TestSupport::allocationFailures;
    throw std::bad_alloc();
  }
  if (void* const memory = std::malloc(size)) {
    return memory;
  }
  throw std::bad_alloc();
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
