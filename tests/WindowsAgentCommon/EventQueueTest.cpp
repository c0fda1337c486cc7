#include "WindowsAgentCommon/EventQueue.h"

#include <ace/OS_NS_sys_time.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <thread>
#include <vector>

#include "WindowsAgentCommon/MessageBlockPtr.h"
#include "WindowsAgentCommon/MessageBlocks.h"
#include "tests/support/CountingAllocators.h"

namespace WindowsAgentCommon {
namespace {

// Longer than any test waits when all is well.
constexpr time_t kLimitSeconds = 60;

ACE_Message_Block* Make(std::size_t number) {
  ACE_Message_Block* block = nullptr;
  EXPECT_EQ(CreateDataMessageBlock(sizeof number, block), 0u);
  block->copy(reinterpret_cast<const char*>(&number), sizeof number);
  return block;
}

// The number of the next block; -1 if none came in time.
std::int64_t Take(EventQueue& queue, time_t seconds = kLimitSeconds) {
  ACE_Time_Value deadline = ACE_OS::gettimeofday() + ACE_Time_Value(seconds);
  ACE_Message_Block* taken = nullptr;
  if (queue.dequeue_head(taken, &deadline) == -1) {
    return -1;
  }
  const MessageBlockPtr block(taken);
  std::size_t number = 0;
  std::memcpy(&number, block->rd_ptr(), sizeof number);
  return static_cast<std::int64_t>(number);
}

void Post(EventQueue& queue, std::size_t first, std::size_t count) {
  for (std::size_t number = first; number < first + count; ++number) {
    ASSERT_NE(queue.enqueue_tail(Make(number)), -1);
  }
}

// Says who has come to wait. Whoever is counted has the queue's lock until it sleeps, so that the
// next operation of another thread finds it waiting.
class WatchedQueue : public EventQueue {
 public:
  void AwaitTakers(int count) const { Await(m_takers, count); }
  void AwaitPosters(int count) const { Await(m_posters, count); }

  // Keeps the lock for so long before that: who waits with a limit comes back too late to be woken.
  void DeactivateAfter(std::chrono::milliseconds time) {
    const ACE_Guard<ACE_Thread_Mutex> guard(lock_);
    std::this_thread::sleep_for(time);
    deactivate_i(0);
  }

 private:
  static void Await(const std::atomic<int>& waiting, int count) {
    while (waiting < count) {
      std::this_thread::yield();
    }
  }

  int wait_not_empty_cond(ACE_Time_Value* timeout) override {
    ++m_takers;
    return EventQueue::wait_not_empty_cond(timeout);
  }
  int wait_not_full_cond(ACE_Time_Value* timeout) override {
    if (is_full_i()) {
      ++m_posters;
    }
    return EventQueue::wait_not_full_cond(timeout);
  }

