#include "WindowsAgentCommon/Pages.h"

#include "Platform/Windows.h"

namespace WindowsAgentCommon {

void* AllocatePages(std::size_t size) {
  return VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void ReleasePages(void* pages, std::size_t /*size*/) { VirtualFree(pages, 0, MEM_RELEASE); }

}  // namespace WindowsAgentCommon
