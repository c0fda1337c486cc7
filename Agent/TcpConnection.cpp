#include "Agent/TcpConnection.h"

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/post.hpp>

#include "Agent/Units.h"
#include "WindowsAgentCommon/Exceptions.h"

namespace OrloAgent {

using boost::asio::ip::tcp;
using boost::system::error_code;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using WindowsAgentCommon::LogFacade;

namespace {

// How long a server may take, after the handshake, to show that it is content with the client. Not
// every server shows it.
constexpr milliseconds kLongestConfirmation{500};

constexpr char kClosed[] = "the receiver has closed the connection";

milliseconds Until(steady_clock::time_point deadline) {
  return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(deadline - steady_clock::now()));
}

}  // namespace

TcpConnection::TcpConnection(const TcpConnectionOptions& options) : m_options(options) {
  error_code error;
  const auto address = boost::asio::ip::make_address(m_options.target.host, error);
  if (!error) {
    m_endpoints.emplace_back(address, m_options.target.port);
  }
}

TcpConnection::~TcpConnection() { m_resolver.cancel(); }

void TcpConnection::Check(const TcpConnectionOptions& options, const WindowsAgentCommon::Log& log,
                          const std::string& component) {
  if (options.target.transport != Transport::Tls) {
    return;
  }
  try {
    TlsContext::MakeClient(options.tls);
  } catch (const TlsError& unusable) {
    throw WindowsAgentCommon::InitializationException(
        component, "OrloAgent::TcpConnection::Check", __LINE__,
        "Can't send to " + ToText(options.target) + ": " + unusable.what());
  }
  if (!options.tls.verify) {
    LogFacade::Warn(log,
                    "The certificate of %s is not verified: whoever answers there gets the events.",
                    ToText(options.target));
  }
}

std::string TcpConnection::Connect() {
  Close();
  const auto deadline = steady_clock::now() + m_options.connectTimeout;
  std::string problem = ConnectSocket(deadline);
  if (problem.empty() && m_options.target.transport == Transport::Tls) {
    problem = Secure(deadline);
    m_failedHandshakes += problem.empty() ? 0 : 1;
  }
  if (!problem.empty()) {
    Close();
  }
  return problem;
}

