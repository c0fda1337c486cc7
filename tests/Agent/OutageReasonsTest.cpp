#include "Agent/OutageReasons.h"

#include <gtest/gtest.h>

namespace OrloAgent {

using std::chrono::minutes;
using std::chrono::seconds;

class OutageReasonsTest : public testing::Test {
 protected:
  bool Note(const std::string& reason, seconds after = seconds(1)) {
    m_now += after;
    return m_reasons.Note(reason, m_now);
  }

  OutageReasons m_reasons;
  OutageReasons::Clock::time_point m_now{};
};

TEST_F(OutageReasonsTest, EachChangeIsToldOnce) {
  EXPECT_FALSE(m_reasons.HasBegun());
  EXPECT_TRUE(Note("refused"));
  EXPECT_TRUE(m_reasons.HasBegun());
  EXPECT_FALSE(Note("refused"));
  EXPECT_FALSE(Note("refused", minutes(100))) << "nothing has changed";
  EXPECT_TRUE(Note("expired"));
  EXPECT_FALSE(Note("expired"));
}

TEST_F(OutageReasonsTest, ReasonsThatTakeTurnsAreToldOnceInAWhile) {
  int told = 0;
  for (int i = 0; i < 20 * 60 / 2; ++i) {
    told += Note("refused") ? 1 : 0;
    told += Note("timed out") ? 1 : 0;
  }
  EXPECT_EQ(told, 4) << "both, twice in twenty minutes";
}

TEST_F(OutageReasonsTest, AReceiverThatAlwaysHasAnotherExcuseDoesNotFillTheLog) {
  int told = 0;
  for (int i = 0; i < 600; ++i) {
    told += Note("excuse " + std::to_string(i)) ? 1 : 0;
  }
  EXPECT_EQ(told, 10);
}

TEST_F(OutageReasonsTest, TheNextOutageBeginsAnew) {
  EXPECT_TRUE(Note("refused"));
  m_reasons.End();
  EXPECT_FALSE(m_reasons.HasBegun());
  EXPECT_TRUE(Note("refused"));
}

}  // namespace OrloAgent
