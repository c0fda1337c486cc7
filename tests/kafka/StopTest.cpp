// The end of a Kafka destination whose cluster takes nothing, at any moment of its attempts.

#include <gtest/gtest.h>
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <algorithm>
#include <string_view>
#include <thread>
#include <vector>

#include "Agent/KafkaDestination.h"
#include "tests/support/Events.h"

namespace OrloAgent {

constexpr std::int16_t kProduce = 0;

// In this process; answers every event with an error after which it is not tried again.
class RefusingCluster {
 public:
  RefusingCluster() {
    m_host = rd_kafka_new(RD_KAFKA_PRODUCER, nullptr, nullptr, 0);
    m_cluster = rd_kafka_mock_cluster_new(m_host, 1);
    rd_kafka_mock_topic_create(m_cluster, "events", 1, 1);
    const std::vector<rd_kafka_resp_err_t> errors(10'000,
                                                  RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED);
    rd_kafka_mock_push_request_errors_array(m_cluster, kProduce, errors.size(), errors.data());
  }
  ~RefusingCluster() {
    rd_kafka_mock_cluster_destroy(m_cluster);
    rd_kafka_destroy(m_host);
  }
  RefusingCluster(const RefusingCluster&) = delete;
  RefusingCluster& operator=(const RefusingCluster&) = delete;

  std::string Brokers() const { return rd_kafka_mock_cluster_bootstraps(m_cluster); }

 private:
  rd_kafka_t* m_host = nullptr;
  rd_kafka_mock_cluster_t* m_cluster = nullptr;
};

std::uint64_t GetRefusals(const Destination& destination) {
  const auto counters = destination.GetCounters();
  const auto refused = std::find_if(counters.begin(), counters.end(), [](const auto& one) {
    return std::string_view(one.name) == "events_refused";
  });
  return refused == counters.end() ? 0 : refused->value;
}

TEST(KafkaStopTest, AStopWhileAProducerIsReplacedKeepsTheEvent) {
  const RefusingCluster cluster;
  KafkaDestinationOptions options;
  options.brokers = cluster.Brokers();
  options.topic = "events";
  for (int round = 0; round < 16; ++round) {
    const auto destination = MakeKafkaDestination(options, "S");
    destination->Initialize({});
    ASSERT_EQ(destination->put(TestSupport::MakeEvent("", "precious")), 0);
    // Not every few milliseconds only: what is to be met is as short.
    ASSERT_TRUE(TestSupport::WaitUntil([&] {
      const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
      while (GetRefusals(*destination) == 0 && std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
      }
      return GetRefusals(*destination) > 0;
    }));
    // The next producer is being made, or the last one ended.
    std::this_thread::sleep_for(std::chrono::milliseconds(2 + round % 8));
    destination->Refuse();
    destination->Stop();
    EXPECT_EQ(destination->GetUnsentEvents(), 1u);
    EXPECT_EQ(destination->TakeUnsent().size(), 1u);
  }
}

}  // namespace OrloAgent
