// The operations of the event cache and what they leave behind when they fail.

#include "StoreAndForward/EventCache.h"

#include <cstdlib>

#include "Platform/Windows.h"
#include "StoreAndForward/ChunkBuffer.h"
#include "tests/StoreAndForward/CacheFixture.h"
#include "tests/support/LogCapture.h"

namespace OrloStoreAndForward {
namespace {

using Platform::TestFaults::Fault;
using Platform::TestFaults::FileCall;
using Strings = std::vector<std::string>;
using Call = TestSupport::TestDiskManager::Call;

class EventCacheOperations : public CacheFixture {
 protected:
  ~EventCacheOperations() override { ChunkBuffer::SetReallocate(nullptr); }

  static void Fail(FileCall failing, std::uint32_t error) {
    Platform::TestFaults::SetHook([failing, error](FileCall call) {
      Fault fault;
      if (call == failing) {
        fault.error = error;
      }
      return fault;
    });
  }

  static constexpr const char* kChunk = "2016-03-07-14-05/07";
};

TEST_F(EventCacheOperations, AThousandEventsComeBackInOrderAndPopRemovesEveryTrace) {
  const auto cache = Open();
  EXPECT_TRUE(cache->Empty());
  ASSERT_TRUE(PushEvents(*cache, 1000, "event "));
  EXPECT_TRUE(m_allocators.NothingAlive());
  EXPECT_FALSE(cache->Empty());
  const Strings payloads = FrontPayloads(*cache);
  ASSERT_EQ(payloads.size(), 1000u);
  for (std::size_t i = 0; i < payloads.size(); ++i) {
    EXPECT_EQ(payloads[i], "event " + std::to_string(i));
  }
  EXPECT_FALSE(cache->Empty());
  cache->Pop();
  EXPECT_TRUE(cache->Empty());
  EXPECT_TRUE(Tree().empty());
  EXPECT_TRUE(m_allocators.NothingAlive());
}

TEST_F(EventCacheOperations, AfterARestartTwoChunksAreThereOlderFirst) {
  {
    const auto cache = Open();
    ASSERT_TRUE(PushEvents(*cache, 1, "older "));
    SetTime(kStart + 5);
    ASSERT_TRUE(PushEvents(*cache, 1, "newer "));
  }
  const auto cache = Open();
  EXPECT_FALSE(cache->Empty());
  EXPECT_EQ(FrontPayloads(*cache), Strings{"older 0"});
}

TEST_F(EventCacheOperations, PushOfNoEventsQueuesOnePageThatComesBackEmpty) {
  const auto cache = Open();
  Events events;
  ASSERT_TRUE(cache->Push(events));
  EXPECT_FALSE(cache->Empty());
  EXPECT_EQ(FileBytes(kChunk), std::string(4096, '\0'));
  ASSERT_TRUE(cache->Front(events));
  EXPECT_TRUE(events.empty());
}

TEST_F(EventCacheOperations, FileSizeIsTheDataSizeRoundedUpToPages) {
  const auto cache = Open();
  const std::size_t overhead = 4 + 8;
  std::int64_t time = kStart;
  for (const auto& [payload, fileSize] : {std::pair<std::size_t, std::size_t>{90, 4096},
                                          {4096 - overhead, 4096},
                                          {4097 - overhead, 8192},
                                          {8192 - overhead, 8192}}) {
    SetTime(++time);
    Events events{TestSupport::MakeEvent("", std::string(payload, 'x'))};
    ASSERT_TRUE(cache->Push(events));
    EXPECT_EQ(m_disk->Reserved().back(), (Call{0, fileSize}));
  }
  EXPECT_EQ(FileBytes("2016-03-07-14-05/09").size(), 4096u);
  EXPECT_EQ(FileBytes("2016-03-07-14-05/10").size(), 8192u);
}

TEST_F(EventCacheOperations, PaddingDoesNotCarryBytesOfEarlierChunks) {
  const auto cache = Open();
  Events secret{TestSupport::MakeEvent("", std::string(4000, 's'))};
  ASSERT_TRUE(cache->Push(secret));
  SetTime(kStart + 5);
  ASSERT_TRUE(PushEvents(*cache, 1, "e"));
  EXPECT_EQ(FileBytes("2016-03-07-14-05/12").find('s'), std::string::npos);
}

TEST_F(EventCacheOperations, RefusedReservationLeavesTheCallersVectorAndBlocksAsTheyWere) {
  const auto cache = Open();
  m_disk->SetAnswer([](std::uint64_t) { return false; });
  Events events = TestSupport::MakeEvents(3);
  events[1]->rd_ptr(2);
  const Events before = events;
  EXPECT_FALSE(cache->Push(events));
  EXPECT_EQ(events, before);
  EXPECT_EQ(TestSupport::HeadOf(events[1]), "ad");
  EXPECT_EQ(TestSupport::PayloadsOf(events), (Strings{"event 0", "event 1", "event 2"}));
  EXPECT_EQ(m_disk->Refused(), (std::vector<Call>{{0, 4096}}));
  EXPECT_TRUE(cache->Empty());
  EXPECT_TRUE(Tree().empty()) << "the minute directory that this push made is removed again";
  TestSupport::ReleaseAll(events);
  EXPECT_TRUE(m_allocators.NothingAlive());
}

TEST_F(EventCacheOperations, RefusedReservationLeavesAMinuteDirectoryThatWasThereBefore) {
  const auto cache = Open();
  std::filesystem::create_directory(InCache("2016-03-07-14-05"));
  m_disk->SetAnswer([](std::uint64_t) { return false; });
  EXPECT_FALSE(PushEvents(*cache, 1, "e"));
  EXPECT_EQ(Tree(), Strings{"2016-03-07-14-05"});
}

TEST_F(EventCacheOperations, ChunkFileThatCannotBeCreatedLosesTheEventsAndKeepsTheReservation) {
  const auto cache = Open();
  Fail(FileCall::CreateFileW, ERROR_ACCESS_DENIED);
  Events events = TestSupport::MakeEvents(3);
  EXPECT_FALSE(cache->Push(events));
  EXPECT_TRUE(events.empty()) << "no pointer to a released block may stay behind";
  EXPECT_TRUE(m_allocators.NothingAlive());
  EXPECT_EQ(m_disk->Balance(), 4096);
  EXPECT_TRUE(m_disk->Released().empty());
  EXPECT_TRUE(cache->Empty());
  EXPECT_TRUE(Tree().empty()) << "the minute directory that this push made is removed again";
}

TEST_F(EventCacheOperations, DirectoryWithTheNameOfTheChunkFileIsALateFailureToo) {
  const auto cache = Open();
  std::filesystem::create_directories(InCache(kChunk));
  Events events = TestSupport::MakeEvents(1);
  EXPECT_FALSE(cache->Push(events));
  EXPECT_TRUE(events.empty());
  EXPECT_TRUE(m_allocators.NothingAlive());
  EXPECT_TRUE(std::filesystem::is_directory(InCache(kChunk)));
}

TEST_F(EventCacheOperations, FailedWriteStillCountsAsPushed) {
  const auto cache = Open();
  Fail(FileCall::WriteFile, ERROR_DISK_FULL);
  ASSERT_TRUE(PushEvents(*cache, 3, "event "));
  Platform::TestFaults::Reset();
  EXPECT_FALSE(cache->Empty());
  EXPECT_EQ(m_disk->Balance(), 4096);
  cache->Pop();
  EXPECT_EQ(m_disk->Released(), (std::vector<Call>{{0, 4096}})) << "the entry has the padded size";
  EXPECT_TRUE(m_allocators.NothingAlive());
}

TEST_F(EventCacheOperations, ShortWriteStillCountsAsPushedAndLeavesAShortFile) {
  const auto cache = Open();
  Platform::TestFaults::SetHook([](FileCall call) {
    Fault fault;
    if (call == FileCall::WriteFile) {
      fault.bytesBefore = 30;
    }
    return fault;
  });
  ASSERT_TRUE(PushEvents(*cache, 3, "event "));
  EXPECT_EQ(FileBytes(kChunk).size(), 30u);
  EXPECT_FALSE(cache->Empty());
}

TEST_F(EventCacheOperations, ChunkFileThatWasDeletedFailsEveryFrontUntilPopReleasesItsSize) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 3, "event "));
  std::filesystem::remove(InCache(kChunk));
  Events events;
  EXPECT_FALSE(cache->Front(events));
  EXPECT_FALSE(cache->Front(events));
  EXPECT_FALSE(cache->Empty());
  cache->Pop();
  EXPECT_TRUE(cache->Empty());
  EXPECT_EQ(m_disk->Released(), (std::vector<Call>{{0, 4096}}));
}

