#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "Agent/Destination.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

// Sends every event as a datagram of its own, as RFC 5426 says. A message that no datagram can hold
// is cut, which is counted and said.
//
// Nobody confirms a datagram. What can be known is used: a machine that answers "port unreachable"
// makes the next event wait instead of following its predecessor, and the system's own buffer is
// waited for. The datagram that was answered so is lost, and the destination says so.
class DatagramDestination : public Destination {
 public:
  // `options.target` is a udp:// address.
  DatagramDestination(const SyslogDestinationOptions& options, const std::string& streamName);

  void Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) override;
  void Stop() override;
  int put(ACE_Message_Block* block, ACE_Time_Value* timeout = nullptr) override;
  void Refuse() override { m_refusing = true; }

  // What the system has taken has left.
  std::uint64_t GetUnsentEvents() const override { return 0; }
  std::uint64_t GetSentEvents() const override { return m_sent; }

  std::vector<EndCounter> GetCounters() const override;

 private:
  bool Prepare();
  bool Send(std::string_view message);
  boost::system::error_code LookForAnswer();
  void OnDown(const std::string& reason);

  const SyslogDestinationOptions m_options;
  const std::string m_targetText;
  WindowsAgentCommon::Log m_log;
  boost::asio::io_context m_context{1};
  boost::asio::ip::udp::socket m_socket{m_context};
  std::string m_joined;
  std::atomic<bool> m_refusing{false};
  std::chrono::steady_clock::time_point m_nextAttempt{};
  std::chrono::steady_clock::time_point m_nextLook{};
  std::chrono::steady_clock::time_point m_nextWarning{};
  std::atomic<std::uint64_t> m_sent{0};
  std::atomic<std::uint64_t> m_cut{0};
  std::atomic<std::uint64_t> m_unreachable{0};
  bool m_reportedReady = false;
};

}  // namespace OrloAgent