  std::atomic<int> m_takers{0};
  std::atomic<int> m_posters{0};
};

// Has taken so many in a row that it lets blocks gather when it next waits.
void TakeManyInARow(EventQueue& queue) {
  constexpr std::size_t kMany = 100;
  Post(queue, 0, kMany);
  for (std::size_t number = 0; number < kMany; ++number) {
    ASSERT_EQ(Take(queue), static_cast<std::int64_t>(number));
  }
}

TEST(EventQueueTest, AllBlocksComeInOrderFromAFastPoster) {
  EventQueue queue;
  constexpr std::size_t kCount = 200'000;
  std::thread poster([&queue] { Post(queue, 0, kCount); });
  std::size_t taken = 0;
  while (taken < kCount && Take(queue) == static_cast<std::int64_t>(taken)) {
    ++taken;
  }
  poster.join();
  EXPECT_EQ(taken, kCount);
}

TEST(EventQueueTest, AFewBlocksAfterABurstAreNotKeptWaiting) {
  EventQueue queue;
  TakeManyInARow(queue);
  std::thread poster([&queue] { Post(queue, 1000, 1); });
  EXPECT_EQ(Take(queue), 1000);
  poster.join();
}

TEST(EventQueueTest, AnEmptyQueueTimesOutAlsoAfterABurst) {
  EventQueue queue;
  TakeManyInARow(queue);
  ACE_Time_Value deadline = ACE_OS::gettimeofday() + ACE_Time_Value(0, 20'000);
  ACE_Message_Block* taken = nullptr;
  EXPECT_EQ(queue.dequeue_head(taken, &deadline), -1);
  EXPECT_EQ(errno, EWOULDBLOCK);
  // Windows waits for whole milliseconds and may be one early.
  EXPECT_GT(ACE_OS::gettimeofday(), deadline - ACE_Time_Value(0, 2'000));
}

TEST(EventQueueTest, ADeadlineThatHasPassedTakesWhatIsThere) {
  EventQueue queue;
  Post(queue, 5, 1);
  EXPECT_EQ(Take(queue, -1), 5);
  EXPECT_EQ(Take(queue, -1), -1);
}

TEST(EventQueueTest, ABlockAtTheHeadOvertakesThoseThatWait) {
  EventQueue queue;
  TakeManyInARow(queue);
  Post(queue, 1, 2);
  ASSERT_NE(queue.enqueue_head(Make(7)), -1);
  EXPECT_EQ(Take(queue), 7);
  EXPECT_EQ(Take(queue), 1);
  EXPECT_EQ(Take(queue), 2);
}

TEST(EventQueueTest, APosterAboveALowHighWaterMarkIsLetOnAlsoWhileBlocksGather) {
  EventQueue queue;
  queue.high_water_mark(3 * sizeof(std::size_t));
  queue.low_water_mark(2 * sizeof(std::size_t));
  constexpr std::size_t kCount = 5'000;
  std::thread poster([&queue] { Post(queue, 0, kCount); });
  std::size_t taken = 0;
  while (taken < kCount && Take(queue) == static_cast<std::int64_t>(taken)) {
    ++taken;
  }
  poster.join();
  EXPECT_EQ(taken, kCount);
}

TEST(EventQueueTest, DeactivationWakesAWaitingThreadAlsoAfterABurst) {
  EventQueue queue;
  TakeManyInARow(queue);
  std::thread other([&queue] { queue.deactivate(); });
  EXPECT_EQ(Take(queue), -1);
  EXPECT_EQ(errno, ESHUTDOWN);
  other.join();
}

TEST(EventQueueTest, DeactivationIsSeenAlsoWhenTheTimeForGatheringEndsJustThen) {
  WatchedQueue queue;
  TakeManyInARow(queue);
  std::thread other([&queue] {
    queue.AwaitTakers(2);
    queue.DeactivateAfter(std::chrono::milliseconds(20));
  });
  EXPECT_EQ(Take(queue), -1);
  EXPECT_EQ(errno, ESHUTDOWN);
  other.join();
}

// After the first block was taken, those behind it are in a batch.
void PostAndTakeTheFirst(EventQueue& queue, std::size_t count) {
  Post(queue, 0, count);
  ASSERT_EQ(Take(queue), 0);
}

TEST(EventQueueTest, WhatWasTakenIsInNoCount) {
  EventQueue queue;
  PostAndTakeTheFirst(queue, 5);
  EXPECT_EQ(queue.message_count(), 4u);
  EXPECT_EQ(queue.message_bytes(), 4 * sizeof(std::size_t));
  EXPECT_EQ(queue.message_length(), 4 * sizeof(std::size_t));
  EXPECT_FALSE(queue.is_empty());
  ASSERT_EQ(Take(queue), 1);
  Post(queue, 5, 1);
  EXPECT_EQ(queue.message_count(), 4u);
  for (const int number : {2, 3, 4, 5}) {
    EXPECT_EQ(Take(queue), number);
  }
  EXPECT_EQ(queue.message_count(), 0u);
  EXPECT_EQ(queue.message_bytes(), 0u);
  EXPECT_TRUE(queue.is_empty());
}

TEST(EventQueueTest, EveryOtherOperationSeesTheBlocksOfABatchInTheirPlace) {
  EventQueue queue;
  PostAndTakeTheFirst(queue, 4);
  Post(queue, 4, 2);
  ACE_Message_Block* block = nullptr;
  ASSERT_NE(queue.peek_dequeue_head(block), -1);
  EXPECT_EQ(*block->rd_ptr(), 1);
  ASSERT_EQ(Take(queue), 1);
  ASSERT_NE(queue.dequeue_tail(block), -1);
  EXPECT_EQ(*block->rd_ptr(), 5);
  block->release();
  ASSERT_EQ(Take(queue), 2);
  ASSERT_NE(queue.enqueue_head(Make(9)), -1);
  ACE_Message_Block* const urgent = Make(8);
  urgent->msg_priority(1'000'000);
  ASSERT_NE(queue.enqueue_prio(urgent), -1);
  EXPECT_EQ(queue.message_count(), 4u);
  for (const int number : {8, 9, 3, 4}) {
    EXPECT_EQ(Take(queue), number);
  }
}

TEST(EventQueueTest, DeactivationKeepsABatchBackUntilTheQueueIsActiveAgain) {
  EventQueue queue;
  PostAndTakeTheFirst(queue, 3);
  queue.deactivate();
  EXPECT_EQ(Take(queue), -1);
  EXPECT_EQ(errno, ESHUTDOWN);
  EXPECT_EQ(queue.message_count(), 2u);
  queue.activate();
  EXPECT_EQ(Take(queue), 1);
  EXPECT_EQ(Take(queue), 2);
}

TEST(EventQueueTest, APosterGoesOnWhenABatchHasBeenTakenDownToTheLowWaterMark) {
  WatchedQueue queue;
  queue.high_water_mark(10 * sizeof(std::size_t));
  queue.low_water_mark(5 * sizeof(std::size_t));
  Post(queue, 0, 10);
  std::atomic<bool> posted{false};
  std::thread poster([&] {
    Post(queue, 10, 1);
    posted = true;
  });
  queue.AwaitPosters(1);
  for (int number = 0; number < 4; ++number) {
    EXPECT_EQ(Take(queue), number);
  }
  EXPECT_EQ(queue.message_count(), 6u);
  EXPECT_FALSE(posted);
  // The one that matters comes from a batch, with others still behind it.
  EXPECT_EQ(Take(queue), 4);
  poster.join();
  EXPECT_EQ(queue.message_count(), 6u);
}

TEST(EventQueueTest, TakingFromABatchDoesNotWaitForTheQueuesLock) {
  EventQueue queue;
  PostAndTakeTheFirst(queue, 3);
  std::future<std::int64_t> taken;
  {
    const ACE_Guard<ACE_Thread_Mutex> guard(queue.lock());
    taken = std::async(std::launch::async, [&queue] { return Take(queue); });
    EXPECT_EQ(taken.wait_for(std::chrono::seconds(kLimitSeconds)), std::future_status::ready);
  }
  EXPECT_EQ(taken.get(), 1);
}

// A thread that lets blocks gather is the only one that hears of them; others wait for one each.
TEST(EventQueueTest, ATakerIsNotForgottenWhileAnotherLetsBlocksGather) {
  for (int round = 0; round < 100; ++round) {
    WatchedQueue queue;
    Post(queue, 0, 100);
    for (int number = 0; number < 100; ++number) {
      ASSERT_EQ(Take(queue), number);
    }
    const auto take = [&queue] {
      ACE_Message_Block* block = nullptr;
      return queue.dequeue_head(block) == -1 ? nullptr : MessageBlockPtr(block);
    };
    // The first wait of all was before the first block.
    auto first = std::async(std::launch::async, take);
    auto second = std::async(std::launch::async, take);
    queue.AwaitTakers(3);
    Post(queue, 1, 2);
    for (auto* const taker : {&first, &second}) {
      EXPECT_EQ(taker->wait_for(std::chrono::seconds(kLimitSeconds)), std::future_status::ready)
          << "in round " << round;
    }
    queue.deactivate();
    ASSERT_TRUE(first.get() && second.get());
  }
}

TEST(EventQueueTest, PostersTakersAndWatchersDoNotDisturbEachOther) {
  EventQueue queue;
  queue.high_water_mark(20 * sizeof(std::size_t));
  queue.low_water_mark(10 * sizeof(std::size_t));
  constexpr std::size_t kEach = 2'000;
  constexpr std::size_t kPosters = 3;
  std::vector<std::thread> others;
  for (std::size_t poster = 0; poster < kPosters; ++poster) {
    others.emplace_back([&queue, poster] { Post(queue, poster * kEach, kEach); });
  }
  std::atomic<bool> done{false};
  others.emplace_back([&] {
    while (!done) {
      // Each poster may add one more when it was let on.
      EXPECT_LE(queue.message_count(), 20 + kPosters);
      EXPECT_LE(queue.message_length(), (20 + kPosters) * sizeof(std::size_t));
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  });
  std::vector<std::size_t> next(kPosters, 0);
  for (std::size_t taken = 0; taken < kPosters * kEach; ++taken) {
    const std::int64_t number = Take(queue);
    ASSERT_GE(number, 0);
    const std::size_t poster = static_cast<std::size_t>(number) / kEach;
    EXPECT_EQ(static_cast<std::size_t>(number) % kEach, next.at(poster)++);
  }
  done = true;
  for (std::thread& other : others) {
    other.join();
  }
  EXPECT_TRUE(queue.is_empty());
}

TEST(EventQueueTest, ABatchIsReleasedWithTheQueueAndWhenItIsFlushed) {
  const TestSupport::CountingAllocators allocators;
  {
    EventQueue queue;
    PostAndTakeTheFirst(queue, 5);
    EXPECT_EQ(queue.flush(), 4);
    EXPECT_EQ(allocators.BlocksAlive(), 0u);
    PostAndTakeTheFirst(queue, 5);
    EXPECT_EQ(allocators.BlocksAlive(), 4u);
  }
  EXPECT_TRUE(allocators.NothingAlive());
}

TEST(EventQueueTest, SeveralTakersGetEveryBlockOnce) {
  EventQueue queue;
  constexpr std::size_t kCount = 40'000;
  std::vector<std::vector<std::int64_t>> taken(3);
  std::vector<std::thread> takers;
  for (auto& own : taken) {
    takers.emplace_back([&queue, &own] {
      for (std::int64_t number = Take(queue); number >= 0; number = Take(queue)) {
        own.push_back(number);
      }
      EXPECT_EQ(errno, ESHUTDOWN) << "not by the end of its wait";
    });
  }
  Post(queue, 0, kCount);
  while (!queue.is_empty()) {
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  queue.deactivate();
  std::vector<bool> seen(kCount, false);
  std::size_t count = 0;
  for (std::thread& taker : takers) {
    taker.join();
  }
  for (const auto& own : taken) {
    EXPECT_TRUE(std::is_sorted(own.begin(), own.end()));
    for (const std::int64_t number : own) {
      EXPECT_FALSE(seen.at(static_cast<std::size_t>(number)));
      seen[static_cast<std::size_t>(number)] = true;
      ++count;
    }
  }
  EXPECT_EQ(count, kCount);
}

}  // namespace
}  // namespace WindowsAgentCommon
