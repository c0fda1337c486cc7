#include <new>

#include "WindowsAgentCommon/EventMemory.h"

namespace WindowsAgentCommon::EventMemory {

void* Allocate(std::size_t size) noexcept { return ::operator new(size, std::nothrow); }

bool Allocate(const std::size_t (&sizes)[3], void* (&pieces)[3]) noexcept {
  for (int number = 0; number < 3; ++number) {
    pieces[number] = Allocate(sizes[number]);
    if (pieces[number] == nullptr) {
      while (number-- > 0) {
        Free(pieces[number]);
      }
      return false;
    }
  }
  return true;
}

void Free(void* piece) noexcept { ::operator delete(piece); }

void GiveBackUnused(std::chrono::steady_clock::time_point) noexcept {}

std::size_t GetHeldBytes() noexcept { return 0; }

}  // namespace WindowsAgentCommon::EventMemory
