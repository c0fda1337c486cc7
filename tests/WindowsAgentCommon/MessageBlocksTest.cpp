#include "WindowsAgentCommon/MessageBlocks.h"

#include <ace/Lock.h>
#include <ace/Message_Block.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/Windows.h"
#include "tests/support/CountingAllocators.h"

namespace WindowsAgentCommon {
namespace {

ACE_Message_Block* Make(std::size_t size) {
  ACE_Message_Block* block = nullptr;
  EXPECT_EQ(CreateDataMessageBlock(size, block), 0u);
  return block;
}

TEST(MessageBlocksTest, ABlockIsEmptyDataOfExactlyTheCapacity) {
  for (const std::size_t size : {1u, 7u, 16u, 1000u, 65536u, 1048577u}) {
    SCOPED_TRACE(size);
    ACE_Message_Block* const block = Make(size);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->msg_type(), ACE_Message_Block::MB_DATA);
    EXPECT_EQ(block->capacity(), size);
    EXPECT_EQ(block->size(), size);
    EXPECT_EQ(block->space(), size);
    EXPECT_EQ(block->length(), 0u);
    EXPECT_EQ(block->cont(), nullptr);
    EXPECT_EQ(block->reference_count(), 1);
    std::memset(block->base(), 'x', size);
    block->wr_ptr(size);
    EXPECT_EQ(block->length(), size);
    EXPECT_EQ(block->space(), 0u);
    block->release();
  }
}

TEST(MessageBlocksTest, ABlockOfSizeZeroIsABlock) {
  const TestSupport::CountingAllocators allocators;
  ACE_Message_Block* const block = Make(0);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->capacity(), 0u);
  EXPECT_EQ(block->length(), 0u);
  ACE_Message_Block* const duplicate = block->duplicate();
  EXPECT_EQ(block->reference_count(), 2);
  duplicate->release();
  block->release();
  EXPECT_TRUE(allocators.NothingAlive());
}

TEST(MessageBlocksTest, EveryBlockHasALockingStrategyOfItsOwn) {
  ACE_Message_Block* const first = Make(1);
  ACE_Message_Block* const second = Make(1);
  ASSERT_NE(first->locking_strategy(), nullptr);
  ASSERT_NE(second->locking_strategy(), nullptr);
  EXPECT_NE(first->locking_strategy(), second->locking_strategy());
  EXPECT_EQ(first->locking_strategy()->acquire(), 0);
  // From another thread: the same one may enter again on Windows.
  std::thread([&] {
    EXPECT_EQ(first->locking_strategy()->tryacquire(), -1);
    EXPECT_EQ(second->locking_strategy()->tryacquire(), 0);
    EXPECT_EQ(second->locking_strategy()->release(), 0);
  }).join();
  EXPECT_EQ(first->locking_strategy()->release(), 0);
  first->release();
  second->release();
}

TEST(MessageBlocksTest, BlockDataBlockAndBufferComeFromTheirAllocators) {
  TestSupport::CountingAllocators allocators;
  ACE_Message_Block* const block = Make(10);
  EXPECT_EQ(allocators.Blocks().Alive(), 1u);
  EXPECT_EQ(allocators.DataBlocks().Alive(), 1u);
  EXPECT_EQ(allocators.Buffers().Alive(), 1u);

  ACE_Message_Block* const duplicate = block->duplicate();
  EXPECT_EQ(allocators.Blocks().Alive(), 2u);
  EXPECT_EQ(allocators.DataBlocks().Alive(), 1u);
  block->release();
  EXPECT_EQ(allocators.Blocks().Alive(), 1u);
  EXPECT_EQ(allocators.Buffers().Alive(), 1u);
  duplicate->release();
  EXPECT_TRUE(allocators.NothingAlive());
}