TEST_F(EventCacheOperations, FileThatCannotBeOpenedStaysAtTheFront) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 1, "event "));
  Fail(FileCall::CreateFileW, ERROR_SHARING_VIOLATION);
  Events events;
  EXPECT_FALSE(cache->Front(events));
  Platform::TestFaults::Reset();
  EXPECT_EQ(FrontPayloads(*cache), Strings{"event 0"});
}

TEST_F(EventCacheOperations, FailedReadGivesFalseAndLeavesTheChunk) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 1, "event "));
  Fail(FileCall::ReadFile, ERROR_IO_DEVICE);
  Events events;
  EXPECT_FALSE(cache->Front(events));
  EXPECT_TRUE(events.empty());
  Platform::TestFaults::Reset();
  EXPECT_EQ(FrontPayloads(*cache), Strings{"event 0"});
}

TEST_F(EventCacheOperations, ShortFileIsParsedOverWhatTheBufferHeld) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 3, "event "));
  // The buffer still holds the chunk as it was written, so the cut-off bytes are found there.
  std::filesystem::resize_file(InCache(kChunk), 20);
  EXPECT_EQ(FrontPayloads(*cache), (Strings{"event 0", "event 1", "event 2"}));
}

TEST_F(EventCacheOperations, EmptyFileIsParsedOverTheChunkThatWasReadBeforeIt) {
  {
    const auto cache = Open();
    ASSERT_TRUE(PushEvents(*cache, 1, "event "));
  }
  WriteFileBytes("2016-03-07-14-06/00", "");
  const auto cache = Open();
  EXPECT_EQ(FrontPayloads(*cache), Strings{"event 0"});
  cache->Pop();
  EXPECT_EQ(FrontPayloads(*cache), Strings{"event 0"});
}

