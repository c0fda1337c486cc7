#include "Agent/DatagramSource.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/lexical_cast.hpp>
#include <map>
#include <thread>

#include "Agent/DatagramReceiver.h"
#include "Agent/EventPoster.h"
#include "Agent/ReceiveTime.h"
#include "Agent/Units.h"
#include "WindowsAgentCommon/Exceptions.h"

namespace OrloAgent {

using boost::asio::ip::udp;
using boost::system::error_code;
using std::chrono::steady_clock;
using WindowsAgentCommon::LogFacade;

namespace {

// How often the system is asked what it has dropped, and so how often that is said at most.
constexpr std::chrono::seconds kBetweenLooks{10};

constexpr std::chrono::seconds kLongestEnd{1};

// Senders whose header is kept. More than these are served as well, only less fast.
constexpr std::size_t kMostSenders = 1024;

}  // namespace

// Everything but construction, Open, Stop and the counters happens on the server's thread.
class DatagramSource::Server {
 public:
  Server(const SyslogSourceOptions& options, const std::string& streamName, StreamGate& gate,
         PostCounts& counts)
      : m_options(options),
        m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.SyslogSource." + streamName)),
        m_counts(counts),
        m_poster(gate, counts, m_log),
        m_receiver(m_socket, options.maxEventSize) {}

  ~Server() { Stop(); }

  void Open();
  void Stop();

  std::uint16_t GetPort() const { return m_port.load(); }
  DatagramSourceCounts GetCounts() const {
    return {m_counts.posted.load(), m_cut.load(), m_dropped.load()};
  }

 private:
  void SetReceiveBuffer();
  void Wait();
  std::size_t Receive();
  void OnDatagram(const Datagram& datagram);
  const EventHeaderTemplate& GetHeader(const boost::asio::ip::address& sender);
  void LookForDropped();
  void NoteDropped();
  void End();

  const SyslogSourceOptions m_options;
  WindowsAgentCommon::Log m_log;
  Endpoint m_used;  // with the port that is in use
  PostCounts& m_counts;
  EventPoster m_poster;
  boost::asio::io_context m_context{1};
  udp::socket m_socket{m_context};
  DatagramReceiver m_receiver;
  boost::asio::steady_timer m_timer{m_context};
  std::map<boost::asio::ip::address, EventHeaderTemplate> m_headers;
  std::uint64_t m_receiveTime = 0;

