#include "Agent/TcpChannel.h"

#include <gtest/gtest.h>

#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"

namespace {

using boost::asio::ip::tcp;
using OrloAgent::IChannel;
using OrloAgent::TcpChannel;
using std::chrono::milliseconds;
using std::chrono::seconds;
using TestSupport::WaitUntil;
using WindowsAgentCommon::LogLevel;

class TcpChannelTest : public testing::Test {
 protected:
  TcpChannelTest()
      : m_acceptor(m_context, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0)) {
    m_port = m_acceptor.local_endpoint().port();
  }

  OrloAgent::SyslogDestinationOptions OptionsFor(const std::string& host) const {
    OrloAgent::SyslogDestinationOptions options;
    options.target = {host, m_port};
    options.connectTimeout = seconds(10);
    return options;
  }

  std::unique_ptr<TcpChannel> Make() {
    return std::make_unique<TcpChannel>(OptionsFor("127.0.0.1"), "S");
  }

  static std::string Receive(tcp::socket& socket, std::size_t size) {
    std::string bytes(size, '\0');
    boost::asio::read(socket, boost::asio::buffer(bytes));
    return bytes;
  }

  std::string Target() const { return "tcp://127.0.0.1:" + std::to_string(m_port); }

  boost::asio::io_context m_context;
  tcp::acceptor m_acceptor;
  std::uint16_t m_port = 0;
};

TEST_F(TcpChannelTest, BytesArriveAndCloseEndsTheConnectionInOrder) {
  auto channel = Make();
  ASSERT_EQ(channel->Prepare(true), IChannel::Readiness::ReadyAnew);
  tcp::socket peer = m_acceptor.accept();
  EXPECT_EQ(channel->Prepare(true), IChannel::Readiness::Ready);
  EXPECT_EQ(channel->Write("hello\n", milliseconds(0)).written, 6u);
  EXPECT_EQ(Receive(peer, 6), "hello\n");
  channel->Close();
  char byte;
  boost::system::error_code error;
  peer.read_some(boost::asio::buffer(&byte, 1), error);
  EXPECT_EQ(error, boost::asio::error::eof);
}

TEST_F(TcpChannelTest, ANameIsLookedUp) {
  TcpChannel channel(OptionsFor("localhost"), "S");
  EXPECT_EQ(channel.Prepare(true), IChannel::Readiness::ReadyAnew);
  EXPECT_EQ(channel.Write("x", milliseconds(0)).written, 1u);
}

TEST_F(TcpChannelTest, ATargetThatRefusesIsTriedOnceASecondAndReportedOnce) {
  TestSupport::LogCapture log;
  // Taken, so that nobody else gets the port, and not listened on: connections are refused.
  m_acceptor = tcp::acceptor(m_context, tcp::v4());
  m_acceptor.bind({boost::asio::ip::address_v4::loopback(), 0});
  m_port = m_acceptor.local_endpoint().port();
  auto channel = Make();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(channel->Prepare(true), IChannel::Readiness::NotReady);
  // The next attempt would succeed, but is not due yet.
  m_acceptor.listen();
  ASSERT_TRUE(WaitUntil([&] { return channel->Prepare(true) == IChannel::Readiness::ReadyAnew; }));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(900));
  std::vector<std::string> texts;
  for (const auto& line : log.Lines()) {
    texts.push_back(line.text);
  }
  ASSERT_EQ(texts.size(), 2u) << testing::PrintToString(texts);
  EXPECT_EQ(texts[0],
            Target() + " can't be reached (Connection refused); events wait until it can.");
  EXPECT_EQ(texts[1].rfind("Connected to " + Target() + " again after ", 0), 0u) << texts[1];
}

TEST_F(TcpChannelTest, AReceiverThatHasClosedIsFoundBeforeTheNextWrite) {
  auto channel = Make();
  ASSERT_EQ(channel->Prepare(true), IChannel::Readiness::ReadyAnew);
  const auto connected = std::chrono::steady_clock::now();
  { tcp::socket peer = m_acceptor.accept(); }
  // Nothing tells us when the end has come through; looking is what the writer does as well.
  IChannel::Readiness readiness = IChannel::Readiness::Ready;
  ASSERT_TRUE(WaitUntil([&] {
    readiness = channel->Prepare(true);
    return readiness != IChannel::Readiness::Ready;
  }));
  ASSERT_TRUE(readiness == IChannel::Readiness::ReadyAnew ||
              WaitUntil([&] { return channel->Prepare(true) == IChannel::Readiness::ReadyAnew; }));
  EXPECT_GE(std::chrono::steady_clock::now() - connected, milliseconds(900));
  tcp::socket peer = m_acceptor.accept();
  EXPECT_EQ(channel->Write("x", milliseconds(0)).written, 1u);
  EXPECT_EQ(Receive(peer, 1), "x");
}

TEST_F(TcpChannelTest, WhatTheReceiverSendsIsDropped) {
  auto channel = Make();
  ASSERT_EQ(channel->Prepare(true), IChannel::Readiness::ReadyAnew);
  tcp::socket peer = m_acceptor.accept();
  boost::asio::write(peer, boost::asio::buffer(std::string(100'000, 'x')));
  EXPECT_EQ(channel->Prepare(true), IChannel::Readiness::Ready);
  EXPECT_EQ(channel->Write("y", milliseconds(0)).written, 1u);
  EXPECT_EQ(Receive(peer, 1), "y");
}

TEST_F(TcpChannelTest, AReceiverThatDoesNotReadIsWaitedForAndNoLonger) {
  auto channel = Make();
  ASSERT_EQ(channel->Prepare(true), IChannel::Readiness::ReadyAnew);
  tcp::socket peer = m_acceptor.accept();
  const std::string block(1 << 20, 'x');
  std::size_t written = 0;
  for (;;) {
    const auto result = channel->Write(block, milliseconds(0));
    ASSERT_FALSE(result.broken);
    if (result.written == 0) {
      break;
    }
    written += result.written;
  }
  const auto begin = std::chrono::steady_clock::now();
  // The first wait may still see bytes leave for the peer's buffer.
  while (const auto more = channel->Write(block, milliseconds(200)).written) {
    written += more;
  }
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(190));
  EXPECT_EQ(Receive(peer, written), std::string(written, 'x'));
  EXPECT_GT(channel->Write(block, seconds(10)).written, 0u);
}

TEST_F(TcpChannelTest, AConnectionThatIsResetBreaksTheWriteAndIsReported) {
  TestSupport::LogCapture log;
  auto channel = Make();
  ASSERT_EQ(channel->Prepare(true), IChannel::Readiness::ReadyAnew);
  {
    tcp::socket peer = m_acceptor.accept();
    peer.set_option(tcp::socket::linger(true, 0));
  }
  // However late the next attempt is, nobody listens any more.
  m_acceptor.close();
  EXPECT_TRUE(WaitUntil([&] { return channel->Write("x", milliseconds(0)).broken; }));
  EXPECT_EQ(channel->Prepare(true), IChannel::Readiness::NotReady);
  EXPECT_EQ(log.Lines().back().level, LogLevel::Warn);
}

}  // namespace
