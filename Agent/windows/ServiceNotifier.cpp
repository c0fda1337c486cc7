#include "Agent/ServiceNotifier.h"

namespace OrloAgent {

struct ServiceNotifier::Peer {};

ServiceNotifier::ServiceNotifier() = default;
ServiceNotifier::~ServiceNotifier() = default;

void ServiceNotifier::Ready(const std::string&) {}
void ServiceNotifier::Stopping() {}
void ServiceNotifier::StillWorks() {}

std::chrono::milliseconds ServiceNotifier::GetWatchdogPeriod() const {
  return std::chrono::milliseconds(0);
}

}  // namespace OrloAgent
