#include "WindowsAgentCommon/Services.h"

#include <map>
#include <mutex>
#include <utility>

namespace WindowsAgentCommon {

namespace {

struct Registry {
  std::mutex lock;
  std::map<std::string, std::shared_ptr<IServiceComponent>> services;  // guarded by lock
};

// Never destroyed: services may be asked for by destructors of other static objects.
Registry& GetRegistry() {
  static Registry* const registry = new Registry;
  return *registry;
}

// Puts the service in place of the one before and returns that one, so that it ends its life
// outside the lock: its destructor may ask for other services.
std::shared_ptr<IServiceComponent> Exchange(const std::string& name,
                                            std::shared_ptr<IServiceComponent> service) {
  Registry& registry = GetRegistry();
  const std::lock_guard guard(registry.lock);
  if (service) {
    registry.services[name].swap(service);
    return service;
  }
  const auto found = registry.services.find(name);
  if (found != registry.services.end()) {
    service = std::move(found->second);
    registry.services.erase(found);
  }
  return service;
}

}  // namespace

IServiceComponent::~IServiceComponent() = default;

IServiceComponent* _getService(const std::string& name) {
  Registry& registry = GetRegistry();
  const std::lock_guard guard(registry.lock);
  const auto found = registry.services.find(name);
  return found == registry.services.end() ? nullptr : found->second.get();
}

void RegisterService(const std::string& name, std::shared_ptr<IServiceComponent> service) {
  Exchange(name, std::move(service));
}

void UnregisterService(const std::string& name) { Exchange(name, nullptr); }

ServiceRegistration::ServiceRegistration(std::string name,
                                         std::shared_ptr<IServiceComponent> service)
    : m_name(std::move(name)) {
  RegisterService(m_name, std::move(service));
}

ServiceRegistration::~ServiceRegistration() { UnregisterService(m_name); }

}  // namespace WindowsAgentCommon