TEST_F(EventCacheOperations, ShortFileOfAnEarlierRunGivesTheEventsThatAreWhole) {
  {
    const auto cache = Open();
    ASSERT_TRUE(PushEvents(*cache, 3, "event "));
  }
  const std::size_t oneEvent = 4 + 4 + 4 + 7;
  std::filesystem::resize_file(InCache(kChunk), 4 + 2 * oneEvent + 3);
  const auto cache = Open();
  EXPECT_EQ(FrontPayloads(*cache), (Strings{"event 0", "event 1"}));
}

TEST_F(EventCacheOperations, EmptyFileIsReadAsNoEvents) {
  WriteFileBytes("2016-03-07-14-05/07", "");
  const auto cache = Open();
  ASSERT_FALSE(cache->Empty());
  EXPECT_TRUE(FrontPayloads(*cache).empty());
  cache->Pop();
  EXPECT_EQ(m_disk->Released(), (std::vector<Call>{{0, 0}}));
}

TEST_F(EventCacheOperations, CountAndLengthsOfADamagedChunkNeverReachOutsideTheBuffer) {
  WriteFileBytes("2016-03-07-14-05/07", std::string("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 8));
  const auto cache = Open();
  EXPECT_TRUE(FrontPayloads(*cache).empty());
  EXPECT_TRUE(m_allocators.NothingAlive());
}

TEST_F(EventCacheOperations, FrontReplacesTheVectorWithoutReleasingWhatItHeld) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 1, "event "));
  ACE_Message_Block* const mine = TestSupport::MakeEvent("h", "mine");
  Events events{mine};
  ASSERT_TRUE(cache->Front(events));
  EXPECT_EQ(TestSupport::PayloadsOf(events), Strings{"event 0"});
  EXPECT_EQ(TestSupport::PayloadOf(mine), "mine");
  mine->release();
  TestSupport::ReleaseAll(events);
}

