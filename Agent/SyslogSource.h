#pragma once

#include <cstdint>
#include <memory>

#include "Agent/Options.h"
#include "Agent/Source.h"

namespace OrloAgent {

struct SyslogSourceCounts {
  std::uint64_t connections = 0;
  // Closed at once because there were too many.
  std::uint64_t refusedConnections = 0;
  std::uint64_t events = 0;
  // Events that are only the beginning of a longer message.
  std::uint64_t cut = 0;
  // Octet-counted messages dropped because the connection ended inside them.
  std::uint64_t truncated = 0;
  // Connections closed because a length could not be read.
  std::uint64_t malformed = 0;
  // Connections closed because they spoke TLS to a port without it.
  std::uint64_t unexpectedTls = 0;
  // Connections closed because they were not secured as the options demand.
  std::uint64_t failedHandshakes = 0;
};

// Accepts syslog messages over TCP, or TLS over TCP, and posts each as an event, exactly as
// received. One thread serves all connections; while the stream does not take events, it reads from
// none of them, and TCP holds the senders back.
//
// What a connection has sent when it ends inside a message: a line is delivered without its line
// end; an octet-counted message is dropped and counted, because its sender has said that it is
// longer.
class SyslogSource : public Source {
 public:
  explicit SyslogSource(const SyslogSourceOptions& options);
  ~SyslogSource() override;

  // Connections that come from now on are secured with what the certificate files hold now. Files
  // that can't be used are reported, and what was read before stays in use.
  void Reload() override;

  std::vector<EndCounter> GetCounters() const override;

  // The port in use; 0 when not running. Any thread.
  std::uint16_t GetPort() const;

  // Any thread.
  SyslogSourceCounts GetCounts() const;

 protected:
  // Listens before it returns; a message tells the address with the port that the system chose.
  void Begin(const std::string& streamName) override;

  // Takes no more connections, reads what the present ones have already sent (until they are quiet
  // for 50 ms; at most for about a second), and closes them.
  void End() override;

 private:
  class Server;

  const SyslogSourceOptions m_options;
  std::unique_ptr<Server> m_server;
};

}  // namespace OrloAgent
