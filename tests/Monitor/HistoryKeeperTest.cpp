#include "Agent/Monitor/HistoryKeeper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace OrloAgent {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int64_t kHour = 3'600'000;
constexpr std::int64_t kBegin = 10 * kHour;

class HistoryKeeperTest : public testing::Test {
 protected:
  void Look(std::int64_t time, const std::vector<std::string>& streams = {"S"}) {
    AgentState state;
    state.sampled = time;
    for (const std::string& name : streams) {
      StreamState stream;
      stream.name = name;
      stream.posted = static_cast<std::uint64_t>(time);
      state.streams.push_back(stream);
    }
    m_keeper.Add(state);
  }

  std::vector<std::int64_t> Times(const std::string& stream = "S", std::int64_t since = 0) const {
    std::vector<std::int64_t> times;
    History history = m_keeper.Get(since);
    for (const HistoryPoint& point : history[stream]) {
      times.push_back(point.time);
    }
    return times;
  }

  HistoryKeeper m_keeper;
};

TEST_F(HistoryKeeperTest, ThereIsAPointEveryFiveSeconds) {
  for (std::int64_t time = kBegin; time <= kBegin + 10'000; time += 1000) {
    Look(time);
  }
  EXPECT_THAT(Times(), ElementsAre(kBegin, kBegin + 5000, kBegin + 10'000));
  EXPECT_THAT(Times("S", kBegin + 5000), ElementsAre(kBegin + 10'000));
  EXPECT_EQ(m_keeper.Get(0)["S"].front().posted, static_cast<std::uint64_t>(kBegin));
}

TEST_F(HistoryKeeperTest, AStreamThatIsGoneIsForgottenAfterAnHour) {
  Look(kBegin, {"S", "T"});
  Look(kBegin + kHour);
  EXPECT_THAT(Times("T"), ElementsAre(kBegin));
  Look(kBegin + kHour + 5000);
  EXPECT_THAT(Times("T"), IsEmpty());
  EXPECT_EQ(m_keeper.Get(0).count("T"), 0u);
  EXPECT_THAT(Times(), ElementsAre(kBegin + kHour, kBegin + kHour + 5000));
}

TEST_F(HistoryKeeperTest, AClockThatIsPutBackTakesThePointsOfTheFutureAlong) {
  Look(kBegin, {"S", "T"});
  Look(kBegin + 5000, {"S", "T"});
  Look(kBegin + 10'000, {"S", "T"});
  Look(kBegin + 7000);
  EXPECT_THAT(Times(), ElementsAre(kBegin, kBegin + 5000));
  EXPECT_THAT(Times("T"), ElementsAre(kBegin, kBegin + 5000)) << "also of a stream that is gone";
  Look(kBegin + 10'000);
  EXPECT_THAT(Times(), ElementsAre(kBegin, kBegin + 5000, kBegin + 10'000));
  Look(kBegin - 60'000);
  EXPECT_THAT(Times(), ElementsAre(kBegin - 60'000));
}

}  // namespace
}  // namespace OrloAgent