  std::atomic<std::uint16_t> m_port{0};
  std::atomic<std::uint64_t> m_cut{0};
  std::atomic<std::uint64_t> m_dropped{0};
  std::thread m_thread;
};

void DatagramSource::Server::Open() {
  try {
    const auto found = udp::resolver(m_context).resolve(
        m_options.listen.host, std::to_string(m_options.listen.port), udp::resolver::passive);
    const udp::endpoint endpoint = found.begin()->endpoint();
    m_socket.open(endpoint.protocol());
    SetReceiveBuffer();
    m_socket.bind(endpoint);
    m_socket.non_blocking(true);
    m_port = m_socket.local_endpoint().port();
    Wait();
    LookForDropped();
    m_thread = std::thread([this] { m_context.run(); });
  } catch (const std::system_error& error) {
    throw WindowsAgentCommon::InitializationException(
        "SyslogSource", "OrloAgent::DatagramSource::Begin", __LINE__,
        "Can't listen on " + ToText(m_options.listen) + " (" + error.code().message() + ")");
  } catch (const boost::system::system_error& error) {
    throw WindowsAgentCommon::InitializationException(
        "SyslogSource", "OrloAgent::DatagramSource::Begin", __LINE__,
        "Can't listen on " + ToText(m_options.listen) + " (" + error.code().message() + ")");
  }
  m_used = m_options.listen;
  m_used.port = m_port;
  LogFacade::Info(m_log, "Listening on %s.", ToText(m_used));
}

// Datagrams that come while the stream is behind wait there, so more of it loses fewer.
void DatagramSource::Server::SetReceiveBuffer() {
  error_code error;
  m_socket.set_option(udp::socket::receive_buffer_size(static_cast<int>(m_options.receiveBuffer)),
                      error);
  udp::socket::receive_buffer_size given;
  m_socket.get_option(given, error);
  if (!error && static_cast<std::size_t>(given.value()) < m_options.receiveBuffer) {
    LogFacade::Info(m_log,
                    "The system gives %d bytes of receive buffer instead of %d; its limit is "
                    "set by net.core.rmem_max where there is such a setting.",
                    given.value(), m_options.receiveBuffer);
  }
}

void DatagramSource::Server::Wait() {
  m_socket.async_wait(udp::socket::wait_read, [this](const error_code& error) {
    if (error) {
      return;
    }
    Receive();
    Wait();
  });
}

std::size_t DatagramSource::Server::Receive() {
  m_receiveTime = GetReceiveTime();
  return m_receiver.Receive([this](const Datagram& datagram) { OnDatagram(datagram); });
}

void DatagramSource::Server::OnDatagram(const Datagram& datagram) {
  std::uint8_t flags = 0;
  if (datagram.cut) {
    flags |= EventFlags::kCut;
    if (++m_cut == 1) {
      LogFacade::Warn(m_log, "%s sent a message longer than %d bytes; such messages are cut.",
                      boost::lexical_cast<std::string>(datagram.peer), m_options.maxEventSize);
    }
  }
  m_poster.Post(GetHeader(datagram.peer.address()), flags, m_receiveTime, datagram.bytes);
}

const EventHeaderTemplate& DatagramSource::Server::GetHeader(
    const boost::asio::ip::address& sender) {
  const auto found = m_headers.find(sender);
  if (found != m_headers.end()) {
    return found->second;
  }
  if (m_headers.size() >= kMostSenders) {
    m_headers.clear();
  }
  return m_headers.emplace(sender, EventHeaderTemplate(EventOrigin::Udp, sender)).first->second;
}

void DatagramSource::Server::LookForDropped() {
  m_timer.expires_after(kBetweenLooks);
  m_timer.async_wait([this](const error_code& stopped) {
    if (!stopped) {
      NoteDropped();
      LookForDropped();
    }
  });
}

void DatagramSource::Server::NoteDropped() {
  const std::uint64_t before = m_dropped;
  const std::uint64_t now = m_receiver.GetDropped().value_or(before);
  if (now > before) {
    m_dropped = now;
    LogFacade::Warn(m_log,
                    "The system has dropped %d datagrams that came faster than they were taken; "
                    "%d since the start.",
                    now - before, now);
  }
}

void DatagramSource::Server::Stop() {
  if (!m_thread.joinable()) {
    return;
  }
  boost::asio::post(m_context, [this] { End(); });
  m_thread.join();
  m_poster.Finish();
  m_port = 0;
  const DatagramSourceCounts counts = GetCounts();
  LogFacade::Info(m_log,
                  "%s: %d events came as datagrams; %d were cut, %d were dropped by the system.",
                  ToText(m_used), counts.events, counts.cut, counts.dropped);
}

void DatagramSource::Server::End() {
  m_timer.cancel();
  const auto end = steady_clock::now() + kLongestEnd;
  while (steady_clock::now() < end && Receive() > 0) {
  }
  NoteDropped();
  error_code ignored;
  m_socket.close(ignored);
}

DatagramSource::DatagramSource(const SyslogSourceOptions& options) : m_options(options) {}

DatagramSource::~DatagramSource() { Stop(); }

void DatagramSource::Begin(const std::string& streamName) {
  auto server = std::make_unique<Server>(m_options, streamName, GetGate(), GetPostCounts());
  server->Open();
  m_server = std::move(server);
}

void DatagramSource::End() {
  if (m_server) {
    m_server->Stop();
  }
}

std::vector<EndCounter> DatagramSource::GetCounters() const {
  const DatagramSourceCounts counts = GetCounts();
  return {
      {"events", "Events that the source has posted", counts.events},
      {"messages_cut", "Messages that were longer than allowed and were cut", counts.cut},
      {"datagrams_dropped",
       "Datagrams that the system has dropped because they came faster than they were taken",
       counts.dropped},
  };
}

std::uint16_t DatagramSource::GetPort() const { return m_server ? m_server->GetPort() : 0; }

DatagramSourceCounts DatagramSource::GetCounts() const {
  return m_server ? m_server->GetCounts() : DatagramSourceCounts{};
}

}  // namespace OrloAgent
