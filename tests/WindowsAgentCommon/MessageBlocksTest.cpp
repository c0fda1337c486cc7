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

TEST(MessageBlocksTest, ThreadsTakeAndDropReferencesOfOneBlock) {
  const TestSupport::CountingAllocators allocators;
  ACE_Message_Block* const event = Make(10);
  event->cont(Make(20));
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
  EXPECT_EQ(allocators.BlocksAlive(), 2u);
  event->release();
  EXPECT_TRUE(allocators.NothingAlive());
}

// Whichever thread drops the last reference frees the block, exactly once.
TEST(MessageBlocksTest, TheLastReferenceFreesTheBlockOnAnyThread) {
  const TestSupport::CountingAllocators allocators;
  for (int round = 0; round < 300; ++round) {
    ACE_Message_Block* const event = Make(1);
    event->cont(Make(1));
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
  EXPECT_TRUE(allocators.NothingAlive());
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
