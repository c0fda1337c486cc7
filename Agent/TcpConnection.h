#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Agent/EndCounter.h"
#include "Agent/Options.h"
#include "Agent/OutageReasons.h"
#include "Agent/Tls.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

// Where a connection goes and how.
struct TcpConnectionOptions {
  Endpoint target;
  TlsClientOptions tls;
  std::chrono::milliseconds connectTimeout{5'000};
};

// A TCP connection to a receiver, plain or secured by TLS, that can be made again when it has
// ended. When to try, and what to send again, is the owner's business. Everything on one thread at
// a time, but for Wake, which any thread may call.
//
// The files of the TLS options are read for every connection: a certificate that is replaced is
// used from the next one on.
class TcpConnection {
 public:
  explicit TcpConnection(const TcpConnectionOptions& options);
  ~TcpConnection();
  TcpConnection(const TcpConnection&) = delete;
  TcpConnection& operator=(const TcpConnection&) = delete;

  // Throws InitializationException, in the name of `component`, if the options name TLS files that
  // can't be used; warns of a certificate that nobody verifies.
  static void Check(const TcpConnectionOptions& options, const WindowsAgentCommon::Log& log,
                    const std::string& component);

  // Takes up to connectTimeout. Empty if it is there, otherwise the reason why not.
  std::string Connect();

  bool IsOpen() const { return m_socket.is_open(); }

  enum class ReadResult {
    Some,
    // The receiver has sent nothing that has not been read.
    Nothing,
    // The connection has ended or broken, GetReason says why.
    Ended
  };
  ReadResult Read(char* buffer, std::size_t capacity, std::size_t& size);

  struct WriteResult {
    std::size_t written = 0;
    // The connection has broken after them, GetReason says why.
    bool broken = false;
  };
  // Writes what can be written at once. If that is nothing, waits up to `patience` for it to be
  // more. After an incomplete write the next one must begin with the bytes that are left.
  WriteResult Write(std::string_view bytes, std::chrono::milliseconds patience);

  // Until there is something to read, or room to write if `forWriting`, or Wake was called since
  // the last Wait, or for `patience`. May return early.
  void Wait(bool forWriting, std::chrono::milliseconds patience);
  void Wake();

  const std::string& GetReason() const { return m_reason; }

  // Attempts to connect that failed because the connection could not be secured. Any thread.
  std::uint64_t GetFailedHandshakes() const { return m_failedHandshakes; }

  // At once. What was written and not sent may be lost.
  void Close();

  // Tells the receiver that no more will come, and gives it up to `patience` to read everything and
  // close its side. What it sends meanwhile is dropped.
  void CloseInOrder(std::chrono::milliseconds patience);

 private:
  std::string ConnectSocket(std::chrono::steady_clock::time_point deadline);
  std::string Secure(std::chrono::steady_clock::time_point deadline);
  std::string AwaitConfirmation();
  boost::system::error_code Resolve(std::chrono::steady_clock::time_point deadline);
  // Reads and drops whatever is there.
  bool IsAlive();
  bool WaitUntil(boost::asio::ip::tcp::socket::wait_type readiness,
                 std::chrono::milliseconds patience);
  bool WriteSome(std::string_view bytes, std::size_t& written,
                 boost::asio::ip::tcp::socket::wait_type& waitsFor);

  const TcpConnectionOptions m_options;

  // A look-up of a name can't be ended early: it has a context of its own, where it may go on while
  // later attempts wait for its result.
  boost::asio::io_context m_resolverContext{1};
  boost::asio::ip::tcp::resolver m_resolver{m_resolverContext};
  bool m_resolving = false;
  boost::system::error_code m_resolveError;
  std::vector<boost::asio::ip::tcp::endpoint> m_endpoints;

  boost::asio::io_context m_context{1};
  boost::asio::ip::tcp::socket m_socket{m_context};
  // Null while there is no connection, and for plain ones.
  std::unique_ptr<TlsSession> m_tls;
  std::string m_reason;
  std::atomic<std::uint64_t> m_failedHandshakes{0};
  bool m_woken = false;
};

// Tells the administrator, once per change, that a receiver can't be reached, why not if that
// changes meanwhile, and that it is there again. An outage ends with OnUp, or, for a receiver that
// proves by more than a connection that it works, with OnWorks.
class ConnectionReport {
 public:
  ConnectionReport(const WindowsAgentCommon::Log& log, const Endpoint& target);

  // There is a connection.
  void OnUp();
  // The same, but what was the matter may come again at once: the outage goes on until OnWorks, and
  // only the connection before any outage is told.
  void OnUpForNow();
  void OnWorks();
  void OnDown(const std::string& reason);

  // How often each of them was so, and what the connection has counted. Any thread.
  std::vector<EndCounter> GetCounters(const TcpConnection& connection) const;

 private:
  const WindowsAgentCommon::Log m_log;
  const std::string m_target;
  std::chrono::steady_clock::time_point m_downSince;
  OutageReasons m_reasons;
  bool m_isUp = false;
  std::atomic<std::uint64_t> m_made{0};
  std::atomic<std::uint64_t> m_failed{0};
  std::atomic<std::uint64_t> m_broken{0};
};

}  // namespace OrloAgent
