#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <string>
#include <vector>

#include "Agent/Channel.h"
#include "Agent/Options.h"
#include "Agent/Tls.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

// A TCP connection to a receiver of messages, plain or secured by TLS, made again when it ends.
//
// What plain TCP can't tell: bytes that the system has accepted but the receiver has not read are
// lost when the connection breaks. To keep them few, the channel looks before every write whether
// the receiver has closed its side; a receiver that sends nothing but closes is thus found before
// more is written. Whatever the receiver sends is read and dropped.
//
// The files of the TLS options are read for every connection: a certificate that is replaced is
// used from the next one on.
class TcpChannel : public IChannel {
 public:
  // Throws InitializationException if the options name TLS files that can't be used.
  TcpChannel(const SyslogDestinationOptions& options, const std::string& streamName);
  ~TcpChannel() override;

  // Tries to connect at most once a second, for at most connectTimeout.
  Readiness Prepare(bool atFrameStart) override;
  WriteResult Write(std::string_view bytes, std::chrono::milliseconds patience) override;

  // Ends the connection in order: the receiver gets all of it, if it reads on for a second.
  void Close() override;

 private:
  bool IsConnectionAlive();
  bool IsSecuredConnectionAlive();
  // Each gives the reason why it failed, or nothing.
  std::string Connect();
  std::string ConnectSocket(std::chrono::steady_clock::time_point deadline);
  std::string Secure(std::chrono::steady_clock::time_point deadline);
  std::string AwaitConfirmation();
  boost::system::error_code Resolve(std::chrono::steady_clock::time_point deadline);
  void OnConnected();
  void OnDown(const std::string& reason);
  void CloseSocket();
  bool WaitUntil(boost::asio::ip::tcp::socket::wait_type readiness,
                 std::chrono::milliseconds patience);
  WriteResult WriteSecured(std::string_view bytes, std::chrono::milliseconds patience);

  const SyslogDestinationOptions m_options;
  const std::string m_targetText;
  WindowsAgentCommon::Log m_log;

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
  std::string m_reasonOfEnd;

  std::chrono::steady_clock::time_point m_nextAttempt{};
  std::chrono::steady_clock::time_point m_downSince{};
  bool m_reportedDown = false;
};

}  // namespace OrloAgent