TEST_F(EventCacheOperations, TwoFrontsGiveTwoIndependentCopies) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 2, "event "));
  Events first;
  Events second;
  ASSERT_TRUE(cache->Front(first));
  ASSERT_TRUE(cache->Front(second));
  first[0]->cont()->base()[0] = 'X';
  TestSupport::ReleaseAll(first);
  EXPECT_EQ(TestSupport::PayloadsOf(second), (Strings{"event 0", "event 1"}));
  TestSupport::ReleaseAll(second);
  EXPECT_TRUE(m_allocators.NothingAlive());
}

TEST_F(EventCacheOperations, ChunkOfAnEarlierRunIsReleasedThoughNeverReserved) {
  {
    const auto cache = Open();
    ASSERT_TRUE(PushEvents(*cache, 1, "event "));
  }
  std::filesystem::resize_file(InCache(kChunk), 5000);
  const auto cache = Open();
  cache->Pop();
  EXPECT_EQ(m_disk->Released(), (std::vector<Call>{{0, 5000}})) << "the size that was listed";
}

TEST_F(EventCacheOperations, FileAlreadyDeletedAtPopStillRemovesTheEntry) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 1, "event "));
  std::filesystem::remove_all(InCache("2016-03-07-14-05"));
  cache->Pop();
  EXPECT_TRUE(cache->Empty());
  EXPECT_EQ(m_disk->Balance(), 0);
}

TEST_F(EventCacheOperations, FailuresToDeleteAreIgnored) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 1, "event "));
  Fail(FileCall::Unlink, ERROR_ACCESS_DENIED);
  cache->Pop();
  EXPECT_TRUE(cache->Empty());
  EXPECT_EQ(m_disk->Balance(), 0);
  EXPECT_EQ(Tree(), (Strings{"2016-03-07-14-05", kChunk}));
}

TEST_F(EventCacheOperations, FailureToRemoveTheMinuteDirectoryIsIgnored) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 1, "event "));
  Fail(FileCall::RemoveDirectoryW, ERROR_SHARING_VIOLATION);
  cache->Pop();
  EXPECT_TRUE(cache->Empty());
  EXPECT_EQ(m_disk->Balance(), 0);
  EXPECT_EQ(Tree(), Strings{"2016-03-07-14-05"});
}

TEST_F(EventCacheOperations, DestructionLeavesEveryChunkOnDisk) {
  {
    const auto cache = Open();
    ASSERT_TRUE(PushEvents(*cache, 1, "event "));
  }
  EXPECT_EQ(Tree(), (Strings{"2016-03-07-14-05", kChunk}));
}

TEST_F(EventCacheOperations, PushWithoutMemoryForTheBufferIsLikeARefusedReservation) {
  const auto cache = Open();
  ChunkBuffer::SetReallocate([](void*, std::size_t) -> void* { return nullptr; });
  Events events = TestSupport::MakeEvents(2);
  EXPECT_FALSE(cache->Push(events));
  EXPECT_EQ(TestSupport::PayloadsOf(events), (Strings{"event 0", "event 1"}));
  EXPECT_EQ(m_disk->Balance(), 0);
  EXPECT_TRUE(Tree().empty());
  ChunkBuffer::SetReallocate(nullptr);
  EXPECT_TRUE(cache->Push(events));
  EXPECT_EQ(FrontPayloads(*cache), (Strings{"event 0", "event 1"}));
}

