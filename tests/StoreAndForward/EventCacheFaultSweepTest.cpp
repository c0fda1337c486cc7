// Every file call and every allocation of every operation of the event cache fails once: what is
// reported, who owns the events, what the disk manager knows, what lies on disk, and that the cache
// goes on working.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>

#include "Platform/Windows.h"
#include "StoreAndForward/ChunkBuffer.h"
#include "tests/StoreAndForward/DirectoryListing.h"
#include "tests/StoreAndForward/FaultSweepFixture.h"

namespace OrloStoreAndForward {
namespace {

constexpr std::uint64_t kPage = 4096;
const std::string kMinute = "2016-03-07-14-05";
// The data of three events of MakeEvents with one-digit names: head "head", payload "e0".
constexpr std::size_t kEvents = 3;
constexpr std::uint64_t kEventBytes = 4 + 4 + 4 + 2;

class EventCacheFaults : public FaultSweepFixture {
 protected:
  ~EventCacheFaults() override { ChunkBuffer::SetReallocate(nullptr); }

  void SweepPush(bool bMinuteExists);
  void SweepPop(bool bLastOfItsMinute);
  void SweepCreation(const std::function<void()>& prepare);

  // What a scan must find when the calls of its listings fail as in m_failure: the payload of each
  // chunk, by its path.
  Strings PredictScan(const std::map<std::string, std::string>& chunks) const;
  // What a creation must give.
  std::uint32_t PredictCreation(bool bIsThere) const;

  void ExpectUntouched(bool result, const Events& events, const Events& before) const {
    EXPECT_FALSE(result);
    EXPECT_EQ(events, before);
    EXPECT_EQ(TestSupport::PayloadsOf(events), (Strings{"e0", "e1", "e2"}));
  }

  // The allocation that fails, counted from 0; the buffer's memory until then.
  static inline int s_reallocations = 0;
  static inline int s_failing = -1;
  static void* Reallocate(void* memory, std::size_t size) {
    return s_reallocations++ == s_failing ? nullptr : std::realloc(memory, size);
  }
};

void EventCacheFaults::SweepPush(bool bMinuteExists) {
  Sweep([&] {
    const auto cache = Open();
    if (bMinuteExists) {
      SetTime(kStart - 1);
      ASSERT_TRUE(PushEvents(*cache, 1, "earlier "));
      SetTime(kStart);
    }
    const Strings treeBefore = Tree();
    const std::uint64_t reservedBefore = Reserved();
    Events events = TestSupport::MakeEvents(kEvents, "e");
    const Events before = events;
    bool result = false;
    Meanwhile([&] { result = cache->Push(events); });

    const bool untouched =
        Failed(FileCall::CreateDirectoryW) ||
        (Failed(FileCall::GetFileAttributesW) &&
         (m_failure->error != ERROR_FILE_NOT_FOUND || bMinuteExists || m_failure->bAndAllAfter));
    const bool lost = Failed(FileCall::CreateFileW);
    if (untouched) {
      ExpectUntouched(result, events, before);
      EXPECT_EQ(Tree(), treeBefore);
    } else {
      EXPECT_EQ(result, !lost);
      EXPECT_TRUE(events.empty());
      EXPECT_TRUE(m_allocators.NothingAlive());
    }
    TestSupport::ReleaseAll(events);
    EXPECT_EQ(Reserved() - reservedBefore, untouched ? 0 : kPage);
    EXPECT_EQ(Released(), 0u);
    if (lost && (bMinuteExists || !m_failure->bAndAllAfter)) {
      EXPECT_EQ(Tree(), treeBefore);
    } else if (lost) {
      // Its removal failed too.
      EXPECT_EQ(Tree(), Strings{kMinute});
    }

    if (bMinuteExists) {
      EXPECT_EQ(Take(*cache), Strings{"earlier 0"});
    }
    if (result) {
      const std::uint64_t size = Failed(FileCall::WriteFile) && m_failure->written >= 0
                                     ? static_cast<std::uint64_t>(m_failure->written)
                                     : kPage;
      EXPECT_EQ(FileBytes(kMinute + "/07").size(), size);
      cache->Pop();
    }
    ExpectToWork(*cache);
    EXPECT_TRUE(Tree().empty());
    EXPECT_EQ(m_disk->Balance(), static_cast<std::int64_t>(lost ? kPage : 0));
  });
}

TEST_F(EventCacheFaults, EveryCallOfAPushThatMakesItsMinuteDirectory) { SweepPush(false); }

TEST_F(EventCacheFaults, EveryCallOfAPushIntoAMinuteDirectoryThatIsThere) { SweepPush(true); }

// What a call that fails and says no error must not do.
class EventCacheWithoutAnError : public CacheFixture {
 protected:
  using FileCall = Platform::TestFaults::FileCall;

