#include "Agent/StreamPulse.h"

#include <gtest/gtest.h>

namespace OrloAgent {

using std::chrono::seconds;
using State = StreamPulse::State;

class StreamPulseTest : public testing::Test {
 protected:
  State LookAfter(seconds time) {
    m_now += time;
    return m_pulse.Look(m_report, m_now);
  }

  StreamPulse m_pulse{{seconds(10), seconds(20)}};
  StreamPulse::Clock::time_point m_now{};
  StreamReport m_report;
};

TEST_F(StreamPulseTest, AnIdleStreamIsWell) {
  EXPECT_EQ(LookAfter(seconds(0)), State::Well);
  EXPECT_EQ(LookAfter(seconds(100)), State::Well) << "before its first event";
  m_report.posted = m_report.accepted = m_report.sent = 7;
  for (int look = 0; look < 5; ++look) {
    EXPECT_EQ(LookAfter(seconds(100)), State::Well);
  }
}

TEST_F(StreamPulseTest, EventsThatNothingIsDecidedAboutAreNoticedAfterTheLimit) {
  EXPECT_EQ(LookAfter(seconds(0)), State::Well);
  m_report.posted = 5;
  EXPECT_EQ(LookAfter(seconds(10)), State::Well);
  EXPECT_EQ(LookAfter(seconds(1)), State::NothingDecided);
  m_report.posted = 6;
  EXPECT_EQ(LookAfter(seconds(1)), State::NothingDecided) << "more of them is no decision";
  m_report.cached = 6;
  EXPECT_EQ(LookAfter(seconds(1)), State::Well);
  EXPECT_EQ(LookAfter(seconds(1000)), State::Well) << "nothing was posted since";
}

TEST_F(StreamPulseTest, AnyDecisionCounts) {
  LookAfter(seconds(0));
  std::uint64_t* const decisions[] = {&m_report.accepted, &m_report.cached, &m_report.cachedChunks,
                                      &m_report.lost};
  for (std::uint64_t* decision : decisions) {
    ++m_report.posted;
    EXPECT_EQ(LookAfter(seconds(9)), State::Well);
    ++*decision;
    m_report.sent = m_report.accepted;
    EXPECT_EQ(LookAfter(seconds(9)), State::Well);
  }
}

TEST_F(StreamPulseTest, ASenderThatNeitherSendsNorIsRefusedIsNoticedAfterTheLimit) {
  m_report.posted = m_report.accepted = 5;
  EXPECT_EQ(LookAfter(seconds(0)), State::Well);
  EXPECT_EQ(LookAfter(seconds(20)), State::Well);
  EXPECT_EQ(LookAfter(seconds(1)), State::NothingSent);
  m_report.refusals = 1;
  EXPECT_EQ(LookAfter(seconds(20)), State::Well) << "its destination is away";
  EXPECT_EQ(LookAfter(seconds(21)), State::NothingSent);
  m_report.sent = 4;
  EXPECT_EQ(LookAfter(seconds(1)), State::Well);
  m_report.sent = 5;
  EXPECT_EQ(LookAfter(seconds(100)), State::Well);
}

TEST_F(StreamPulseTest, ASenderThatWaitsForEventsOfAnEarlierStreamIsWell) {
  m_report.posted = m_report.accepted = 5;
  m_report.inherited = 100'000;
  for (int look = 0; look < 10; ++look) {
    EXPECT_EQ(LookAfter(seconds(19)), State::Well);
    m_report.delivered += 5'000;
  }
  EXPECT_EQ(LookAfter(seconds(19)), State::Well);
  EXPECT_EQ(LookAfter(seconds(21)), State::NothingSent);
}

}  // namespace OrloAgent
