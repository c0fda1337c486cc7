#pragma once

#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Agent/Destination.h"

namespace TestSupport {

// A cluster of one broker in this process, with the topic "events", that answers as it is told.
class InProcessCluster {
 public:
  InProcessCluster() {
    m_host = rd_kafka_new(RD_KAFKA_PRODUCER, nullptr, nullptr, 0);
    m_cluster = rd_kafka_mock_cluster_new(m_host, 1);
    rd_kafka_mock_topic_create(m_cluster, "events", 1, 1);
  }
  ~InProcessCluster() {
    rd_kafka_mock_cluster_destroy(m_cluster);
    rd_kafka_destroy(m_host);
  }
  InProcessCluster(const InProcessCluster&) = delete;
  InProcessCluster& operator=(const InProcessCluster&) = delete;

  std::string Brokers() const { return rd_kafka_mock_cluster_bootstraps(m_cluster); }

  // The answers to the next requests that bring events; those after them are taken.
  void Answer(const std::vector<rd_kafka_resp_err_t>& errors) {
    constexpr std::int16_t kProduce = 0;
    rd_kafka_mock_push_request_errors_array(m_cluster, kProduce, errors.size(), errors.data());
  }
  // Every event is answered with an error after which it is not tried again.
  void RefuseAll() { Answer(std::vector(10'000, RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED)); }

  void GoAway() { rd_kafka_mock_broker_set_down(m_cluster, 1); }
  void ComeBack() { rd_kafka_mock_broker_set_up(m_cluster, 1); }

 private:
  rd_kafka_t* m_host = nullptr;
  rd_kafka_mock_cluster_t* m_cluster = nullptr;
};

inline std::uint64_t GetCounter(const OrloAgent::Destination& destination, std::string_view name) {
  const auto counters = destination.GetCounters();
  const auto found = std::find_if(counters.begin(), counters.end(),
                                  [&](const auto& one) { return one.name == name; });
  return found == counters.end() ? 0 : found->value;
}

}  // namespace TestSupport
