#include "WindowsAgentCommon/EventMemory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace WindowsAgentCommon {
namespace {

struct Piece {
  unsigned char* memory;
  std::size_t size;
  unsigned char mark;
};

Piece Make(std::size_t size, unsigned char mark) {
  auto* const memory = static_cast<unsigned char*>(EventMemory::Allocate(size));
  EXPECT_NE(memory, nullptr);
  std::memset(memory, mark, size);
  return {memory, size, mark};
}

bool IsUntouched(const Piece& piece) {
  for (std::size_t at = 0; at < piece.size; ++at) {
    if (piece.memory[at] != piece.mark) {
      return false;
    }
  }
  return true;
}

TEST(EventMemoryTest, PiecesOfEverySizeAreAlignedAndApart) {
  std::vector<Piece> pieces;
  for (std::size_t size = 0; size <= EventMemory::kLargest; size += size < 300 ? 1 : 97) {
    pieces.push_back(Make(size, static_cast<unsigned char>(size * 7 + 1)));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pieces.back().memory) % alignof(std::max_align_t),
              0u);
  }
  pieces.push_back(Make(EventMemory::kLargest, 3));
  for (const Piece& piece : pieces) {
    EXPECT_TRUE(IsUntouched(piece)) << piece.size;
    EventMemory::Free(piece.memory);
  }
}

Piece MakeBlock(unsigned char mark) {
  auto* const memory = static_cast<unsigned char*>(EventMemory::AllocateBlock());
  EXPECT_NE(memory, nullptr);
  std::memset(memory, mark, EventMemory::kBlockSize);
  return {memory, EventMemory::kBlockSize, mark};
}

TEST(EventMemoryTest, BlocksAndOtherPiecesAreApartHoweverTheyComeAndGo) {
  std::mt19937 random(1);
  std::vector<Piece> blocks;
  std::vector<Piece> pieces;
  for (int round = 0; round < 100'000; ++round) {
    const auto mark = static_cast<unsigned char>(random());
    std::vector<Piece>& kind = random() % 2 == 0 ? blocks : pieces;
    if (kind.size() < random() % 100) {
      kind.push_back(&kind == &blocks ? MakeBlock(mark) : Make(random() % 300, mark));
    } else if (!kind.empty()) {
      std::swap(kind[random() % kind.size()], kind.back());
      ASSERT_TRUE(IsUntouched(kind.back()));
      (&kind == &blocks ? EventMemory::FreeBlock : EventMemory::Free)(kind.back().memory);
      kind.pop_back();
    }
  }
  for (const Piece& piece : blocks) {
    ASSERT_TRUE(IsUntouched(piece));
    EventMemory::FreeBlock(piece.memory);
  }
  for (const Piece& piece : pieces) {
    ASSERT_TRUE(IsUntouched(piece));
    EventMemory::Free(piece.memory);
  }
}

TEST(EventMemoryTest, BlocksMadeOnOneThreadAreFreedOnAnother) {
  for (int round = 0; round < 20; ++round) {
    std::vector<Piece> blocks;
    for (unsigned number = 0; number < 5'000; ++number) {
      blocks.push_back(MakeBlock(static_cast<unsigned char>(number)));
      EventMemory::FreeBlock(EventMemory::AllocateBlock());
    }
    std::thread([&blocks] {
      for (const Piece& piece : blocks) {
        EXPECT_TRUE(IsUntouched(piece));
        EventMemory::FreeBlock(piece.memory);
      }
    }).join();
  }
}

TEST(EventMemoryTest, NothingMayBeFreed) {
  // On a thread that has no memory of its own yet, and on one that has.
  std::thread([] {
    EventMemory::Free(nullptr);
    EventMemory::FreeBlock(nullptr);
    EventMemory::FreeBlock(EventMemory::AllocateBlock());
    EventMemory::FreeBlock(nullptr);
  }).join();
}

TEST(EventMemoryTest, APieceKeepsItsContentsWhileOthersComeAndGo) {
  const Piece kept = Make(100, 77);
  for (int round = 0; round < 50; ++round) {
    std::vector<Piece> pieces;
    for (unsigned number = 0; number < 2000; ++number) {
      pieces.push_back(Make(number % 500, static_cast<unsigned char>(number)));
    }
    for (const Piece& piece : pieces) {
      ASSERT_TRUE(IsUntouched(piece));
      EventMemory::Free(piece.memory);
    }
  }
  EXPECT_TRUE(IsUntouched(kept));
  EventMemory::Free(kept.memory);
}