TEST_F(EventCacheOperations, FrontWithoutMemoryForTheBufferFailsAndKeepsTheChunk) {
  {
    const auto cache = Open();
    ASSERT_TRUE(PushEvents(*cache, 1, "event "));
  }
  const auto cache = Open();
  ChunkBuffer::SetReallocate([](void*, std::size_t) -> void* { return nullptr; });
  Events events;
  EXPECT_FALSE(cache->Front(events));
  ChunkBuffer::SetReallocate(nullptr);
  EXPECT_EQ(FrontPayloads(*cache), Strings{"event 0"});
}

TEST_F(EventCacheOperations, FrontWithoutMemoryForABlockFailsAndKeepsTheChunk) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 2, "event "));
  m_allocators.Blocks().FailAfter(3);
  Events events;
  EXPECT_FALSE(cache->Front(events));
  EXPECT_TRUE(events.empty());
  m_allocators.Blocks().FailAfter(-1);
  EXPECT_TRUE(m_allocators.NothingAlive());
  EXPECT_EQ(FrontPayloads(*cache), (Strings{"event 0", "event 1"}));
}

TEST_F(EventCacheOperations, SteadyUseDoesNotGrowTheBuffer) {
  const auto cache = Open();
  static int reallocations;
  reallocations = 0;
  ChunkBuffer::SetReallocate([](void* memory, std::size_t size) {
    ++reallocations;
    return std::realloc(memory, size);
  });
  for (int i = 0; i < 50; ++i) {
    SetTime(kStart + 5 * i);
    ASSERT_TRUE(PushEvents(*cache, 10, "event "));
    FrontPayloads(*cache);
    cache->Pop();
  }
  EXPECT_EQ(reallocations, 1);
}

TEST_F(EventCacheOperations, AChunkIsOneWriteAndOneRead) {
  const auto cache = Open();
  int writes = 0;
  int reads = 0;
  Platform::TestFaults::SetHook([&](FileCall call) {
    writes += call == FileCall::WriteFile;
    reads += call == FileCall::ReadFile;
    return Fault{};
  });
  ASSERT_TRUE(PushEvents(*cache, 10000, "event "));
  EXPECT_EQ(FrontPayloads(*cache).size(), 10000u);
  EXPECT_EQ(writes, 1);
  EXPECT_EQ(reads, 1);
}

TEST_F(EventCacheOperations, NothingIsLoggedWhateverFails) {
  const TestSupport::LogCapture log;
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 1, "event "));
  for (const FileCall call : {FileCall::CreateFileW, FileCall::ReadFile, FileCall::WriteFile,
                              FileCall::GetFileAttributesW}) {
    Fail(call, ERROR_ACCESS_DENIED);
    Events events;
    cache->Front(events);
    TestSupport::ReleaseAll(events);
    PushEvents(*cache, 1, "event ");
  }
  while (!cache->Empty()) {
    cache->Pop();
  }
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(EventCacheOperations, WithoutADiskManagerChunksAreStillStored) {
  const auto cache = Open();
  m_diskRegistration.reset();
  ASSERT_TRUE(PushEvents(*cache, 1, "event "));
  EXPECT_EQ(FrontPayloads(*cache), Strings{"event 0"});
  cache->Pop();
  EXPECT_TRUE(Tree().empty());
}

TEST_F(EventCacheOperations, WithoutADiskManagerNoCacheIsMade) {
  m_diskRegistration.reset();
  std::shared_ptr<EventCache> cache;
  EXPECT_EQ(CreateEventCache(L"Test", cache), ERROR_NOT_SUPPORTED);
  EXPECT_EQ(cache, nullptr);
}

}  // namespace
}  // namespace OrloStoreAndForward
