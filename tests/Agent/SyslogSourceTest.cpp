#include "Agent/SyslogSource.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <mutex>

#include "Agent/EventHeader.h"
#include "OrloStream/StreamManager.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"
#include "tests/Agent/BareStream.h"
#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"

namespace {

using boost::asio::ip::tcp;
using namespace std::string_literals;
using OrloAgent::SyslogSource;
using OrloAgent::SyslogSourceOptions;
using TestSupport::WaitUntil;
using WindowsAgentCommon::LogLevel;

struct Collected {
  std::mutex lock;
  std::vector<std::string> heads;
  std::vector<std::string> messages;

  std::vector<std::string> Messages() {
    const std::lock_guard guard(lock);
    return messages;
  }
};

// Keeps what comes out of a stream that has no stages.
class CollectingDestination : public WindowsAgentCommon::OrloTask {
 public:
  explicit CollectingDestination(Collected& collected) : m_collected(collected) {}
  void Initialize(const WindowsAgentCommon::EnvironmentBlock&) override {}
  void Stop() override {}
  int put(ACE_Message_Block* block, ACE_Time_Value*) override {
    const WindowsAgentCommon::MessageBlockPtr event(block);
    const std::lock_guard guard(m_collected.lock);
    m_collected.heads.push_back(TestSupport::HeadOf(block));
    m_collected.messages.push_back(TestSupport::PayloadOf(block));
    return 0;
  }

 private:
  Collected& m_collected;
};

class SyslogSourceTest : public testing::Test {
 protected:
  void Start(SyslogSourceOptions options = {}) {
    options.listen.host = options.listen.host.empty() ? "127.0.0.1" : options.listen.host;
    auto definition = TestSupport::BareStream(std::make_unique<CollectingDestination>(m_collected));
    auto source = std::make_unique<SyslogSource>(options);
    m_source = source.get();
    definition.sources.push_back(std::move(source));
    m_stream = &m_manager.Create(std::move(definition));
    m_manager.StartSources(*m_stream);
  }

  tcp::socket Connect() {
    tcp::socket socket(m_context);
    socket.connect({boost::asio::ip::address_v4::loopback(), m_source->GetPort()});
    return socket;
  }

  static void Send(tcp::socket& socket, const std::string& bytes) {
    boost::asio::write(socket, boost::asio::buffer(bytes));
  }

  void SendAndClose(const std::string& bytes) {
    tcp::socket socket = Connect();
    Send(socket, bytes);
  }

  bool Arrive(const std::vector<std::string>& messages) {
    return WaitUntil([&] { return m_collected.Messages() == messages; });
  }

  static bool IsClosedByPeer(tcp::socket& socket) {
    char byte;
    boost::system::error_code error;
    socket.read_some(boost::asio::buffer(&byte, 1), error);
    return error == boost::asio::error::eof || error == boost::asio::error::connection_reset;
  }

