#include "Agent/RelpDestination.h"

#include <gtest/gtest.h>

#include <boost/asio/ip/tcp.hpp>

#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"

namespace {

using boost::asio::ip::tcp;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using TestSupport::MakeEvent;
using WindowsAgentCommon::LogLevel;

constexpr int kBackpressure = 0x40000000;

// With a receiver that takes connections and never says a word.
class RelpDestinationTest : public testing::Test {
 protected:
  RelpDestinationTest()
      : m_acceptor(m_context, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0)) {
    OrloAgent::RelpDestinationOptions options;
    options.target = {"127.0.0.1", m_acceptor.local_endpoint().port()};
    options.window = 2;
    options.sendTimeout = milliseconds(50);
    options.connectTimeout = milliseconds(200);
    m_destination = MakeRelpDestination(options, "S");
    m_destination->Initialize({});
  }

  TestSupport::LogCapture m_log;
  boost::asio::io_context m_context;
  tcp::acceptor m_acceptor;
  std::unique_ptr<OrloAgent::Destination> m_destination;
};

TEST_F(RelpDestinationTest, AFullWindowIsBackpressureAfterTheSendTimeout) {
  EXPECT_EQ(m_destination->put(MakeEvent("head", "one")), 0);
  EXPECT_EQ(m_destination->put(MakeEvent("head", "two")), 0);
  const auto start = steady_clock::now();
  EXPECT_EQ(m_destination->put(MakeEvent("head", "three")), kBackpressure);
  EXPECT_GE(steady_clock::now() - start, milliseconds(50));
  EXPECT_EQ(m_destination->GetUnsentEvents(), 2u);
}

TEST_F(RelpDestinationTest, NothingIsTakenAfterRefuseAlthoughThereIsRoom) {
  m_destination->Refuse();
  EXPECT_EQ(m_destination->put(MakeEvent("head", "one")), kBackpressure);
  EXPECT_EQ(m_destination->GetUnsentEvents(), 0u);
}

TEST_F(RelpDestinationTest, StopSaysHowManyEventsAreNotAcknowledged) {
  m_destination->put(MakeEvent("head", "one"));
  m_destination->put(MakeEvent("head", "two"));
  m_destination->Stop();
  EXPECT_EQ(m_destination->GetUnsentEvents(), 2u);
  EXPECT_EQ(m_log.Count(LogLevel::Warn, "2 events were not acknowledged; tcp://127.0.0.1:" +
                                            std::to_string(m_acceptor.local_endpoint().port()) +
                                            " may have some of them or none."),
            1u);
}

}  // namespace
