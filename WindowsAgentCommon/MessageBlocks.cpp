#include "WindowsAgentCommon/MessageBlocks.h"

#include "Platform/Windows.h"
#include "WindowsAgentCommon/EventBlock.h"
#include "WindowsAgentCommon/EventMemory.h"

namespace WindowsAgentCommon {

namespace {

constexpr std::size_t kLargestInOnePiece = EventMemory::kLargest - sizeof(LockedDataBlock);

MessageBlockAllocators currentAllocators;

ACE_Allocator& Choose(ACE_Allocator* chosen, ACE_Allocator& otherwise) {
  return chosen == nullptr ? otherwise : *chosen;
}

LockedDataBlock* MakeDataBlock(std::size_t size) {
  const MessageBlockAllocators& chosen = currentAllocators;
  if (chosen.dataBlock == nullptr && chosen.buffer == nullptr && size <= kLargestInOnePiece) {
    return LockedDataBlock::MakeInOnePiece(size);
  }
  return LockedDataBlock::Make(size, ACE_Message_Block::MB_DATA, 0,
                               Choose(chosen.buffer, *ACE_Allocator::instance()),
                               Choose(chosen.dataBlock, GetDataBlockAllocator()));
}

}  // namespace

std::uint32_t CreateDataMessageBlock(std::size_t size, ACE_Message_Block*& block) {
  block = nullptr;
  LockedDataBlock* const data = MakeDataBlock(size);
  if (data == nullptr) {
    return ERROR_NOT_ENOUGH_MEMORY;
  }
  block = EventBlock::Make(*data, Choose(currentAllocators.messageBlock, GetBlockAllocator()));
  if (block == nullptr) {
    data->Destroy();
    return ERROR_NOT_ENOUGH_MEMORY;
  }
  return ERROR_SUCCESS;
}

void SetMessageBlockAllocators(const MessageBlockAllocators& allocators) {
  currentAllocators = allocators;
}

}  // namespace WindowsAgentCommon
