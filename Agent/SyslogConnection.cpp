#include "Agent/SyslogConnection.h"

#include <boost/asio/buffer.hpp>

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

SyslogConnection::SyslogConnection(boost::asio::ip::tcp::socket socket, std::string peer,
                                   SyslogConnectionContext& context)
    : m_socket(std::move(socket)),
      m_peer(std::move(peer)),
      m_header("tcp:" + m_peer),
      m_context(context),
      m_reader(context.framing),
      m_lastActivity(std::chrono::steady_clock::now()) {}

void SyslogConnection::Run(std::function<void(const std::shared_ptr<SyslogConnection>&)> onEnd) {
  m_onEnd = std::move(onEnd);
  Wait();
}

void SyslogConnection::Wait() {
  m_socket.async_wait(boost::asio::ip::tcp::socket::wait_read,
                      [self = shared_from_this()](const boost::system::error_code& error) {
                        std::size_t size = 0;
                        if (error) {
                          return;  // closed by Drain or Close
                        }
                        if (self->ReadOnce(size) == ReadResult::Ended) {
                          self->Close();
                          self->m_onEnd(self);
                        } else {
                          self->Wait();
                        }
                      });
}

SyslogConnection::ReadResult SyslogConnection::ReadOnce(std::size_t& size) {
  boost::system::error_code error;
  size = m_socket.read_some(boost::asio::buffer(m_context.readBuffer), error);
  if (error == boost::asio::error::would_block || error == boost::asio::error::interrupted) {
    return ReadResult::Nothing;
  }
  if (error) {
    return ReadResult::Ended;
  }
  ++m_context.reads;
  m_receiveTime = GetReceiveTime();
  m_lastActivity = std::chrono::steady_clock::now();
  if (!m_reader.Feed({m_context.readBuffer.data(), size}, *this)) {
    CountOne(m_context.malformed);
    LogFacade::Warn(m_context.log,
                    "%s sent a message length that can't be read; the connection is closed.",
                    m_peer);
    return ReadResult::Ended;
  }
  return ReadResult::Data;
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
