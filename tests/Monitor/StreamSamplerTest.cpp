#include "Agent/Monitor/StreamSampler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "WindowsAgentCommon/Gauges.h"
#include "tests/support/TemporaryDirectory.h"

namespace OrloAgent {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using WindowsAgentCommon::StatisticsGroupSnapshot;
using WindowsAgentCommon::StatisticValue;

// A stream whose statistics and ends say what the test wants.
class StreamSamplerTest : public testing::Test {
 protected:
  StreamSamplerTest() { m_options.name = "S"; }

  StreamState LookAfter(int time) {
    if (!m_sampler) {
      m_sampler = std::make_unique<StreamSampler>(m_options, m_directory.Path(), seconds(30));
    }
    return m_sampler->Look(
        {Group("StoreAndForwardStage", {{"TotalEventsPosted", m_posted}}),
         Group("StoreAndForwardIncoming",
               {{"MessagesLost", m_lost}, {"EventDiskCacheRejects", m_cacheRejects}}),
         Group("StoreAndForwardOutgoing", {{"EventsIncoming", m_accepted},
                                           {"EventsOutgoing", m_sent},
                                           {"NumberOfRequeues", m_refusals}}),
         Group("StreamWatch", {{"Stalled", m_stalled}, {"StalledSeconds", m_stalled * 75}})},
        m_ends, StreamSampler::Clock::time_point{} + seconds(1'000 + time));
  }

  static StatisticsGroupSnapshot Group(const std::string& name,
                                       std::vector<std::pair<std::string, std::int64_t>> values) {
    StatisticsGroupSnapshot group{name, "path", "S", {}};
    for (const auto& [statistic, value] : values) {
      group.statistics.push_back({statistic, "", StatisticValue(7, value)});
    }
    return group;
  }

  TestSupport::TemporaryDirectory m_directory;
  StreamOptions m_options;
  std::unique_ptr<StreamSampler> m_sampler;
  std::int64_t m_posted = 100;
  std::int64_t m_lost = 0;
  std::int64_t m_cacheRejects = 0;
  std::int64_t m_accepted = 90;
  std::int64_t m_sent = 60;
  std::int64_t m_refusals = 0;
  std::int64_t m_stalled = 0;
  EndsReading m_ends;
};

TEST_F(StreamSamplerTest, EventsAreWhereStatisticsGaugesAndEndsSay) {
  const WindowsAgentCommon::Gauge bytes("S", "QueueBytes", [] { return std::int64_t{1234}; });
  const WindowsAgentCommon::Gauge queue("S", "QueueEvents", [] { return std::int64_t{4}; });
  const WindowsAgentCommon::Gauge chunk("S", "ChunkEvents", [] { return std::int64_t{6}; });
  const WindowsAgentCommon::Gauge age("S", "ChunkAgeMilliseconds",
                                      [] { return std::int64_t{2500}; });
  const WindowsAgentCommon::Gauge near("S", "EventsNear", [] { return std::int64_t{70}; });
  const WindowsAgentCommon::Gauge far("S", "ChunksFar", [] { return std::int64_t{2}; });
  m_ends.unsent = 5;
  m_ends.refused = 3;
  m_ends.notMade = 1;
  m_lost = 10;
  const StreamState state = LookAfter(0);
  EXPECT_EQ(state.posted, 101u);
  EXPECT_EQ(state.lost, 14u);
  EXPECT_EQ(state.delivered, 52u);
  EXPECT_EQ(state.pendingEvents, 30u);
  EXPECT_EQ(state.unsentEvents, 5u);
  EXPECT_EQ(state.queueBytes, 1234u);
  EXPECT_EQ(state.queueEvents, 4u);
  EXPECT_EQ(state.chunkEvents, 6u);
  EXPECT_DOUBLE_EQ(state.chunkAgeSeconds, 2.5);
  EXPECT_EQ(state.GetEventsInMemory(), 4u + 6 + 30 + 5);
  EXPECT_EQ(state.fromMemory.events, 70u);
  EXPECT_EQ(state.fromDisk.chunks, 2u);
  EXPECT_THAT(state.problems, IsEmpty());
}

TEST_F(StreamSamplerTest, CacheIsLookedIntoAgainAndItsOldestChunkGrowsOld) {
  EXPECT_EQ(LookAfter(0).cachedChunks, 0u);
  const auto minute = m_directory.Path() / "Events" / "S" / "2016-03-07-14-05";
  std::filesystem::create_directories(minute);
  std::ofstream(minute / "07", std::ios::binary)
      << std::string("\x03\0\0\0", 4) << std::string(60, '\0');
  std::filesystem::last_write_time(
      minute / "07", std::filesystem::file_time_type::clock::now() - std::chrono::minutes(5));
  // A look that took long is not repeated at once.
  const StreamState state = LookAfter(3600);
  EXPECT_EQ(state.cachedChunks, 1u);
  EXPECT_EQ(state.cachedEvents, 3u);
  EXPECT_EQ(state.cachedBytes, 64u);
  EXPECT_GE(state.oldestSeconds, 300.0);
  EXPECT_LT(state.oldestSeconds, 900.0);
}

TEST_F(StreamSamplerTest, RefusalIsAProblemOnceItHasLastedAndEndsWithTheNextDelivery) {
  LookAfter(0);
  ++m_refusals;
  EXPECT_THAT(LookAfter(1).problems, IsEmpty());
  EXPECT_THAT(LookAfter(30).problems, IsEmpty());
  ++m_refusals;
  const StreamState refusing = LookAfter(31);
  EXPECT_THAT(refusing.problems, ElementsAre("the destination has refused events for 30 s"));
  EXPECT_DOUBLE_EQ(refusing.refusingSeconds, 30.0);
  ++m_sent;
  const StreamState taking = LookAfter(32);
  EXPECT_THAT(taking.problems, IsEmpty());
  EXPECT_DOUBLE_EQ(taking.refusingSeconds, 0.0);
}

TEST_F(StreamSamplerTest, EventsThatDoNotLeaveTheDestinationsBufferAreARefusal) {
  m_sent = m_accepted;
  m_ends.unsent = 7;
  LookAfter(0);
  LookAfter(1);
  EXPECT_THAT(LookAfter(40).problems, ElementsAre(HasSubstr("has refused events for 39 s")));
  m_ends.unsent = 0;
  EXPECT_THAT(LookAfter(41).problems, IsEmpty());
}

TEST_F(StreamSamplerTest, QuietStreamIsHealthyHoweverLongItIsQuiet) {
  m_sent = m_accepted;
  m_refusals = 12;
  LookAfter(0);
  EXPECT_THAT(LookAfter(7200).problems, IsEmpty());
}

TEST_F(StreamSamplerTest, LossIsAProblemForFiveMinutesAndTellsHowManyAreLost) {
  m_lost = 40;
  m_cacheRejects = 4;
  EXPECT_THAT(LookAfter(0).problems, IsEmpty()) << "lost before anybody looked";
  m_lost += 7;
  ++m_cacheRejects;
  EXPECT_THAT(LookAfter(1).problems, ElementsAre(HasSubstr("7 events are lost")));
  m_lost += 5;
  ++m_cacheRejects;
  EXPECT_THAT(LookAfter(200).problems, ElementsAre(HasSubstr("12 events are lost")));
  EXPECT_THAT(LookAfter(499).problems, ElementsAre(HasSubstr("12 events are lost")));
  EXPECT_THAT(LookAfter(500).problems, IsEmpty());
}

TEST_F(StreamSamplerTest, WhatIsDeliveredNeverBecomesLess) {
  m_ends.unsent = 10;
  EXPECT_EQ(LookAfter(0).delivered, 50u);
  // The destination has taken events that the stage has not counted yet.
  m_ends.unsent = 13;
  EXPECT_EQ(LookAfter(1).delivered, 50u);
  m_ends.unsent = 70;
  EXPECT_EQ(LookAfter(2).delivered, 50u);
  m_sent = 80;
  m_ends.unsent = 0;
  EXPECT_EQ(LookAfter(3).delivered, 80u);
}

TEST_F(StreamSamplerTest, WhatAnEarlierStreamHasLeftIsDeliveredByThisOne) {
  m_ends.inherited = m_ends.unsent = 5;
  EXPECT_EQ(LookAfter(0).delivered, 60u);
  m_ends.unsent = 0;
  EXPECT_EQ(LookAfter(1).delivered, 65u);
}

TEST_F(StreamSamplerTest, StallIsAProblem) {
  m_stalled = 1;
  EXPECT_THAT(LookAfter(0).problems,
              ElementsAre("stalled: the cache has not moved for 75 s though sending is possible"));
}

}  // namespace
}  // namespace OrloAgent
