#include "Agent/RunningStream.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "Agent/PathText.h"
#include "WindowsAgentCommon/DiskManager.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Services.h"
#include "WindowsAgentCommon/Text.h"
#include "tests/Agent/CachedChunk.h"
#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using OrloAgent::AgentOptions;
using OrloAgent::Departure;
using OrloAgent::Leftover;
using OrloAgent::RunningStream;
using OrloAgent::StreamOptions;
using TestSupport::WaitUntil;
using WindowsAgentCommon::LogLevel;

// Streams of the real stage, from a file to a file.
class RunningStreamTest : public testing::Test {
 protected:
  RunningStreamTest() {
    WindowsAgentCommon::DiskManagerOptions disk;
    disk.dataDirectory = WindowsAgentCommon::ToWide(OrloAgent::ToText(m_data));
    disk.keepFree = 0;
    m_services.push_back(std::make_unique<WindowsAgentCommon::ServiceRegistration>(
        WindowsAgentCommon::IDiskManager::GetServiceName(),
        std::make_shared<WindowsAgentCommon::DiskManager>(std::move(disk))));
    m_services.push_back(std::make_unique<WindowsAgentCommon::ServiceRegistration>(
        WindowsAgentCommon::IStatisticsServer::GetServiceName(), m_statistics));
    m_options.name = "S";
    OrloAgent::FileSourceOptions source;
    source.paths = {OrloAgent::ToText(m_input)};
    m_options.sources.emplace_back(source);
    m_options.stages.push_back({"StoreAndForwardStage", {}});
    m_options.destination = OrloAgent::FileDestinationOptions{OrloAgent::ToText(m_output), {}};
  }

  std::unique_ptr<RunningStream> Make(const StreamOptions& options, const Leftover& left) {
    return std::make_unique<RunningStream>(options, m_common, m_surroundings, left);
  }

  std::unique_ptr<RunningStream> Run(Leftover& left) {
    auto stream = Make(m_options, left);
    stream->BeginSources();
    stream->StartStages(left);
    stream->Open(left);
    return stream;
  }

  // In the place of a stage that has taken events and does nothing with them: a real one that is
  // stopped abandons them in memory.
  void RunWithoutStage(Leftover& left) {
    m_options.stages.clear();
    m_stream = Run(left);
  }

  void SetPosted(std::int64_t count) {
    const WindowsAgentCommon::StatisticsInstanceScope scope("S");
    std::shared_ptr<WindowsAgentCommon::IStatisticsGroup> group;
    m_statistics->CreateGroup("StoreAndForwardStage", "Test", group);
    group->DeclareStatistic(
        "TotalEventsPosted", "",
        WindowsAgentCommon::StatisticValue(7, WindowsAgentCommon::StatisticVariant(count)));
    group->Publish();
    m_statistics->RegisterGroup(group);
  }

  std::string GetOutput() const {
    std::ostringstream text;
    text << std::ifstream(m_output, std::ios::binary).rdbuf();
    return text.str();
  }

  TestSupport::LogCapture m_log;
  TestSupport::TemporaryDirectory m_directory;
  const std::filesystem::path m_data = m_directory.Path() / "data";
  const std::filesystem::path m_input = m_directory.Path() / "in.log";
  const std::filesystem::path m_output = m_directory.Path() / "out.log";
  std::shared_ptr<WindowsAgentCommon::StatisticsServer> m_statistics =
      std::make_shared<WindowsAgentCommon::StatisticsServer>();
  std::vector<std::unique_ptr<WindowsAgentCommon::ServiceRegistration>> m_services;
  OrloStream::StreamManager m_manager{ORLO_TEST_MODULES};
  OrloAgent::StreamSurroundings m_surroundings{
      m_manager, *m_statistics, nullptr, m_data, [] {}, [](const std::function<void()>&) {}};
  AgentOptions m_common;
  StreamOptions m_options;
  std::unique_ptr<RunningStream> m_stream;
};

TEST_F(RunningStreamTest, WhatAStageHasTakenFromItsCacheWhenAnotherFailsIsSentByTheNextStream) {
  const auto chunk = TestSupport::WriteChunkOfEarlierRun(m_data, "S", {"one", "two"});
  StreamOptions failing = m_options;
  failing.stages.insert(failing.stages.begin(),
                        {"FailingStage", {{"Until", OrloAgent::ToText(chunk)}}});
  Leftover left;
  {
    const auto stream = Make(failing, left);
    stream->BeginSources();
    EXPECT_THROW(stream->StartStages(left), WindowsAgentCommon::InitializationException);
  }
  EXPECT_FALSE(std::filesystem::exists(chunk));
  EXPECT_EQ(left.events.size(), 2u);
  EXPECT_EQ(left.count, 2u);
  EXPECT_EQ(GetOutput(), "");
  const auto next = Run(left);
  EXPECT_TRUE(left.events.empty());
  EXPECT_EQ(next->Look().inherited, 2u);
  EXPECT_TRUE(WaitUntil([this] { return GetOutput() == "one\ntwo\n"; }));
}

TEST_F(RunningStreamTest, AStreamThatIsLateSaysOnceHowManyEventsAreLost) {
  Leftover left;
  RunWithoutStage(left);
  SetPosted(2);
  m_stream->HoldSender();
  m_stream->BeginToLeave(nullptr, m_common.shutdown);
  const auto now = Departure::Clock::now();
  EXPECT_FALSE(m_stream->Depart(now));
  EXPECT_FALSE(m_stream->Depart(now + std::chrono::hours(2)));
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(m_stream->Depart(now + std::chrono::hours(4)));
  }
  EXPECT_EQ(m_stream->Close().held, 2);
  std::size_t warnings = 0;
  for (const auto& line : m_log.Lines()) {
    warnings += line.text.find("did not come to rest") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(warnings, 1u);
  EXPECT_EQ(m_log.Count(LogLevel::Warn,
                        "Stream S did not come to rest in time. It ends all the same, and 2 events "
                        "that its stages still held are lost."),
            1u);
}

TEST_F(RunningStreamTest, WhatIsStillOnItsWayWhenAStreamEndsIsSaidToBeLost) {
  Leftover left;
  RunWithoutStage(left);
  m_stream->HoldSender();
  m_stream->BeginToLeave(nullptr, m_common.shutdown);
  auto now = Departure::Clock::now();
  ASSERT_TRUE(WaitUntil([&] { return m_stream->Depart(now += std::chrono::milliseconds(100)); }));
  // As a chunk does that comes from the disk just then.
  SetPosted(1);
  EXPECT_EQ(m_stream->Close().held, 1);
  EXPECT_EQ(m_log.Count(LogLevel::Warn,
                        "Stream S: 1 events were on their way through its stages when it ended, "
                        "and are lost."),
            1u);
  EXPECT_EQ(m_log.Count(LogLevel::Info,
                        "Stream S: 0 events delivered, 0 cached, 0 lost, 1 held; 0 handed on."),
            1u);
}

}  // namespace
