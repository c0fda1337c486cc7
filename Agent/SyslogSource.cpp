#include "Agent/SyslogSource.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <thread>
#include <unordered_set>

#include "Agent/ListeningSocket.h"
#include "Agent/SyslogConnection.h"
#include "Agent/Units.h"
#include "WindowsAgentCommon/Exceptions.h"

namespace OrloAgent {

using boost::asio::ip::tcp;
using boost::system::error_code;
using WindowsAgentCommon::LogFacade;

namespace {

constexpr std::size_t kReadSize = 256 * 1024;

// How long no connection is accepted after the system refused one, for want of descriptors usually.
constexpr std::chrono::milliseconds kAcceptPause{200};

// What senders have handed to their systems before a stop is still read: until nothing has come for
// so long, and not longer than that.
constexpr std::chrono::milliseconds kQuiet{50};
constexpr std::chrono::seconds kLongestEnd{1};

FrameReaderOptions MakeFraming(const SyslogSourceOptions& options) {
  return {options.maxEventSize,
          options.listen.transport == Transport::Tls ? FrameReaderOptions::Framing::Detect
                                                     : FrameReaderOptions::Framing::DetectPlain,
          FrameReaderOptions::TooLong::Cut};
}

}  // namespace

// Everything but construction, Open, Stop and the counters happens on the server's thread.
class SyslogSource::Server {
 public:
  Server(const SyslogSourceOptions& options, const std::string& streamName, StreamGate& gate,
         PostCounts& counts)
      : m_options(options),
        m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.SyslogSource." + streamName)),
        m_counts(counts),
        m_poster(gate, counts, m_log),
        m_shared{m_poster, m_log, MakeFraming(options), std::vector<char>(kReadSize)} {}

  ~Server() { Stop(); }

  void Open();
  void Stop();
  void Reload();

  std::uint16_t GetPort() const { return m_port.load(); }
  SyslogSourceCounts GetCounts() const;

 private:
  void Accept();
  void OnAccept(const error_code& error, tcp::socket socket);
  void Admit(tcp::socket socket);
  void CloseIdle();
  void CloseSlowHandshakes();
  void BeginEnd();
  void AwaitQuiet(std::uint64_t readsBefore);
  void EndAll();

  const SyslogSourceOptions m_options;
  WindowsAgentCommon::Log m_log;
  Endpoint m_used;  // with the port that is in use
  PostCounts& m_counts;
  EventPoster m_poster;
  SyslogConnectionContext m_shared;

  // Connections that wait in the context refer to what stands above it.
  boost::asio::io_context m_context{1};
  tcp::acceptor m_acceptor{m_context};
  boost::asio::steady_timer m_acceptTimer{m_context};
  boost::asio::steady_timer m_idleTimer{m_context};
  boost::asio::steady_timer m_handshakeTimer{m_context};
  // Null if connections are plain.
  std::shared_ptr<const TlsContext> m_tls;
  std::unordered_set<std::shared_ptr<SyslogConnection>> m_connections;
  std::chrono::steady_clock::time_point m_end{};  // of reading, once a stop has begun
  bool m_ending = false;
  bool m_acceptFailed = false;
  bool m_tooMany = false;

