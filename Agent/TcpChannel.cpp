#include "Agent/TcpChannel.h"

#include <array>

namespace OrloAgent {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr std::chrono::seconds kBetweenAttempts{1};
constexpr std::chrono::seconds kLongestClose{1};

TcpConnectionOptions ConnectionOptions(const SyslogDestinationOptions& options) {
  return {options.target, options.tls, options.connectTimeout};
}

WindowsAgentCommon::Log MakeLog(const std::string& streamName) {
  return WindowsAgentCommon::LoggerFactory::GetLog("Code.SyslogDestination." + streamName);
}

}  // namespace

TcpChannel::TcpChannel(const SyslogDestinationOptions& options, const std::string& streamName)
    : m_connection(ConnectionOptions(options)), m_report(MakeLog(streamName), options.target) {
  TcpConnection::Check(ConnectionOptions(options), MakeLog(streamName), "SyslogDestination");
}

IChannel::Readiness TcpChannel::Prepare(bool) {
  if (m_connection.IsOpen()) {
    if (IsConnectionAlive()) {
      return Readiness::Ready;
    }
    m_connection.Close();
    m_report.OnDown(m_connection.GetReason());
  }
  if (steady_clock::now() < m_nextAttempt) {
    return Readiness::NotReady;
  }
  const std::string problem = m_connection.Connect();
  // Counted from the end of the attempt: one that took its whole time is not followed by the next
  // at once.
  m_nextAttempt = steady_clock::now() + kBetweenAttempts;
  if (!problem.empty()) {
    m_report.OnDown(problem);
    return Readiness::NotReady;
  }
  m_report.OnUp();
  return Readiness::ReadyAnew;
}

bool TcpChannel::IsConnectionAlive() {
  std::array<char, 4096> unwanted;
  std::size_t size = 0;
  TcpConnection::ReadResult result = TcpConnection::ReadResult::Some;
  while (result == TcpConnection::ReadResult::Some) {
    result = m_connection.Read(unwanted.data(), unwanted.size(), size);
  }
  return result == TcpConnection::ReadResult::Nothing;
}

IChannel::WriteResult TcpChannel::Write(std::string_view bytes, milliseconds patience) {
  const TcpConnection::WriteResult result = m_connection.Write(bytes, patience);
  if (result.broken) {
    m_report.OnDown(m_connection.GetReason());
  }
  return {result.written, result.broken};
}

std::vector<EndCounter> TcpChannel::GetCounters() const {
  return m_report.GetCounters(m_connection);
}

void TcpChannel::Close() { m_connection.CloseInOrder(kLongestClose); }

}  // namespace OrloAgent
