// Where chunks are put, how they are found again, and when directories go.

#include <fstream>

#include "Platform/Windows.h"
#include "tests/StoreAndForward/CacheFixture.h"

namespace OrloStoreAndForward {
namespace {

using Strings = std::vector<std::string>;

class EventCacheDirectory : public CacheFixture {};

TEST_F(EventCacheDirectory, IsMadeBelowTheDataDirectoryAtCreation) {
  const auto cache = Open();
  ASSERT_NE(cache, nullptr);
  EXPECT_TRUE(std::filesystem::is_directory(InCache("")));
  EXPECT_TRUE(cache->Empty());
}

TEST_F(EventCacheDirectory, CreationReplacesAnEarlierCache) {
  auto cache = Open();
  const std::weak_ptr<EventCache> earlier = cache;
  ASSERT_EQ(CreateEventCache(L"Test", cache), 0u);
  EXPECT_TRUE(earlier.expired());
}

TEST_F(EventCacheDirectory, ThatCannotBeMadeGivesTheErrorAndLeavesTheCacheAlone) {
  auto cache = Open();
  const EventCache* const before = cache.get();
  std::ofstream(m_directory.Path() / "Events" / "Blocked") << "a file in the way";
  EXPECT_EQ(CreateEventCache(L"Blocked", cache), ERROR_ALREADY_EXISTS);
  EXPECT_EQ(cache.get(), before);
}

TEST_F(EventCacheDirectory, ErrorOfTheFileSystemIsPassedOn) {
  Platform::TestFaults::SetHook([](Platform::TestFaults::FileCall call) {
    Platform::TestFaults::Fault fault;
    if (call == Platform::TestFaults::FileCall::CreateDirectoryW) {
      fault.error = ERROR_DISK_FULL;
    }
    return fault;
  });
  std::shared_ptr<EventCache> cache;
  EXPECT_EQ(CreateEventCache(L"Test", cache), ERROR_DISK_FULL);
  EXPECT_EQ(cache, nullptr);
}

TEST_F(EventCacheDirectory, LongPathsAndNamesOutsideAsciiHoldChunksAcrossARestart) {
  // 260 characters are the limit of older versions of Windows.
  const std::wstring longName(200, L'n');
  const std::wstring name =
      L"\u00e4\u65e5\U0001F600\\" + longName + L"\\" + longName + L"\\" + longName;
  std::shared_ptr<EventCache> cache;
  ASSERT_EQ(CreateEventCache(name, cache), 0u);
  ASSERT_TRUE(PushEvents(*cache, 2, "e"));
  const std::filesystem::path directory = m_directory.Path() / "Events" /
                                          u8"\u00e4\u65e5\U0001F600" / longName / longName /
                                          longName / "2016-03-07-14-05";
  EXPECT_TRUE(std::filesystem::exists(directory / "07"));

  ASSERT_EQ(CreateEventCache(name, cache), 0u);
  ASSERT_FALSE(cache->Empty());
  EXPECT_EQ(FrontPayloads(*cache), (Strings{"e0", "e1"}));
  cache->Pop();
  EXPECT_TRUE(cache->Empty());
  EXPECT_FALSE(std::filesystem::exists(directory));
}

TEST_F(EventCacheDirectory, ChunkGoesToTheUtcMinuteAndSecond) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 1, "e"));
  EXPECT_EQ(Tree(), (Strings{"2016-03-07-14-05", "2016-03-07-14-05/07"}));
}

TEST_F(EventCacheDirectory, SecondPushInTheSameSecondReplacesTheFileAndLeavesTwoEntries) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 1, "older "));
  ASSERT_TRUE(PushEvents(*cache, 2, "newer "));
  EXPECT_EQ(Tree(), (Strings{"2016-03-07-14-05", "2016-03-07-14-05/07"}));
  EXPECT_EQ(FrontPayloads(*cache), (Strings{"newer 0", "newer 1"}));
  cache->Pop();
  EXPECT_FALSE(cache->Empty());
  Events events;
  EXPECT_FALSE(cache->Front(events));
  cache->Pop();
  EXPECT_TRUE(cache->Empty());
}

TEST_F(EventCacheDirectory, ClockSetBackIntoAMinuteThatHasADirectoryReusesIt) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 1, "first "));
  SetTime(kStart + 60);
  ASSERT_TRUE(PushEvents(*cache, 1, "second "));
  SetTime(kStart + 10);
  ASSERT_TRUE(PushEvents(*cache, 1, "third "));
  EXPECT_EQ(Tree(), (Strings{"2016-03-07-14-05", "2016-03-07-14-05/07", "2016-03-07-14-05/17",
                             "2016-03-07-14-06", "2016-03-07-14-06/07"}));
  // In this run the queue keeps the order of the pushes.
  EXPECT_EQ(FrontPayloads(*cache), Strings{"first 0"});
  cache->Pop();
  EXPECT_EQ(FrontPayloads(*cache), Strings{"second 0"});
  cache->Pop();
  EXPECT_EQ(FrontPayloads(*cache), Strings{"third 0"});
}

