#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace OrloAgent {

// Tells whoever has started the agent as a service how it fares: that it is ready, that it stops,
// and, if it is watched, that it still works. Where nobody asks, nothing is said. Control thread
// only.
//
//   POSIX    datagrams to the socket that the environment variable NOTIFY_SOCKET names, in
//   systemd's
//            protocol (READY=1, STOPPING=1, WATCHDOG=1); watched if WATCHDOG_USEC says so
//   Windows  nobody asks
class ServiceNotifier {
 public:
  ServiceNotifier();
  ~ServiceNotifier();
  ServiceNotifier(const ServiceNotifier&) = delete;
  ServiceNotifier& operator=(const ServiceNotifier&) = delete;

  // `status` is a line for the administrator.
  void Ready(const std::string& status);
  void Stopping();
  void StillWorks();

  // How long the agent may be silent before it is killed and started again; 0: as long as it likes.
  std::chrono::milliseconds GetWatchdogPeriod() const;

 private:
  struct Peer;
  std::unique_ptr<Peer> m_peer;
};

}  // namespace OrloAgent
