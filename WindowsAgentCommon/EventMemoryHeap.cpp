#include <new>

#include "WindowsAgentCommon/EventMemory.h"

namespace WindowsAgentCommon::EventMemory {

void* Allocate(std::size_t size) noexcept { return ::operator new(size, std::nothrow); }

void Free(void* piece) noexcept { ::operator delete(piece); }

void* AllocateBlock() noexcept { return Allocate(kBlockSize); }

void FreeBlock(void* piece) noexcept { Free(piece); }

void GiveBackUnused(std::chrono::steady_clock::time_point) noexcept {}

std::size_t GetHeldBytes() noexcept { return 0; }

}  // namespace WindowsAgentCommon::EventMemory
