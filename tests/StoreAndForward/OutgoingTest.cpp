// The sending side on its own: chunks are handed to it by the test, in the place of the Incoming
// thread.

#include "StoreAndForward/StoreAndForwardOutgoing.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Platform/testing/TestClock.h"
#include "tests/StoreAndForward/StageHarness.h"

namespace OrloStoreAndForward {
namespace {

using TestSupport::WaitUntil;
using WindowsAgentCommon::EnvironmentBlock;
using WindowsAgentCommon::LogLevel;
using Strings = std::vector<std::string>;

class Outgoing : public testing::Test {
 protected:
  Outgoing() : m_outgoing(std::make_unique<StoreAndForwardOutgoing>(&m_harness.Stage())) {}
  ~Outgoing() override {
    m_outgoing->Stop();
    Platform::TestClock::Reset();
  }

  // Hands over events with the payloads "event 0", ...
  void Accept(std::size_t count, const std::string& prefix = "event ") {
    std::vector<ACE_Message_Block*> events = TestSupport::MakeEvents(count, prefix);
    m_outgoing->Accept(events);
    EXPECT_EQ(events.size(), count) << "the vector is left as it was";
  }

  bool WaitUntilIdle() {
    return WaitUntil([this] { return m_outgoing->CanAccept(); });
  }

  std::int64_t Statistic(const std::string& name) { return m_harness.Statistic(name); }