  Collected m_collected;
  OrloStream::StreamManager m_manager{"."};
  SyslogSource* m_source = nullptr;
  OrloStream::Stream* m_stream = nullptr;
  boost::asio::io_context m_context;
};

TEST_F(SyslogSourceTest, EachConnectionsFirstByteTellsItsFraming) {
  Start();
  SendAndClose("<1>line\n<2>line\n");
  EXPECT_TRUE(Arrive({"<1>line", "<2>line"}));
  SendAndClose("4 <3>a5 <4>\nb");
  EXPECT_TRUE(Arrive({"<1>line", "<2>line", "<3>a", "<4>\nb"}));
}

TEST_F(SyslogSourceTest, AnyBytesPassUnchanged) {
  Start();
  SendAndClose("\0\xff\xc3(\n\n\r\n"s);
  EXPECT_TRUE(Arrive({"\0\xff\xc3("s, "", "\r"}));
}

TEST_F(SyslogSourceTest, TheHeadTellsTimeAndSender) {
  Start();
  tcp::socket socket = Connect();
  Send(socket, "x\n");
  ASSERT_TRUE(Arrive({"x"}));
  const auto header = OrloAgent::ParseEventHeader(m_collected.heads.front());
  ASSERT_TRUE(header);
  EXPECT_EQ(header->DescribeSource(), "tcp:127.0.0.1");
  EXPECT_EQ(header->flags, 0);
  constexpr std::uint64_t kYear2020 = 132'223'104'000'000'000;
  EXPECT_GT(header->receiveTime, kYear2020);
}

TEST_F(SyslogSourceTest, AnIpv6AddressIsListenedOn) {
  SyslogSourceOptions options;
  options.listen.host = "::1";
  Start(options);
  tcp::socket socket(m_context);
  socket.connect({boost::asio::ip::address_v6::loopback(), m_source->GetPort()});
  Send(socket, "six\n");
  ASSERT_TRUE(Arrive({"six"}));
  EXPECT_EQ(OrloAgent::ParseEventHeader(m_collected.heads.front())->DescribeSource(), "tcp:[::1]");
}

TEST_F(SyslogSourceTest, AClientThatSpeaksTlsToAPlainPortIsRefusedCountedAndNamed) {
  TestSupport::LogCapture log;
  Start();
  tcp::socket other = Connect();
  Send(other, "before\n");
  tcp::socket socket = Connect();
  const std::string name = "127.0.0.1:" + std::to_string(socket.local_endpoint().port());
  // In two pieces, as a slow network delivers it.
  Send(socket, "\x16\x03"s);
  ASSERT_TRUE(Arrive({"before"}));
  Send(socket, "\x01\x00\n\n"s);
  EXPECT_TRUE(IsClosedByPeer(socket));
  Send(other, "after\n");
  EXPECT_TRUE(Arrive({"before", "after"}));
  EXPECT_EQ(m_source->GetCounts().unexpectedTls, 1u);
  EXPECT_EQ(m_source->GetCounts().malformed, 0u);
  EXPECT_EQ(
      log.Count(LogLevel::Warn, name + " speaks TLS, which this port does not; the connection "
                                       "is closed. A source for TLS listens on tls://."),
      1u);
}

TEST_F(SyslogSourceTest, AMessageThatIsTooLongIsCutCountedAndReportedOncePerConnection) {
  TestSupport::LogCapture log;
  SyslogSourceOptions options;
  options.maxEventSize = 64;
  Start(options);
  const std::string longLine(1000, 'x');
  SendAndClose("a\n" + longLine + "\nb\n" + longLine + "\n");
  const std::string cut(64, 'x');
  ASSERT_TRUE(Arrive({"a", cut, "b", cut}));
  EXPECT_EQ(OrloAgent::ParseEventHeader(m_collected.heads[1])->flags, OrloAgent::EventFlags::kCut);
  EXPECT_EQ(m_source->GetCounts().cut, 2u);
  m_manager.StopSources(*m_stream);
  std::size_t warnings = 0;
  for (const auto& line : log.Lines()) {
    warnings += line.level == LogLevel::Warn ? 1 : 0;
  }
  EXPECT_EQ(warnings, 1u);
}

TEST_F(SyslogSourceTest, ALengthThatCannotBeReadEndsThatConnectionOnly) {
  Start();
  tcp::socket good = Connect();
  Send(good, "one\n");
  tcp::socket bad = Connect();
  Send(bad, "3 abc12345678901 x");
  EXPECT_TRUE(IsClosedByPeer(bad));
  Send(good, "two\n");
  ASSERT_TRUE(WaitUntil([&] { return m_collected.Messages().size() == 3; }));
  EXPECT_EQ(m_collected.Messages().back(), "two");
  EXPECT_EQ(m_source->GetCounts().malformed, 1u);
}

TEST_F(SyslogSourceTest, ALineThatEndsWithItsConnectionIsDelivered) {
  Start();
  SendAndClose("whole\npart");
  EXPECT_TRUE(Arrive({"whole", "part"}));
}

TEST_F(SyslogSourceTest, AnOctetCountedMessageThatIsNotCompleteIsDroppedAndCounted) {
  Start();
  SendAndClose("5 whole5 par");
  EXPECT_TRUE(WaitUntil([&] { return m_source->GetCounts().truncated == 1; }));
  EXPECT_EQ(m_collected.Messages(), std::vector<std::string>{"whole"});
}

TEST_F(SyslogSourceTest, ConnectionsBeyondTheLimitAreClosedAndLaterOnesTakenAgain) {
  SyslogSourceOptions options;
  options.maxConnections = 2;
  Start(options);
  tcp::socket first = Connect();
  tcp::socket second = Connect();
  Send(first, "a\n");
  Send(second, "x\n");
  tcp::socket third = Connect();
  EXPECT_TRUE(IsClosedByPeer(third));
  EXPECT_EQ(m_source->GetCounts().refusedConnections, 1u);
  first.close();
  ASSERT_TRUE(WaitUntil([&] {
    tcp::socket next = Connect();
    boost::system::error_code error;
    boost::asio::write(next, boost::asio::buffer("again\n"s), error);
    const auto messages = m_collected.Messages();
    return std::find(messages.begin(), messages.end(), "again") != messages.end();
  }));
}

TEST_F(SyslogSourceTest, AConnectionThatIsIdleForTooLongIsClosed) {
  SyslogSourceOptions options;
  options.idleTimeout = std::chrono::seconds(3);
  Start(options);
  tcp::socket socket = Connect();
  Send(socket, "part");
  EXPECT_TRUE(IsClosedByPeer(socket));
  EXPECT_TRUE(Arrive({"part"}));
}

TEST_F(SyslogSourceTest, WithoutAnIdleTimeoutASilentConnectionStays) {
  Start();
  tcp::socket silent = Connect();
  for (int i = 0; i < 200; ++i) {
    Connect();
  }
  ASSERT_TRUE(WaitUntil([&] { return m_source->GetCounts().connections == 201; }));
  Send(silent, "still here\n");
  EXPECT_TRUE(Arrive({"still here"}));
}

TEST_F(SyslogSourceTest, WhatWasSentBeforeAStopIsStillPosted) {
  Start();
  tcp::socket socket = Connect();
  Send(socket, "first\n");
  ASSERT_TRUE(Arrive({"first"}));
  std::string many;
  for (int i = 0; i < 1000; ++i) {
    many += std::to_string(i) + "\n";
  }
  Send(socket, many + "part");
  m_manager.StopSources(*m_stream);
  const auto messages = m_collected.Messages();
  ASSERT_EQ(messages.size(), 1002u);
  EXPECT_EQ(messages[1000], "999");
  EXPECT_EQ(messages[1001], "part");
  EXPECT_EQ(m_source->GetPort(), 0);
}

TEST_F(SyslogSourceTest, APortInUseIsRefusedWithItsAddress) {
  Start();
  SyslogSourceOptions options;
  options.listen = {"127.0.0.1", m_source->GetPort()};
  SyslogSource second(options);
  try {
    second.Start(*m_stream);
    FAIL() << "two listen on one port";
  } catch (const WindowsAgentCommon::InitializationException& exception) {
    // The reason in the brackets is in the system's words.
    const std::string message = exception.what();
    EXPECT_TRUE(message.starts_with(
        "Can't listen on tcp://127.0.0.1:" + std::to_string(options.listen.port) + " ("))
        << message;
  }
}

TEST_F(SyslogSourceTest, TheAddressIsLoggedWithThePortThatTheSystemChose) {
  TestSupport::LogCapture log;
  Start();
  EXPECT_TRUE(
      log.Contains(LogLevel::Info, "Code.SyslogSource.S",
                   "Listening on tcp://127.0.0.1:" + std::to_string(m_source->GetPort()) + "."));
}

}  // namespace
