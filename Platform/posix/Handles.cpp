#include "Platform/posix/Handles.h"

#include <atomic>

namespace Platform {

std::uintptr_t NextHandleValue() {
  static std::atomic<std::uintptr_t> last{0};
  return last.fetch_add(4, std::memory_order_relaxed) + 4;
}

}  // namespace Platform
