#include "Agent/ServiceNotifier.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "Agent/Units.h"

namespace OrloAgent {

namespace {

std::string GetVariable(const char* name) {
  const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
  return value == nullptr ? std::string() : std::string(value);
}

struct Address {
  sockaddr_un socket{};
  socklen_t size = 0;
};

// A path, or with a @ before it a name in the abstract name space.
std::optional<Address> ParseAddress(const std::string& text) {
  Address address;
  if (text.size() < 2 || text.size() > sizeof address.socket.sun_path ||
      (text[0] != '/' && text[0] != '@')) {
    return std::nullopt;
  }
  address.socket.sun_family = AF_UNIX;
  std::memcpy(address.socket.sun_path, text.data(), text.size());
  if (text[0] == '@') {
    address.socket.sun_path[0] = '\0';
  }
  address.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size());
  return address;
}

// 0 if nobody watches, or if it is another process that is watched.
std::chrono::milliseconds ReadWatchdogPeriod() {
  const std::string process = GetVariable("WATCHDOG_PID");
  if (!process.empty() && process != std::to_string(getpid())) {
    return std::chrono::milliseconds(0);
  }
  const auto microseconds = ParseWholeNumber(GetVariable("WATCHDOG_USEC"));
  constexpr std::uint64_t kLongest = 86'400'000'000;
  return microseconds && *microseconds <= kLongest ? std::chrono::milliseconds(*microseconds / 1000)
                                                   : std::chrono::milliseconds(0);
}

}  // namespace

struct ServiceNotifier::Peer {
  explicit Peer(const Address& target)
      : descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)), address(target) {}

  ~Peer() {
    if (descriptor >= 0) {
      close(descriptor);
    }
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  // Never waits: a service manager that does not read must not stop the agent. It then misses a
  // message, and the agent is started again at worst.
  void Send(const std::string& text) const {
    sendto(descriptor, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
           reinterpret_cast<const sockaddr*>(&address.socket), address.size);
  }

  const int descriptor;
  const Address address;
  const std::chrono::milliseconds watchdogPeriod = ReadWatchdogPeriod();
};

ServiceNotifier::ServiceNotifier() {
  if (const auto address = ParseAddress(GetVariable("NOTIFY_SOCKET"))) {
    m_peer = std::make_unique<Peer>(*address);
  }
}

ServiceNotifier::~ServiceNotifier() = default;

void ServiceNotifier::Ready(const std::string& status) {
  if (m_peer) {
    m_peer->Send("READY=1\nSTATUS=" + status);
  }
}

void ServiceNotifier::Stopping() {
  if (m_peer) {
    m_peer->Send("STOPPING=1\nSTATUS=Stopping");
  }
}

void ServiceNotifier::StillWorks() {
  if (m_peer && m_peer->watchdogPeriod.count() > 0) {
    m_peer->Send("WATCHDOG=1");
  }
}

std::chrono::milliseconds ServiceNotifier::GetWatchdogPeriod() const {
  return m_peer ? m_peer->watchdogPeriod : std::chrono::milliseconds(0);
}

}  // namespace OrloAgent
