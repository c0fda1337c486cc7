// The end of a Kafka destination whose cluster takes nothing, at any moment of its attempts.

#include <gtest/gtest.h>

#include <thread>

#include "Agent/KafkaDestination.h"
#include "tests/kafka/InProcessCluster.h"
#include "tests/support/Events.h"

namespace OrloAgent {

TEST(KafkaStopTest, AStopWhileAProducerIsReplacedKeepsTheEvent) {
  TestSupport::InProcessCluster cluster;
  cluster.RefuseAll();
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
      while (TestSupport::GetCounter(*destination, "events_refused") == 0 &&
             std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
      }
      return TestSupport::GetCounter(*destination, "events_refused") > 0;
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