TEST_F(EventCacheDirectory, ClockSetBackToASecondThatHasAChunkReplacesIt) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 1, "first "));
  SetTime(kStart + 60);
  ASSERT_TRUE(PushEvents(*cache, 1, "second "));
  SetTime(kStart);
  ASSERT_TRUE(PushEvents(*cache, 1, "third "));
  EXPECT_EQ(FrontPayloads(*cache), Strings{"third 0"});
}

TEST_F(EventCacheDirectory, PlainFileWithTheNameOfTheMinuteMakesPushFail) {
  const auto cache = Open();
  std::ofstream(InCache("2016-03-07-14-05")) << "in the way";
  Events events = TestSupport::MakeEvents(2);
  const Events before = events;
  EXPECT_FALSE(cache->Push(events));
  EXPECT_EQ(events, before);
  EXPECT_TRUE(cache->Empty());
  EXPECT_TRUE(m_disk->Reserved().empty());
  TestSupport::ReleaseAll(events);
  EXPECT_TRUE(m_allocators.NothingAlive());
}

TEST_F(EventCacheDirectory, CacheDirectoryThatIsGoneMakesPushFail) {
  const auto cache = Open();
  std::filesystem::remove_all(InCache(""));
  Events events = TestSupport::MakeEvents(2);
  EXPECT_FALSE(cache->Push(events));
  EXPECT_EQ(events.size(), 2u);
  TestSupport::ReleaseAll(events);
}

TEST_F(EventCacheDirectory, MinuteDirectoryThatAppearsInBetweenMakesPushFail) {
  const auto cache = Open();
  // The directory is reported missing and turns out to be there when it is to be made.
  std::filesystem::create_directory(InCache("2016-03-07-14-05"));
  Platform::TestFaults::SetHook([](Platform::TestFaults::FileCall call) {
    Platform::TestFaults::Fault fault;
    if (call == Platform::TestFaults::FileCall::GetFileAttributesW) {
      fault.error = ERROR_FILE_NOT_FOUND;
    }
    return fault;
  });
  Events events = TestSupport::MakeEvents(1);
  EXPECT_FALSE(cache->Push(events));
  EXPECT_EQ(events.size(), 1u);
  TestSupport::ReleaseAll(events);
  EXPECT_TRUE(std::filesystem::is_directory(InCache("2016-03-07-14-05")));
}

TEST_F(EventCacheDirectory, StartFindsChunksOldestFirst) {
  {
    const auto cache = Open();
    SetTime(kStart + 60);
    ASSERT_TRUE(PushEvents(*cache, 1, "14:06:07 "));
    SetTime(kStart + 24);
    ASSERT_TRUE(PushEvents(*cache, 1, "14:05:31 "));
    SetTime(kStart);
    ASSERT_TRUE(PushEvents(*cache, 1, "14:05:07 "));
  }
  const auto cache = Open();
  for (const std::string expected : {"14:05:07 0", "14:05:31 0", "14:06:07 0"}) {
    ASSERT_FALSE(cache->Empty());
    EXPECT_EQ(FrontPayloads(*cache), Strings{expected});
    cache->Pop();
  }
  EXPECT_TRUE(cache->Empty());
  EXPECT_TRUE(Tree().empty());
}

TEST_F(EventCacheDirectory, ChunksOfEarlierRunsComeBeforeThoseOfThisRunWhateverTheirNames) {
  {
    const auto cache = Open();
    SetTime(kStart + 3600);
    ASSERT_TRUE(PushEvents(*cache, 1, "earlier run "));
  }
  const auto cache = Open();
  SetTime(kStart);
  ASSERT_TRUE(PushEvents(*cache, 1, "this run "));
  EXPECT_EQ(FrontPayloads(*cache), Strings{"earlier run 0"});
}

TEST_F(EventCacheDirectory, StartReadsNoChunkAndAccountsForNone) {
  WriteFileBytes("2016-03-07-14-05/07", std::string(4096, '\0'));
  Platform::TestFaults::SetHook([](Platform::TestFaults::FileCall call) {
    EXPECT_NE(call, Platform::TestFaults::FileCall::CreateFileW);
    EXPECT_NE(call, Platform::TestFaults::FileCall::ReadFile);
    EXPECT_NE(call, Platform::TestFaults::FileCall::Unlink);
    return Platform::TestFaults::Fault{};
  });
  const auto cache = Open();
  EXPECT_FALSE(cache->Empty());
  EXPECT_TRUE(m_disk->Reserved().empty());
  EXPECT_TRUE(m_disk->Released().empty());
}

