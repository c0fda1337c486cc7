#pragma once

#include <ace/Lock.h>
#include <ace/Message_Block.h>

#include "WindowsAgentCommon/BriefLock.h"

// The message blocks that CreateDataMessageBlock makes. To whoever has one it is ACE's in every
// respect; what differs is the cost of the two operations that every event goes through several
// times, duplicate() and release(), and where the memory comes from. Blocks of this kind and others
// may stand in one chain.
namespace WindowsAgentCommon {

// The lock of one block's reference count. It is held for a few instructions, or while ACE frees
// the memory of a chain, and two threads hardly ever meet at it, because they would have to take or
// drop references to the same event at the same moment.
class CountLock final : public ACE_Lock {
 public:
  int remove() override { return 0; }
  int acquire() override {
    m_lock.lock();
    return 0;
  }
  int tryacquire() override { return m_lock.try_lock() ? 0 : -1; }
  int release() override {
    m_lock.unlock();
    return 0;
  }
  int acquire_read() override { return acquire(); }
  int acquire_write() override { return acquire(); }
  int tryacquire_read() override { return tryacquire(); }
  int tryacquire_write() override { return tryacquire(); }
  int tryacquire_write_upgrade() override { return 0; }

  bool IsHeld() const { return m_lock.IsHeld(); }

 private:
  BriefLock m_lock;
};

// A data block whose reference count has a lock of its own.
//
// ACE releases a chain of blocks with the head's lock held and takes the lock of each further block
// inside. Locks that unrelated blocks share would therefore be taken in different orders by
// different threads, which can end in a deadlock; and one lock for all blocks would be held by some
// thread most of the time, because ACE frees the chain's memory under it. A lock per block has
// neither problem and costs no allocation of its own.
class LockedDataBlock final : public ACE_Data_Block {
 public:
  // With the buffer behind the object, in one piece of event memory; requires
  // size <= EventMemory::kLargest - sizeof(LockedDataBlock). Null when there is no memory.
  static LockedDataBlock* MakeInOnePiece(std::size_t size);

  // With object and buffer from an allocator each. Null when there is no memory.
  static LockedDataBlock* Make(std::size_t size, ACE_Message_Block::ACE_Message_Type type,
                               ACE_Message_Block::Message_Flags flags,
                               ACE_Allocator& bufferAllocator, ACE_Allocator& ownAllocator);

  // Another reference, or one less; true if that was the last one, and then the caller destroys the
  // block. Any thread.
  void AddReference();
  bool DropReference();

  // Also frees the memory.
  void Destroy();

  // The copy would otherwise use this block's lock, and might outlive it.
  ACE_Data_Block* clone_nocopy(ACE_Message_Block::Message_Flags mask,
                               std::size_t maximum) const override;

 private:
  LockedDataBlock(std::size_t size, ACE_Message_Block::ACE_Message_Type type, char* buffer,
                  ACE_Message_Block::Message_Flags flags, ACE_Allocator& bufferAllocator,
                  ACE_Allocator& ownAllocator);

  // What ACE's own operations drop a reference with, with the lock held.
  ACE_Data_Block* release_i() override;

  void SetCount(int count);

  CountLock m_lock;
};

class EventBlock final : public ACE_Message_Block {
 public:
  // Takes over the data block's reference; null when there is no memory, and then it does not. The
  // allocator, which may be event memory's, gives the memory of the block and its duplicates.
  static EventBlock* Make(ACE_Data_Block& data, ACE_Allocator& allocator);

  // As ACE's: a reference to every block of the chain, with read and write positions of its own.
  // Null when there is no memory.
  ACE_Message_Block* duplicate() const override;

  // As ACE's: every block of the chain. Returns null.
  ACE_Message_Block* release() override;

 private:
  EventBlock(ACE_Data_Block& data, ACE_Allocator& allocator)
      : ACE_Message_Block(&data, 0, &allocator) {}

  EventBlock* DuplicateOne() const;
  void ReleaseOne();
};

// The allocators of message blocks and of data blocks that are in event memory. What they give is
// at most EventMemory::kBlockSize and EventMemory::kLargest.
ACE_Allocator& GetBlockAllocator();
ACE_Allocator& GetDataBlockAllocator();

}  // namespace WindowsAgentCommon
