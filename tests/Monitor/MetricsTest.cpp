#include "Agent/Monitor/Metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <set>

namespace OrloAgent {
namespace {

using prometheus::MetricFamily;
using prometheus::MetricType;
using testing::HasSubstr;
using testing::Not;
using WindowsAgentCommon::StatisticsGroupSnapshot;
using WindowsAgentCommon::StatisticValue;

AgentState MakeState() {
  AgentState state;
  state.version = "1.2.3";
  StreamState stream;
  stream.name = "S";
  stream.destination = {"syslog", "tcp://h:1", {}};
  stream.sources = {{"syslog", "udp://h:2", {{"messages_cut", "Messages that were cut", 3}}}};
  state.streams.push_back(stream);
  return state;
}

StatisticsGroupSnapshot MakeGroup(const std::string& name, const std::string& statistic,
                                  const WindowsAgentCommon::StatisticVariant& value) {
  return {name, "path", "S", {{statistic, "What it is", StatisticValue(7, value)}}};
}

const MetricFamily* Find(const std::vector<MetricFamily>& families, const std::string& name) {
  for (const MetricFamily& family : families) {
    if (family.name == name) {
      return &family;
    }
  }
  return nullptr;
}

TEST(Metrics, PublishedCounterIsOneWithItsDescriptionAndItsPlace) {
  AgentState state = MakeState();
  state.statistics = {MakeGroup("StoreAndForwardIncoming", "MessagesLost", std::int64_t{17})};
  const auto families = MakeMetrics(state);
  const MetricFamily* const family = Find(families, "orlo_stage_events_lost_total");
  ASSERT_NE(family, nullptr);
  EXPECT_EQ(family->type, MetricType::Counter);
  EXPECT_EQ(family->help, "What it is");
  ASSERT_EQ(family->metric.size(), 1u);
  EXPECT_EQ(family->metric[0].counter.value, 17.0);
  ASSERT_EQ(family->metric[0].label.size(), 2u);
  EXPECT_EQ(family->metric[0].label[0].value, "S");
  EXPECT_EQ(family->metric[0].label[1].value, "StoreAndForwardStage");
}

TEST(Metrics, PeriodInMicrosecondsIsShownInSeconds) {
  AgentState state = MakeState();
  state.statistics = {
      MakeGroup("StoreAndForwardIncoming", "DataProcessingPeriod", std::int64_t{500'000})};
  const auto families = MakeMetrics(state);
  const MetricFamily* const family = Find(families, "orlo_stage_processing_period_seconds");
  ASSERT_NE(family, nullptr);
  EXPECT_DOUBLE_EQ(family->metric[0].gauge.value, 0.5);
  EXPECT_THAT(family->help, Not(HasSubstr("What it is")));
}

TEST(Metrics, StatisticOfAnUnknownStageIsShownWithoutAType) {
  AgentState state = MakeState();
  state.statistics = {MakeGroup("My Stage", "BadLines", std::int64_t{2}),
                      MakeGroup("My Stage", "Mode", std::string("fast"))};
  const auto families = MakeMetrics(state);
  const MetricFamily* const lines = Find(families, "orlo_my_stage_bad_lines");
  ASSERT_NE(lines, nullptr);
  EXPECT_EQ(lines->type, MetricType::Untyped);
  EXPECT_EQ(lines->metric[0].untyped.value, 2.0);
  const MetricFamily* const mode = Find(families, "orlo_my_stage_mode");
  ASSERT_NE(mode, nullptr);
  EXPECT_EQ(mode->metric[0].label.back().value, "fast");
  EXPECT_EQ(mode->metric[0].untyped.value, 1.0);
}

TEST(Metrics, SameStatisticTwiceIsShownOnce) {
  AgentState state = MakeState();
  state.statistics = {MakeGroup("My Stage", "BadLines", std::int64_t{2}),
                      MakeGroup("My Stage", "BadLines", std::int64_t{3})};
  EXPECT_EQ(Find(MakeMetrics(state), "orlo_my_stage_bad_lines")->metric.size(), 1u);
}

TEST(Metrics, PublishedCountsOfSourcesAreToldApartByTheirNames) {
  AgentState state = MakeState();
  for (const char* const name : {"one", "two"}) {
    state.statistics.push_back({"Source",
                                "path",
                                "S",
                                {{"SourceName", "Its name", StatisticValue(1, std::string(name))},
                                 {"EventsPosted", "Posted", StatisticValue(7, std::int64_t{4})}}});
  }
  const auto families = MakeMetrics(state);
  const MetricFamily* const posted = Find(families, "orlo_source_events_posted_total");
  ASSERT_NE(posted, nullptr);
  ASSERT_EQ(posted->metric.size(), 2u);
  EXPECT_EQ(posted->metric[1].label[1].value, "two");
  EXPECT_EQ(posted->metric[1].counter.value, 4.0);
}

TEST(Metrics, CountersOfEndsCarryTypeAndName) {
  const auto families = MakeMetrics(MakeState());
  const MetricFamily* const family = Find(families, "orlo_source_messages_cut_total");
  ASSERT_NE(family, nullptr);
  EXPECT_EQ(family->metric[0].counter.value, 3.0);
  EXPECT_EQ(family->metric[0].label[1].value, "syslog");
  EXPECT_EQ(family->metric[0].label[2].value, "udp://h:2");
}

TEST(Metrics, FallbackIsADestinationWithANameOfItsOwn) {
  AgentState state = MakeState();
  EXPECT_EQ(Find(MakeMetrics(state), "orlo_stream_fallback_in_use"), nullptr);
  StreamState& stream = state.streams[0];
  stream.destination.counters = {{"events", "Events", 5}};
  stream.destination.unsent = 2;
  stream.fallback = {"file", "meanwhile.log", {{"events", "Events", 7}}, 3};
  auto families = MakeMetrics(state);
  EXPECT_EQ(Find(families, "orlo_stream_fallback_in_use")->metric.at(0).gauge.value, 0.0);
  const MetricFamily* const events = Find(families, "orlo_destination_events_total");
  ASSERT_NE(events, nullptr);
  ASSERT_EQ(events->metric.size(), 2u);
  EXPECT_EQ(events->metric[0].counter.value, 5.0);
  EXPECT_EQ(events->metric[1].counter.value, 7.0);
  EXPECT_EQ(events->metric[1].label[2].value, "meanwhile.log");
  const MetricFamily* const unsent = Find(families, "orlo_destination_unsent_events");
  ASSERT_NE(unsent, nullptr);
  EXPECT_EQ(unsent->metric.at(1).gauge.value, 3.0);
  stream.fallbackSince = 1'800'000'000;
  families = MakeMetrics(state);
  EXPECT_EQ(Find(families, "orlo_stream_fallback_in_use")->metric.at(0).gauge.value, 1.0);
}

TEST(Metrics, ScheduleIsShownOnlyWhereThereIsOne) {
  AgentState state = MakeState();
  EXPECT_EQ(Find(MakeMetrics(state), "orlo_stream_schedule_open"), nullptr);
  state.streams[0].schedule.emplace();
  state.streams[0].schedule->open = false;
  state.streams[0].schedule->nextChange = 1'800'000'000;
  const auto families = MakeMetrics(state);
  EXPECT_EQ(Find(families, "orlo_stream_schedule_open")->metric[0].gauge.value, 0.0);
  EXPECT_EQ(Find(families, "orlo_stream_schedule_next_change_time_seconds")->metric[0].gauge.value,
            1.8e9);
}

// Prometheus' rules: what promtool would say of the names.
TEST(Metrics, CountersAndOnlyCountersEndInTotalAndAllHaveAHelp) {
  for (const MetricFamily& family : MakeMetrics(MakeState())) {
    EXPECT_EQ(family.type == MetricType::Counter, family.name.ends_with("_total")) << family.name;
    EXPECT_FALSE(family.help.empty()) << family.name;
    EXPECT_TRUE(family.name.starts_with("orlo_")) << family.name;
  }
}

TEST(Metrics, TextEscapesWhatNamesOfStreamsMayHold) {
  AgentState state = MakeState();
  state.streams[0].name = "a\"b\\c";
  EXPECT_THAT(MakeMetricsText(state), HasSubstr(R"(orlo_stream_healthy{stream="a\"b\\c"} 1)"));
}

TEST(Metrics, HealthIsThatOfAllStreams) {
  AgentState state = MakeState();
  EXPECT_THAT(MakeMetricsText(state), HasSubstr("orlo_agent_healthy 1\n"));
  state.streams[0].problems.push_back("something");
  EXPECT_THAT(MakeMetricsText(state), HasSubstr("orlo_agent_healthy 0\n"));
  EXPECT_THAT(MakeMetricsText(state), HasSubstr(R"(orlo_stream_healthy{stream="S"} 0)"));
}

}  // namespace
}  // namespace OrloAgent