  std::atomic<std::uint16_t> m_port{0};
  std::atomic<std::uint64_t> m_accepted{0};
  std::atomic<std::uint64_t> m_refused{0};
  std::thread m_thread;
};

void SyslogSource::Server::Open() {
  const std::string address = ToText(m_options.listen);
  try {
    if (m_options.listen.transport == Transport::Tls) {
      m_tls = TlsContext::MakeServer(m_options.tls);
    }
    const auto found = tcp::resolver(m_context).resolve(
        m_options.listen.host, std::to_string(m_options.listen.port), tcp::resolver::passive);
    const tcp::endpoint endpoint = found.begin()->endpoint();
    m_acceptor.open(endpoint.protocol());
    ClaimAddress(m_acceptor);
    m_acceptor.bind(endpoint);
    m_acceptor.listen();
    m_acceptor.non_blocking(true);
    m_port = m_acceptor.local_endpoint().port();
    Accept();
    if (m_options.idleTimeout.count() > 0) {
      CloseIdle();
    }
    if (m_tls) {
      CloseSlowHandshakes();
    }
    m_thread = std::thread([this] { m_context.run(); });
  } catch (const std::system_error& error) {
    throw WindowsAgentCommon::InitializationException(
        "SyslogSource", "OrloAgent::SyslogSource::Begin", __LINE__,
        "Can't listen on " + address + " (" + error.code().message() + ")");
  } catch (const boost::system::system_error& error) {
    throw WindowsAgentCommon::InitializationException(
        "SyslogSource", "OrloAgent::SyslogSource::Begin", __LINE__,
        "Can't listen on " + address + " (" + error.code().message() + ")");
  } catch (const TlsError& error) {
    throw WindowsAgentCommon::InitializationException(
        "SyslogSource", "OrloAgent::SyslogSource::Begin", __LINE__,
        "Can't listen on " + address + ": " + error.what());
  }
  m_used = m_options.listen;
  m_used.port = m_port;
  LogFacade::Info(m_log, "Listening on %s.", ToText(m_used));
}

void SyslogSource::Server::Stop() {
  if (!m_thread.joinable()) {
    return;
  }
  boost::asio::post(m_context, [this] { BeginEnd(); });
  m_thread.join();
  m_poster.Finish();
  m_port = 0;
  const SyslogSourceCounts counts = GetCounts();
  LogFacade::Info(m_log,
                  "%s: %d events came over %d connections; %d were cut, %d were truncated, %d "
                  "connections had an unreadable length, %d were too many.",
                  ToText(m_used), counts.events, counts.connections, counts.cut, counts.truncated,
                  counts.malformed, counts.refusedConnections);
  if (m_tls) {
    LogFacade::Info(m_log, "%d connections were not secured.", counts.failedHandshakes);
  }
  if (counts.unexpectedTls > 0) {
    LogFacade::Info(m_log, "%d connections spoke TLS, which this port does not.",
                    counts.unexpectedTls);
  }
}

SyslogSourceCounts SyslogSource::Server::GetCounts() const {
  return {m_accepted.load(),
          m_refused.load(),
          m_counts.posted.load(),
          m_shared.cut.load(),
          m_shared.truncated.load(),
          m_shared.malformed.load(),
          m_shared.unexpectedTls.load(),
          m_shared.failedHandshakes.load()};
}

void SyslogSource::Server::Accept() {
  m_acceptor.async_accept([this](const error_code& error, tcp::socket socket) {
    if (!m_ending) {
      OnAccept(error, std::move(socket));
    } else if (!error) {
      Admit(std::move(socket));
    }
  });
}

void SyslogSource::Server::OnAccept(const error_code& error, tcp::socket socket) {
  if (!error) {
    m_acceptFailed = false;
    Admit(std::move(socket));
    Accept();
    return;
  }
  if (!m_acceptFailed) {
    m_acceptFailed = true;
    LogFacade::Warn(m_log, "A connection could not be accepted (%s); trying again.",
                    error.message());
  }
  m_acceptTimer.expires_after(kAcceptPause);
  m_acceptTimer.async_wait([this](const error_code& stopped) {
    if (!stopped && !m_ending) {
      Accept();
    }
  });
}

void SyslogSource::Server::Admit(tcp::socket socket) {
  ++m_accepted;
  error_code error;
  const tcp::endpoint peer = socket.remote_endpoint(error);
  if (error) {
    return;  // gone already
  }
  if (m_connections.size() >= m_options.maxConnections) {
    ++m_refused;
    if (!m_tooMany) {
      m_tooMany = true;
      LogFacade::Warn(m_log, "There are %d connections, as many as are allowed; more are closed.",
                      m_connections.size());
    }
    return;
  }
  m_tooMany = false;
  socket.non_blocking(true, error);
  socket.set_option(tcp::socket::keep_alive(true), error);
  std::shared_ptr<SyslogConnection> connection;
  try {
    connection = std::make_shared<SyslogConnection>(std::move(socket), peer, m_shared, m_tls.get());
  } catch (const TlsError& tlsError) {
    ++m_shared.failedHandshakes;
    LogFacade::Warn(m_log, "A connection can't be secured, and is closed: %s.",
                    std::string(tlsError.what()));
    return;
  }
  m_connections.insert(connection);
  connection->Run(
      [this](const std::shared_ptr<SyslogConnection>& ended) { m_connections.erase(ended); });
}

void SyslogSource::Server::CloseIdle() {
  const auto oldest = std::chrono::steady_clock::now() - m_options.idleTimeout;
  for (auto at = m_connections.begin(); at != m_connections.end();) {
    if ((*at)->GetLastActivity() < oldest) {
      LogFacade::Info(m_log, "The connection of %s is closed: it has sent nothing for too long.",
                      (*at)->GetPeer());
      (*at)->Close();
      at = m_connections.erase(at);
    } else {
      ++at;
    }
  }
  m_idleTimer.expires_after(std::max(m_options.idleTimeout / 4, std::chrono::milliseconds(10)));
  m_idleTimer.async_wait([this](const error_code& stopped) {
    if (!stopped && !m_ending) {
      CloseIdle();
    }
  });
}

void SyslogSource::Server::CloseSlowHandshakes() {
  const auto oldest = std::chrono::steady_clock::now() - m_options.tls.handshakeTimeout;
  for (auto at = m_connections.begin(); at != m_connections.end();) {
    if ((*at)->IsInHandshake() && (*at)->GetLastActivity() < oldest) {
      (*at)->GiveUpHandshake();
      at = m_connections.erase(at);
    } else {
      ++at;
    }
  }
  m_handshakeTimer.expires_after(
      std::max(m_options.tls.handshakeTimeout / 4, std::chrono::milliseconds(10)));
  m_handshakeTimer.async_wait([this](const error_code& stopped) {
    if (!stopped && !m_ending) {
      CloseSlowHandshakes();
    }
  });
}

void SyslogSource::Server::Reload() {
  if (m_options.listen.transport != Transport::Tls || !m_thread.joinable()) {
    return;
  }
  try {
    auto tls = TlsContext::MakeServer(m_options.tls);
    boost::asio::post(m_context, [this, tls = std::move(tls)] { m_tls = tls; });
    LogFacade::Info(m_log, "New connections to %s get the certificate as it is now.",
                    ToText(m_options.listen));
  } catch (const TlsError& error) {
    LogFacade::Error(m_log, "%s; the certificate that was read before stays in use.",
                     std::string(error.what()));
  }
}

void SyslogSource::Server::BeginEnd() {
  m_ending = true;
  m_handshakeTimer.cancel();
  m_end = std::chrono::steady_clock::now() + kLongestEnd;
  m_acceptTimer.cancel();
  m_idleTimer.cancel();
  // Connections that wait to be accepted have senders who believe that they are heard.
  error_code error;
  while (std::chrono::steady_clock::now() < m_end) {
    tcp::socket socket(m_context);
    m_acceptor.accept(socket, error);
    if (error) {
      break;
    }
    Admit(std::move(socket));
  }
  m_acceptor.close(error);
  AwaitQuiet(m_shared.reads);
}

void SyslogSource::Server::AwaitQuiet(std::uint64_t readsBefore) {
  m_idleTimer.expires_after(kQuiet);
  m_idleTimer.async_wait([this, readsBefore](const error_code&) {
    if (m_shared.reads == readsBefore || std::chrono::steady_clock::now() >= m_end) {
      EndAll();
    } else {
      AwaitQuiet(m_shared.reads);
    }
  });
}

void SyslogSource::Server::EndAll() {
  for (const auto& connection : m_connections) {
    connection->Drain();
  }
  m_connections.clear();
}

SyslogSource::SyslogSource(const SyslogSourceOptions& options) : m_options(options) {}

SyslogSource::~SyslogSource() { Stop(); }

void SyslogSource::Begin(const std::string& streamName) {
  auto server = std::make_unique<Server>(m_options, streamName, GetGate(), GetPostCounts());
  server->Open();
  m_server = std::move(server);
}

void SyslogSource::End() {
  if (m_server) {
    m_server->Stop();
  }
}

void SyslogSource::Reload() {
  if (m_server) {
    m_server->Reload();
  }
}

std::vector<EndCounter> SyslogSource::GetCounters() const {
  const SyslogSourceCounts counts = GetCounts();
  return {
      {"events", "Events that the source has posted", counts.events},
      {"messages_cut", "Messages that were longer than allowed and were cut", counts.cut},
      {"messages_truncated", "Octet-counted messages dropped because their connection ended inside",
       counts.truncated},
      {"connections", "Connections that were accepted", counts.connections},
      {"connections_refused", "Connections closed at once because there were too many",
       counts.refusedConnections},
      {"connections_malformed", "Connections closed because a length could not be read",
       counts.malformed},
      {"connections_unexpected_tls",
       "Connections closed because they spoke TLS to a port without it", counts.unexpectedTls},
      {"handshakes_failed", "Connections closed because they were not secured as demanded",
       counts.failedHandshakes},
  };
}

std::uint16_t SyslogSource::GetPort() const { return m_server ? m_server->GetPort() : 0; }

SyslogSourceCounts SyslogSource::GetCounts() const {
  return m_server ? m_server->GetCounts() : SyslogSourceCounts{};
}

}  // namespace OrloAgent
