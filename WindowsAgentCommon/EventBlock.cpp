#include "WindowsAgentCommon/EventBlock.h"

#include <ace/Malloc_Allocator.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <typeinfo>

#include "WindowsAgentCommon/EventMemory.h"

namespace WindowsAgentCommon {

namespace {

static_assert(sizeof(EventBlock) <= EventMemory::kBlockSize);

// An allocator over two functions. What it is asked for beyond `largest` it can't give.
class EventAllocator final : public ACE_New_Allocator {
 public:
  EventAllocator(void* (*allocate)(std::size_t), void (*release)(void*), std::size_t largest)
      : m_allocate(allocate), m_release(release), m_largest(largest) {}

  void* malloc(std::size_t bytes) override {
    return bytes <= m_largest ? m_allocate(bytes) : nullptr;
  }
  void* calloc(std::size_t bytes, char initial = '\0') override {
    void* const memory = malloc(bytes);
    if (memory != nullptr) {
      std::memset(memory, initial, bytes);
    }
    return memory;
  }
  void* calloc(std::size_t elements, std::size_t size, char initial = '\0') override {
    return calloc(elements * size, initial);
  }
  void free(void* memory) override { m_release(memory); }

 private:
  void* (*const m_allocate)(std::size_t);
  void (*const m_release)(void*);
  const std::size_t m_largest;
};

// Made when the library is loaded, so that to compare an allocator with them costs nothing, and
// never destroyed: blocks may be released by destructors of other static objects.
EventAllocator& blockAllocator = *new EventAllocator(
    [](std::size_t) { return EventMemory::AllocateBlock(); },
    [](void* memory) { EventMemory::FreeBlock(memory); }, EventMemory::kBlockSize);
EventAllocator& dataBlockAllocator =
    *new EventAllocator([](std::size_t size) { return EventMemory::Allocate(size); },
                        [](void* memory) { EventMemory::Free(memory); }, EventMemory::kLargest);

void* AllocateFor(ACE_Allocator& allocator) {
  return &allocator == &blockAllocator ? EventMemory::AllocateBlock()
                                       : allocator.malloc(sizeof(EventBlock));
}

LockedDataBlock* AsLocked(ACE_Data_Block* data) {
  return typeid(*data) == typeid(LockedDataBlock) ? static_cast<LockedDataBlock*>(data) : nullptr;
}

bool IsEventBlock(const ACE_Message_Block& block) { return typeid(block) == typeid(EventBlock); }

}  // namespace

ACE_Allocator& GetBlockAllocator() { return blockAllocator; }

ACE_Allocator& GetDataBlockAllocator() { return dataBlockAllocator; }

LockedDataBlock::LockedDataBlock(std::size_t size, ACE_Message_Block::ACE_Message_Type type,
                                 char* buffer, ACE_Message_Block::Message_Flags flags,
                                 ACE_Allocator& bufferAllocator, ACE_Allocator& ownAllocator)
    : ACE_Data_Block(size, type, buffer, &bufferAllocator, nullptr, flags, &ownAllocator) {
  locking_strategy(&m_lock);
}

LockedDataBlock* LockedDataBlock::MakeInOnePiece(std::size_t size) {
  void* const memory = EventMemory::Allocate(sizeof(LockedDataBlock) + size);
  if (memory == nullptr) {
    return nullptr;
  }
  // The buffer is not the data block's to free. When it has to grow, ACE takes a new one from the
  // allocator and frees that one later on.
  return new (memory) LockedDataBlock(
      size, ACE_Message_Block::MB_DATA, static_cast<char*>(memory) + sizeof(LockedDataBlock),
      ACE_Message_Block::DONT_DELETE, *ACE_Allocator::instance(), dataBlockAllocator);
}

LockedDataBlock* LockedDataBlock::Make(std::size_t size, ACE_Message_Block::ACE_Message_Type type,
                                       ACE_Message_Block::Message_Flags flags,
                                       ACE_Allocator& bufferAllocator,
                                       ACE_Allocator& ownAllocator) {
  // ACE's constructor takes the buffer as it is only if there is one, so that even an empty block
  // needs a byte.
  void* const buffer = bufferAllocator.malloc(std::max<std::size_t>(size, 1));
  if (buffer == nullptr) {
    return nullptr;
  }
  void* const memory = ownAllocator.malloc(sizeof(LockedDataBlock));
  if (memory == nullptr) {
    bufferAllocator.free(buffer);
    return nullptr;
  }
  return new (memory)
      LockedDataBlock(size, type, static_cast<char*>(buffer), flags, bufferAllocator, ownAllocator);
}

ACE_Data_Block* LockedDataBlock::clone_nocopy(ACE_Message_Block::Message_Flags mask,
                                              std::size_t maximum) const {
  const ACE_Message_Block::Message_Flags kept =
      flags_ &
      ~(mask | static_cast<ACE_Message_Block::Message_Flags>(ACE_Message_Block::DONT_DELETE));
  return Make(maximum == 0 ? max_size_ : maximum, type_, kept, *allocator_strategy_,
              *data_block_allocator_);
}

void LockedDataBlock::SetCount(int count) {
  std::atomic_ref(reference_count_).store(count, std::memory_order_release);
}

void LockedDataBlock::AddReference() {
  m_lock.acquire();
  SetCount(reference_count_ + 1);
  m_lock.release();
}

bool LockedDataBlock::DropReference() {
  // Whoever has the only reference needs no lock, because nobody else can come by another one. That
  // the count is seen as 1 is not enough: who has just made it so may still be about to give the
  // lock back, in memory that would be gone.
  if (std::atomic_ref(reference_count_).load(std::memory_order_acquire) == 1 && !m_lock.IsHeld()) {
    return true;
  }
  m_lock.acquire();
  const int count = reference_count_ - 1;
  SetCount(count);
  m_lock.release();
  return count == 0;
}

ACE_Data_Block* LockedDataBlock::release_i() {
  const int count = reference_count_ - 1;
  SetCount(count);
  return count == 0 ? nullptr : this;
}

void LockedDataBlock::Destroy() {
  ACE_Allocator* const allocator = data_block_allocator_;
  this->~LockedDataBlock();
  if (allocator == &dataBlockAllocator) {
    EventMemory::Free(this);
  } else {
    allocator->free(this);
  }
}

EventBlock* EventBlock::Make(ACE_Data_Block& data, ACE_Allocator& allocator) {
  void* const memory = AllocateFor(allocator);
  return memory == nullptr ? nullptr : new (memory) EventBlock(data, allocator);
}

EventBlock* EventBlock::DuplicateOne() const {
  void* const memory = AllocateFor(*message_block_allocator_);
  if (memory == nullptr) {
    return nullptr;
  }
  if (LockedDataBlock* const data = AsLocked(data_block_)) {
    data->AddReference();
  } else {
    data_block_->duplicate();
  }
  auto* const made = new (memory) EventBlock(*data_block_, *message_block_allocator_);
  made->rd_ptr_ = rd_ptr_;
  made->wr_ptr_ = wr_ptr_;
  made->priority_ = priority_;
  return made;
}

ACE_Message_Block* EventBlock::duplicate() const {
  EventBlock* const first = DuplicateOne();
  ACE_Message_Block* last = first;
  const ACE_Message_Block* original = cont_;
  while (last != nullptr && original != nullptr) {
    // A block of another kind duplicates what follows it as well.
    const bool isOwn = IsEventBlock(*original);
    ACE_Message_Block* const made =
        isOwn ? static_cast<const EventBlock*>(original)->DuplicateOne() : original->duplicate();
    if (made == nullptr) {
      first->release();
      return nullptr;
    }
    last->cont(made);
    last = made;
    original = isOwn ? original->cont() : nullptr;
  }
  return first;
}

void EventBlock::ReleaseOne() {
  if ((flags_ & DONT_DELETE) == 0 && data_block_ != nullptr) {
    ACE_Data_Block* const data = data_block_;
    LockedDataBlock* const locked = AsLocked(data);
    data_block_ = nullptr;
    if (locked == nullptr) {
      data->release();
    } else if (locked->DropReference()) {
      locked->Destroy();
    }
  }
  ACE_Allocator* const allocator = message_block_allocator_;
  this->~EventBlock();
  if (allocator == &blockAllocator) {
    EventMemory::FreeBlock(this);
  } else {
    allocator->free(this);
  }
}

ACE_Message_Block* EventBlock::release() {
  ACE_Message_Block* block = this;
  while (block != nullptr && IsEventBlock(*block)) {
    ACE_Message_Block* const next = block->cont();
    static_cast<EventBlock*>(block)->ReleaseOne();
    block = next;
  }
  if (block != nullptr) {
    block->release();
  }
  return nullptr;
}

}  // namespace WindowsAgentCommon
