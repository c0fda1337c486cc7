#include "Agent/DatagramDestination.h"

#include <ace/Message_Block.h>

#include <array>
#include <boost/asio/buffer.hpp>
#include <string_view>

#include "Agent/Units.h"
#include "OrloStream/Status.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"

namespace OrloAgent {

using boost::asio::ip::udp;
using boost::system::error_code;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using WindowsAgentCommon::LogFacade;

namespace {

// What the length fields of UDP and IPv4 leave for the message.
constexpr std::size_t kLongestMessage = 65'507;

constexpr std::chrono::seconds kBetweenAttempts{1};
constexpr std::chrono::minutes kBetweenWarnings{5};

// Between two looks for an answer: one for each event would cost more than it tells.
constexpr milliseconds kBetweenLooks{1};

// A receiver that sends without end does not keep the destination from sending.
constexpr int kMostAnswers = 16;

// A wait is cut into slices so that Refuse is seen.
constexpr milliseconds kSlice{100};

// The payload's bytes; joined in `memory` if they stand in several blocks.
std::string_view GetMessage(const ACE_Message_Block& event, std::string& memory) {
  const ACE_Message_Block* const payload = event.cont();
  if (payload == nullptr) {
    return {};
  }
  if (payload->cont() == nullptr) {
    return {payload->rd_ptr(), payload->length()};
  }
  memory.clear();
  for (const ACE_Message_Block* part = payload; part != nullptr; part = part->cont()) {
    memory.append(part->rd_ptr(), part->length());
  }
  return memory;
}

}  // namespace

DatagramDestination::DatagramDestination(const SyslogDestinationOptions& options,
                                         const std::string& streamName)
    : m_options(options),
      m_targetText(ToText(options.target)),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.SyslogDestination." + streamName)) {}

void DatagramDestination::Initialize(const WindowsAgentCommon::EnvironmentBlock&) {}

void DatagramDestination::Stop() {
  m_refusing = true;
  error_code ignored;
  m_socket.close(ignored);
  LogFacade::Info(m_log,
                  "%d events were sent as datagrams; %d were cut, %d came back as not receivable.",
                  m_sent.load(), m_cut.load(), m_unreachable.load());
}

int DatagramDestination::put(ACE_Message_Block* block, ACE_Time_Value*) {
  const WindowsAgentCommon::MessageBlockPtr event(block);
  std::string_view message = GetMessage(*event, m_joined);
  const bool tooLong = message.size() > kLongestMessage;
  if (m_refusing || !Prepare() || !Send(message.substr(0, kLongestMessage))) {
    return OrloStream::Status(OrloStream::Status::kBackpressure).ToInt();
  }
  ++m_sent;
  if (tooLong && ++m_cut == 1) {
    LogFacade::Warn(m_log,
                    "A message of %d bytes does not fit into a datagram; such messages are cut.",
                    message.size());
  }
  return 0;
}

std::vector<EndCounter> DatagramDestination::GetCounters() const {
  return Join(Destination::GetCounters(),
              {
                  {"messages_cut", "Messages that no datagram can hold and that were cut", m_cut},
                  {"datagrams_unreachable", "Datagrams that came back because nobody listens there",
                   m_unreachable},
              });
}

bool DatagramDestination::Prepare() {
  if (m_socket.is_open()) {
    return true;
  }
  if (steady_clock::now() < m_nextAttempt) {
    return false;
  }
  error_code error;
  const auto found = udp::resolver(m_context).resolve(m_options.target.host,
                                                      std::to_string(m_options.target.port), error);
  if (!error) {
    const udp::endpoint target = found.begin()->endpoint();
    m_socket.open(target.protocol(), error);
    // Connected, so that the system tells when nobody listens there.
    if (!error) {
      m_socket.connect(target, error);
    }
    if (!error) {
      m_socket.non_blocking(true, error);
    }
  }
  if (error) {
    OnDown(error.message());
    return false;
  }
  if (!m_reportedReady) {
    m_reportedReady = true;
    LogFacade::Info(m_log, "Sending to %s.", m_targetText);
  }
  return true;
}

// Some systems tell a sender that nobody listens when it sends, Windows only when it receives. What
// a receiver really says is dropped.
error_code DatagramDestination::LookForAnswer() {
  std::array<char, 512> unwanted;
  error_code error;
  for (int i = 0; i < kMostAnswers && (!error || error == boost::asio::error::message_size); ++i) {
    error.clear();
    m_socket.receive(boost::asio::buffer(unwanted), 0, error);
  }
  const bool isRefusal = error == boost::asio::error::connection_refused ||
                         error == boost::asio::error::connection_reset;
  return isRefusal ? error : error_code();
}

bool DatagramDestination::Send(std::string_view message) {
  const auto begin = steady_clock::now();
  const auto deadline = begin + m_options.sendTimeout;
  error_code answer;
  if (begin >= m_nextLook) {
    answer = LookForAnswer();
    m_nextLook = begin + kBetweenLooks;
  }
  for (;;) {
    error_code error = answer;
    if (!error) {
      m_socket.send(boost::asio::buffer(message.data(), message.size()), 0, error);
    }
    if (!error) {
      return true;
    }
    if (error == boost::asio::error::connection_refused ||
        error == boost::asio::error::connection_reset) {
      // The answer to an earlier datagram, by the name that POSIX and that Windows has for it. This
      // one has not been sent.
      ++m_unreachable;
      OnDown("nobody listens there, so an event that was sent is lost");
      return false;
    }
    if (error != boost::asio::error::would_block && error != boost::asio::error::try_again &&
        error != boost::asio::error::no_buffer_space && error != boost::asio::error::interrupted) {
      OnDown(error.message());
      return false;
    }
    const auto left = deadline - steady_clock::now();
    if (m_refusing || left <= steady_clock::duration::zero()) {
      return false;
    }
    m_socket.async_wait(udp::socket::wait_write, [](const error_code&) {});
    m_context.restart();
    m_context.run_for(std::min<steady_clock::duration>(left, kSlice));
    m_socket.cancel(error);
    m_context.restart();
    m_context.run();
  }
}

void DatagramDestination::OnDown(const std::string& reason) {
  error_code ignored;
  m_socket.close(ignored);
  const auto now = steady_clock::now();
  m_nextAttempt = now + kBetweenAttempts;
  // That it works again can't be known, only that nobody has complained for a while.
  if (now >= m_nextWarning) {
    m_nextWarning = now + kBetweenWarnings;
    LogFacade::Warn(m_log, "%s can't be reached (%s); events wait until it can.", m_targetText,
                    reason);
  }
}

}  // namespace OrloAgent