// Threads that make pieces give them to each other through one pool, from which each frees what it
// finds, in any order; threads end while others go on.
TEST(EventMemoryTest, PiecesMadeOnOneThreadAreFreedOnOthers) {
  std::mutex lock;
  std::vector<Piece> pool;
  std::atomic<int> damaged{0};
  const auto work = [&](unsigned seed) {
    std::mt19937 random(seed);
    for (int round = 0; round < 20'000; ++round) {
      const Piece made = Make(random() % 700, static_cast<unsigned char>(random()));
      Piece taken = made;
      {
        const std::lock_guard guard(lock);
        pool.push_back(made);
        if (pool.size() < 3'000) {
          continue;
        }
        std::swap(pool[random() % pool.size()], pool.back());
        taken = pool.back();
        pool.pop_back();
      }
      damaged += IsUntouched(taken) ? 0 : 1;
      EventMemory::Free(taken.memory);
    }
  };
  for (unsigned generation = 0; generation < 3; ++generation) {
    std::vector<std::thread> threads;
    for (unsigned number = 0; number < 4; ++number) {
      threads.emplace_back(work, generation * 4 + number);
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }
  for (const Piece& piece : pool) {
    damaged += IsUntouched(piece) ? 0 : 1;
    EventMemory::Free(piece.memory);
  }
  EXPECT_EQ(damaged, 0);
}

// After the thread's own memory has been put away, pieces can still be freed and made.
TEST(EventMemoryTest, ADestructorAtTheEndOfAThreadMayUseIt) {
  struct Late {
    ~Late() {
      EventMemory::Free(held);
      EventMemory::Free(EventMemory::Allocate(10));
    }
    void* held = nullptr;
  };
  std::thread([] {
    // Made before the thread's memory is first used, so it goes after it.
    static thread_local Late late;
    late.held = nullptr;
    late.held = EventMemory::Allocate(10);
  }).join();
}

#ifdef ORLO_EVENT_MEMORY_IN_SLABS

// Later with every call, by more than the time after which unused memory goes back.
void GiveBackTwice() {
  static auto now = std::chrono::steady_clock::now();
  for (int time = 0; time < 2; ++time) {
    now += std::chrono::minutes(1);
    EventMemory::GiveBackUnused(now);
  }
}

constexpr std::size_t kPieceSize = 500;
constexpr std::size_t kBurst = 100'000;
constexpr std::size_t kMegabyte = 1024 * 1024;

TEST(EventMemoryTest, ABurstIsHandedBackWhenItHasNotBeenUsedForAWhile) {
  GiveBackTwice();
  const std::size_t before = EventMemory::GetHeldBytes();
  std::vector<void*> pieces;
  for (std::size_t number = 0; number < kBurst; ++number) {
    pieces.push_back(EventMemory::Allocate(kPieceSize));
  }
  const std::size_t during = EventMemory::GetHeldBytes();
  EXPECT_GE(during, before + kBurst * kPieceSize - 2 * kMegabyte);
  // What is held beside the pieces themselves is little.
  EXPECT_LE(during, before + kBurst * (kPieceSize + 16) + 2 * kMegabyte);
  std::thread([&pieces] {
    for (void* piece : pieces) {
      EventMemory::Free(piece);
    }
  }).join();
  GiveBackTwice();
  EXPECT_LE(EventMemory::GetHeldBytes(), std::max(before, 3 * kMegabyte));
}

TEST(EventMemoryTest, ABlockThatEndsOnItsOwnThreadLeavesItsMemoryToTheNext) {
  void* const lasting = EventMemory::AllocateBlock();
  void* const brief = EventMemory::AllocateBlock();
  EventMemory::FreeBlock(brief);
  void* const next = EventMemory::AllocateBlock();
  EXPECT_EQ(next, brief);
  EventMemory::FreeBlock(next);
  EventMemory::FreeBlock(lasting);
}

TEST(EventMemoryTest, WhatWasFreedIsUsedAgainFirst) {
  std::size_t held = 0;
  for (int round = 0; round < 10; ++round) {
    std::vector<void*> pieces;
    for (std::size_t number = 0; number < kBurst / 10; ++number) {
      pieces.push_back(EventMemory::Allocate(kPieceSize));
    }
    for (void* piece : pieces) {
      EventMemory::Free(piece);
    }
    if (round == 1) {
      held = EventMemory::GetHeldBytes();
    }
  }
  EXPECT_LE(EventMemory::GetHeldBytes(), held);
}

#endif

}  // namespace
}  // namespace WindowsAgentCommon
