#include "Agent/Agent.h"

#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <csignal>
#include <fstream>

#include "WindowsAgentCommon/Exceptions.h"
#include "tests/Agent/CachedChunk.h"
#include "tests/Agent/RefusingPort.h"
#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using boost::asio::ip::tcp;
using OrloAgent::Agent;
using OrloAgent::AgentOptions;
using OrloAgent::StreamOptions;
using WindowsAgentCommon::LogLevel;

class AgentStartTest : public testing::Test {
 protected:
  AgentStartTest() {
    m_options.dataDirectory = (m_directory.Path() / "data").string();
    m_options.disk.keepFree = 0;
    m_options.shutdown.drainTimeout = std::chrono::milliseconds(0);
    m_options.streams.push_back(MakeStream("S"));
  }

  StreamOptions MakeStream(const std::string& name) {
    StreamOptions stream;
    stream.name = name;
    OrloAgent::SyslogSourceOptions source;
    source.listen = {"127.0.0.1", 0};
    stream.sources.emplace_back(source);
    stream.stages.push_back({"StoreAndForwardStage", {}});
    stream.destination =
        OrloAgent::FileDestinationOptions{(m_directory.Path() / (name + ".log")).string(), {}};
    return stream;
  }

  // The message of the failed start.
  std::string Fail(const std::string& modules = ORLO_TEST_MODULES) {
    Agent agent(m_options, modules);
    try {
      agent.Start();
    } catch (const WindowsAgentCommon::InitializationException& exception) {
      return exception.what();
    }
    ADD_FAILURE() << "the agent started";
    return "";
  }

  // A start that failed must leave everything free for the next.
  void ExpectThatTheNextStartSucceeds() {
    Agent agent(m_options, ORLO_TEST_MODULES);
    EXPECT_NO_THROW(agent.Start());
    EXPECT_EQ(agent.Stop().size(), m_options.streams.size());
  }

  TestSupport::TemporaryDirectory m_directory;
  AgentOptions m_options;
};

