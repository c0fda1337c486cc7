#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <thread>

#include "StoreAndForward/StoreAndForwardStatisticsProfile.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "tests/support/RecordingStatistics.h"

namespace OrloStoreAndForward {
namespace {

using TestSupport::RecordedStatistic;
using TestSupport::RecordedUpdate;
using TestSupport::RecordingGroup;
using TestSupport::RecordingServer;
using WindowsAgentCommon::IStatisticsServer;
using WindowsAgentCommon::OrloException;
using WindowsAgentCommon::OrloStatisticsException;

class StatisticsProfiles : public testing::Test {
 protected:
  RecordingGroup& Group(const std::string& name) { return *m_server->Find(name); }

  std::shared_ptr<RecordingServer> m_server = std::make_shared<RecordingServer>();
  WindowsAgentCommon::ServiceRegistration m_registration{IStatisticsServer::GetServiceName(),
                                                         m_server};
};

struct Row {
  const char* name;
  std::int64_t kind;
  const char* description;
};

constexpr char kChunkSizeText[] =
    "The number of events in a single chunk of incoming event data that were accepted by the "
    "outgoing processor";

void ExpectDeclared(const std::vector<RecordedStatistic>& declared, const std::vector<Row>& rows) {
  ASSERT_EQ(declared.size(), rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(declared[i].name, rows[i].name);
    EXPECT_EQ(declared[i].description, rows[i].description) << rows[i].name;
    EXPECT_EQ(declared[i].value.GetKind(), rows[i].kind) << rows[i].name;
  }
}

void ExpectIntegerZero(const RecordedStatistic& statistic) {
  ASSERT_EQ(statistic.value.GetValue().which(), 6) << statistic.name;
  EXPECT_EQ(boost::get<std::int64_t>(statistic.value.GetValue()), 0) << statistic.name;
}

TEST_F(StatisticsProfiles, StageDeclaresTheBasesStatisticsThenItsOwn) {
  StoreAndForwardStatisticsProfile profile;
  profile.Initialize();
  const RecordingGroup& group = Group("StoreAndForwardStage");
  EXPECT_EQ(group.CategoryPath(), "AgentCore/DestinationManager/Destinations");
  ExpectDeclared(
      group.Declared(),
      {{"MessagesRejected", 7, "The number of messages that the stage gave back as failed"},
       {"TotalEventsPosted", 7, "The number of events posted to this stage"},
       {"TotalEventsFailedToQueue", 7,
        "The number of events posted to this stage that failed to be queued"}});
  for (const RecordedStatistic& statistic : group.Declared()) {
    ExpectIntegerZero(statistic);
  }
  EXPECT_EQ(m_server->Groups().size(), 1u) << "the base declares in the same group";
}

TEST_F(StatisticsProfiles, IncomingDeclaresEveryRowInOrder) {
  StoreAndForwardIncomingStatisticsProfile profile;
  profile.Initialize();
  const RecordingGroup& group = Group("StoreAndForwardIncoming");
  EXPECT_EQ(group.CategoryPath(), "AgentCore/StreamManager/Stages");
  const std::string text = kChunkSizeText;
  const std::string minimum = text + " (minimum)";
  const std::string maximum = text + " (maximum)";
  const std::string average = text + " (average)";
  const std::string rollingAverage = text + " (rolling average)";
  const std::string total = text + " (total)";
  const std::string slope = text + " (trend line slope)";
  const std::string intercept = text + " (trend line intercept)";
  const std::string trend = text + " (trend)";
  ExpectDeclared(
      group.Declared(),
      {{"InputQueueLowWaterMark", 0x4106,
        "The drain point (in bytes) that the queue must reach in order to accept events again"},
       {"InputQueueHighWaterMark", 0x4106,
        "The number of bytes the queue can accept until insertion blocking occurs"},
       {"DataProcessingPeriod", 0x4106,
        "The number of microseconds between disk checks for event data ready to be sent"},
       {"DataChunkingPeriod", 0x4106,
        "The number of seconds worth of data stored in one interval of on-disk event data"},
       {"ChunkSize", 7, kChunkSizeText},
       {"ChunkSizeMinimum", 9, minimum.c_str()},
       {"ChunkSizeMaximum", 9, maximum.c_str()},
       {"ChunkSizeAverage", 9, average.c_str()},
       {"ChunkSizeRollingAverage", 9, rollingAverage.c_str()},
       {"ChunkSizeTotal", 9, total.c_str()},
       {"ChunkSizeTrendCoeff1", 9, slope.c_str()},
       {"ChunkSizeTrendCoeff2", 9, intercept.c_str()},
       {"ChunkSizeTrend", 1, trend.c_str()},
       {"OutgoingHandlerAccepts", 7,
        "The number of times the outgoing processor successfully accepted event data"},
       {"OutgoingHandlerRejects", 7,
        "The number of times the outgoing processor rejected event data due to being busy"},
       {"EventDiskCacheAccepts", 7,
        "The number of times the on-disk cache accepted data to be written to disk"},
       {"EventDiskCacheRejects", 7,
        "The number of times the on-disk cache rejected event data to be written to disk"},
       {"MessagesLost", 7,
        "The number of events lost due to the on-disk cache rejecting event data"}});
}

TEST_F(StatisticsProfiles, IncomingInitialValuesAreZeroNanAndText) {
  StoreAndForwardIncomingStatisticsProfile profile;
  profile.Initialize();
  for (const RecordedStatistic& statistic : Group("StoreAndForwardIncoming").Declared()) {
    const auto& value = statistic.value.GetValue();
    switch (statistic.value.GetKind()) {
      case 9:
        ASSERT_EQ(value.which(), 3) << statistic.name;
        if (statistic.name == "ChunkSizeTotal") {
          EXPECT_EQ(boost::get<double>(value), 0.0);
        } else {
          EXPECT_TRUE(std::isnan(boost::get<double>(value))) << statistic.name;
        }
        break;
      case 1:
        ASSERT_EQ(value.which(), 0) << statistic.name;
        EXPECT_EQ(boost::get<std::string>(value), "N/A");
        break;
      default:
        ExpectIntegerZero(statistic);
    }
  }
}

TEST_F(StatisticsProfiles, OutgoingDeclaresEveryRowInOrder) {
  StoreAndForwardOutgoingStatisticsProfile profile;
  profile.Initialize();
  const RecordingGroup& group = Group("StoreAndForwardOutgoing");
  EXPECT_EQ(group.CategoryPath(), "AgentCore/StreamManager/Stages");
  ExpectDeclared(group.Declared(),
                 {{"EventsIncoming", 7, "The number of events posted to the outgoing queue"},
                  {"EventsOutgoing", 7, "The number of events written to the destination"},
                  {"NumberOfRequeues", 7,
                   "The number of times the destination rejected the event due to backpressure"}});
  for (const RecordedStatistic& statistic : group.Declared()) {
    ExpectIntegerZero(statistic);
  }
}

template <typename Profile>
class EveryProfile : public StatisticsProfiles {};

using ProfileTypes =
    testing::Types<StoreAndForwardStatisticsProfile, StoreAndForwardIncomingStatisticsProfile,
                   StoreAndForwardOutgoingStatisticsProfile>;
TYPED_TEST_SUITE(EveryProfile, ProfileTypes);

TYPED_TEST(EveryProfile, InitializePublishesAndRegistersOnce) {
  TypeParam profile;
  profile.Initialize();
  ASSERT_EQ(this->m_server->Groups().size(), 1u);
  EXPECT_EQ(this->m_server->Groups()[0]->PublishCount(), 1);
  EXPECT_EQ(this->m_server->RegisteredCount(), 1u);
}

TYPED_TEST(EveryProfile, InitializeStatisticsWithoutPublishingDeclaresAndDoesNotPublish) {
  TypeParam profile;
  profile.InitializeStatistics(false);
  ASSERT_EQ(this->m_server->Groups().size(), 1u);
  EXPECT_FALSE(this->m_server->Groups()[0]->Declared().empty());
  EXPECT_EQ(this->m_server->Groups()[0]->PublishCount(), 0);
  EXPECT_EQ(this->m_server->RegisteredCount(), 0u);
}

TYPED_TEST(EveryProfile, SecondInitializeStatisticsKeepsTheGroup) {
  TypeParam profile;
  profile.InitializeStatistics(false);
  profile.InitializeStatistics(true);
  ASSERT_EQ(this->m_server->Groups().size(), 1u);
  EXPECT_EQ(this->m_server->Groups()[0]->PublishCount(), 1);
}

TYPED_TEST(EveryProfile, FindsTheServerByItsService) {
  TypeParam profile;
  EXPECT_EQ(profile.GetStatisticsServer(), this->m_server.get());
}

// Every update operation of every profile, by the name of its statistic.
struct UpdateOperation {
  std::string className;
  std::string statistic;
  std::function<void()> update;
};

class EveryUpdate : public StatisticsProfiles {
 protected:
  std::vector<UpdateOperation> Operations() {
    const std::string stage = "StoreAndForwardStatisticsProfile";
    const std::string incoming = "StoreAndForwardIncomingStatisticsProfile";
    const std::string outgoing = "StoreAndForwardOutgoingStatisticsProfile";
    return {
        {stage, "TotalEventsPosted", [this] { m_stage.UpdateTotalEventsPosted(1, false); }},
        {stage, "TotalEventsFailedToQueue",
         [this] { m_stage.UpdateTotalEventsFailedToQueue(1, false); }},
        {incoming, "InputQueueLowWaterMark",
         [this] { m_incoming.UpdateInputQueueLowWaterMark(1, false); }},
        {incoming, "InputQueueHighWaterMark",
         [this] { m_incoming.UpdateInputQueueHighWaterMark(1, false); }},
        {incoming, "DataProcessingPeriod",
         [this] { m_incoming.UpdateDataProcessingPeriod(1, false); }},
        {incoming, "DataChunkingPeriod", [this] { m_incoming.UpdateDataChunkingPeriod(1, false); }},
        {incoming, "ChunkSize", [this] { m_incoming.UpdateChunkSize(1, false); }},
        {incoming, "OutgoingHandlerAccepts",
         [this] { m_incoming.UpdateOutgoingHandlerAccepts(1, false); }},
        {incoming, "OutgoingHandlerRejects",
         [this] { m_incoming.UpdateOutgoingHandlerRejects(1, false); }},
        {incoming, "EventDiskCacheAccepts",
         [this] { m_incoming.UpdateEventDiskCacheAccepts(1, false); }},
        {incoming, "EventDiskCacheRejects",
         [this] { m_incoming.UpdateEventDiskCacheRejects(1, false); }},
        {incoming, "MessagesLost", [this] { m_incoming.UpdateMessagesLost(1, false); }},
        {outgoing, "EventsIncoming", [this] { m_outgoing.UpdateEventsIncoming(1, false); }},
        {outgoing, "EventsOutgoing", [this] { m_outgoing.UpdateEventsOutgoing(1, false); }},
        {outgoing, "NumberOfRequeues", [this] { m_outgoing.UpdateNumberOfRequeues(1, false); }}};
  }

