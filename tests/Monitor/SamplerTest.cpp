#include "Agent/Monitor/Sampler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "WindowsAgentCommon/Text.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryDirectory.h"

namespace OrloAgent {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class CountingSource : public Source {
 public:
  CountingSource() { GetPostCounts().notMade = 2; }
  std::vector<EndCounter> GetCounters() const override { return {{"events", "Events", ++m_asked}}; }

 protected:
  void Begin(const std::string&) override {}
  void End() override {}

 private:
  mutable std::atomic<std::uint64_t> m_asked{0};
};

class IdleDestination : public Destination {
 public:
  void Initialize(const WindowsAgentCommon::EnvironmentBlock&) override {}
  void Stop() override {}
  void Refuse() override {}
  std::uint64_t GetUnsentEvents() const override { return 4; }
  std::uint64_t GetSentEvents() const override { return 5; }
};

// Has a fallback, which gets the events since 2027.
class DividedDestination : public IdleDestination {
 public:
  std::optional<Parts> GetParts() const override {
    return Parts{m_first, m_second,
                 std::chrono::system_clock::time_point(std::chrono::seconds(1'800'000'000))};
  }

 private:
  const IdleDestination m_first;
  const IdleDestination m_second;
};

// Sends an event, and has it counted by a stage, whenever it is asked.
class BusyDestination : public IdleDestination {
 public:
  explicit BusyDestination(WindowsAgentCommon::StatisticsServer& statistics) {
    statistics.CreateGroup("G", "P", m_group);
    m_group->DeclareStatistic("Sent", "", WindowsAgentCommon::StatisticValue(7, std::int64_t{0}));
    statistics.RegisterGroup(m_group);
    m_group->Publish();
  }
  std::uint64_t GetUnsentEvents() const override {
    m_group->UpdateStatistic("Sent", WindowsAgentCommon::StatisticValue(7, ++m_sent), false);
    return 0;
  }

 private:
  std::shared_ptr<WindowsAgentCommon::IStatisticsGroup> m_group;
  mutable std::int64_t m_sent = 0;
};

// Can't be asked for a while.
class FailingDestination : public IdleDestination {
 public:
  std::uint64_t GetUnsentEvents() const override {
    if (isFailing) {
      ++failures;
      throw std::runtime_error("no memory");
    }
    return 0;
  }

  std::atomic<bool> isFailing{false};
  mutable std::atomic<int> failures{0};
};

class SamplerTest : public testing::Test {
 protected:
  SamplerTest() {
    WindowsAgentCommon::DiskManagerOptions disk;
    disk.dataDirectory = WindowsAgentCommon::ToWide(m_directory.Path().string());
    disk.quota = 100'000;
    m_disk = std::make_shared<WindowsAgentCommon::DiskManager>(disk);
    m_sampler = std::make_unique<Sampler>(Sampler::Surroundings{
        m_statistics, m_disk, m_directory.Path(), "1.2.3", std::chrono::seconds(30)});
    m_options.name = "S";
    m_options.sources = {StdinSourceOptions{}, StdinSourceOptions{}};
    m_options.destination = FileDestinationOptions{"out.log", {}};
  }

  static void WaitUntil(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
      ASSERT_LT(std::chrono::steady_clock::now(), end) << "not within a minute";
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  // The first state of which that is true.
  std::shared_ptr<const AgentState> WaitFor(
      const std::function<bool(const AgentState&)>& condition) {
    std::shared_ptr<const AgentState> state;
    WaitUntil([&] { return condition(*(state = m_sampler->GetState())); });
    return state;
  }

  TestSupport::LogCapture m_log;
  TestSupport::TemporaryDirectory m_directory;
  const std::shared_ptr<WindowsAgentCommon::StatisticsServer> m_statistics{
      std::make_shared<WindowsAgentCommon::StatisticsServer>()};
  std::shared_ptr<WindowsAgentCommon::DiskManager> m_disk;
  std::unique_ptr<Sampler> m_sampler;
  StreamOptions m_options;
};

TEST_F(SamplerTest, WhatTheConfigurationOnlyRefersToIsHidden) {
  WindowsAgentCommon::LoggerFactory::AddSecrets({"SeCrEt-path.log"});
  m_options.destination = FileDestinationOptions{"SeCrEt-path.log", {}};
  const CountingSource first;
  const CountingSource second;
  const IdleDestination destination;
  m_sampler->AddStream(m_options, {&first, &second}, destination, 0);
  m_sampler->Start();
  EXPECT_EQ(m_sampler->GetState()->streams.at(0).destination.name, "(hidden)");
  m_sampler->RemoveStream("S");
}

TEST_F(SamplerTest, AFallbackIsSeenByItsNameAndIsAProblemWhileItGetsTheEvents) {
  m_options.fallback.emplace();
  m_options.fallback->destination = m_options.destination;
  const CountingSource first;
  const CountingSource second;
  const DividedDestination destination;
  m_sampler->AddStream(m_options, {&first, &second}, destination, 0);
  m_sampler->Start();
  const StreamState stream = m_sampler->GetState()->streams.at(0);
  ASSERT_TRUE(stream.fallback);
  EXPECT_EQ(stream.destination.name, "out.log");
  EXPECT_EQ(stream.fallback->name, "out.log (fallback)") << "names tell the two apart";
  EXPECT_EQ(stream.fallback->unsent, 4u);
  EXPECT_EQ(stream.fallback->counters.at(0).value, 5u);
  EXPECT_EQ(stream.fallbackSince, 1'800'000'000);
  EXPECT_THAT(stream.problems.at(0),
              HasSubstr("events go to the fallback since 2027-01-15 08:00:00 UTC"));
  m_sampler->RemoveStream("S");
}

TEST_F(SamplerTest, StreamIsSeenFromAddToRemove) {
  auto first = std::make_unique<CountingSource>();
  auto second = std::make_unique<CountingSource>();
  auto destination = std::make_unique<IdleDestination>();
  m_sampler->Start();
  EXPECT_THAT(m_sampler->GetState()->streams, IsEmpty());
  m_sampler->AddStream(m_options, {first.get(), second.get()}, *destination, 1);
  const auto with = WaitFor([](const AgentState& state) { return !state.streams.empty(); });
  const StreamState& stream = with->streams.front();
  EXPECT_EQ(stream.unsentEvents, 4u);
  EXPECT_EQ(stream.posted, 3u) << "what two sources could not make, less what was before";
  EXPECT_EQ(stream.lost, 3u);
  ASSERT_EQ(stream.sources.size(), 2u);
  EXPECT_EQ(stream.sources[0].name, "stdin");
  EXPECT_EQ(stream.sources[1].name, "stdin (2)") << "names tell sources apart";
  EXPECT_EQ(stream.destination.name, "out.log");

  m_sampler->RemoveStream("S");
  first.reset();
  second.reset();
  destination.reset();
  WaitFor([](const AgentState& state) { return state.streams.empty(); });
  EXPECT_EQ(m_sampler->GetHistory(0).count("S"), 1u) << "the past stays";
}

TEST_F(SamplerTest, AConfigurationThatIsNotInUseIsAProblemUntilOneIs) {
  CountingSource source;
  IdleDestination destination;
  m_options.sources.pop_back();
  m_sampler->AddStream(m_options, {&source}, destination, 0);
  m_sampler->Start();
  EXPECT_TRUE(m_sampler->GetState()->isConfigurationTaken);
  m_sampler->SetTroubles({"f has 2 mistakes"},
                         {{"S", true, "as before: x"}, {"T", false, "no: y"}});
  const auto bad = WaitFor([](const AgentState& state) { return !state.isConfigurationTaken; });
  EXPECT_THAT(bad->problems, testing::ElementsAre("f has 2 mistakes", "stream T: no: y"));
  EXPECT_THAT(bad->streams.front().problems, testing::ElementsAre("as before: x"));
  EXPECT_EQ(bad->streamsNotRunning, 1u);
  EXPECT_FALSE(bad->IsHealthy());
  m_sampler->SetTroubles({}, {});
  const auto good = WaitFor([](const AgentState& state) { return state.isConfigurationTaken; });
  EXPECT_TRUE(good->IsHealthy());
  EXPECT_EQ(good->streamsNotRunning, 0u);
  m_sampler->RemoveStream("S");
}

TEST_F(SamplerTest, TroublesAreShownWithoutSecrets) {
  WindowsAgentCommon::LoggerFactory::AddSecrets({"SeCrEt-word"});
  m_sampler->SetTroubles({"f: SeCrEt-word"}, {{"T", false, "no: SeCrEt-word"}});
  m_sampler->Start();
  EXPECT_THAT(m_sampler->GetState()->problems,
              testing::ElementsAre("f: (hidden)", "stream T: no: (hidden)"));
}

TEST_F(SamplerTest, StatisticsAreOlderThanWhatTheDestinationsSay) {
  const CountingSource source;
  const BusyDestination destination(*m_statistics);
  m_options.sources.pop_back();
  m_sampler->AddStream(m_options, {&source}, destination, 0);
  m_sampler->Start();
  const auto state = m_sampler->GetState();
  ASSERT_EQ(state->statistics.size(), 1u);
  EXPECT_EQ(state->statistics[0].GetInteger("Sent"), 0);
  EXPECT_GT(m_statistics->GetSnapshot().at(0).GetInteger("Sent"), 0);
  m_sampler->RemoveStream("S");
}

TEST_F(SamplerTest, ThatItCanNotLookIsSaidOnceUntilItCan) {
  const CountingSource source;
  FailingDestination destination;
  m_options.sources.pop_back();
  m_sampler->AddStream(m_options, {&source}, destination, 0);
  m_sampler->Start();
  const auto count = [this] {
    return m_log.Count(WindowsAgentCommon::LogLevel::Error,
                       "The agent can't look at itself: no memory.");
  };
  for (std::size_t row = 1; row <= 2; ++row) {
    const int before = destination.failures;
    destination.isFailing = true;
    // When the third look fails, what came of the second is seen.
    WaitUntil([&] { return destination.failures >= before + 3; });
    EXPECT_EQ(count(), row);
    destination.isFailing = false;
    const auto last = m_sampler->GetState()->looked;
    WaitFor([&](const AgentState& state) { return state.looked > last; });
  }
  m_sampler->RemoveStream("S");
}

TEST_F(SamplerTest, StateKnowsWhenItWasMade) {
  const auto before = std::chrono::steady_clock::now();
  m_sampler->Start();
  const auto looked = m_sampler->GetState()->looked;
  EXPECT_GE(looked, before);
  EXPECT_LE(looked, std::chrono::steady_clock::now());
}

TEST_F(SamplerTest, DiskThatIsFullIsAProblem) {
  m_sampler->Start();
  EXPECT_THAT(m_sampler->GetState()->problems, IsEmpty());
  EXPECT_EQ(m_sampler->GetState()->disk.quota, 100'000u);
  ASSERT_TRUE(m_disk->ReserveSpace(0, 98'000));
  const auto full = WaitFor([](const AgentState& state) { return !state.problems.empty(); });
  EXPECT_THAT(full->problems.front(), HasSubstr("the quota of 100000 bytes is used up"));
  EXPECT_EQ(full->disk.used, 98'000u);
}

TEST_F(SamplerTest, WarningsAreInTheState) {
  m_sampler->Start();
  WindowsAgentCommon::LogFacade::Warn(WindowsAgentCommon::LoggerFactory::GetLog("Code.SamplerTest"),
                                      "look here");
  const auto warned = WaitFor([](const AgentState& state) { return state.warnings == 1; });
  EXPECT_EQ(warned->messages.front().text, "look here");
}

}  // namespace
}  // namespace OrloAgent