std::string TcpConnection::ConnectSocket(steady_clock::time_point deadline) {
  if (const error_code error = Resolve(deadline)) {
    return error.message();
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
  if (result) {
    return result.message();
  }
  error_code ignored;
  // Writes are large already; waiting for more would only delay the last ones.
  m_socket.set_option(tcp::no_delay(true), ignored);
  m_socket.set_option(tcp::socket::keep_alive(true), ignored);
  return {};
}

std::string TcpConnection::Secure(steady_clock::time_point deadline) {
  try {
    const std::string& name =
        m_options.tls.serverName.empty() ? m_options.target.host : m_options.tls.serverName;
    m_tls = std::make_unique<TlsSession>(*TlsContext::MakeClient(m_options.tls), m_socket, name);
  } catch (const TlsError& error) {
    return error.what();
  }
  for (;;) {
    const TlsSession::Result result = m_tls->Handshake();
    if (result == TlsSession::Result::Done) {
      return AwaitConfirmation();
    }
    if (result == TlsSession::Result::Closed) {
      return std::string("the TLS handshake failed: ") + kClosed;
    }
    if (result == TlsSession::Result::Failed) {
      return "the TLS handshake failed: " + m_tls->GetError();
    }
    if (!WaitUntil(result == TlsSession::Result::WantRead ? tcp::socket::wait_read
                                                          : tcp::socket::wait_write,
                   Until(deadline))) {
      return "the TLS handshake took too long";
    }
  }
}

// A server that refuses our certificate may say so only after our side of the handshake is done.
// Events that are written before that would be lost, again with every connection.
std::string TcpConnection::AwaitConfirmation() {
  const auto deadline = steady_clock::now() + kLongestConfirmation;
  for (;;) {
    if (!IsAlive()) {
      return "the receiver has ended the TLS handshake: " + m_reason;
    }
    if (m_tls->IsConfirmed() || !WaitUntil(tcp::socket::wait_read, Until(deadline))) {
      return {};
    }
  }
}

error_code TcpConnection::Resolve(steady_clock::time_point deadline) {
  error_code notAnAddress;
  boost::asio::ip::make_address(m_options.target.host, notAnAddress);
  if (!notAnAddress) {
    return {};
  }
  if (!m_resolving) {
    m_resolving = true;
    m_resolver.async_resolve(m_options.target.host, std::to_string(m_options.target.port),
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

TcpConnection::ReadResult TcpConnection::Read(char* buffer, std::size_t capacity,
                                              std::size_t& size) {
  size = 0;
  if (m_tls) {
    switch (m_tls->Read(buffer, capacity, size)) {
      case TlsSession::Result::Done:
        return ReadResult::Some;
      case TlsSession::Result::WantRead:
      case TlsSession::Result::WantWrite:
        return ReadResult::Nothing;
      case TlsSession::Result::Closed:
        m_reason = kClosed;
        return ReadResult::Ended;
      case TlsSession::Result::Failed:
        m_reason = m_tls->GetError();
        return ReadResult::Ended;
    }
  }
  error_code error;
  size = m_socket.read_some(boost::asio::buffer(buffer, capacity), error);
  if (!error) {
    return ReadResult::Some;
  }
  if (error == boost::asio::error::would_block || error == boost::asio::error::interrupted) {
    return ReadResult::Nothing;
  }
  m_reason = error == boost::asio::error::eof ? kClosed : error.message();
  return ReadResult::Ended;
}

bool TcpConnection::IsAlive() {
  std::array<char, 4096> unwanted;
  std::size_t size = 0;
  ReadResult result = ReadResult::Some;
  while (result == ReadResult::Some) {
    result = Read(unwanted.data(), unwanted.size(), size);
  }
  return result == ReadResult::Nothing;
}

// False if the connection has broken; nothing written and no wait to name means: once more.
bool TcpConnection::WriteSome(std::string_view bytes, std::size_t& written,
                              tcp::socket::wait_type& waitsFor) {
  written = 0;
  waitsFor = tcp::socket::wait_write;
  if (m_tls) {
    switch (m_tls->Write(bytes, written)) {
      case TlsSession::Result::Done:
      case TlsSession::Result::WantWrite:
        return true;
      case TlsSession::Result::WantRead:
        waitsFor = tcp::socket::wait_read;
        return true;
      case TlsSession::Result::Closed:
        m_reason = kClosed;
        return false;
      case TlsSession::Result::Failed:
        m_reason = m_tls->GetError();
        return false;
    }
  }
  error_code error = boost::asio::error::interrupted;
  while (error == boost::asio::error::interrupted) {
    written = m_socket.write_some(boost::asio::buffer(bytes.data(), bytes.size()), error);
  }
  if (error && error != boost::asio::error::would_block) {
    m_reason = error.message();
    return false;
  }
  return true;
}

TcpConnection::WriteResult TcpConnection::Write(std::string_view bytes, milliseconds patience) {
  WriteResult result;
  bool waited = patience.count() <= 0;
  while (result.written < bytes.size()) {
    std::size_t written = 0;
    tcp::socket::wait_type waitsFor = tcp::socket::wait_write;
    if (!WriteSome(bytes.substr(result.written), written, waitsFor)) {
      Close();
      result.broken = true;
      return result;
    }
    result.written += written;
    if (written > 0) {
      continue;
    }
    if (result.written > 0 || waited) {
      return result;
    }
    waited = true;
    if (!WaitUntil(waitsFor, patience)) {
      return result;
    }
  }
  return result;
}

void TcpConnection::Wait(bool forWriting, milliseconds patience) {
  const auto deadline = steady_clock::now() + patience;
  const auto wake = [this](const error_code&) { m_woken = true; };
  m_woken = false;
  m_socket.async_wait(tcp::socket::wait_read, wake);
  if (forWriting) {
    m_socket.async_wait(tcp::socket::wait_write, wake);
  }
  m_context.restart();
  // It also returns for what none of the handlers is for.
  while (!m_woken && m_context.run_one_until(deadline) > 0) {
  }
  error_code ignored;
  m_socket.cancel(ignored);
  m_context.restart();
  m_context.run();
}

void TcpConnection::Wake() {
  boost::asio::post(m_context, [this] { m_woken = true; });
}

bool TcpConnection::WaitUntil(tcp::socket::wait_type readiness, milliseconds patience) {
  bool done = false;
  bool ready = false;
  m_socket.async_wait(readiness, [&](const error_code& error) {
    done = true;
    ready = !error;
  });
  m_context.restart();
  m_context.run_for(patience);
  if (!done) {
    error_code ignored;
    m_socket.cancel(ignored);
    m_context.restart();
    m_context.run();
  }
  return ready;
}

void TcpConnection::Close() {
  m_tls.reset();
  error_code ignored;
  m_socket.close(ignored);
}

void TcpConnection::CloseInOrder(milliseconds patience) {
  if (!m_socket.is_open()) {
    return;
  }
  // Closing while the receiver's bytes lie unread would reset the connection and destroy what it
  // has not read yet. So only our side is closed, until the receiver closes its own.
  error_code error;
  if (m_tls) {
    m_tls->CloseNotify();
  }
  m_socket.shutdown(tcp::socket::shutdown_send, error);
  const auto deadline = steady_clock::now() + patience;
  while (IsAlive() && steady_clock::now() < deadline) {
    WaitUntil(tcp::socket::wait_read, Until(deadline));
  }
  Close();
}

ConnectionReport::ConnectionReport(const WindowsAgentCommon::Log& log, const Endpoint& target)
    : m_log(log), m_target(ToText(target)), m_downSince(steady_clock::now()) {}

void ConnectionReport::OnUp() {
  OnUpForNow();
  OnWorks();
}

void ConnectionReport::OnUpForNow() {
  m_isUp = true;
  ++m_made;
  if (!m_reasons.HasBegun()) {
    LogFacade::Info(m_log, "Connected to %s.", m_target);
  }
}

void ConnectionReport::OnWorks() {
  if (m_reasons.HasBegun()) {
    const auto away = std::chrono::duration<double>(steady_clock::now() - m_downSince);
    LogFacade::Info(m_log, "Connected to %s again after %.1f s.", m_target, away.count());
    m_reasons.End();
  }
}

void ConnectionReport::OnDown(const std::string& reason) {
  ++(m_isUp ? m_broken : m_failed);
  m_isUp = false;
  const auto now = steady_clock::now();
  const bool isFirst = !m_reasons.HasBegun();
  if (!m_reasons.Note(reason, now)) {
    return;
  }
  if (isFirst) {
    m_downSince = now;
    LogFacade::Warn(m_log, "%s can't be reached (%s); events wait until it can.", m_target, reason);
  } else {
    LogFacade::Warn(m_log, "%s still can't be reached, now for another reason (%s).", m_target,
                    reason);
  }
}

std::vector<EndCounter> ConnectionReport::GetCounters(const TcpConnection& connection) const {
  return {
      {"connections", "Connections that were made", m_made},
      {"connections_failed", "Attempts to connect that failed", m_failed},
      {"connections_broken", "Connections that broke or were ended by the receiver", m_broken},
      {"handshakes_failed", "Connections closed because they were not secured as demanded",
       connection.GetFailedHandshakes()},
  };
}

}  // namespace OrloAgent
