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

class SamplerTest : public testing::Test {
 protected:
  SamplerTest() {
    WindowsAgentCommon::DiskManagerOptions disk;
    disk.dataDirectory = WindowsAgentCommon::ToWide(m_directory.Path().string());
    disk.quota = 100'000;
    m_disk = std::make_shared<WindowsAgentCommon::DiskManager>(disk);
    m_sampler = std::make_unique<Sampler>(
        Sampler::Surroundings{std::make_shared<WindowsAgentCommon::StatisticsServer>(), m_disk,
                              m_directory.Path(), "1.2.3", std::chrono::seconds(30)});
    m_options.name = "S";
    m_options.sources = {StdinSourceOptions{}, StdinSourceOptions{}};
    m_options.destination = FileDestinationOptions{"out.log", {}};
  }

  // The first state of which that is true.
  std::shared_ptr<const AgentState> WaitFor(
      const std::function<bool(const AgentState&)>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < end) {
      auto state = m_sampler->GetState();
      if (condition(*state)) {
        return state;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ADD_FAILURE() << "not within a minute";
    return m_sampler->GetState();
  }

  TestSupport::LogCapture m_log;
  TestSupport::TemporaryDirectory m_directory;
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
