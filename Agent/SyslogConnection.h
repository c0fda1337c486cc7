#pragma once

#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Agent/EventPoster.h"
#include "Agent/FrameReader.h"
#include "Agent/Tls.h"

namespace OrloAgent {

// What the connections of one server share. Counters are written by the server's thread only.
struct SyslogConnectionContext {
  EventPoster& poster;
  WindowsAgentCommon::Log log;
  FrameReaderOptions framing;
  // Every connection reads into it and is done with it before the next one reads.
  std::vector<char> readBuffer;
  // Reads that gave something.
  std::uint64_t reads = 0;
  std::atomic<std::uint64_t> cut{0};
  std::atomic<std::uint64_t> truncated{0};
  std::atomic<std::uint64_t> malformed{0};
  std::atomic<std::uint64_t> unexpectedTls{0};
  std::atomic<std::uint64_t> failedHandshakes{0};
};

// One sender. Lives as long as it waits for input or its server lists it; everything happens on the
// server's thread.
class SyslogConnection : public std::enable_shared_from_this<SyslogConnection>, private IFrameSink {
 public:
  // The context outlives the connection.
  // With `tls` the connection is to be secured before anything is read; without, it is plain.
  SyslogConnection(boost::asio::ip::tcp::socket socket, const boost::asio::ip::tcp::endpoint& peer,
                   SyslogConnectionContext& context, const TlsContext* tls);

  // Waits for input, posts it, and goes on until the connection ends; then calls `onEnd`.
  void Run(std::function<void(const std::shared_ptr<SyslogConnection>&)> onEnd);

  // Posts what has arrived already, and closes. `onEnd` is not called.
  void Drain();

  // Closes, as the end of the connection. `onEnd` is not called.
  void Close();

  std::chrono::steady_clock::time_point GetLastActivity() const { return m_lastActivity; }

  // Whether the peer has yet to secure the connection.
  bool IsInHandshake() const { return m_tls && !m_secured; }

  // Closes a connection whose handshake takes too long. `onEnd` is not called.
  void GiveUpHandshake();
  const std::string& GetPeer() const { return m_peer; }

 private:
  enum class ReadResult { Data, Nothing, Ended };

  void Wait();
  void OnReady();
  ReadResult ReadOnce(std::size_t& size);
  ReadResult ReadPlain(std::size_t& size);
  ReadResult ReadSecured(std::size_t& size);
  ReadResult ContinueHandshake();
  void OnUnreadable();
  void OnHandshakeFailed(const std::string& reason);
  void OnFrame(const Frame& frame) override;

  boost::asio::ip::tcp::socket m_socket;
  // Null for a plain connection.
  std::unique_ptr<TlsSession> m_tls;
  bool m_secured = false;
  bool m_wantsWrite = false;
  const std::string m_peer;
  const EventHeaderTemplate m_header;
  SyslogConnectionContext& m_context;
  FrameReader m_reader;
  std::function<void(const std::shared_ptr<SyslogConnection>&)> m_onEnd;
  std::uint64_t m_receiveTime = 0;
  std::chrono::steady_clock::time_point m_lastActivity;
  bool m_cutReported = false;
};

}  // namespace OrloAgent
