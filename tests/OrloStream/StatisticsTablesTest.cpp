#include "OrloStream/StatisticsTables.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "OrloStream/StreamStageBaseStatisticsProfile.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "tests/support/RecordingStatistics.h"

namespace OrloStream {
namespace {

using TestSupport::RecordingGroup;
using TestSupport::RecordingServer;
using WindowsAgentCommon::IStatisticsServer;
using WindowsAgentCommon::OrloStatisticsException;
using WindowsAgentCommon::ServiceRegistration;

constexpr StatisticUpdateSite kSite{"the file", "the function"};

StatisticDeclaration Counter(const std::string& name) {
  return {name, "description of " + name, kCounterKind, std::int64_t{0}, 321};
}

class StatisticsTablesTest : public testing::Test {
 protected:
  RecordingGroup m_group{"group", "path"};
  DeclaredStatistics m_declared;
  StatisticCounters m_counters;
};

TEST_F(StatisticsTablesTest, ADeclarationIsEnteredAndHandedToTheGroup) {
  const StatisticDeclaration statistic{"Period", "seconds", 0x4106, std::int64_t{3}, 1};
  DeclareStatistic(m_group, m_declared, statistic);
  EXPECT_EQ(m_declared, (DeclaredStatistics{{"Period", 0x4106}}));
  ASSERT_EQ(m_group.Declared().size(), 1u);
  const TestSupport::RecordedStatistic declared = m_group.Declared()[0];
  EXPECT_EQ(declared.name, "Period");
  EXPECT_EQ(declared.description, "seconds");
  EXPECT_EQ(declared.value.GetKind(), 0x4106);
  EXPECT_EQ(boost::get<std::int64_t>(declared.value.GetValue()), 3);
}

TEST_F(StatisticsTablesTest, ACounterStartsAtZero) {
  DeclareCounter(m_group, m_declared, m_counters, Counter("n"));
  EXPECT_EQ(m_declared.at("n"), kCounterKind);
  EXPECT_EQ(*m_counters.at("n"), 0);
  EXPECT_TRUE(m_group.Updates().empty());
}

TEST_F(StatisticsTablesTest, ASerialCounterIsTheSameCounter) {
  std::int64_t* total = nullptr;
  DeclareCounter(m_group, m_declared, m_counters, Counter("n"), total);
  UpdateCounter(&m_group, total, Counter("n"), 4, false, kSite);
  UpdateSerialCounter(&m_group, total, Counter("n"), 5, false, kSite);
  EXPECT_EQ(m_group.IntegerUpdates("n"), (std::vector<std::int64_t>{4, 9}));
  EXPECT_EQ(*m_counters.at("n"), 9);
  EXPECT_THROW(UpdateSerialCounter(&m_group, nullptr, Counter("n"), 1, false, kSite),
               OrloStatisticsException);
}

TEST_F(StatisticsTablesTest, ACounterWithItsTotalAtHandIsTheSameCounter) {
  std::int64_t* total = nullptr;
  DeclareCounter(m_group, m_declared, m_counters, Counter("n"), total);
  UpdateCounter(&m_group, total, Counter("n"), 4, false, kSite);
  UpdateCounter(&m_group, m_declared, m_counters, Counter("n"), 5, false, kSite);
  EXPECT_EQ(m_group.IntegerUpdates("n"), (std::vector<std::int64_t>{4, 9}));
  EXPECT_EQ(*m_counters.at("n"), 9);
}

TEST_F(StatisticsTablesTest, ACounterWithoutATotalAtHandWasNotDeclared) {
  EXPECT_THROW(UpdateCounter(&m_group, nullptr, Counter("n"), 1, false, kSite),
               OrloStatisticsException);
  EXPECT_TRUE(m_group.Updates().empty());
}

TEST_F(StatisticsTablesTest, DeclaringAgainStartsTheTotalAtHandAnew) {
  std::int64_t* total = nullptr;
  DeclareCounter(m_group, m_declared, m_counters, Counter("n"), total);
  UpdateCounter(&m_group, total, Counter("n"), 4, false, kSite);
  DeclareCounter(m_group, m_declared, m_counters, Counter("n"), total);
  UpdateCounter(&m_group, total, Counter("n"), 1, false, kSite);
  EXPECT_EQ(m_group.IntegerUpdates("n"), (std::vector<std::int64_t>{4, 1}));
}

TEST_F(StatisticsTablesTest, UpdatesPublishTheTotal) {
  DeclareCounter(m_group, m_declared, m_counters, Counter("n"));
  for (const std::int64_t amount : {2, 5, 0, -1}) {
    UpdateCounter(&m_group, m_declared, m_counters, Counter("n"), amount, amount == 5, kSite);
  }
  EXPECT_EQ(m_group.IntegerUpdates("n"), (std::vector<std::int64_t>{2, 7, 7, 6}));
  EXPECT_EQ(m_group.Updates()[0].value.GetKind(), kCounterKind);
  EXPECT_FALSE(m_group.Updates()[0].flag);
  EXPECT_TRUE(m_group.Updates()[1].flag);
  EXPECT_EQ(*m_counters.at("n"), 6);
}

TEST_F(StatisticsTablesTest, TheTotalGrowsOnlyAfterItWasPublished) {
  DeclareCounter(m_group, m_declared, m_counters, Counter("n"));
  std::int64_t stored = -1;
  m_group.OnUpdate([&](const std::string&) { stored = *m_counters.at("n"); });
  UpdateCounter(&m_group, m_declared, m_counters, Counter("n"), 4, false, kSite);
  EXPECT_EQ(stored, 0);
  EXPECT_EQ(*m_counters.at("n"), 4);
}

TEST_F(StatisticsTablesTest, WhatWasNotDeclaredCannotBeUpdated) {
  try {
    UpdateCounter(&m_group, m_declared, m_counters, Counter("n"), 1, false, kSite);
    FAIL();
  } catch (const OrloStatisticsException& error) {
    EXPECT_STREQ(error.what(), "There was no matching DECLARE_STATISTIC() section for statistic n");
    EXPECT_EQ(error.GetFile(), "the file");
    EXPECT_EQ(error.GetFunction(), "the function");
    EXPECT_EQ(error.GetLine(), 321);
  }
  EXPECT_THROW(GetDeclaredKind(m_declared, Counter("n"), kSite), OrloStatisticsException);
  EXPECT_TRUE(m_group.Updates().empty());
}

TEST_F(StatisticsTablesTest, ThreadsLoseNoAmountAndTheLastPublishedValueIsTheTotal) {
  DeclareCounter(m_group, m_declared, m_counters, Counter("n"));
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&] {
      for (int i = 0; i < 1000; ++i) {
        UpdateCounter(&m_group, m_declared, m_counters, Counter("n"), 1, false, kSite);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(*m_counters.at("n"), 4000);
  EXPECT_EQ(m_group.Integer("n"), 4000);
}

class TestProfile final : public StreamStageBaseStatisticsProfile {};

class BaseProfileTest : public testing::Test {
 protected:
  std::shared_ptr<RecordingServer> m_server = std::make_shared<RecordingServer>();
  ServiceRegistration m_registration{IStatisticsServer::GetServiceName(), m_server};
  TestProfile m_profile;
};

TEST_F(BaseProfileTest, InitializePublishesAndRegistersTheGroup) {
  EXPECT_EQ(m_profile.GetStatisticsServer(), m_server.get());
  m_profile.Initialize();
  ASSERT_EQ(m_server->Groups().size(), 1u);
  EXPECT_EQ(m_server->Groups()[0]->PublishCount(), 1);
  EXPECT_EQ(m_server->RegisteredCount(), 1u);
  ASSERT_EQ(m_server->Groups()[0]->Declared().size(), 1u);
  EXPECT_EQ(m_server->Groups()[0]->Declared()[0].name, "MessagesRejected");
}

TEST_F(BaseProfileTest, InitializeStatisticsPublishesOnlyIfAskedAndKeepsItsGroup) {
  m_profile.InitializeStatistics(false);
  EXPECT_EQ(m_server->Groups().at(0)->PublishCount(), 0);
  m_profile.InitializeStatistics(true);
  EXPECT_EQ(m_server->Groups().size(), 1u);
  EXPECT_EQ(m_server->Groups()[0]->PublishCount(), 1);
  EXPECT_EQ(m_server->RegisteredCount(), 0u);
}

TEST_F(BaseProfileTest, RejectedMessagesAreATotal) {
  EXPECT_THROW(m_profile.UpdateMessagesRejected(1, false), OrloStatisticsException);
  m_profile.Initialize();
  m_profile.UpdateMessagesRejected(2, false);
  m_profile.UpdateMessagesRejected(3, true);
  EXPECT_EQ(m_server->Groups()[0]->IntegerUpdates("MessagesRejected"),
            (std::vector<std::int64_t>{2, 5}));
}

TEST_F(BaseProfileTest, WithoutTheServiceThereIsNoServer) {
  WindowsAgentCommon::UnregisterService(IStatisticsServer::GetServiceName());
  EXPECT_EQ(m_profile.GetStatisticsServer(), nullptr);
}

}  // namespace
}  // namespace OrloStream
