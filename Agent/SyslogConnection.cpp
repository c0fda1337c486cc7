#include "Agent/SyslogConnection.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/lexical_cast.hpp>

#include "Agent/ReceiveTime.h"

namespace OrloAgent {

using WindowsAgentCommon::LogFacade;

namespace {

// A sender that never pauses does not keep the agent from stopping.
constexpr std::size_t kMostToDrain = 4 * 1024 * 1024;

void CountOne(std::atomic<std::uint64_t>& counter) {
  counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

}  // namespace

SyslogConnection::SyslogConnection(boost::asio::ip::tcp::socket socket,
                                   const boost::asio::ip::tcp::endpoint& peer,
                                   SyslogConnectionContext& context, const TlsContext* tls)
    : m_socket(std::move(socket)),
      m_tls(tls == nullptr ? nullptr : std::make_unique<TlsSession>(*tls, m_socket)),
      m_peer(boost::lexical_cast<std::string>(peer)),
      m_header(tls == nullptr ? EventOrigin::Tcp : EventOrigin::Tls, peer.address()),
      m_context(context),
      m_reader(context.framing),
      m_lastActivity(std::chrono::steady_clock::now()) {}

void SyslogConnection::Run(std::function<void(const std::shared_ptr<SyslogConnection>&)> onEnd) {
  m_onEnd = std::move(onEnd);
  Wait();
}

void SyslogConnection::Wait() {
  if (m_tls && m_tls->HasPending()) {
    // Others have their turn first, as they have it between two reads of a socket.
    boost::asio::post(m_socket.get_executor(), [self = shared_from_this()] {
      if (self->m_socket.is_open()) {
        self->OnReady();
      }
    });
    return;
  }
  m_socket.async_wait(m_wantsWrite ? boost::asio::ip::tcp::socket::wait_write
                                   : boost::asio::ip::tcp::socket::wait_read,
                      [self = shared_from_this()](const boost::system::error_code& error) {
                        if (!error) {  // else closed by Drain or Close
                          self->OnReady();
                        }
                      });
}

void SyslogConnection::OnReady() {
  std::size_t size = 0;
  if (ReadOnce(size) == ReadResult::Ended) {
    Close();
    m_onEnd(shared_from_this());
  } else {
    Wait();
  }
}

SyslogConnection::ReadResult SyslogConnection::ReadPlain(std::size_t& size) {
  boost::system::error_code error;
  size = m_socket.read_some(boost::asio::buffer(m_context.readBuffer), error);
  if (error == boost::asio::error::would_block || error == boost::asio::error::interrupted) {
    return ReadResult::Nothing;
  }
  return error ? ReadResult::Ended : ReadResult::Data;
}

SyslogConnection::ReadResult SyslogConnection::ReadSecured(std::size_t& size) {
  if (!m_secured) {
    return ContinueHandshake();
  }
  const TlsSession::Result result =
      m_tls->Read(m_context.readBuffer.data(), m_context.readBuffer.size(), size);
  m_wantsWrite = result == TlsSession::Result::WantWrite;
  switch (result) {
    case TlsSession::Result::Done:
      return ReadResult::Data;
    case TlsSession::Result::WantRead:
    case TlsSession::Result::WantWrite:
      return ReadResult::Nothing;
    case TlsSession::Result::Failed:
      LogFacade::Warn(m_context.log, "The connection of %s is closed: %s.", m_peer,
                      m_tls->GetError());
      return ReadResult::Ended;
    case TlsSession::Result::Closed:
      break;
  }
  return ReadResult::Ended;
}

SyslogConnection::ReadResult SyslogConnection::ContinueHandshake() {
  const TlsSession::Result result = m_tls->Handshake();
  m_wantsWrite = result == TlsSession::Result::WantWrite;
  switch (result) {
    case TlsSession::Result::Done:
      m_secured = true;
      break;
    case TlsSession::Result::WantRead:
    case TlsSession::Result::WantWrite:
      break;
    case TlsSession::Result::Closed:
      OnHandshakeFailed("it has closed the connection");
      return ReadResult::Ended;
    case TlsSession::Result::Failed:
      OnHandshakeFailed(m_tls->GetError());
      return ReadResult::Ended;
  }
  return ReadResult::Nothing;
}

void SyslogConnection::OnHandshakeFailed(const std::string& reason) {
  CountOne(m_context.failedHandshakes);
  LogFacade::Warn(m_context.log, "The TLS handshake with %s failed, the connection is closed: %s.",
                  m_peer, reason);
}

void SyslogConnection::GiveUpHandshake() {
  OnHandshakeFailed("it took too long");
  Close();
}

SyslogConnection::ReadResult SyslogConnection::ReadOnce(std::size_t& size) {
  const ReadResult result = m_tls ? ReadSecured(size) : ReadPlain(size);
  if (result != ReadResult::Data) {
    return result;
  }
  ++m_context.reads;
  m_receiveTime = GetReceiveTime();
  m_lastActivity = std::chrono::steady_clock::now();
  if (!m_reader.Feed({m_context.readBuffer.data(), size}, *this)) {
    OnUnreadable();
    return ReadResult::Ended;
  }
  return ReadResult::Data;
}

void SyslogConnection::OnUnreadable() {
  if (m_reader.IsTls()) {
    CountOne(m_context.unexpectedTls);
    LogFacade::Warn(m_context.log,
                    "%s speaks TLS, which this port does not; the connection is closed. A source "
                    "for TLS listens on tls://.",
                    m_peer);
    return;
  }
  CountOne(m_context.malformed);
  LogFacade::Warn(m_context.log,
                  "%s sent a message length that can't be read; the connection is closed.", m_peer);
}

void SyslogConnection::Drain() {
  std::size_t drained = 0;
  std::size_t size = 0;
  while (drained < kMostToDrain && ReadOnce(size) == ReadResult::Data) {
    drained += size;
  }
  Close();
}

void SyslogConnection::Close() {
  if (!m_socket.is_open()) {
    return;
  }
  m_receiveTime = GetReceiveTime();
  if (!m_reader.Finish(*this)) {
    CountOne(m_context.truncated);
    LogFacade::Warn(m_context.log, "The connection of %s ended inside a message, which is dropped.",
                    m_peer);
  }
  if (m_tls) {
    m_tls->CloseNotify();
  }
  boost::system::error_code ignored;
  m_socket.close(ignored);
}

void SyslogConnection::OnFrame(const Frame& frame) {
  std::uint8_t flags = 0;
  if (frame.cut) {
    flags |= EventFlags::kCut;
    CountOne(m_context.cut);
    if (!m_cutReported) {
      m_cutReported = true;
      LogFacade::Warn(m_context.log,
                      "%s sent a message longer than %d bytes; such messages are cut.", m_peer,
                      m_context.framing.maxSize);
    }
  }
  m_context.poster.Post(m_header, flags, m_receiveTime, frame.bytes);
}

}  // namespace OrloAgent
