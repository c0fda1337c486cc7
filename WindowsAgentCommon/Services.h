#pragma once

#include <memory>
#include <string>

namespace WindowsAgentCommon {

// What the hosting process offers to its components, found by name.
class IServiceComponent {
 public:
  virtual ~IServiceComponent();
};

// The service of that name, or null. Owned by the registry: it stays valid until the host
// unregisters it, which it does only after everything that uses it has stopped. Any thread.
IServiceComponent* _getService(const std::string& name);

// For the host. Registering a name again replaces the service. Any thread.
void RegisterService(const std::string& name, std::shared_ptr<IServiceComponent> service);
void UnregisterService(const std::string& name);

// Registers for as long as it lives.
class ServiceRegistration {
 public:
  ServiceRegistration(std::string name, std::shared_ptr<IServiceComponent> service);
  ~ServiceRegistration();
  ServiceRegistration(const ServiceRegistration&) = delete;
  ServiceRegistration& operator=(const ServiceRegistration&) = delete;

 private:
  std::string m_name;
};

}  // namespace WindowsAgentCommon
