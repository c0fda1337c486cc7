#include "WindowsAgentCommon/Pages.h"

#include <sys/mman.h>

#include <cstdint>

namespace WindowsAgentCommon {

void* AllocatePages(std::size_t size) {
  // The system aligns to its own, smaller pages: what is too much at both ends goes back.
  const std::size_t asked = size + kPagesAlignment;
  void* const mapped =
      ::mmap(nullptr, asked, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) {
    return nullptr;
  }
  const auto begin = reinterpret_cast<std::uintptr_t>(mapped);
  const std::uintptr_t aligned = (begin + kPagesAlignment - 1) & ~(kPagesAlignment - 1);
  const std::size_t before = aligned - begin;
  if (before > 0) {
    ::munmap(mapped, before);
  }
  const std::size_t behind = asked - before - size;
  if (behind > 0) {
    ::munmap(reinterpret_cast<void*>(aligned + size), behind);
  }
  return reinterpret_cast<void*>(aligned);
}

void ReleasePages(void* pages, std::size_t size) { ::munmap(pages, size); }

}  // namespace WindowsAgentCommon
