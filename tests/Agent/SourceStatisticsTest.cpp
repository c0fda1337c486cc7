#include "Agent/SourceStatistics.h"

#include <gtest/gtest.h>

namespace {

class CountedSource : public OrloAgent::Source {
 public:
  std::vector<OrloAgent::EndCounter> GetCounters() const override { return {}; }
  void Count(int posted, int notMade) {
    GetPostCounts().posted += posted;
    GetPostCounts().notMade += notMade;
  }

 protected:
  void Begin(const std::string&) override {}
  void End() override {}
};

TEST(SourceStatistics, EachSourceOfAStreamHasItsGroup) {
  WindowsAgentCommon::StatisticsServer server;
  CountedSource source;
  OrloAgent::SourceStatistics first(server, "S", "tcp://h:1", source);
  OrloAgent::SourceStatistics second(server, "S", "stdin", source);
  source.Count(7, 2);
  first.Publish(source);
  source.Count(1, 0);
  second.Publish(source);
  const auto groups = server.GetSnapshot();
  ASSERT_EQ(groups.size(), 2u);
  for (const auto& group : groups) {
    EXPECT_EQ(group.name, "Source");
    EXPECT_EQ(group.instance, "S");
    EXPECT_EQ(group.GetInteger("EventsNotMade"), 2);
  }
  EXPECT_EQ(boost::get<std::string>(*groups[0].Find("SourceName")), "tcp://h:1");
  EXPECT_EQ(groups[0].GetInteger("EventsPosted"), 7);
  EXPECT_EQ(boost::get<std::string>(*groups[1].Find("SourceName")), "stdin");
  EXPECT_EQ(groups[1].GetInteger("EventsPosted"), 8);
}

TEST(SourceStatistics, ASourceThatGoesOnWithAnotherStreamGoesOnCounting) {
  WindowsAgentCommon::StatisticsServer server;
  CountedSource source;
  source.Count(7, 2);
  const OrloAgent::SourceStatistics statistics(server, "S", "stdin", source);
  const auto groups = server.GetSnapshot();
  ASSERT_EQ(groups.size(), 1u);
  EXPECT_EQ(groups[0].GetInteger("EventsPosted"), 7);
  EXPECT_EQ(groups[0].GetInteger("EventsNotMade"), 2);
}

}  // namespace
