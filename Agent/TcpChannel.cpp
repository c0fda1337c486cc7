#include "Agent/TcpChannel.h"

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/connect.hpp>

#include "Agent/Units.h"
#include "WindowsAgentCommon/Exceptions.h"

namespace OrloAgent {

using boost::asio::ip::tcp;
using boost::system::error_code;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using WindowsAgentCommon::LogFacade;

namespace {

constexpr std::chrono::seconds kBetweenAttempts{1};
constexpr std::chrono::seconds kLongestClose{1};

// How long a server may take, after the handshake, to show that it is content with the client. Not
// every server shows it.
constexpr milliseconds kLongestConfirmation{500};

milliseconds Until(steady_clock::time_point deadline) {
  return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(deadline - steady_clock::now()));
}

}  // namespace

TcpChannel::TcpChannel(const SyslogDestinationOptions& options, const std::string& streamName)
    : m_options(options),
      m_targetText(ToText(options.target)),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.SyslogDestination." + streamName)),
      m_downSince(steady_clock::now()) {
  error_code error;
  const auto address = boost::asio::ip::make_address(m_options.target.host, error);
  if (!error) {
    m_endpoints.emplace_back(address, m_options.target.port);
  }
  if (m_options.target.transport != Transport::Tls) {
    return;
  }
  try {
    TlsContext::MakeClient(m_options.tls);
  } catch (const TlsError& unusable) {
    throw WindowsAgentCommon::InitializationException(
        "SyslogDestination", "OrloAgent::TcpChannel::TcpChannel", __LINE__,
        "Can't send to " + m_targetText + ": " + unusable.what());
  }
  if (!m_options.tls.verify) {
    LogFacade::Warn(m_log,
                    "The certificate of %s is not verified: whoever answers there gets the events.",
                    m_targetText);
  }
}

TcpChannel::~TcpChannel() { m_resolver.cancel(); }

IChannel::Readiness TcpChannel::Prepare(bool) {
  if (m_socket.is_open()) {
    if (IsConnectionAlive()) {
      return Readiness::Ready;
    }
    OnDown(m_reasonOfEnd);
  }
  const auto now = steady_clock::now();
  if (now < m_nextAttempt) {
    return Readiness::NotReady;
  }
  const std::string problem = Connect();
  // Counted from the end of the attempt: one that took its whole time is not followed by the next
  // at once.
  m_nextAttempt = steady_clock::now() + kBetweenAttempts;
  if (!problem.empty()) {
    OnDown(problem);
    return Readiness::NotReady;
  }
  OnConnected();
  return Readiness::ReadyAnew;
}

bool TcpChannel::IsConnectionAlive() {
  if (m_tls) {
    return IsSecuredConnectionAlive();
  }
  std::array<char, 4096> unwanted;
  error_code error;
  do {
    m_socket.read_some(boost::asio::buffer(unwanted), error);
  } while (!error);
  m_reasonOfEnd = "the receiver has closed the connection";
  return error == boost::asio::error::would_block || error == boost::asio::error::interrupted;
}

bool TcpChannel::IsSecuredConnectionAlive() {
  std::array<char, 4096> unwanted;
  for (;;) {
    std::size_t size = 0;
    switch (m_tls->Read(unwanted.data(), unwanted.size(), size)) {
      case TlsSession::Result::Done:
        break;
      case TlsSession::Result::WantRead:
      case TlsSession::Result::WantWrite:
        return true;
      case TlsSession::Result::Closed:
        m_reasonOfEnd = "the receiver has closed the connection";
        return false;
      case TlsSession::Result::Failed:
        m_reasonOfEnd = m_tls->GetError();
        return false;
    }
  }
}

std::string TcpChannel::Connect() {
  const auto deadline = steady_clock::now() + m_options.connectTimeout;
  std::string problem = ConnectSocket(deadline);
  if (problem.empty() && m_options.target.transport == Transport::Tls) {
    problem = Secure(deadline);
  }
  if (!problem.empty()) {
    CloseSocket();
  }
  return problem;
}

std::string TcpChannel::ConnectSocket(steady_clock::time_point deadline) {
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

std::string TcpChannel::Secure(steady_clock::time_point deadline) {
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
      return "the TLS handshake failed: the receiver has closed the connection";
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
std::string TcpChannel::AwaitConfirmation() {
  const auto deadline = steady_clock::now() + kLongestConfirmation;
  for (;;) {
    if (!IsSecuredConnectionAlive()) {
      return "the receiver has ended the TLS handshake: " + m_reasonOfEnd;
    }
    if (m_tls->IsConfirmed() || !WaitUntil(tcp::socket::wait_read, Until(deadline))) {
      return {};
    }
  }
}

error_code TcpChannel::Resolve(steady_clock::time_point deadline) {
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
  CloseSocket();
  if (!m_reportedDown) {
    m_reportedDown = true;
    m_downSince = steady_clock::now();
    LogFacade::Warn(m_log, "%s can't be reached (%s); events wait until it can.", m_targetText,
                    reason);
  }
}

void TcpChannel::CloseSocket() {
  m_tls.reset();
  error_code ignored;
  m_socket.close(ignored);
}

IChannel::WriteResult TcpChannel::Write(std::string_view bytes, milliseconds patience) {
  if (m_tls) {
    return WriteSecured(bytes, patience);
  }
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
    if (!WaitUntil(tcp::socket::wait_write, patience)) {
      return result;
    }
  }
  return result;
}

IChannel::WriteResult TcpChannel::WriteSecured(std::string_view bytes, milliseconds patience) {
  WriteResult result;
  bool waited = patience.count() <= 0;
  while (result.written < bytes.size()) {
    std::size_t written = 0;
    const TlsSession::Result outcome = m_tls->Write(bytes.substr(result.written), written);
    result.written += written;
    if (outcome == TlsSession::Result::Done) {
      continue;
    }
    if (outcome == TlsSession::Result::Closed || outcome == TlsSession::Result::Failed) {
      OnDown(outcome == TlsSession::Result::Failed ? m_tls->GetError()
                                                   : "the receiver has closed the connection");
      result.broken = true;
      return result;
    }
    if (result.written > 0 || waited) {
      return result;
    }
    waited = true;
    if (!WaitUntil(outcome == TlsSession::Result::WantRead ? tcp::socket::wait_read
                                                           : tcp::socket::wait_write,
                   patience)) {
      return result;
    }
  }
  return result;
}

bool TcpChannel::WaitUntil(tcp::socket::wait_type readiness, milliseconds patience) {
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

void TcpChannel::Close() {
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
  const auto deadline = steady_clock::now() + kLongestClose;
  while (IsConnectionAlive() && steady_clock::now() < deadline) {
    m_socket.async_wait(tcp::socket::wait_read, [](const error_code&) {});
    m_context.restart();
    m_context.run_for(Until(deadline));
    m_socket.cancel(error);
    m_context.restart();
    m_context.run();
  }
  CloseSocket();
}

}  // namespace OrloAgent