  StageHarness m_harness;
  std::unique_ptr<StoreAndForwardOutgoing> m_outgoing;
};

TEST_F(Outgoing, RefusesChunksBeforeInitializeAndAfterStop) {
  EXPECT_FALSE(m_outgoing->CanAccept());
  m_outgoing->Initialize({});
  EXPECT_TRUE(WaitUntilIdle());
  m_outgoing->Stop();
  EXPECT_FALSE(m_outgoing->CanAccept());
}

TEST_F(Outgoing, StopBeforeInitializeAndASecondStopDoNothing) {
  m_outgoing->Stop();
  EXPECT_TRUE(m_harness.Log().Lines().empty());
  m_outgoing->Initialize({});
  m_outgoing->Stop();
  m_outgoing->Stop();
  EXPECT_EQ(m_harness.Log().Count(LogLevel::Info, "Stopping..."), 1u);
}

TEST_F(Outgoing, LogsItsLifeUnderTheStreamsName) {
  m_outgoing->Initialize({});
  m_outgoing->Stop();
  EXPECT_TRUE(m_harness.Log().Contains(LogLevel::Info, kOutgoingLogger, "Started"));
  EXPECT_TRUE(m_harness.Log().Contains(LogLevel::Info, kOutgoingLogger, "Thread running..."));
  EXPECT_TRUE(m_harness.Log().Contains(LogLevel::Info, kOutgoingLogger, "Stopping..."));
  EXPECT_TRUE(m_harness.Log().Contains(LogLevel::Debug, kOutgoingLogger, "Thread exiting."));
  EXPECT_EQ(m_harness.Log().Lines().size(), 4u);
}

TEST_F(Outgoing, LoggerCarriesTheStreamsNameInUtf8) {
  m_harness.Stage().SetParentStreamName(L"Sälzer \u65E5\u672C");
  m_outgoing->Initialize({});
  EXPECT_TRUE(m_harness.Log().Contains(
      LogLevel::Info, "Code.StoreAndForwardOutgoing.S\xC3\xA4lzer \xE6\x97\xA5\xE6\x9C\xAC",
      "Started"));
}

TEST_F(Outgoing, LoggerNameEndsAtTheFirstNulOfTheStreamsName) {
  m_harness.Stage().SetParentStreamName(std::wstring(L"before\0after", 12));
  m_outgoing->Initialize({});
  EXPECT_TRUE(
      m_harness.Log().Contains(LogLevel::Info, "Code.StoreAndForwardOutgoing.before", "Started"));
}

TEST_F(Outgoing, LoggerNameOfAStreamWhoseNameIsTooLongHasNoStreamName) {
  m_harness.Stage().SetParentStreamName(std::wstring(16384, L'x'));
  m_outgoing->Initialize({});
  EXPECT_TRUE(m_harness.Log().Contains(LogLevel::Info, "Code.StoreAndForwardOutgoing.", "Started"));
}

TEST_F(Outgoing, DeliversEventsInOrderAndCountsThem) {
  m_outgoing->Initialize({});
  Accept(3);
  EXPECT_TRUE(WaitUntilIdle());
  EXPECT_EQ(m_harness.Destination().Delivered(), Numbered(3));
  EXPECT_EQ(Statistic("EventsIncoming"), 3);
  EXPECT_EQ(Statistic("EventsOutgoing"), 3);
  EXPECT_EQ(Statistic("NumberOfRequeues"), 0);
  EXPECT_EQ(m_harness.Group("StoreAndForwardOutgoing").IntegerUpdates("EventsOutgoing"),
            (std::vector<std::int64_t>{1, 2, 3}));
  EXPECT_EQ(m_harness.Group("StoreAndForwardOutgoing").IntegerUpdates("EventsIncoming"),
            std::vector<std::int64_t>{3});
  EXPECT_TRUE(m_harness.Allocators().NothingAlive());
}

TEST_F(Outgoing, ChunkOfNoEventsIsAccepted) {
  m_outgoing->Initialize({});
  Accept(0);
  EXPECT_TRUE(WaitUntilIdle());
  EXPECT_EQ(m_harness.Group("StoreAndForwardOutgoing").IntegerUpdates("EventsIncoming"),
            std::vector<std::int64_t>{0});
}

TEST_F(Outgoing, RefusesChunksWhileOneEventIsUndelivered) {
  std::atomic<bool> release{false};
  m_harness.Destination().SetAnswer([&](const std::string&) {
    WaitUntil([&] { return release.load(); });
    return 0;
  });
  m_outgoing->Initialize({{"Schedule.Enable", "true"},
                          {"Schedule.Interval", "0000-2359;00;UTC"},
                          {"Schedule.Invert", "true"}});
  EXPECT_TRUE(WaitUntilIdle());
  Accept(1);
  EXPECT_FALSE(m_outgoing->CanAccept());
  EXPECT_TRUE(m_harness.Destination().Offers().empty())
      << "the answer did not wait for the delivery";
  release = true;
  EXPECT_TRUE(WaitUntilIdle());
}

TEST_F(Outgoing, RefusesChunksWhileTheThreadBacksOffAndKeepsTheEventAtTheHead) {
  m_harness.Destination().SetAnswer([](const std::string&) { return kBackpressure; });
  m_outgoing->Initialize({});
  Accept(2);
  ASSERT_TRUE(WaitUntil([this] { return Statistic("NumberOfRequeues") == 1; }));
  EXPECT_FALSE(m_outgoing->CanAccept()) << "the lock is held during the back-off";
  ASSERT_TRUE(WaitUntil([this] { return m_harness.Destination().Offers().size() == 1; }));
  EXPECT_EQ(m_harness.Destination().Offers()[0].payload, "event 0");
  EXPECT_EQ(Statistic("EventsOutgoing"), 0);
  m_outgoing->Stop();
  EXPECT_EQ(m_harness.Destination().Offers().size(), 1u);
  EXPECT_EQ(m_harness.Allocators().BlocksAlive(), 4u) << "two events of two blocks, abandoned";
}

TEST_F(Outgoing, AcceptWaitsForTheLockWhichTheBackOffHolds) {
  m_harness.Destination().SetAnswer([](const std::string&) { return kBackpressure; });
  m_outgoing->Initialize({});
  Accept(1);
  ASSERT_TRUE(WaitUntil([this] { return Statistic("NumberOfRequeues") == 1; }));
  ASSERT_TRUE(WaitUntil([this] { return m_harness.Destination().Offers().size() == 1; }));
  Accept(1);
  EXPECT_GE(std::chrono::steady_clock::now() - m_harness.Destination().Offers()[0].time,
            std::chrono::milliseconds(950));
}

TEST_F(Outgoing, EventsAreDeliveredByReferenceNotCopied) {
  std::size_t buffers = 0;
  m_harness.Destination().SetAnswer([&](const std::string&) {
    buffers = m_harness.Allocators().Buffers().Alive();
    return 0;
  });
  m_outgoing->Initialize({});
  Accept(1);
  EXPECT_TRUE(WaitUntilIdle());
  EXPECT_EQ(buffers, 2u) << "head and payload";
}

TEST_F(Outgoing, RefusesChunksAfterTheBackOffWhileTheEventIsPending) {
  m_harness.Destination().SetAnswer([](const std::string&) { return kBackpressure; });
  m_outgoing->Initialize({});
  Accept(1);
  ASSERT_TRUE(WaitUntil([this] { return Statistic("NumberOfRequeues") == 1; }));
  // For longer than the back-off of one second.
  EXPECT_FALSE(WaitUntil([this] { return m_outgoing->CanAccept(); }, std::chrono::seconds(2)));
}

TEST_F(Outgoing, DestinationThatAnswersMinusOneDropsEveryEventAndCountsItAsOutgoing) {
  m_harness.Destination().SetAnswer([](const std::string&) { return -1; });
  m_outgoing->Initialize({});
  Accept(3);
  EXPECT_TRUE(WaitUntilIdle());
  EXPECT_EQ(m_harness.Destination().Offers().size(), 3u);
  EXPECT_EQ(Statistic("EventsOutgoing"), 3);
  EXPECT_EQ(Statistic("NumberOfRequeues"), 0);
  EXPECT_TRUE(m_harness.Allocators().NothingAlive());
}

TEST_F(Outgoing, ResultWithBothBitsIsAnErrorNotBackpressure) {
  m_harness.Destination().SetAnswer(
      [](const std::string&) { return static_cast<int>(0xC0000000u); });
  m_outgoing->Initialize({});
  Accept(2);
  EXPECT_TRUE(WaitUntilIdle());
  EXPECT_EQ(Statistic("EventsOutgoing"), 2);
  EXPECT_EQ(Statistic("NumberOfRequeues"), 0);
}

TEST_F(Outgoing, OtherPositiveResultsAreSuccess) {
  m_harness.Destination().SetAnswer([](const std::string&) { return 0x3FFFFFFF; });
  m_outgoing->Initialize({});
  Accept(2);
  EXPECT_TRUE(WaitUntilIdle());
  EXPECT_EQ(Statistic("EventsOutgoing"), 2);
}

TEST_F(Outgoing, BackpressureWithOtherBitsIsStillBackpressure) {
  m_harness.Destination().SetAnswer([](const std::string&) { return kBackpressure | 5; });
  m_outgoing->Initialize({});
  Accept(1);
  EXPECT_TRUE(WaitUntil([this] { return Statistic("NumberOfRequeues") == 1; }));
  EXPECT_EQ(Statistic("EventsOutgoing"), 0);
}

TEST_F(Outgoing, EventForWhoseReferenceThereIsNoMemoryStaysAtTheHead) {
  m_outgoing->Initialize({});
  std::vector<ACE_Message_Block*> events = TestSupport::MakeEvents(1);
  m_harness.Allocators().Blocks().FailAfter(0);
  m_outgoing->Accept(events);
  EXPECT_TRUE(WaitUntil([this] { return Statistic("NumberOfRequeues") == 1; }));
  m_harness.Allocators().Blocks().FailAfter(-1);
  EXPECT_TRUE(m_harness.Destination().Offers().empty());
  EXPECT_EQ(Statistic("EventsOutgoing"), 0);
}

TEST_F(Outgoing, BackpressureAndErrorsAreNotLogged) {
  int offers = 0;
  m_harness.Destination().SetAnswer(
      [&offers](const std::string&) { return ++offers == 1 ? -1 : kBackpressure; });
  m_outgoing->Initialize({});
  Accept(2);
  ASSERT_TRUE(WaitUntil([this] { return Statistic("NumberOfRequeues") == 1; }));
  for (const TestSupport::LogLine& line : m_harness.Log().Lines()) {
    EXPECT_TRUE(line.text == "Started" || line.text == "Thread running...") << line.text;
  }
}

TEST_F(Outgoing, StopRunsADeliveryPassToItsEnd) {
  std::atomic<bool> entered{false};
  m_harness.Destination().SetAnswer([&](const std::string&) {
    entered = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return 0;
  });
  m_outgoing->Initialize({});
  Accept(10);
  ASSERT_TRUE(WaitUntil([&] { return entered.load(); }));
  m_outgoing->Stop();
  EXPECT_EQ(m_harness.Destination().Delivered(), Numbered(10));
}

TEST_F(Outgoing, StopWithPendingEventsNeitherDeliversNorReleasesThem) {
  m_harness.Destination().SetAnswer([](const std::string&) { return kBackpressure; });
  m_outgoing->Initialize({});
  Accept(3);
  ASSERT_TRUE(WaitUntil([this] { return Statistic("NumberOfRequeues") == 1; }));
  m_harness.Destination().SetAnswer({});
  m_outgoing->Stop();
  EXPECT_TRUE(m_harness.Destination().Delivered().empty());
  EXPECT_EQ(m_harness.Allocators().BlocksAlive(), 6u);
  m_outgoing.reset();
  EXPECT_EQ(m_harness.Allocators().BlocksAlive(), 6u) << "destruction abandons them too";
  m_outgoing = std::make_unique<StoreAndForwardOutgoing>(&m_harness.Stage());
}

TEST_F(Outgoing, StopGoesAheadOfWaitingWakeUps) {
  // The thread is kept busy with a first chunk while wake-ups pile up behind it.
  std::atomic<bool> entered{false};
  std::atomic<bool> release{false};
  m_harness.Destination().SetAnswer([&](const std::string&) {
    entered = true;
    WaitUntil([&] { return release.load(); });
    return kBackpressure;
  });
  m_outgoing->Initialize({});
  Accept(1);
  ASSERT_TRUE(WaitUntil([&] { return entered.load(); }));
  for (int i = 0; i < 100; ++i) {
    m_outgoing->putq(new ACE_Message_Block(0, ACE_Message_Block::MB_EVENT));
  }
  std::thread stopper([this] { m_outgoing->Stop(); });
  ASSERT_TRUE(
      WaitUntil([this] { return m_harness.Log().Count(LogLevel::Info, "Stopping...") == 1; }));
  ASSERT_TRUE(WaitUntil([this] { return m_outgoing->msg_queue()->message_count() == 101; }));
  release = true;
  stopper.join();
  EXPECT_EQ(m_harness.Destination().Offers().size(), 1u)
      << "no wake-up was taken before the hang-up";
}

// ---- Schedule -----------------------------------------------------------------------------------

class OutgoingSchedule : public Outgoing {
 protected:
  // A moment at which "0000-0001;7F;UTC" is closed and "1100-1300;7F;UTC" open: a Sunday noon.
  void StandAtNoon() {
    constexpr std::uint64_t kNoon = 1793491200 + 12 * 3600;
    Platform::TestClock::Set((kNoon + 11644473600) * 10'000'000);
  }