TEST_F(EventCacheDirectory, StrayPlainFileInTheCacheDirectoryIsIgnored) {
  WriteFileBytes("notes", "not a minute directory");
  const auto cache = Open();
  EXPECT_TRUE(cache->Empty());
  EXPECT_EQ(Tree(), Strings{"notes"});
}

TEST_F(EventCacheDirectory, StrayEntryInAMinuteDirectoryIsQueuedLikeAChunk) {
  WriteFileBytes("2016-03-07-14-05/stray", std::string(4, '\0'));
  std::filesystem::create_directory(InCache("2016-03-07-14-05/a directory"));
  const auto cache = Open();
  ASSERT_FALSE(cache->Empty());
  Events events;
  EXPECT_FALSE(cache->Front(events)) << "the directory, which sorts first, can't be opened";
  cache->Pop();
  EXPECT_TRUE(FrontPayloads(*cache).empty());
  cache->Pop();
  EXPECT_TRUE(cache->Empty());
}

TEST_F(EventCacheDirectory, NamesWithAnExtensionAreNotListed) {
  WriteFileBytes("2016-03-07-14-05/07.bak", "x");
  WriteFileBytes("2016-03-07-14-06.old/07", "x");
  const auto cache = Open();
  EXPECT_TRUE(cache->Empty());
}

TEST_F(EventCacheDirectory, DirectoriesOfOtherNamesSortWithTheOthers) {
  WriteFileBytes("0-first/07", std::string(4, '\0'));
  WriteFileBytes("zz-last/07", std::string("\1\0\0\0\0\0\0\0\0\0\0\0", 12));
  const auto cache = Open();
  EXPECT_TRUE(FrontPayloads(*cache).empty());
  cache->Pop();
  EXPECT_EQ(FrontPayloads(*cache), Strings{""});
}

TEST_F(EventCacheDirectory, EmptyMinuteDirectoryOfAnEarlierRunStaysUntilAChunkInItIsPopped) {
  Open();
  std::filesystem::create_directory(InCache("2016-03-07-14-05"));
  const auto cache = Open();
  EXPECT_TRUE(cache->Empty());
  EXPECT_EQ(Tree(), Strings{"2016-03-07-14-05"});
  ASSERT_TRUE(PushEvents(*cache, 1, "e"));
  cache->Pop();
  EXPECT_TRUE(Tree().empty());
}

TEST_F(EventCacheDirectory, PopLeavesAMinuteDirectoryThatStillHoldsSomething) {
  const auto cache = Open();
  ASSERT_TRUE(PushEvents(*cache, 1, "a"));
  SetTime(kStart + 5);
  ASSERT_TRUE(PushEvents(*cache, 1, "b"));
  cache->Pop();
  EXPECT_EQ(Tree(), (Strings{"2016-03-07-14-05", "2016-03-07-14-05/12"}));
  cache->Pop();
  EXPECT_TRUE(Tree().empty());
  EXPECT_TRUE(std::filesystem::is_directory(InCache("")));
}

TEST_F(EventCacheDirectory, ListingThatFailsGivesAnEmptyCache) {
  WriteFileBytes("2016-03-07-14-05/07", std::string(4096, '\0'));
  Platform::TestFaults::SetHook([](Platform::TestFaults::FileCall call) {
    Platform::TestFaults::Fault fault;
    if (call == Platform::TestFaults::FileCall::FindFirstFileW) {
      fault.error = ERROR_ACCESS_DENIED;
    }
    return fault;
  });
  const auto cache = Open();
  ASSERT_NE(cache, nullptr);
  EXPECT_TRUE(cache->Empty());
}

TEST_F(EventCacheDirectory, MinuteThatCannotBeListedIsSkipped) {
  WriteFileBytes("2016-03-07-14-05/07", std::string(4096, '\0'));
  WriteFileBytes("2016-03-07-14-06/08", std::string(4096, '\0'));
  int listings = 0;
  Platform::TestFaults::SetHook([&listings](Platform::TestFaults::FileCall call) {
    Platform::TestFaults::Fault fault;
    if (call == Platform::TestFaults::FileCall::FindFirstFileW && ++listings == 2) {
      fault.error = ERROR_ACCESS_DENIED;
    }
    return fault;
  });
  const auto cache = Open();
  Platform::TestFaults::Reset();
  ASSERT_FALSE(cache->Empty());
  cache->Pop();
  EXPECT_TRUE(cache->Empty());
  EXPECT_TRUE(std::filesystem::exists(InCache("2016-03-07-14-05/07")));
  EXPECT_FALSE(std::filesystem::exists(InCache("2016-03-07-14-06/08")));
}

}  // namespace
}  // namespace OrloStoreAndForward
