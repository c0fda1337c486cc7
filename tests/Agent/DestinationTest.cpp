#include "Agent/Destination.h"

#include <gtest/gtest.h>

#include <boost/asio/ip/tcp.hpp>
#include <fstream>
#include <iterator>

#include "Agent/EventHeader.h"
#include "tests/Agent/RefusingPort.h"
#include "tests/support/Events.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using boost::asio::ip::tcp;
using OrloAgent::Destination;
using OrloAgent::MakeDestination;
using TestSupport::MakeEvent;
using TestSupport::WaitUntil;

constexpr int kBackpressure = 0x40000000;

std::string Head(std::uint8_t flags) {
  const OrloAgent::EventHeaderTemplate header(OrloAgent::EventOrigin::Text, "test");
  std::string bytes(header.GetSize(), '\0');
  header.Write(bytes.data(), flags, 0);
  return bytes;
}

std::string ReadAll(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class FileDestinationTest : public testing::Test {
 protected:
  FileDestinationTest() {
    m_destination = MakeDestination(OrloAgent::FileDestinationOptions{m_path.string(), {}}, "S");
    m_destination->Initialize({});
  }

  TestSupport::TemporaryDirectory m_directory;
  const std::filesystem::path m_path = m_directory.Path() / "out";
  std::unique_ptr<Destination> m_destination;
};

TEST_F(FileDestinationTest, EachMessageIsALineAsItWasReceived) {
  using namespace std::string_literals;
  EXPECT_EQ(m_destination->put(MakeEvent(Head(0), "plain")), 0);
  EXPECT_EQ(m_destination->put(MakeEvent(Head(0), "")), 0);
  EXPECT_EQ(m_destination->put(MakeEvent(Head(0), "nul \0 and \xff\r"s)), 0);
  m_destination->Stop();
  EXPECT_EQ(ReadAll(m_path), "plain\n\nnul \0 and \xff\r\n"s);
  EXPECT_EQ(m_destination->GetUnsentEvents(), 0u);
}

TEST_F(FileDestinationTest, AMessageWithoutALineEndGetsNone) {
  m_destination->put(MakeEvent(Head(OrloAgent::EventFlags::kNoLineEnd), "first half, "));
  m_destination->put(MakeEvent(Head(0), "second half"));
  m_destination->put(MakeEvent(Head(OrloAgent::EventFlags::kNoLineEnd), "end"));
  m_destination->Stop();
  EXPECT_EQ(ReadAll(m_path), "first half, second half\nend");
}

TEST_F(FileDestinationTest, AnUnknownHeadIsALineLikeAnyOther) {
  m_destination->put(MakeEvent("what another stage made", "text"));
  m_destination->Stop();
  EXPECT_EQ(ReadAll(m_path), "text\n");
}

TEST_F(FileDestinationTest, APayloadInSeveralBlocksIsOneMessage) {
  ACE_Message_Block* const event = MakeEvent(Head(0), "one ");
  event->cont()->cont(MakeEvent("two", ""));
  m_destination->put(event);
  m_destination->Stop();
  EXPECT_EQ(ReadAll(m_path), "one two\n");
}

TEST_F(FileDestinationTest, AfterStopNothingIsTaken) {
  m_destination->Stop();
  EXPECT_EQ(m_destination->put(MakeEvent(Head(0), "late")), kBackpressure);
  EXPECT_EQ(ReadAll(m_path), "");
}

TEST(SyslogDestination, OctetCountedMessagesCarryTheirLength) {
  boost::asio::io_context context;
  tcp::acceptor acceptor(context, {boost::asio::ip::address_v4::loopback(), 0});
  OrloAgent::SyslogDestinationOptions options;
  options.target = {"127.0.0.1", acceptor.local_endpoint().port()};
  options.framing = OrloAgent::SyslogFraming::OctetCounted;
  const auto destination = MakeDestination(options, "S");
  destination->Initialize({});
  EXPECT_EQ(destination->put(MakeEvent(Head(0), "two\nlines")), 0);
  EXPECT_EQ(destination->put(MakeEvent(Head(0), "")), 0);
  ACE_Message_Block* const split = MakeEvent(Head(0), "in ");
  split->cont()->cont(MakeEvent("parts", ""));
  EXPECT_EQ(destination->put(split), 0);
  tcp::socket peer = acceptor.accept();
  std::thread stopper([&] { destination->Stop(); });
  std::string received;
  boost::system::error_code error;
  while (!error) {
    char bytes[256];
    received.append(bytes, peer.read_some(boost::asio::buffer(bytes), error));
  }
  peer.close();
  stopper.join();
  EXPECT_EQ(received, "9 two\nlines0 8 in parts");
}

TEST(SyslogDestination, NewlineFramingEndsEveryMessageEvenOneWithoutALineEnd) {
  boost::asio::io_context context;
  tcp::acceptor acceptor(context, {boost::asio::ip::address_v4::loopback(), 0});
  OrloAgent::SyslogDestinationOptions options;
  options.target = {"127.0.0.1", acceptor.local_endpoint().port()};
  const auto destination = MakeDestination(options, "S");
  destination->Initialize({});
  EXPECT_EQ(destination->put(MakeEvent(Head(OrloAgent::EventFlags::kNoLineEnd), "a")), 0);
  EXPECT_EQ(destination->put(MakeEvent(Head(0), "b")), 0);
  tcp::socket peer = acceptor.accept();
  std::string received;
  while (received.size() < 4) {
    char bytes[16];
    received.append(bytes, peer.read_some(boost::asio::buffer(bytes)));
  }
  EXPECT_EQ(received, "a\nb\n");
}

TEST(SyslogDestination, WithNobodyListeningEventsComeBackAsBackpressureAndAreForgotten) {
  const TestSupport::RefusingPort nobody;
  OrloAgent::SyslogDestinationOptions options;
  options.target = {"127.0.0.1", nobody.Number()};
  const auto destination = MakeDestination(options, "S");
  destination->Initialize({});
  ACE_Message_Block* const event = MakeEvent(Head(0), "x");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(destination->put(event->duplicate()), kBackpressure);
    EXPECT_EQ(destination->GetUnsentEvents(), 0u);
    EXPECT_EQ(event->data_block()->reference_count(), 1) << "the reference was given back";
  }
  event->release();
}

}  // namespace