bool HasPart(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST_F(AgentStartTest, AMissingModuleIsNamed) {
  const std::string message = Fail(m_directory.Path().string());
  EXPECT_TRUE(HasPart(message, "StoreAndForwardStage")) << message;
  EXPECT_TRUE(HasPart(message, "\"S\"")) << message;
  ExpectThatTheNextStartSucceeds();
}

TEST_F(AgentStartTest, AFileInTheWayOfTheDataDirectoryIsNamed) {
  std::ofstream(m_options.dataDirectory) << "";
  EXPECT_TRUE(HasPart(Fail(), m_options.dataDirectory));
  std::filesystem::remove(m_options.dataDirectory);
  ExpectThatTheNextStartSucceeds();
}

TEST_F(AgentStartTest, AFileInTheWayOfTheSecondStreamsCacheUndoesTheFirstStream) {
  m_options.streams.push_back(MakeStream("T"));
  std::filesystem::create_directories(m_options.dataDirectory + "/Events");
  std::ofstream(m_options.dataDirectory + "/Events/T") << "";
  EXPECT_TRUE(HasPart(Fail(), "Failed to create event cache"));
  std::filesystem::remove(m_options.dataDirectory + "/Events/T");
  ExpectThatTheNextStartSucceeds();
}

TEST_F(AgentStartTest, APortInUseUndoesTheSourcesBeforeIt) {
  boost::asio::io_context context;
  tcp::acceptor taken(context, {boost::asio::ip::address_v4::loopback(), 0});
  StreamOptions second = MakeStream("T");
  OrloAgent::SyslogSourceOptions source;
  source.listen = {"127.0.0.1", taken.local_endpoint().port()};
  second.sources.emplace_back(source);
  m_options.streams.push_back(second);
  const std::string message = Fail();
  // The reason behind it is in the system's words.
  EXPECT_TRUE(HasPart(message, std::to_string(source.listen.port) + " (")) << message;
  // Not on this port, which could be another test's when it is free.
  std::get<OrloAgent::SyslogSourceOptions>(m_options.streams.back().sources.back()).listen.port = 0;
  ExpectThatTheNextStartSucceeds();
}

// However often a service manager tries again.
class FailedStartTest : public AgentStartTest {
 protected:
  void ExpectThatNothingMoves() {
    boost::asio::io_context context;
    const tcp::acceptor taken(context, {boost::asio::ip::address_v4::loopback(), 0});
    StreamOptions second = MakeStream("T");
    OrloAgent::SyslogSourceOptions source;
    source.listen = {"127.0.0.1", taken.local_endpoint().port()};
    second.sources.emplace_back(source);
    m_options.streams.push_back(second);
    // Long enough for the stage to take the chunk, if it ran.
    m_options.shutdown.drainTimeout = std::chrono::seconds(3);
    const auto chunk =
        TestSupport::WriteChunkOfEarlierRun(m_options.dataDirectory, "S", {"one", "two"});
    TestSupport::LogCapture log;
    Fail();
    EXPECT_TRUE(std::filesystem::exists(chunk));
    for (const auto& line : log.Lines()) {
      EXPECT_NE(line.logger, "Code.StoreAndForwardIncoming.S") << line.text;
    }
  }
};

TEST_F(FailedStartTest, LeavesTheCacheAsItIs) {
  ExpectThatNothingMoves();
  EXPECT_TRUE(!std::filesystem::exists(m_directory.Path() / "S.log") ||
              std::filesystem::is_empty(m_directory.Path() / "S.log"));
}

TEST_F(FailedStartTest, LeavesTheCacheAsItIsWhileTheDestinationIsAway) {
  const TestSupport::RefusingPort nobody;
  OrloAgent::SyslogDestinationOptions away;
  away.target = {"127.0.0.1", nobody.Number()};
  m_options.streams[0].destination = away;
  ExpectThatNothingMoves();
}

TEST_F(AgentStartTest, ADestinationFileThatCannotBeOpenedIsNamed) {
  const std::string path = (m_directory.Path() / "S.log").string();
  std::filesystem::create_directory(path);
  EXPECT_TRUE(HasPart(Fail(), path));
  std::filesystem::remove(path);
  ExpectThatTheNextStartSucceeds();
}

TEST_F(AgentStartTest, ASignalEndsTheWait) {
  Agent agent(m_options, ORLO_TEST_MODULES);
  agent.Start();
  std::raise(SIGTERM);
  agent.Wait();
  const auto reports = agent.Stop();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].posted, 0u);
  EXPECT_EQ(reports[0].held, 0);
}

TEST_F(AgentStartTest, ADrainTimeoutShorterThanAChunkPeriodIsWarnedOf) {
  TestSupport::LogCapture log;
  m_options.shutdown.drainTimeout = std::chrono::milliseconds(6'000);
  m_options.streams[0].stages[0].settings = {{"DataChunkPeriod", "7"}};
  ExpectThatTheNextStartSucceeds();
  EXPECT_EQ(log.Count(LogLevel::Warn,
                      "Stream S: shutdown.drain_timeout (6000 ms) is not longer than "
                      "DataChunkPeriod (7 s); the newest events can be lost at a stop."),
            1u);
}

TEST_F(AgentStartTest, EventsCachedByEarlierRunsAreAnnounced) {
  TestSupport::LogCapture log;
  const std::string minute = m_options.dataDirectory + "/Events/S/2016-03-07-14-05";
  std::filesystem::create_directories(minute);
  std::string chunk(4096, '\0');
  chunk[0] = 2;
  std::ofstream(minute + "/07", std::ios::binary) << chunk;
  ExpectThatTheNextStartSucceeds();
  EXPECT_EQ(
      log.Count(LogLevel::Info, "Stream S: 2 events in 1 chunks are cached from earlier runs."),
      1u);
}

}  // namespace
