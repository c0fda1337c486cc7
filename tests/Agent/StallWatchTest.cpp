#include "Agent/StallWatch.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/TemporaryDirectory.h"

namespace OrloAgent {
namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

class Watching : public testing::Test {
 protected:
  static constexpr StreamMotion kStuck{.cachedChunks = 3, .accepted = 100, .delivered = 100};

  bool LookAfter(seconds time, const StreamMotion& motion = kStuck) {
    return m_watch.Look(motion, m_start + time);
  }

  StallWatch m_watch{{.stallAfter = seconds(60), .repeat = minutes(10)}};
  const StallWatch::Clock::time_point m_start{};
};

TEST_F(Watching, CacheThatDoesNotMoveIsCalledStalledAfterAWhile) {
  EXPECT_FALSE(LookAfter(seconds(0)));
  EXPECT_FALSE(LookAfter(seconds(59)));
  EXPECT_FALSE(m_watch.IsStalled());
  EXPECT_TRUE(LookAfter(seconds(60)));
  EXPECT_TRUE(m_watch.IsStalled());
  EXPECT_EQ(m_watch.GetStalledTime(m_start + seconds(75)), seconds(75));
}

TEST_F(Watching, WarningIsRepeatedAtItsInterval) {
  LookAfter(seconds(0));
  EXPECT_TRUE(LookAfter(seconds(60)));
  EXPECT_FALSE(LookAfter(seconds(70)));
  EXPECT_FALSE(LookAfter(seconds(659)));
  EXPECT_TRUE(LookAfter(seconds(660)));
}

TEST_F(Watching, MoreChunksBehindTheStuckOneAreNoMovement) {
  LookAfter(seconds(0));
  StreamMotion grown = kStuck;
  grown.cachedChunks = 10;
  EXPECT_TRUE(LookAfter(seconds(60), grown));
}

TEST_F(Watching, EveryMovementStartsTheTimeAnew) {
  for (const auto change : {&StreamMotion::accepted, &StreamMotion::refusals}) {
    StallWatch watch({.stallAfter = seconds(60), .repeat = minutes(10)});
    watch.Look(kStuck, m_start);
    StreamMotion moved = kStuck;
    moved.*change += 1;
    moved.delivered = moved.accepted;
    EXPECT_FALSE(watch.Look(moved, m_start + seconds(59)));
    EXPECT_FALSE(watch.Look(moved, m_start + seconds(118)));
    EXPECT_TRUE(watch.Look(moved, m_start + seconds(119)));
  }
}

TEST_F(Watching, ChunkThatWentIsAMovementAndEndsAStall) {
  LookAfter(seconds(0));
  EXPECT_TRUE(LookAfter(seconds(60)));
  StreamMotion fewer = kStuck;
  fewer.cachedChunks = 2;
  EXPECT_FALSE(LookAfter(seconds(61), fewer));
  EXPECT_FALSE(m_watch.IsStalled());
  EXPECT_EQ(m_watch.GetStalledTime(m_start + seconds(62)), seconds(0));
}

TEST_F(Watching, EmptyCacheIsNoStall) {
  const StreamMotion empty{.cachedChunks = 0, .accepted = 5, .delivered = 5};
  EXPECT_FALSE(LookAfter(seconds(0), empty));
  EXPECT_FALSE(LookAfter(minutes(10), empty));
}

TEST_F(Watching, SenderThatStillHasEventsWaitsForItsDestination) {
  const StreamMotion waiting{.cachedChunks = 3, .accepted = 101, .delivered = 100};
  EXPECT_FALSE(LookAfter(seconds(0), waiting));
  EXPECT_FALSE(LookAfter(minutes(10), waiting));
}

TEST_F(Watching, ClosedScheduleIsNoStallAndTheTimeStartsWhenItOpens) {
  StreamMotion closed = kStuck;
  closed.sendingAllowed = false;
  EXPECT_FALSE(LookAfter(seconds(0), closed));
  EXPECT_FALSE(LookAfter(minutes(10), closed));
  EXPECT_FALSE(LookAfter(minutes(10) + seconds(59)));
  EXPECT_TRUE(LookAfter(minutes(11)));
}

class OldestChunkOfACache : public testing::Test {
 protected:
  std::filesystem::path Write(const std::string& relative, const std::string& bytes = "x") {
    const auto path = m_directory.Path() / relative;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << bytes;
    return path;
  }

  TestSupport::TemporaryDirectory m_directory;
};

TEST_F(OldestChunkOfACache, IsTheFirstOfTheFirstMinuteThatHasAny) {
  std::filesystem::create_directories(m_directory.Path() / "2016-03-07-14-04");
  const auto oldest = Write("2016-03-07-14-05/07");
  Write("2016-03-07-14-05/31");
  Write("2016-03-07-14-06/02");
  EXPECT_EQ(FindOldestChunk(m_directory.Path()).path, oldest);
  EXPECT_EQ(FindOldestChunk(m_directory.Path()).error, "");
}

TEST_F(OldestChunkOfACache, EmptyFileCanBeRead) {
  const auto oldest = Write("2016-03-07-14-05/07", "");
  EXPECT_EQ(FindOldestChunk(m_directory.Path()).error, "");
}

TEST_F(OldestChunkOfACache, DirectoryInItsPlaceIsNamed) {
  const auto path = m_directory.Path() / "2016-03-07-14-05" / "07";
  std::filesystem::create_directories(path);
  EXPECT_EQ(FindOldestChunk(m_directory.Path()).path, path);
  EXPECT_EQ(FindOldestChunk(m_directory.Path()).error, "it is a directory");
}

TEST_F(OldestChunkOfACache, LinkThatLeadsNowhereGivesTheSystemsReason) {
  std::filesystem::create_directories(m_directory.Path() / "2016-03-07-14-05");
  std::filesystem::create_symlink("nowhere", m_directory.Path() / "2016-03-07-14-05" / "07");
  EXPECT_EQ(FindOldestChunk(m_directory.Path()).error, "No such file or directory");
}

TEST_F(OldestChunkOfACache, MissingOrEmptyCacheHasNone) {
  EXPECT_TRUE(FindOldestChunk(m_directory.Path()).path.empty());
  EXPECT_TRUE(FindOldestChunk(m_directory.Path() / "missing").path.empty());
}

TEST_F(OldestChunkOfACache, NamesWithAnExtensionAreNoChunks) {
  Write("2016-03-07-14-05/07.bak");
  Write("2016-03-07-14-05.old/07");
  EXPECT_TRUE(FindOldestChunk(m_directory.Path()).path.empty());
}

}  // namespace
}  // namespace OrloAgent
