// What the event cache takes of the process, however long it runs and however much it holds.

#include <chrono>
#include <iostream>

#include "tests/StoreAndForward/CacheFixture.h"
#include "tests/StoreAndForward/ProcessFigures.h"

#if defined(__SANITIZE_ADDRESS__)
// Freed memory is kept back from use by default, a quarter of a gigabyte of it, which would be
// taken for memory that the cache holds.
extern "C" const char* __asan_default_options() { return "quarantine_size_mb=1"; }
#endif

namespace OrloStoreAndForward {
namespace {

// Sanitizers keep books of all memory, in memory.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

using Platform::TestFaults::Fault;
using Platform::TestFaults::FileCall;

class EventCacheBounds : public CacheFixture {};

TEST_F(EventCacheBounds, TenThousandRoundsLeaveNoDescriptorOpen) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 1, "e"));
  const std::size_t before = CountDescriptors();
  for (int round = 1; round <= 10'000; ++round) {
    SetTime(kStart + round);
    ASSERT_TRUE(PushEvents(*cache, 1, "e"));
    ASSERT_EQ(FrontPayloads(*cache).size(), 1u);
    cache->Pop();
    ASSERT_EQ(CountDescriptors(), before);
  }
}

TEST_F(EventCacheBounds, BacklogOfTwoThousandChunksStaysOnDisk) {
  constexpr std::uint64_t kMebibyte = 1024 * 1024;
  constexpr std::size_t kChunks = 2'000;
  constexpr std::size_t kPayload = 32 * 1024;
  // The buffer of one chunk is there before. A queue entry is its struct and two strings of wide
  // characters, below 1 KiB; the heap may keep a few pages more. The backlog is 62 MiB.
  constexpr std::uint64_t kAllowed = kSanitized ? 16 * kMebibyte : 4 * kMebibyte;

  const auto cache = Open();
  const auto push = [&](std::size_t chunk) {
    SetTime(kStart + static_cast<std::int64_t>(chunk));
    Events events{TestSupport::MakeEvent("", std::string(kPayload, 'x'))};
    return cache->Push(events);
  };
  for (std::size_t chunk = 0; chunk < 20; ++chunk) {
    ASSERT_TRUE(push(chunk));
  }
  const std::uint64_t before = ResidentBytes();
  for (std::size_t chunk = 20; chunk < kChunks; ++chunk) {
    ASSERT_TRUE(push(chunk));
  }
  EXPECT_LE(ResidentBytes(), before + kAllowed);
  for (std::size_t chunk = 0; chunk < kChunks; ++chunk) {
    ASSERT_EQ(FrontPayloads(*cache).size(), 1u);
    cache->Pop();
  }
  EXPECT_TRUE(cache->Empty());
  EXPECT_LE(ResidentBytes(), before + kAllowed);
}

TEST_F(EventCacheBounds, StartWithTenThousandChunksOpensNoneOfThem) {
  constexpr int kChunks = 10'000;
  {
    const auto cache = Open();
    Events none;
    for (int chunk = 0; chunk < kChunks; ++chunk) {
      SetTime(kStart + chunk);
      ASSERT_TRUE(cache->Push(none));
    }
  }
  int opened = 0;
  int listed = 0;
  Platform::TestFaults::SetHook([&](FileCall call) {
    opened += call == FileCall::CreateFileW || call == FileCall::ReadFile ? 1 : 0;
    listed += call == FileCall::FindFirstFileW ? 1 : 0;
    return Fault{};
  });
  const auto start = std::chrono::steady_clock::now();
  const auto cache = Open();
  const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start;
  Platform::TestFaults::Reset();
  std::cout << "start-up per 1,000 chunks: " << taken.count() / kChunks * 1000 << " ms\n";

  EXPECT_EQ(opened, 0);
  // The cache directory, and each minute once: 10,000 seconds from the seventh of a minute on.
  EXPECT_EQ(listed, 1 + 167);
  int queued = 0;
  for (; !cache->Empty(); ++queued) {
    cache->Pop();
  }
  EXPECT_EQ(queued, kChunks);
  EXPECT_TRUE(Tree().empty());
}

}  // namespace
}  // namespace OrloStoreAndForward
