#include "Agent/TcpChannel.h"

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/connect.hpp>

#include "Agent/Units.h"

namespace OrloAgent {

using boost::asio::ip::tcp;
using boost::system::error_code;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using WindowsAgentCommon::LogFacade;

namespace {

constexpr std::chrono::seconds kBetweenAttempts{1};
constexpr std::chrono::seconds kLongestClose{1};

milliseconds Until(steady_clock::time_point deadline) {
  return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(deadline - steady_clock::now()));
}

}  // namespace

TcpChannel::TcpChannel(const Endpoint& target, milliseconds connectTimeout,
                       const std::string& streamName)
    : m_target(target),
      m_targetText(ToText(target)),
      m_connectTimeout(connectTimeout),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.SyslogDestination." + streamName)),
      m_downSince(steady_clock::now()) {
  error_code error;
  const auto address = boost::asio::ip::make_address(target.host, error);
  if (!error) {
    m_endpoints.emplace_back(address, target.port);
  }
}

TcpChannel::~TcpChannel() { m_resolver.cancel(); }

IChannel::Readiness TcpChannel::Prepare(bool) {
  if (m_socket.is_open()) {
    if (IsConnectionAlive()) {
      return Readiness::Ready;
    }
    OnDown("the receiver has closed the connection");
  }
  const auto now = steady_clock::now();
  if (now < m_nextAttempt) {
    return Readiness::NotReady;
  }
  const error_code error = Connect();
  // Counted from the end of the attempt: one that took its whole time is not followed by the next
  // at once.
  m_nextAttempt = steady_clock::now() + kBetweenAttempts;
  if (error) {
    OnDown(error.message());
    return Readiness::NotReady;
  }
  OnConnected();
  return Readiness::ReadyAnew;
}

bool TcpChannel::IsConnectionAlive() {
  std::array<char, 4096> unwanted;
  error_code error;
  do {
    m_socket.read_some(boost::asio::buffer(unwanted), error);
  } while (!error);
  return error == boost::asio::error::would_block || error == boost::asio::error::interrupted;
}

error_code TcpChannel::Connect() {
  const auto deadline = steady_clock::now() + m_connectTimeout;
  if (const error_code error = Resolve(deadline)) {
    return error;
  }
  error_code result = boost::asio::error::timed_out;
  bool done = false;
  boost::asio::async_connect(m_socket, m_endpoints,
                             [&](const error_code& error, const tcp::endpoint&) {
                               done = true;
                               result = error;
                             });
  m_context.restart();
  m_context.run_for(Until(deadline));
  if (!done) {
    error_code ignored;
    m_socket.close(ignored);
    m_context.restart();
    m_context.run();
    result = boost::asio::error::timed_out;
  }
  if (!result) {
    m_socket.non_blocking(true, result);
  }
  if (!result) {
    error_code ignored;
    // Writes are large already; waiting for more would only delay the last ones.
    m_socket.set_option(tcp::no_delay(true), ignored);
    m_socket.set_option(tcp::socket::keep_alive(true), ignored);
  }
  return result;
}

error_code TcpChannel::Resolve(steady_clock::time_point deadline) {
  error_code notAnAddress;
  boost::asio::ip::make_address(m_target.host, notAnAddress);
  if (!notAnAddress) {
    return {};
  }
  if (!m_resolving) {
    m_resolving = true;
    m_resolver.async_resolve(m_target.host, std::to_string(m_target.port),
                             [this](const error_code& error, tcp::resolver::results_type found) {
                               m_resolving = false;
                               m_resolveError = error;
                               m_endpoints.clear();
                               for (const auto& entry : found) {
                                 m_endpoints.push_back(entry.endpoint());
                               }
                             });
  }
  m_resolverContext.restart();
  m_resolverContext.run_for(Until(deadline));
  if (m_resolving) {
    return boost::asio::error::timed_out;
  }
  return m_resolveError;
}

void TcpChannel::OnConnected() {
  if (m_reportedDown) {
    const auto away = std::chrono::duration<double>(steady_clock::now() - m_downSince);
    LogFacade::Info(m_log, "Connected to %s again after %.1f s.", m_targetText, away.count());
  } else {
    LogFacade::Info(m_log, "Connected to %s.", m_targetText);
  }
  m_reportedDown = false;
}

void TcpChannel::OnDown(const std::string& reason) {
  error_code ignored;
  m_socket.close(ignored);
  if (!m_reportedDown) {
    m_reportedDown = true;
    m_downSince = steady_clock::now();
    LogFacade::Warn(m_log, "%s can't be reached (%s); events wait until it can.", m_targetText,
                    reason);
  }
}

IChannel::WriteResult TcpChannel::Write(std::string_view bytes, milliseconds patience) {
  WriteResult result;
  bool waited = patience.count() <= 0;
  while (result.written < bytes.size()) {
    error_code error;
    result.written += m_socket.write_some(
        boost::asio::buffer(bytes.data() + result.written, bytes.size() - result.written), error);
    if (!error || error == boost::asio::error::interrupted) {
      continue;
    }
    if (error != boost::asio::error::would_block) {
      OnDown(error.message());
      result.broken = true;
      return result;
    }
    if (result.written > 0 || waited) {
      return result;
    }
    waited = true;
    if (!WaitUntilWritable(patience)) {
      return result;
    }
  }
  return result;
}

bool TcpChannel::WaitUntilWritable(milliseconds patience) {
  bool done = false;
  bool writable = false;
  m_socket.async_wait(tcp::socket::wait_write, [&](const error_code& error) {
    done = true;
    writable = !error;
  });
  m_context.restart();
  m_context.run_for(patience);
  if (!done) {
    error_code ignored;
    m_socket.cancel(ignored);
    m_context.restart();
    m_context.run();
  }
  return writable;
}

void TcpChannel::Close() {
  if (!m_socket.is_open()) {
    return;
  }
  // Closing while the receiver's bytes lie unread would reset the connection and destroy what it
  // has not read yet. So only our side is closed, until the receiver closes its own.
  error_code error;
  m_socket.shutdown(tcp::socket::shutdown_send, error);
  const auto deadline = steady_clock::now() + kLongestClose;
  while (IsConnectionAlive() && steady_clock::now() < deadline) {
    m_socket.async_wait(tcp::socket::wait_read, [](const error_code&) {});
    m_context.restart();
    m_context.run_for(Until(deadline));
    m_socket.cancel(error);
    m_context.restart();
    m_context.run();
  }
  m_socket.close(error);
}

}  // namespace OrloAgent