  StoreAndForwardStatisticsProfile m_stage;
  StoreAndForwardIncomingStatisticsProfile m_incoming;
  StoreAndForwardOutgoingStatisticsProfile m_outgoing;
};

TEST_F(EveryUpdate, BeforeInitialisationThrowsAndNamesTheStatistic) {
  int previousLine = 0;
  for (const UpdateOperation& operation : Operations()) {
    try {
      operation.update();
      FAIL() << operation.statistic << " did not throw";
    } catch (const OrloStatisticsException& error) {
      EXPECT_EQ(
          std::string(error.what()),
          "There was no matching DECLARE_STATISTIC() section for statistic " + operation.statistic);
      EXPECT_EQ(error.GetFile(), "StoreAndForward/StoreAndForwardStatisticsProfile");
      EXPECT_EQ(error.GetFunction(),
                "OrloStoreAndForward::" + operation.className + "::Update" + operation.statistic);
      EXPECT_GT(error.GetLine(), previousLine) << "the lines of the declarations, in their order";
      previousLine = error.GetLine();
    }
  }
}

TEST_F(EveryUpdate, ExceptionIsCaughtByItsBases) {
  EXPECT_THROW(m_stage.UpdateTotalEventsPosted(1, false), OrloException);
  EXPECT_THROW(m_stage.UpdateTotalEventsPosted(1, false), std::exception);
}

TEST_F(EveryUpdate, AfterInitialisationPublishesUnderItsNameWithTheFlagPassedOn) {
  m_stage.Initialize();
  m_incoming.Initialize();
  m_outgoing.Initialize();
  for (const UpdateOperation& operation : Operations()) {
    operation.update();
    bool found = false;
    for (const auto& group : m_server->Groups()) {
      for (const RecordedUpdate& update : group->Updates()) {
        found = found || update.name == operation.statistic;
        EXPECT_FALSE(update.flag);
      }
    }
    EXPECT_TRUE(found) << operation.statistic;
  }
  m_outgoing.UpdateEventsOutgoing(1, true);
  EXPECT_TRUE(Group("StoreAndForwardOutgoing").Updates().back().flag);
}

TEST_F(EveryUpdate, CounterPublishesTheTotalNotTheIncrement) {
  m_outgoing.Initialize();
  for (int i = 0; i < 3; ++i) {
    m_outgoing.UpdateEventsOutgoing(1, false);
  }
  EXPECT_EQ(Group("StoreAndForwardOutgoing").IntegerUpdates("EventsOutgoing"),
            (std::vector<std::int64_t>{1, 2, 3}));
}

TEST_F(EveryUpdate, CounterAddsAnyAmount) {
  m_incoming.Initialize();
  m_incoming.UpdateMessagesLost(2, false);
  m_incoming.UpdateMessagesLost(5, false);
  EXPECT_EQ(Group("StoreAndForwardIncoming").IntegerUpdates("MessagesLost"),
            (std::vector<std::int64_t>{2, 7}));
  EXPECT_EQ(Group("StoreAndForwardIncoming").Updates().back().value.GetKind(), 7);
}

TEST_F(EveryUpdate, CounterIsPublishedBeforeItIsStored) {
  m_outgoing.Initialize();
  RecordingGroup& group = Group("StoreAndForwardOutgoing");
  group.OnUpdate([](const std::string&) { throw 42; });
  EXPECT_THROW(m_outgoing.UpdateEventsOutgoing(1, false), int);
  group.OnUpdate({});
  m_outgoing.UpdateEventsOutgoing(1, false);
  EXPECT_EQ(group.IntegerUpdates("EventsOutgoing"), std::vector<std::int64_t>{1})
      << "what could not be published was not counted";
}

TEST_F(EveryUpdate, SettingReplacesItsValue) {
  m_incoming.Initialize();
  m_incoming.UpdateDataChunkingPeriod(10, false);
  m_incoming.UpdateDataChunkingPeriod(7, false);
  const RecordingGroup& group = Group("StoreAndForwardIncoming");
  EXPECT_EQ(group.IntegerUpdates("DataChunkingPeriod"), (std::vector<std::int64_t>{10, 7}));
  EXPECT_EQ(group.Updates().back().value.GetKind(), 0x4106);
  EXPECT_EQ(group.Updates().back().value.GetValue().which(), 6);
}

TEST_F(EveryUpdate, ChunkSizePublishesTheSampleAndItsFiguresInOrder) {
  m_incoming.Initialize();
  m_incoming.UpdateChunkSize(10, false);
  const std::vector<RecordedUpdate> updates = Group("StoreAndForwardIncoming").Updates();
  const std::vector<std::string> names{"ChunkSize",
                                       "ChunkSizeMinimum",
                                       "ChunkSizeMaximum",
                                       "ChunkSizeAverage",
                                       "ChunkSizeRollingAverage",
                                       "ChunkSizeTotal",
                                       "ChunkSizeTrendCoeff1",
                                       "ChunkSizeTrendCoeff2",
                                       "ChunkSizeTrend"};
  ASSERT_EQ(updates.size(), names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(updates[i].name, names[i]);
  }
  EXPECT_EQ(updates[0].value.GetKind(), 7);
  EXPECT_EQ(boost::get<std::int64_t>(updates[0].value.GetValue()), 10);
  for (std::size_t i = 1; i <= 5; ++i) {
    EXPECT_EQ(updates[i].value.GetKind(), 9);
    EXPECT_EQ(boost::get<double>(updates[i].value.GetValue()), 10.0) << updates[i].name;
  }
  EXPECT_TRUE(std::isnan(boost::get<double>(updates[6].value.GetValue())));
  EXPECT_TRUE(std::isnan(boost::get<double>(updates[7].value.GetValue())));
  EXPECT_EQ(updates[8].value.GetKind(), 1);
  EXPECT_EQ(boost::get<std::string>(updates[8].value.GetValue()), "N/A");
}

TEST_F(EveryUpdate, ChunkSizeFiguresFollowTheSamples) {
  m_incoming.Initialize();
  for (const std::int64_t size : {10, 20, 30}) {
    m_incoming.UpdateChunkSize(size, false);
  }
  std::map<std::string, WindowsAgentCommon::StatisticVariant> last;
  for (const RecordedUpdate& update : Group("StoreAndForwardIncoming").Updates()) {
    last[update.name] = update.value.GetValue();
  }
  EXPECT_EQ(boost::get<std::int64_t>(last["ChunkSize"]), 30);
  EXPECT_EQ(boost::get<double>(last["ChunkSizeMinimum"]), 10.0);
  EXPECT_EQ(boost::get<double>(last["ChunkSizeMaximum"]), 30.0);
  EXPECT_EQ(boost::get<double>(last["ChunkSizeAverage"]), 20.0);
  EXPECT_EQ(boost::get<double>(last["ChunkSizeRollingAverage"]), 20.0);
  EXPECT_EQ(boost::get<double>(last["ChunkSizeTotal"]), 60.0);
  EXPECT_DOUBLE_EQ(boost::get<double>(last["ChunkSizeTrendCoeff1"]), 10.0);
  EXPECT_DOUBLE_EQ(boost::get<double>(last["ChunkSizeTrendCoeff2"]), 10.0);
  EXPECT_EQ(boost::get<std::string>(last["ChunkSizeTrend"]), "Increasing");
}

TEST_F(EveryUpdate, RollingAverageLooksAtTheLast64Chunks) {
  m_incoming.Initialize();
  m_incoming.UpdateChunkSize(1000, false);
  for (int i = 0; i < 64; ++i) {
    m_incoming.UpdateChunkSize(8, false);
  }
  std::map<std::string, WindowsAgentCommon::StatisticVariant> last;
  for (const RecordedUpdate& update : Group("StoreAndForwardIncoming").Updates()) {
    last[update.name] = update.value.GetValue();
  }
  EXPECT_EQ(boost::get<double>(last["ChunkSizeRollingAverage"]), 8.0);
  EXPECT_EQ(boost::get<double>(last["ChunkSizeMaximum"]), 1000.0);
}

TEST_F(EveryUpdate, PostsFromSeveralThreadsLoseNoCountAndEndOnTheTotal) {
  m_stage.Initialize();
  constexpr int kThreads = 4;
  constexpr int kPosts = 5000;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([this] {
      for (int post = 0; post < kPosts; ++post) {
        m_stage.UpdateTotalEventsPosted(1, false);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(Group("StoreAndForwardStage").Integer("TotalEventsPosted"), kThreads * kPosts);
}

}  // namespace
}  // namespace OrloStoreAndForward
