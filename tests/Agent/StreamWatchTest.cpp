#include "Agent/StreamWatch.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryDirectory.h"

namespace OrloAgent {
namespace {

using std::chrono::seconds;
using WindowsAgentCommon::LogLevel;

const std::string kLogger = "Code.StreamWatch.S";

class StreamWatchTest : public testing::Test {
 protected:
  explicit StreamWatchTest(seconds report = seconds(0)) {
    WatchOptions options;
    options.stallAfter = seconds(60);
    options.repeat = seconds(600);
    options.report = report;
    m_watch = std::make_unique<StreamWatch>(options, "S", StageOptions{"StoreAndForwardStage", {}},
                                            m_directory.Path(), m_server);
  }

  void LookAfter(seconds time, const StreamReport& report) {
    m_watch->Look(report, StallWatch::Clock::time_point{} + time);
  }

  // Of the group that the watch publishes.
  std::int64_t Statistic(const std::string& name) const {
    for (const auto& group : m_server.GetSnapshot()) {
      if (group.instance == "S" && group.name == "StreamWatch" && group.Find(name) != nullptr) {
        return group.GetInteger(name);
      }
    }
    ADD_FAILURE() << "no statistic " << name;
    return -1;
  }

  static StreamReport Stuck() {
    StreamReport report;
    report.cachedChunks = 3;
    report.cached = 50;
    report.accepted = report.sent = report.delivered = 100;
    report.lost = 4;
    report.failed = 2;
    report.held = -1;
    return report;
  }

  TestSupport::TemporaryDirectory m_directory;
  TestSupport::LogCapture m_log;
  WindowsAgentCommon::StatisticsServer m_server;
  std::unique_ptr<StreamWatch> m_watch;
};

TEST_F(StreamWatchTest, StallIsPublishedWithItsTimeAndTakenBackWhenItEnds) {
  LookAfter(seconds(0), Stuck());
  LookAfter(seconds(59), Stuck());
  EXPECT_EQ(Statistic("Stalled"), 0);
  EXPECT_EQ(Statistic("StalledSeconds"), 0);
  LookAfter(seconds(60), Stuck());
  EXPECT_EQ(Statistic("Stalled"), 1);
  EXPECT_EQ(Statistic("StalledSeconds"), 60);
  LookAfter(seconds(75), Stuck());
  EXPECT_EQ(Statistic("StalledSeconds"), 75);
  StreamReport moved = Stuck();
  moved.cachedChunks = 2;
  LookAfter(seconds(80), moved);
  EXPECT_EQ(Statistic("Stalled"), 0);
  EXPECT_EQ(Statistic("StalledSeconds"), 0);
  EXPECT_TRUE(m_log.Contains(LogLevel::Info, kLogger, "The event cache is being emptied again."));
}

TEST_F(StreamWatchTest, WarningNamesTheOldestChunk) {
  const auto minute = m_directory.Path() / "Events" / "S" / "2016-03-07-14-05";
  std::filesystem::create_directories(minute / "07");
  LookAfter(seconds(0), Stuck());
  LookAfter(seconds(61), Stuck());
  EXPECT_TRUE(m_log.Contains(
      LogLevel::Warn, kLogger,
      "The event cache has not moved for 61 s though sending is possible: the oldest chunk file, " +
          (minute / "07").string() +
          ", can't be read (it is a directory); nothing behind it is sent until it can be or is "
          "moved away and the agent restarted."));
}

TEST_F(StreamWatchTest, WithoutAPeriodNothingIsReported) {
  LookAfter(seconds(0), StreamReport());
  LookAfter(seconds(100'000), StreamReport());
  EXPECT_TRUE(m_log.Lines().empty());
}

class ReportingStreamWatch : public StreamWatchTest {
 protected:
  ReportingStreamWatch() : StreamWatchTest(seconds(20)) {}
};

TEST_F(ReportingStreamWatch, SaysOnceAPeriodWhereTheEventsAre) {
  const std::string moving = "100 events delivered, 50 cached in 3 chunks, 6 lost, 0 held; ";
  for (int second = 0; second <= 60; second += 10) {
    LookAfter(seconds(second), Stuck());
  }
  EXPECT_EQ(m_log.Count(LogLevel::Info, moving + "stalled for 0 s."), 2u);
  EXPECT_EQ(m_log.Count(LogLevel::Info, moving + "stalled for 60 s."), 1u);
}

}  // namespace
}  // namespace OrloAgent
