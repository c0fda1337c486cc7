#include "WindowsAgentCommon/Statistics.h"

#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <thread>

#include "tests/support/LogCapture.h"

namespace WindowsAgentCommon {
namespace {

StatisticValue Whole(std::int64_t number) { return StatisticValue(7, number); }

class StatisticsTest : public testing::Test {
 protected:
  std::shared_ptr<IStatisticsGroup> MakeGroup(const std::string& name) {
    std::shared_ptr<IStatisticsGroup> group;
    m_server.CreateGroup(name, "Category/" + name, group);
    return group;
  }
  std::shared_ptr<IStatisticsGroup> MakeVisibleGroup(const std::string& name) {
    const auto group = MakeGroup(name);
    group->Publish();
    m_server.RegisterGroup(group);
    return group;
  }
  std::vector<std::string> VisibleNames() const {
    std::vector<std::string> names;
    for (const StatisticsGroupSnapshot& group : m_server.GetSnapshot()) {
      names.push_back(group.name);
    }
    return names;
  }

  StatisticsServer m_server;
};

using Names = std::vector<std::string>;

TEST_F(StatisticsTest, AGroupIsVisibleOnceItIsBothRegisteredAndPublished) {
  const auto group = MakeGroup("a");
  EXPECT_EQ(VisibleNames(), Names{});
  group->Publish();
  EXPECT_EQ(VisibleNames(), Names{});
  m_server.RegisterGroup(group);
  EXPECT_EQ(VisibleNames(), Names{"a"});

  const auto other = MakeGroup("b");
  m_server.RegisterGroup(other);
  EXPECT_EQ(VisibleNames(), Names{"a"});
  other->Publish();
  EXPECT_EQ(VisibleNames(), (Names{"a", "b"}));
}

TEST_F(StatisticsTest, GroupsAreListedInTheOrderOfRegistrationAndOnce) {
  const auto first = MakeVisibleGroup("z");
  MakeVisibleGroup("a");
  m_server.RegisterGroup(first);
  EXPECT_EQ(VisibleNames(), (Names{"z", "a"}));
}

TEST_F(StatisticsTest, TwoGroupsMayHaveTheSameName) {
  MakeVisibleGroup("same");
  MakeVisibleGroup("same");
  EXPECT_EQ(VisibleNames(), (Names{"same", "same"}));
}

TEST_F(StatisticsTest, ARegisteredGroupOutlivesItsMaker) {
  MakeVisibleGroup("kept")->DeclareStatistic("n", "", Whole(5));
  EXPECT_EQ(m_server.GetSnapshot().at(0).GetInteger("n"), 5);
}

TEST_F(StatisticsTest, StatisticsAreShownInTheOrderOfDeclaration) {
  const auto group = MakeVisibleGroup("g");
  group->DeclareStatistic("z", "last letter", StatisticValue(1, std::string("N/A")));
  group->DeclareStatistic("a", "first letter", StatisticValue(0x4106, std::int64_t{3}));
  const StatisticsGroupSnapshot snapshot = m_server.GetSnapshot().at(0);
  EXPECT_EQ(snapshot.categoryPath, "Category/g");
  ASSERT_EQ(snapshot.statistics.size(), 2u);
  EXPECT_EQ(snapshot.statistics[0].name, "z");
  EXPECT_EQ(snapshot.statistics[0].description, "last letter");
  EXPECT_EQ(snapshot.statistics[0].value.GetKind(), 1);
  EXPECT_TRUE(snapshot.statistics[0].value.GetValue() == StatisticVariant(std::string("N/A")));
  EXPECT_EQ(snapshot.statistics[1].name, "a");
  EXPECT_EQ(snapshot.statistics[1].value.GetKind(), 0x4106);
}

TEST_F(StatisticsTest, DeclaringANameAgainReplacesItsValueAndKeepsItsPlace) {
  const auto group = MakeVisibleGroup("g");
  group->DeclareStatistic("a", "old", Whole(1));
  group->DeclareStatistic("b", "", Whole(2));
  group->DeclareStatistic("a", "new", StatisticValue(9, 1.5));
  const StatisticsGroupSnapshot snapshot = m_server.GetSnapshot().at(0);
  ASSERT_EQ(snapshot.statistics.size(), 2u);
  EXPECT_EQ(snapshot.statistics[0].name, "a");
  EXPECT_EQ(snapshot.statistics[0].description, "new");
  EXPECT_EQ(snapshot.statistics[0].value.GetKind(), 9);
  EXPECT_TRUE(snapshot.statistics[0].value.GetValue() == StatisticVariant(1.5));
}

TEST_F(StatisticsTest, AnUpdateReplacesValueAndKindWhateverTheFlag) {
  const auto group = MakeVisibleGroup("g");
  group->DeclareStatistic("n", "", Whole(0));
  group->UpdateStatistic("n", Whole(5), false);
  EXPECT_EQ(m_server.GetSnapshot().at(0).GetInteger("n"), 5);
  group->UpdateStatistic("n", Whole(6), true);
  EXPECT_EQ(m_server.GetSnapshot().at(0).GetInteger("n"), 6);
  group->UpdateStatistic("n", StatisticValue(1, std::string("text")), false);
  const StatisticsGroupSnapshot snapshot = m_server.GetSnapshot().at(0);
  EXPECT_TRUE(*snapshot.Find("n") == StatisticVariant(std::string("text")));
  EXPECT_EQ(snapshot.statistics[0].value.GetKind(), 1);
}

TEST_F(StatisticsTest, AnUpdateOfAnUndeclaredNameIsIgnored) {
  const auto group = MakeVisibleGroup("g");
  group->UpdateStatistic("n", Whole(5), false);
  EXPECT_TRUE(m_server.GetSnapshot().at(0).statistics.empty());
}

TEST_F(StatisticsTest, ASnapshotStaysAsItWas) {
  const auto group = MakeVisibleGroup("g");
  group->DeclareStatistic("n", "", Whole(1));
  const auto before = m_server.GetSnapshot();
  group->UpdateStatistic("n", Whole(2), false);
  EXPECT_EQ(before.at(0).GetInteger("n"), 1);
}

TEST_F(StatisticsTest, FindGivesTheValueOrNull) {
  const auto group = MakeVisibleGroup("g");
  group->DeclareStatistic("yes", "", StatisticValue(9, 2.5));
  const StatisticsGroupSnapshot snapshot = m_server.GetSnapshot().at(0);
  ASSERT_NE(snapshot.Find("yes"), nullptr);
  EXPECT_TRUE(*snapshot.Find("yes") == StatisticVariant(2.5));
  EXPECT_EQ(snapshot.Find("no"), nullptr);
}

TEST_F(StatisticsTest, GetIntegerGivesWholeNumbersAndZeroForAnythingElse) {
  const auto group = MakeVisibleGroup("g");
  group->DeclareStatistic("signed", "", Whole(-3));
  group->DeclareStatistic("unsigned", "", StatisticValue(7, std::uint64_t{4}));
  group->DeclareStatistic("double", "", StatisticValue(9, 5.0));
  group->DeclareStatistic("text", "", StatisticValue(1, std::string("6")));
  group->DeclareStatistic("bool", "", StatisticValue(1, true));
  const StatisticsGroupSnapshot snapshot = m_server.GetSnapshot().at(0);
  EXPECT_EQ(snapshot.GetInteger("signed"), -3);
  EXPECT_EQ(snapshot.GetInteger("unsigned"), 4);
  EXPECT_EQ(snapshot.GetInteger("double"), 0);
  EXPECT_EQ(snapshot.GetInteger("text"), 0);
  EXPECT_EQ(snapshot.GetInteger("bool"), 0);
  EXPECT_EQ(snapshot.GetInteger("missing"), 0);
}

TEST_F(StatisticsTest, GroupsCarryTheInstanceOfTheInnermostScope) {
  MakeVisibleGroup("before");
  {
    const StatisticsInstanceScope outer("outer");
    MakeVisibleGroup("in outer");
    {
      const StatisticsInstanceScope inner("inner");
      MakeVisibleGroup("in inner");
    }
    MakeVisibleGroup("in outer again");
  }
  MakeVisibleGroup("after");
  Names instances;
  for (const StatisticsGroupSnapshot& group : m_server.GetSnapshot()) {
    instances.push_back(group.instance);
  }
  EXPECT_EQ(instances, (Names{"", "outer", "inner", "outer", ""}));
}

TEST_F(StatisticsTest, AnInstanceScopeIsItsThreadsOwn) {
  const StatisticsInstanceScope scope("mine");
  std::thread([&] { MakeVisibleGroup("other thread's"); }).join();
  EXPECT_EQ(m_server.GetSnapshot().at(0).instance, "");
}

TEST_F(StatisticsTest, RemovingAnInstanceForgetsItsGroupsOnly) {
  const StatisticsInstanceScope a("a");
  MakeVisibleGroup("1");
  std::shared_ptr<IStatisticsGroup> second;
  {
    const StatisticsInstanceScope b("b");
    second = MakeVisibleGroup("2");
  }
  MakeVisibleGroup("3");
  m_server.RemoveInstance("a");
  EXPECT_EQ(VisibleNames(), Names{"2"});
  m_server.RemoveInstance("nobody");
  EXPECT_EQ(VisibleNames(), Names{"2"});
  m_server.RemoveInstance("b");
  second->UpdateStatistic("n", Whole(1), false);
  EXPECT_EQ(VisibleNames(), Names{});
}

TEST_F(StatisticsTest, AGroupThatTheServerDidNotMakeIsReportedAndNotShown) {
  class ForeignGroup : public IStatisticsGroup {
   public:
    void Publish() override {}
    void DeclareStatistic(const std::string&, const std::string&, const StatisticValue&) override {}
    void UpdateStatistic(const std::string&, const StatisticValue&, bool) override {}
  };
  const TestSupport::LogCapture log;
  m_server.RegisterGroup(std::make_shared<ForeignGroup>());
  m_server.RegisterGroup(nullptr);
  EXPECT_TRUE(m_server.GetSnapshot().empty());
  ASSERT_EQ(log.Lines().size(), 2u);
  EXPECT_EQ(log.Lines()[0].level, LogLevel::Error);
}

TEST_F(StatisticsTest, IsFoundAsAService) {
  const auto server = std::make_shared<StatisticsServer>();
  const ServiceRegistration registration(IStatisticsServer::GetServiceName(), server);
  EXPECT_EQ(dynamic_cast<IStatisticsServer*>(_getService(IStatisticsServer::GetServiceName())),
            server.get());
}

// Two statistics that are always updated one after the other: the first is never behind the
// second, and at most one step ahead.
TEST_F(StatisticsTest, AGroupsValuesAreOfOneMoment) {
  const auto group = MakeVisibleGroup("g");
  group->DeclareStatistic("first", "", Whole(0));
  group->DeclareStatistic("second", "", Whole(0));
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (std::int64_t i = 1; !stop; ++i) {
      group->UpdateStatistic("first", Whole(i), false);
      group->UpdateStatistic("second", Whole(i), false);
    }
  });
  for (int round = 0; round < 3000; ++round) {
    const StatisticsGroupSnapshot snapshot = m_server.GetSnapshot().at(0);
    const std::int64_t ahead = snapshot.GetInteger("first") - snapshot.GetInteger("second");
    EXPECT_GE(ahead, 0);
    EXPECT_LE(ahead, 1);
  }
  stop = true;
  writer.join();
}

TEST_F(StatisticsTest, ThreadsCreateUpdateReadAndRemoveAtOnce) {
  const auto shared = MakeVisibleGroup("shared");
  for (int number = 0; number < 4; ++number) {
    shared->DeclareStatistic(std::to_string(number), "", Whole(0));
  }
  const StatisticValue text(1, std::string("a text for which memory has to be found"));
  shared->DeclareStatistic("either", "", text);
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&, number] {
      const std::string name = std::to_string(number);
      const StatisticsInstanceScope scope(name);
      for (int round = 1; round <= 500; ++round) {
        MakeVisibleGroup(name);
        shared->UpdateStatistic("either", number % 2 == 0 ? Whole(round) : text, false);
        shared->UpdateStatistic(name, Whole(round), false);
        m_server.GetSnapshot();
        m_server.RemoveInstance(name);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const auto snapshot = m_server.GetSnapshot();
  ASSERT_EQ(snapshot.size(), 1u);
  for (int number = 0; number < 4; ++number) {
    EXPECT_EQ(snapshot[0].GetInteger(std::to_string(number)), 500);
  }
}

}  // namespace
}  // namespace WindowsAgentCommon