  // A processor of its own for each answer. While the clock stands its thread may find its deadline
  // in the past, and only looks more often.
  bool AllowsAtNoon(const EnvironmentBlock& settings) {
    m_outgoing = std::make_unique<StoreAndForwardOutgoing>(&m_harness.Stage());
    m_outgoing->Initialize(settings);
    StandAtNoon();
    const bool allowed = m_outgoing->CanAccept();
    Platform::TestClock::Reset();
    m_outgoing->Stop();
    return allowed;
  }
};

TEST_F(OutgoingSchedule, OpenIntervalAllows) {
  EXPECT_TRUE(
      AllowsAtNoon({{"Schedule.Enable", "true"}, {"Schedule.Interval", "1100-1300;7F;UTC"}}));
}

TEST_F(OutgoingSchedule, ClosedIntervalRefuses) {
  EXPECT_FALSE(
      AllowsAtNoon({{"Schedule.Enable", "true"}, {"Schedule.Interval", "0000-0001;7F;UTC"}}));
}

TEST_F(OutgoingSchedule, InvertReversesTheAnswer) {
  EXPECT_FALSE(AllowsAtNoon({{"Schedule.Enable", "true"},
                             {"Schedule.Interval", "1100-1300;7F;UTC"},
                             {"Schedule.Invert", "true"}}));
}

TEST_F(OutgoingSchedule, MissingOrFalseEnableMakesNoScheduleAndNoMessage) {
  EXPECT_TRUE(AllowsAtNoon({{"Schedule.Interval", "0000-0001;7F;UTC"}}));
  EXPECT_TRUE(
      AllowsAtNoon({{"Schedule.Enable", "false"}, {"Schedule.Interval", "not an interval"}}));
  for (const TestSupport::LogLine& line : m_harness.Log().Lines()) {
    EXPECT_NE(line.level, LogLevel::Error) << line.text;
    EXPECT_NE(line.level, LogLevel::Warn) << line.text;
  }
}

TEST_F(OutgoingSchedule, MissingIntervalsMakeNoScheduleAndNoMessage) {
  EXPECT_TRUE(AllowsAtNoon({{"Schedule.Enable", "true"}, {"Schedule.Invert", "true"}}));
  for (const TestSupport::LogLine& line : m_harness.Log().Lines()) {
    EXPECT_NE(line.level, LogLevel::Error) << line.text;
  }
}

TEST_F(OutgoingSchedule, OneBadIntervalTurnsTheWholeScheduleOff) {
  EXPECT_TRUE(AllowsAtNoon({{"Schedule.Enable", "true"},
                            {"Schedule.Interval", "0000-0001;7F;UTC"},
                            {"Schedule.Interval", "0800-1700;7f;UTC"},
                            {"Schedule.Interval", "also bad"}}));
  std::size_t errors = 0;
  for (const TestSupport::LogLine& line : m_harness.Log().Lines()) {
    errors += line.level == LogLevel::Error;
  }
  EXPECT_EQ(errors, 1u);
  EXPECT_TRUE(m_harness.Log().Contains(
      LogLevel::Error, kOutgoingLogger,
      "Invalid schedule interval detected (0800-1700;7f;UTC). Disabling Schedule."));
  EXPECT_TRUE(m_harness.Log().Contains(LogLevel::Info, kOutgoingLogger, "Started"));
}

TEST_F(OutgoingSchedule, ZoneOfTheFirstIntervalGovernsAll) {
  // 20:00 in Hong Kong.
  EXPECT_TRUE(AllowsAtNoon({{"Schedule.Enable", "true"},
                            {"Schedule.Interval", "1900-2100;7F;Asia/Hong_Kong"},
                            {"Schedule.Interval", "0000-0001;7F;UTC"}}));
  EXPECT_FALSE(AllowsAtNoon({{"Schedule.Enable", "true"},
                             {"Schedule.Interval", "0000-0001;7F;Asia/Hong_Kong"},
                             {"Schedule.Interval", "1100-1300;7F;UTC"}}));
}

TEST_F(OutgoingSchedule, UnknownZoneInTheFirstIntervalTurnsTheScheduleOff) {
  EXPECT_TRUE(AllowsAtNoon(
      {{"Schedule.Enable", "true"}, {"Schedule.Interval", "0000-0001;7F;No/Such_Zone"}}));
  EXPECT_TRUE(
      m_harness.Log().Contains(LogLevel::Error, "Code.StoreAndForwardOutgoing.Schedule",
                               "Failed to retrieve time zone information for No/Such_Zone."));
  EXPECT_TRUE(m_harness.Log().Contains(
      LogLevel::Error, kOutgoingLogger,
      "Invalid schedule interval detected (0000-0001;7F;No/Such_Zone). Disabling Schedule."));
}

TEST_F(OutgoingSchedule, UnknownZoneInALaterIntervalIsAccepted) {
  EXPECT_FALSE(AllowsAtNoon({{"Schedule.Enable", "true"},
                             {"Schedule.Interval", "0000-0001;7F;UTC"},
                             {"Schedule.Interval", "0002-0003;7F;No/Such_Zone"}}));
  for (const TestSupport::LogLine& line : m_harness.Log().Lines()) {
    EXPECT_NE(line.level, LogLevel::Error) << line.text;
  }
}

TEST_F(OutgoingSchedule, EventsAcceptedBeforeAreDeliveredOutsideTheIntervals) {
  m_outgoing->Initialize({{"Schedule.Enable", "true"}, {"Schedule.Interval", "0000-2359;00;UTC"}});
  EXPECT_FALSE(m_outgoing->CanAccept());
  Accept(5);
  EXPECT_TRUE(WaitUntil([this] { return m_harness.Destination().Delivered().size() == 5; }));
}

}  // namespace
}  // namespace OrloStoreAndForward