TEST(MessageBlocksTest, WithoutMemoryThereIsNoBlockAndNoLeak) {
  TestSupport::CountingAllocators allocators;
  for (TestSupport::CountingAllocator* failing :
       {&allocators.Blocks(), &allocators.DataBlocks(), &allocators.Buffers()}) {
    failing->FailAfter(0);
    ACE_Message_Block marker;
    ACE_Message_Block* block = &marker;
    EXPECT_EQ(CreateDataMessageBlock(10, block), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(block, nullptr);
    EXPECT_TRUE(allocators.NothingAlive());
    failing->FailAfter(-1);
  }
  Make(10)->release();
}

TEST(MessageBlocksTest, AChainIsReleasedWhole) {
  const TestSupport::CountingAllocators allocators;
  ACE_Message_Block* const head = Make(10);
  head->cont(Make(20));
  head->cont()->cont(Make(30));
  ACE_Message_Block* const duplicate = head->duplicate();
  head->release();
  EXPECT_EQ(allocators.BlocksAlive(), 3u);
  EXPECT_EQ(allocators.DataBlocksAlive(), 3u);
  duplicate->release();
  EXPECT_TRUE(allocators.NothingAlive());
}

// Some stage may put a block of its own in front of the payload, or behind it.
TEST(MessageBlocksTest, ChainsWithBlocksOfAnotherMakeAreDuplicatedAndReleasedWhole) {
  const TestSupport::CountingAllocators allocators;
  for (const bool ownFirst : {true, false}) {
    auto* const other = new ACE_Message_Block(10);
    other->copy("other", 5);
    ACE_Message_Block* const own = Make(10);
    own->copy("own", 3);
    ACE_Message_Block* const head = ownFirst ? own : other;
    head->cont(ownFirst ? other : own);
    head->cont()->cont(Make(3));
    ACE_Message_Block* const duplicate = head->duplicate();
    ASSERT_NE(duplicate, nullptr);
    EXPECT_EQ(duplicate->total_length(), 8u);
    EXPECT_EQ(duplicate->cont()->cont()->capacity(), 3u);
    EXPECT_EQ(own->reference_count(), 2);
    EXPECT_EQ(other->reference_count(), 2);
    head->release();
    EXPECT_EQ(allocators.DataBlocksAlive(), 2u);
    EXPECT_EQ(duplicate->reference_count(), 1);
    duplicate->release();
    EXPECT_TRUE(allocators.NothingAlive());
  }
}

TEST(MessageBlocksTest, ADuplicateHasReadAndWritePositionsOfItsOwn) {
  ACE_Message_Block* const block = Make(10);
  block->copy("0123456789", 10);
  block->rd_ptr(3);
  block->msg_priority(7);
  ACE_Message_Block* const duplicate = block->duplicate();
  EXPECT_EQ(std::string(duplicate->rd_ptr(), duplicate->length()), "3456789");
  EXPECT_EQ(duplicate->msg_priority(), 7u);
  duplicate->rd_ptr(2);
  block->wr_ptr(block->base() + 4);
  EXPECT_EQ(block->length(), 1u);
  EXPECT_EQ(duplicate->length(), 5u);
  EXPECT_EQ(duplicate->base(), block->base());
  duplicate->release();
  block->release();
}

TEST(MessageBlocksTest, WithoutMemoryForAPartOfAChainThereIsNoDuplicateAndNoLeak) {
  TestSupport::CountingAllocators allocators;
  ACE_Message_Block* const head = Make(1);
  head->cont(Make(1));
  head->cont()->cont(Make(1));
  for (long made = 0; made < 3; ++made) {
    allocators.Blocks().FailAfter(made);
    EXPECT_EQ(head->duplicate(), nullptr);
    EXPECT_EQ(allocators.BlocksAlive(), 3u);
  }
  EXPECT_EQ(head->reference_count(), 1);
  EXPECT_EQ(head->cont()->reference_count(), 1);
  head->release();
  EXPECT_TRUE(allocators.NothingAlive());
}

TEST(MessageBlocksTest, ABlockMayGrowBeyondItsCapacity) {
  for (const std::size_t size : {100u, 5'000u, 20'000u, 100'000u}) {
    ACE_Message_Block* const block = Make(100);
    block->copy("0123456789", 10);
    ASSERT_EQ(block->size(size), 0);
    EXPECT_EQ(block->capacity(), size);
    EXPECT_EQ(std::string(block->rd_ptr(), block->length()), "0123456789");
    std::memset(block->wr_ptr(), 'x', size - 10);
    ACE_Message_Block* const clone = block->clone();
    block->release();
    EXPECT_EQ(clone->capacity(), size);
    EXPECT_EQ(clone->base()[size - 1], 'x');
    clone->release();
  }
}

TEST(MessageBlocksTest, ABlockWhoseDataBlockWasReplacedReleasesTheNewOne) {
  const TestSupport::CountingAllocators allocators;
  ACE_Message_Block* const block = Make(10);
  auto* const other = new ACE_Message_Block(20);
  block->data_block(other->data_block()->duplicate());
  other->release();
  EXPECT_EQ(allocators.DataBlocksAlive(), 0u);
  EXPECT_EQ(block->capacity(), 20u);
  ACE_Message_Block* const duplicate = block->duplicate();
  EXPECT_EQ(block->reference_count(), 2);
  duplicate->release();
  block->release();
  EXPECT_TRUE(allocators.NothingAlive());
}

TEST(MessageBlocksTest, ACloneOutlivesItsOriginal) {
  const TestSupport::CountingAllocators allocators;
  ACE_Message_Block* const block = Make(10);
  block->copy("0123456789", 10);
  ACE_Message_Block* const clone = block->clone();
  ASSERT_NE(clone, nullptr);
  EXPECT_NE(clone->locking_strategy(), nullptr);
  EXPECT_NE(clone->locking_strategy(), block->locking_strategy());
  block->release();
  EXPECT_EQ(clone->capacity(), 10u);
  EXPECT_EQ(std::string(clone->rd_ptr(), clone->length()), "0123456789");
  ACE_Message_Block* const duplicate = clone->duplicate();
  clone->release();
  duplicate->release();
  EXPECT_TRUE(allocators.NothingAlive());
}

void TakeAndDropReferencesFromThreads(ACE_Message_Block* event) {
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([own = event->duplicate()] {
      for (int round = 0; round < 5000; ++round) {
        own->duplicate()->release();
      }
      own->release();
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(event->reference_count(), 1);
}

ACE_Message_Block* MakeEvent() {
  ACE_Message_Block* const event = Make(10);
  event->cont(Make(20));
  return event;
}

TEST(MessageBlocksTest, ThreadsTakeAndDropReferencesOfOneBlock) {
  const TestSupport::CountingAllocators allocators;
  ACE_Message_Block* const event = MakeEvent();
  TakeAndDropReferencesFromThreads(event);
  EXPECT_EQ(allocators.BlocksAlive(), 2u);
  event->release();
  EXPECT_TRUE(allocators.NothingAlive());
}

// With the allocators that count, every duplicate and release takes their lock, which puts the
// threads in an order that they otherwise don't have.
TEST(MessageBlocksTest, ThreadsTakeAndDropReferencesOfOneBlockInEventMemory) {
  ACE_Message_Block* const event = MakeEvent();
  TakeAndDropReferencesFromThreads(event);
  event->release();
}

void DropTheLastReferencesAtOnce() {
  for (int round = 0; round < 300; ++round) {
    ACE_Message_Block* const event = MakeEvent();
    std::atomic<int> ready{0};
    const auto drop = [&ready](ACE_Message_Block* own) {
      ++ready;
      while (ready < 2) {
        std::this_thread::yield();
      }
      own->release();
    };
    std::thread other(drop, event->duplicate());
    drop(event);
    other.join();
  }
}

// Whichever thread drops the last reference frees the block, exactly once.
TEST(MessageBlocksTest, TheLastReferenceFreesTheBlockOnAnyThread) {
  const TestSupport::CountingAllocators allocators;
  DropTheLastReferencesAtOnce();
  EXPECT_TRUE(allocators.NothingAlive());
}

// For ThreadSanitizer, and for a block that is freed twice, which ends the program.
TEST(MessageBlocksTest, TheLastReferenceFreesABlockInEventMemoryOnAnyThread) {
  DropTheLastReferencesAtOnce();
}

// ACE holds the head's lock while it takes the others': chains that mix the same locks in opposite
// orders on two threads would wait for each other forever.
TEST(MessageBlocksTest, ChainsOfBlocksFromDifferentThreadsAreReleasedWithoutADeadlock) {
  const TestSupport::CountingAllocators allocators;
  constexpr int kRounds = 5000;
  std::mutex lock;
  std::vector<ACE_Message_Block*> fromA;
  std::vector<ACE_Message_Block*> fromB;
  const auto make = [&](std::vector<ACE_Message_Block*>& blocks) {
    for (int i = 0; i < 2 * kRounds; ++i) {
      blocks.push_back(Make(8));
    }
  };
  std::thread makerA([&] { make(fromA); });
  std::thread makerB([&] { make(fromB); });
  makerA.join();
  makerB.join();
  const auto chainAndRelease = [&](std::size_t offset, bool headFromA) {
    for (std::size_t i = 0; i < kRounds; ++i) {
      ACE_Message_Block* const a = fromA[offset + i];
      ACE_Message_Block* const b = fromB[offset + i];
      ACE_Message_Block* const head = headFromA ? a : b;
      head->cont(headFromA ? b : a);
      head->release();
    }
  };
  std::thread first(chainAndRelease, 0, true);
  std::thread second(chainAndRelease, kRounds, false);
  first.join();
  second.join();
  EXPECT_TRUE(allocators.NothingAlive());
}

}  // namespace
}  // namespace WindowsAgentCommon
