#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Agent/Options.h"

// TLS 1.2 and up over non-blocking sockets. Waiting for the socket is left to the caller.
namespace OrloAgent {

// Whether this build has TLS. Without it, making a context throws.
bool IsTlsAvailable();

// Certificates, keys or roots that can't be used. The text names the file and the reason.
class TlsError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Certificates and rules that sessions begin with. A session that has begun keeps those it began
// with, whatever becomes of the context.
class TlsContext {
 public:
  // Both read the files at once, and throw TlsError.
  static std::shared_ptr<const TlsContext> MakeServer(const TlsServerOptions& options);
  static std::shared_ptr<const TlsContext> MakeClient(const TlsClientOptions& options);
  ~TlsContext();
  TlsContext(const TlsContext&) = delete;
  TlsContext& operator=(const TlsContext&) = delete;

 private:
  friend class TlsSession;
  struct Implementation;
  explicit TlsContext(std::unique_ptr<Implementation> implementation);

  const std::unique_ptr<Implementation> m_implementation;
};

// One secured connection, on one thread. The socket is the caller's, non-blocking, and stays open
// as long as the session lives.
class TlsSession {
 public:
  // As the server.
  TlsSession(const TlsContext& context, boost::asio::ip::tcp::socket& socket);
  // As a client that expects the server to be `serverName`, a name or an address; the context says
  // whether that is verified.
  TlsSession(const TlsContext& context, boost::asio::ip::tcp::socket& socket,
             const std::string& serverName);
  ~TlsSession();
  TlsSession(const TlsSession&) = delete;
  TlsSession& operator=(const TlsSession&) = delete;

  enum class Result {
    Done,
    // Call again when the socket is readable, or writable.
    WantRead,
    WantWrite,
    // The peer has ended the connection.
    Closed,
    // GetError tells why. The session is of no further use.
    Failed
  };

  // Until it is Done nothing can be read or written.
  Result Handshake();

  // Done with at least one byte.
  Result Read(char* buffer, std::size_t capacity, std::size_t& size);

  // Done with at least one byte. After WantRead or WantWrite the next call must offer the same
  // bytes, or more that begin with them.
  Result Write(std::string_view bytes, std::size_t& written);

  // Whether Read has something although the socket may not be readable.
  bool HasPending() const;

  // Whether the server has shown that it accepts this client. A client's own handshake is done
  // before the server has looked at its certificate, so only what comes after it tells.
  bool IsConfirmed() const;

  // Tells the peer that no more will be written. Whether it can be told is of no interest.
  void CloseNotify();

  const std::string& GetError() const;

 private:
  struct Implementation;

  const std::unique_ptr<Implementation> m_implementation;
};

}  // namespace OrloAgent
