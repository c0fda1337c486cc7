#pragma once

#include <cstdint>
#include <memory>

#include "Agent/Options.h"
#include "Agent/Source.h"

namespace OrloAgent {

struct DatagramSourceCounts {
  std::uint64_t events = 0;
  // Events that are only the beginning of a longer message.
  std::uint64_t cut = 0;
  // Datagrams that the system has dropped because they came faster than they were taken. Stays 0 on
  // systems that do not tell.
  std::uint64_t dropped = 0;
};

// Receives syslog messages over UDP, one per datagram as RFC 5426 says, and posts each exactly as
// received. UDP can't hold its senders back: while the stream does not take events, datagrams wait
// in the system's buffer, and what does not fit there is dropped by the system. That is counted and
// said.
class DatagramSource : public Source {
 public:
  explicit DatagramSource(const SyslogSourceOptions& options);
  ~DatagramSource() override;

  std::vector<EndCounter> GetCounters() const override;

  // The port in use; 0 when not running. Any thread.
  std::uint16_t GetPort() const;

  // Any thread.
  DatagramSourceCounts GetCounts() const;

 protected:
  // The socket is bound before it returns; a message tells the address with the port that the
  // system chose.
  void Begin(const std::string& streamName) override;

  // Posts what lies in the system's buffer already, for a second at most, and closes.
  void End() override;

 private:
  class Server;

  const SyslogSourceOptions m_options;
  std::unique_ptr<Server> m_server;
};

}  // namespace OrloAgent
