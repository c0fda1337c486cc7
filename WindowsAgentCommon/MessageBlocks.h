#pragma once

#include <cstddef>
#include <cstdint>

class ACE_Allocator;
class ACE_Message_Block;

namespace WindowsAgentCommon {

// Makes an MB_DATA block of exactly that capacity, empty, with a reference count that is safe to
// change from several threads. Returns 0, or ERROR_NOT_ENOUGH_MEMORY with `block` null. The caller
// owns the block and frees it with release(). Any thread.
std::uint32_t CreateDataMessageBlock(std::size_t size, ACE_Message_Block*& block);

// Where CreateDataMessageBlock takes its memory from: the block, its data block, its buffer. A null
// pointer stands for EventMemory, or ACE's default for large buffers. The allocators must outlive
// every block made from them; they are changed only while no block is being made, which in practice
// means by tests.
struct MessageBlockAllocators {
  ACE_Allocator* messageBlock = nullptr;
  ACE_Allocator* dataBlock = nullptr;
  ACE_Allocator* buffer = nullptr;
};
void SetMessageBlockAllocators(const MessageBlockAllocators& allocators);

}  // namespace WindowsAgentCommon