  // A push that takes its minute directory for missing and can't make it, without an error.
  bool PushMeanwhile(EventCache& cache, bool bFileFails) {
    Platform::TestFaults::SetHook([bFileFails](FileCall call) -> Platform::TestFaults::Fault {
      switch (call) {
        case FileCall::GetFileAttributesW:
          return {ERROR_FILE_NOT_FOUND};
        case FileCall::CreateDirectoryW:
          return {Platform::TestFaults::kFailsWithoutError};
        case FileCall::CreateFileW:
          return {bFileFails ? ERROR_ACCESS_DENIED : 0u};
        default:
          return {};
      }
    });
    const bool result = PushEvents(cache, 1, "event ");
    Platform::TestFaults::Reset();
    return result;
  }
};

TEST_F(EventCacheWithoutAnError, MinuteDirectoryThatWasNotMadeCountsAsThere) {
  std::filesystem::create_directories(InCache(kMinute));
  const auto cache = Open();
  EXPECT_TRUE(PushMeanwhile(*cache, false));
  EXPECT_EQ(FrontPayloads(*cache), std::vector<std::string>{"event 0"});
}

TEST_F(EventCacheWithoutAnError, MinuteDirectoryThatWasNotMadeIsNotRemovedEither) {
  std::filesystem::create_directories(InCache(kMinute));
  const auto cache = Open();
  EXPECT_FALSE(PushMeanwhile(*cache, true));
  EXPECT_EQ(Tree(), std::vector<std::string>{kMinute});
}

TEST_F(EventCacheFaults, ShortWriteOfEveryLengthIsReadFromTheBufferAndAfterARestartFromTheFile) {
  Sweep([&] {
    auto cache = Open();
    Events events = TestSupport::MakeEvents(kEvents, "e");
    bool result = false;
    Meanwhile([&] { result = cache->Push(events); });
    TestSupport::ReleaseAll(events);
    if (!result) {
      return;
    }
    // The buffer still holds what the push laid into it.
    EXPECT_EQ(FrontPayloads(*cache), (Strings{"e0", "e1", "e2"}));

    cache = Open();
    Strings whole{"e0", "e1", "e2"};
    if (Failed(FileCall::WriteFile) && m_failure->written >= 0) {
      const auto written = static_cast<std::uint64_t>(m_failure->written);
      whole.resize(std::min<std::uint64_t>(kEvents, written < 4 ? 0 : (written - 4) / kEventBytes));
    }
    EXPECT_EQ(Take(*cache), whole);
    ExpectToWork(*cache);
  });
}

TEST_F(EventCacheFaults, EveryCallOfAFront) {
  Sweep([&] {
    auto cache = Open();
    ASSERT_TRUE(PushEvents(*cache, 3, "first "));
    SetTime(kStart + 5);
    ASSERT_TRUE(PushEvents(*cache, 1, "second "));
    cache = Open();
    const Strings tree = Tree();
    const std::uint64_t reserved = Reserved();
    Events events;
    bool result = false;
    Meanwhile([&] { result = cache->Front(events); });

    EXPECT_EQ(result, !Failed(FileCall::CreateFileW) && !Failed(FileCall::ReadFile));
    EXPECT_EQ(TestSupport::PayloadsOf(events),
              result ? (Strings{"first 0", "first 1", "first 2"}) : Strings());
    TestSupport::ReleaseAll(events);
    EXPECT_EQ(Tree(), tree);
    EXPECT_EQ(Reserved(), reserved);
    EXPECT_EQ(Released(), 0u);

    EXPECT_EQ(Take(*cache), (Strings{"first 0", "first 1", "first 2"}));
    EXPECT_EQ(Take(*cache), Strings{"second 0"});
    ExpectToWork(*cache);
    EXPECT_EQ(m_disk->Balance(), 0);
  });
}

void EventCacheFaults::SweepPop(bool bLastOfItsMinute) {
  Sweep([&] {
    auto cache = Open();
    ASSERT_TRUE(PushEvents(*cache, 1, "first "));
    SetTime(kStart + (bLastOfItsMinute ? 60 : 5));
    ASSERT_TRUE(PushEvents(*cache, 1, "second "));
    Meanwhile([&] { cache->Pop(); });

    EXPECT_EQ(m_disk->Released(), (std::vector<TestSupport::TestDiskManager::Call>{{0, kPage}}));
    const Strings tree = Tree();
    const auto has = [&](const std::string& path) {
      return std::find(tree.begin(), tree.end(), path) != tree.end();
    };
    EXPECT_EQ(has(kMinute + "/07"), Failed(FileCall::Unlink));
    // "File not found" of the listing is what the root of a volume answers when it is empty.
    const bool listed = !Failed(FileCall::FindNextFileW) &&
                        (!Failed(FileCall::FindFirstFileW) ||
                         (m_failure->error == ERROR_FILE_NOT_FOUND && !m_failure->bAndAllAfter));
    const bool removed = bLastOfItsMinute && listed && !Failed(FileCall::Unlink) &&
                         !Failed(FileCall::RemoveDirectoryW);
    EXPECT_EQ(has(kMinute), !removed);

    EXPECT_EQ(FrontPayloads(*cache), Strings{"second 0"});
    // What could not be deleted comes back with the next start, before the others.
    cache = Open();
    if (Failed(FileCall::Unlink)) {
      EXPECT_EQ(Take(*cache), Strings{"first 0"});
    }
    EXPECT_EQ(Take(*cache), Strings{"second 0"});
    ExpectToWork(*cache);
    EXPECT_TRUE(Tree().empty());
  });
}

TEST_F(EventCacheFaults, EveryCallOfAPopThatEmptiesItsMinuteDirectory) { SweepPop(true); }

TEST_F(EventCacheFaults, EveryCallOfAPopThatLeavesAChunkInItsMinuteDirectory) { SweepPop(false); }

// A listing that can't be opened gives nothing, and one that breaks off what it gave before.
EventCacheFaults::Strings EventCacheFaults::PredictScan(
    const std::map<std::string, std::string>& chunks) const {
  std::size_t call = 0;
  const auto fails = [&] {
    const std::size_t position = call++;
    return m_failure && (position == m_failure->position ||
                         (m_failure->bAndAllAfter && position > m_failure->position));
  };
  const auto list = [&](const std::filesystem::path& directory) {
    std::set<std::string> names;
    const Strings inOrder = ListInOrder(directory);
    auto name = inOrder.begin();
    if (fails() || name == inOrder.end()) {
      return names;
    }
    do {
      names.insert(*name);
    } while (!fails() && ++name != inOrder.end());
    names.erase(".");
    names.erase("..");
    return names;
  };
  Strings found;
  for (const std::string& minute : list(InCache(""))) {
    for (const std::string& second : list(InCache(minute))) {
      found.push_back(chunks.at(minute + "/" + second));
    }
  }
  return found;
}

TEST_F(EventCacheFaults, EveryCallOfTheScanAtStart) {
  Sweep([&] {
    std::map<std::string, std::string> chunks;
    {
      const auto earlier = Open();
      for (int chunk = 0; chunk < 6; ++chunk) {
        SetTime(kStart + chunk * 30);
        const std::string prefix = std::to_string(chunk) + " ";
        ASSERT_TRUE(PushEvents(*earlier, 1, prefix));
        const int second = 7 + chunk * 30;
        chunks.emplace("2016-03-07-14-0" + std::to_string(5 + second / 60) + "/" +
                           (second % 60 < 10 ? "0" : "") + std::to_string(second % 60),
                       prefix + "0");
      }
    }
    const Strings tree = Tree();
    const std::uint64_t reserved = Reserved();
    const Strings expected = PredictScan(chunks);
    std::unique_ptr<EventCache> cache;
    Meanwhile(
        [&] { cache = std::make_unique<EventCache>(m_directory.WidePath() + L"Events\\Test\\"); });
    EXPECT_EQ(Tree(), tree);
    EXPECT_EQ(Reserved(), reserved);
    EXPECT_EQ(Released(), 0u);

    Strings found;
    while (!cache->Empty()) {
      const Strings payloads = Take(*cache);
      found.insert(found.end(), payloads.begin(), payloads.end());
    }
    EXPECT_EQ(found, expected);
    EXPECT_TRUE(m_failure || found.size() == chunks.size());
    EXPECT_EQ(Released(), found.size() * kPage);
    ExpectToWork(*cache);
  });
}

std::uint32_t EventCacheFaults::PredictCreation(bool bIsThere) const {
  if (!m_failure || Failed(FileCall::FindFirstFileW) || Failed(FileCall::FindNextFileW)) {
    return ERROR_SUCCESS;
  }
  const std::uint32_t error = m_failure->error;
  if (Failed(FileCall::CreateDirectoryW)) {
    // The second call; the one before is for its parent, whose place is then taken by something
    // that is no directory.
    constexpr std::size_t kOfTheCacheDirectory = 3;
    return error == ERROR_ALREADY_EXISTS && m_failure->position < kOfTheCacheDirectory
               ? ERROR_PATH_NOT_FOUND
               : error;
  }
  if (m_failure->bAndAllAfter || (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND)) {
    return error;
  }
  // Taken for missing, a directory is made or found to be there; without its parent it can't be.
  const bool bWithoutParent =
      !bIsThere && m_failure->position == 0 && error == ERROR_FILE_NOT_FOUND;
  return bWithoutParent ? ERROR_PATH_NOT_FOUND : ERROR_SUCCESS;
}

void EventCacheFaults::SweepCreation(const std::function<void()>& prepare) {
  Sweep([&] {
    prepare();
    const bool bIsThere = std::filesystem::exists(InCache(""));
    const std::uint64_t reserved = Reserved();
    const auto before = std::make_shared<EventCache>(L"no such directory\\");
    auto cache = before;
    std::uint32_t result = 0;
    Meanwhile([&] { result = CreateEventCache(L"Test", cache); });

    EXPECT_EQ(result, PredictCreation(bIsThere));
    EXPECT_EQ(cache == before, result != 0);
    EXPECT_TRUE(before->Empty());
    EXPECT_EQ(Reserved(), reserved);
    EXPECT_EQ(Released(), 0u);
    if (result != 0) {
      ASSERT_EQ(CreateEventCache(L"Test", cache), 0u);
    }
    EXPECT_TRUE(std::filesystem::is_directory(InCache("")));
    if (!Failed(FileCall::FindFirstFileW) && !Failed(FileCall::FindNextFileW)) {
      while (!cache->Empty()) {
        EXPECT_EQ(Take(*cache), Strings{"earlier 0"});
      }
      ExpectToWork(*cache);
    }
  });
}

TEST_F(EventCacheFaults, EveryCallOfACreationWhereNothingIsThere) {
  SweepCreation([] {});
}

TEST_F(EventCacheFaults, EveryCallOfACreationWhereChunksAreThere) {
  SweepCreation([this] { ASSERT_TRUE(PushEvents(*Open(), 1, "earlier ")); });
}

TEST_F(EventCacheFaults, EveryAllocationOfTheBufferInPushIsLikeARefusedReservation) {
  ChunkBuffer::SetReallocate(&Reallocate);
  // The buffer is made by the first push and grows in the second.
  for (int failing = 0; failing < 2; ++failing) {
    SCOPED_TRACE(failing);
    const auto cache = Open();
    s_reallocations = 0;
    s_failing = failing;
    if (failing == 1) {
      SetTime(kStart - 60);
      ASSERT_TRUE(PushEvents(*cache, 1, "earlier "));
      SetTime(kStart);
    }
    const Strings tree = Tree();
    const std::int64_t balance = m_disk->Balance();
    Events events = TestSupport::MakeEvents(kEvents, "e");
    events.push_back(TestSupport::MakeEvent("", std::string(2 * kPage, 'x')));
    const Events before = events;
    EXPECT_FALSE(cache->Push(events));
    EXPECT_EQ(events, before);
    EXPECT_EQ(m_disk->Balance(), balance);
    EXPECT_EQ(Tree(), tree);
    // The memory is there again, and the events are as they were.
    EXPECT_TRUE(cache->Push(events));
    EXPECT_TRUE(events.empty());
    if (failing == 1) {
      EXPECT_EQ(Take(*cache), Strings{"earlier 0"});
    }
    EXPECT_EQ(Take(*cache), (Strings{"e0", "e1", "e2", std::string(2 * kPage, 'x')}));
    EXPECT_EQ(m_disk->Balance(), 0);
    EXPECT_TRUE(m_allocators.NothingAlive());
  }
}

TEST_F(EventCacheFaults, EveryAllocationOfTheBufferInFrontFailsTheFrontAndKeepsTheChunk) {
  {
    const auto cache = Open();
    ASSERT_TRUE(PushEvents(*cache, 1, "small "));
    SetTime(kStart + 5);
    Events large{TestSupport::MakeEvent("", std::string(2 * kPage, 'x'))};
    ASSERT_TRUE(cache->Push(large));
  }
  ChunkBuffer::SetReallocate(&Reallocate);
  const std::vector<Strings> payloads{{"small 0"}, {std::string(2 * kPage, 'x')}};
  for (int failing = 0; failing < 2; ++failing) {
    SCOPED_TRACE(failing);
    s_reallocations = 0;
    s_failing = failing;
    const auto cache = Open();
    if (failing == 1) {
      EXPECT_EQ(Take(*cache), payloads[0]);
    }
    Events events;
    EXPECT_FALSE(cache->Front(events));
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(FrontPayloads(*cache), payloads[static_cast<std::size_t>(failing)]);
  }
}

TEST_F(EventCacheFaults, EveryAllocationOfABlockInFrontFailsTheFrontAndLeaksNothing) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 5, "event "));
  for (TestSupport::CountingAllocator* const allocator :
       {&m_allocators.Blocks(), &m_allocators.DataBlocks(), &m_allocators.Buffers()}) {
    long allowed = 0;
    for (bool result = false; !result; ++allowed) {
      SCOPED_TRACE(allowed);
      Events events;
      allocator->FailAfter(allowed);
      result = cache->Front(events);
      allocator->FailAfter(-1);
      EXPECT_EQ(events.size(), result ? 5u : 0u);
      TestSupport::ReleaseAll(events);
      EXPECT_TRUE(m_allocators.NothingAlive());
      ASSERT_LE(allowed, 10);
    }
    // A head and a payload for each event.
    EXPECT_EQ(allowed - 1, 10);
  }
  EXPECT_EQ(Take(*cache).size(), 5u);
  EXPECT_EQ(m_disk->Balance(), 0);
}

}  // namespace
}  // namespace OrloStoreAndForward
