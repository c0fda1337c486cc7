// What a Kafka destination counts and says of a cluster that refuses events, and then goes away.

#include <gtest/gtest.h>

#include "Agent/KafkaDestination.h"
#include "tests/kafka/InProcessCluster.h"
#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"

namespace OrloAgent {

namespace {

using TestSupport::GetCounter;
using TestSupport::WaitUntil;
using WindowsAgentCommon::LogLevel;

class KafkaRefusalsTest : public testing::Test {
 protected:
  void Start(const std::map<std::string, std::string>& properties) {
    KafkaDestinationOptions options;
    options.brokers = m_cluster.Brokers();
    options.topic = "events";
    options.properties = properties;
    options.properties.emplace("reconnect.backoff.max.ms", "200");
    m_destination = MakeKafkaDestination(options, "S");
    m_destination->Initialize({});
  }

  void Put(const std::string& message) {
    ASSERT_EQ(m_destination->put(TestSupport::MakeEvent("", message)), 0);
  }

  // How many lines of the level have the text in them.
  std::size_t CountLines(LogLevel level, const std::string& text) const {
    const auto lines = m_messages.Lines();
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const auto& one) {
      return one.level == level && one.text.find(text) != std::string::npos;
    }));
  }

  TestSupport::LogCapture m_messages;
  TestSupport::InProcessCluster m_cluster;
  std::unique_ptr<Destination> m_destination;
};

TEST_F(KafkaRefusalsTest, AnEventThatIsTooLargeIsLostOnceThoughTheProducerIsReplaced) {
  // The refusal of the second event has to come between that of the first one and the replacement
  // of the producer, which takes the second one back.
  const auto isTooLarge = [&] { return CountLines(LogLevel::Error, "is larger than") == 1; };
  for (int attempt = 0; attempt < 60 && !isTooLarge(); ++attempt) {
    m_cluster.Answer(
        {RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED, RD_KAFKA_RESP_ERR_MSG_SIZE_TOO_LARGE});
    Start({{"batch.num.messages", "1"}});
    Put("refused at first");
    Put("too large");
    ASSERT_TRUE(WaitUntil([&] { return GetCounter(*m_destination, "events_refused") == 1; }));
    ASSERT_TRUE(WaitUntil([&] { return m_destination->GetUnsentEvents() == 0; }));
  }
  ASSERT_TRUE(isTooLarge());
  EXPECT_EQ(m_destination->GetLostEvents(), 1u);
  EXPECT_EQ(m_destination->GetSentEvents(), 1u);
  EXPECT_EQ(GetCounter(*m_destination, "events_sent_again"), 1u);
  Put("another");
  EXPECT_TRUE(WaitUntil([&] { return m_destination->GetSentEvents() == 2; }));
  EXPECT_EQ(m_destination->GetLostEvents(), 1u);
}

TEST_F(KafkaRefusalsTest, ARefusalIsToldOnceAndAClusterThatThenGoesAwayIsAnOutage) {
  m_cluster.RefuseAll();
  Start({});
  Put("precious");
  // One in a second.
  ASSERT_TRUE(WaitUntil([&] { return GetCounter(*m_destination, "events_refused") >= 13; }));
  EXPECT_EQ(CountLines(LogLevel::Warn, "does not take an event"), 1u);
  EXPECT_EQ(GetCounter(*m_destination, "outages"), 0u);
  m_cluster.GoAway();
  EXPECT_TRUE(WaitUntil([&] { return GetCounter(*m_destination, "outages") == 1; }));
  EXPECT_EQ(CountLines(LogLevel::Warn, "can't be reached ("), 1u);
  EXPECT_EQ(CountLines(LogLevel::Warn, "still can't be reached"), 0u)
      << "it was not said before that it can't be reached";
}

TEST_F(KafkaRefusalsTest, AClusterThatIsAwayAndThenRefusesIsSaidToRefuse) {
  m_cluster.GoAway();
  Start({});
  Put("precious");
  ASSERT_TRUE(WaitUntil([&] { return GetCounter(*m_destination, "outages") == 1; }));
  m_cluster.Answer({RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED});
  m_cluster.ComeBack();
  ASSERT_TRUE(WaitUntil([&] { return m_destination->GetSentEvents() == 1; }));
  EXPECT_EQ(CountLines(LogLevel::Warn, "can't be reached"), 1u);
  EXPECT_EQ(CountLines(LogLevel::Warn, "does not take an event"), 1u);
  EXPECT_EQ(CountLines(LogLevel::Info, "acknowledges events again"), 1u);
}

}  // namespace

}  // namespace OrloAgent
