#pragma once

#include <memory>
#include <string>

#include "Agent/Destination.h"

namespace OrloAgent {

// Whether this build can send to Kafka. Without that, making the destination throws.
bool IsKafkaAvailable();

// The properties of librdkafka that are the agent's own, because its guarantees rest on them.
bool IsReservedKafkaProperty(const std::string& name);

// Sends events to a topic of a Kafka cluster, each as one message, and keeps each until all
// replicas have it. Whatever happens to brokers and connections, what was not acknowledged is sent
// again, in order; what was acknowledged while its acknowledgement was lost can come twice, within
// the window.
//
// put waits while the window is full, up to sendTimeout, and then answers with backpressure.
// GetUnsentEvents is what has not been acknowledged, so a stop waits for the acknowledgements; Stop
// says how many are missing.
//
// Throws InitializationException if librdkafka does not take the options.
std::unique_ptr<Destination> MakeKafkaDestination(const KafkaDestinationOptions& options,
                                                  const std::string& streamName);

}  // namespace OrloAgent
