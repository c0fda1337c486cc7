#pragma once

#include <chrono>
#include <string>

#include "Agent/Channel.h"
#include "Agent/Options.h"
#include "Agent/TcpConnection.h"

namespace OrloAgent {

// A TCP connection to a receiver of messages, plain or secured by TLS, made again when it ends.
//
// What plain TCP can't tell: bytes that the system has accepted but the receiver has not read are
// lost when the connection breaks. To keep them few, the channel looks before every write whether
// the receiver has closed its side; a receiver that sends nothing but closes is thus found before
// more is written. Whatever the receiver sends is read and dropped.
class TcpChannel : public IChannel {
 public:
  // Throws InitializationException if the options name TLS files that can't be used.
  TcpChannel(const SyslogDestinationOptions& options, const std::string& streamName);

  // Tries to connect at most once a second, for at most connectTimeout.
  Readiness Prepare(bool atFrameStart) override;
  WriteResult Write(std::string_view bytes, std::chrono::milliseconds patience) override;

  // Ends the connection in order: the receiver gets all of it, if it reads on for a second.
  void Close() override;

  std::vector<EndCounter> GetCounters() const override;

 private:
  bool IsConnectionAlive();

  TcpConnection m_connection;
  ConnectionReport m_report;
  std::chrono::steady_clock::time_point m_nextAttempt{};
};

}  // namespace OrloAgent
