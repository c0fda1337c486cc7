#include "Agent/KafkaDestination.h"
#include "WindowsAgentCommon/Exceptions.h"

namespace OrloAgent {

bool IsKafkaAvailable() { return false; }

bool IsReservedKafkaProperty(const std::string&) { return false; }

std::unique_ptr<Destination> MakeKafkaDestination(const KafkaDestinationOptions&,
                                                  const std::string&) {
  throw WindowsAgentCommon::InitializationException("KafkaDestination",
                                                    "OrloAgent::MakeKafkaDestination", __LINE__,
                                                    "This program was built without Kafka");
}

}  // namespace OrloAgent
