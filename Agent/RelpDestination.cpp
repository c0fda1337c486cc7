#include "Agent/RelpDestination.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "Agent/RelpFrames.h"
#include "Agent/TcpConnection.h"
#include "Agent/Units.h"
#include "Agent/WindowDestination.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using WindowsAgentCommon::LogFacade;
using WindowsAgentCommon::MessageBlockPtr;

namespace {

// Between two looks for the last answers.
constexpr milliseconds kSlice{100};

// Between two looks whether the receiver still answers.
constexpr milliseconds kLook{500};

// Between two attempts to connect. Twice as long, and so on, after each connection over which
// nothing was acknowledged although something was sent: such a receiver takes connections and
// refuses events.
constexpr std::chrono::seconds kShortestPause{1};
constexpr std::chrono::seconds kLongestPause{30};

constexpr std::chrono::seconds kLongestEnd{1};

// Frames are gathered up to this size, or one event.
constexpr std::size_t kOutput = 64 * 1024;

constexpr std::uint32_t kOpenNumber = 1;
constexpr int kTaken = 200;

class RelpDestination : public WindowDestination {
 public:
  RelpDestination(const RelpDestinationOptions& options, const std::string& streamName);
  ~RelpDestination() override { Stop(); }

  void Stop() override;
  std::vector<EndCounter> GetCounters() const override;

 private:
  bool TakeEvent(MessageBlockPtr& event) override;

  // All of these on the destination's thread; those that give false have said why in m_problem.
  void Run() override;
  bool OpenSession();
  bool AwaitOpen();
  bool RunSession();
  bool Exchange();
  bool TakeAnswers();
  bool TakeFrame(const RelpFrame& frame);
  bool AcknowledgeEvent(const RelpFrame& frame, const RelpAnswer& answer);
  void Gather();
  bool WriteOutput();
  bool HasMoreToSend();
  bool StillAnswers();
  void EndSession();
  void OnBreak();

  const RelpDestinationOptions m_options;
  WindowsAgentCommon::Log m_log;
  ConnectionReport m_report;
  TcpConnection m_connection;

  std::condition_variable m_stopped;
  bool m_idle = false;  // the thread sleeps until it is woken; guarded by m_lock

  std::atomic<std::uint64_t> m_sentAgain{0};
  std::atomic<std::uint64_t> m_refusedEvents{0};
  bool m_ended = false;

  // Of the thread.
  enum class Phase { Opening, Open, Closing, Closed };
  Phase m_phase = Phase::Opening;
  RelpFrameReader m_reader;
  std::string m_output;
  std::size_t m_written = 0;  // of the output
  std::string m_problem;
  std::uint64_t m_nextEvent = 0;    // the first that was not sent over this connection
  std::uint64_t m_firstEvent = 0;   // the first that was
  std::uint32_t m_firstNumber = 0;  // the number that it got
  std::uint32_t m_closeNumber = 0;
  bool m_anyAcknowledged = false;  // over this connection
  steady_clock::time_point m_lastAnswer{};
  steady_clock::time_point m_nextAttempt{};
  std::chrono::seconds m_pause = kShortestPause;
};

TcpConnectionOptions ConnectionOptions(const RelpDestinationOptions& options) {
  return {options.target, options.tls, options.connectTimeout};
}

RelpDestination::RelpDestination(const RelpDestinationOptions& options,
                                 const std::string& streamName)
    : WindowDestination("RelpDestination", options.sendTimeout),
      m_options(options),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.RelpDestination." + streamName)),
      m_report(m_log, options.target),
      m_connection(ConnectionOptions(options)) {
  TcpConnection::Check(ConnectionOptions(options), m_log, "RelpDestination");
}

std::vector<EndCounter> RelpDestination::GetCounters() const {
  return Join(Join(Destination::GetCounters(), m_report.GetCounters(m_connection)),
              {
                  {"events_refused", "Answers that refused an event", m_refusedEvents},
                  {"events_sent_again",
                   "Events that were sent once more, for want of an acknowledgement", m_sentAgain},
              });
}

bool RelpDestination::TakeEvent(MessageBlockPtr& event) {
  if (m_window.GetSize() >= m_options.window) {
    return false;
  }
  m_window.Add(std::move(event));
  CountEvents();
  if (m_idle) {
    m_idle = false;
    m_connection.Wake();
  }
  return true;
}

void RelpDestination::Run() {
  while (!m_stop) {
    {
      std::unique_lock lock(m_lock);
      m_stopped.wait_until(lock, m_nextAttempt, [this] { return m_stop.load(); });
    }
    if (m_stop) {
      break;
    }
    if (!OpenSession() || !RunSession()) {
      OnBreak();
    }
  }
  if (m_connection.IsOpen()) {
    EndSession();
  }
}

bool RelpDestination::OpenSession() {
  m_phase = Phase::Opening;
  m_anyAcknowledged = false;
  m_reader = {};
  m_written = 0;
  m_output.clear();
  {
    const std::lock_guard lock(m_lock);
    m_window.Rewind();
    m_sentAgain += m_nextEvent - std::min(m_nextEvent, m_window.GetFirst());
    CountEvents();
    m_firstEvent = m_nextEvent = m_window.GetFirst();
  }
  m_firstNumber = AdvanceRelpNumber(kOpenNumber, 1);
  m_problem = m_connection.Connect();
  if (!m_problem.empty()) {
    return false;
  }
  AppendRelpFrame(kOpenNumber, "open", "relp_version=0\nrelp_software=orlo-agent\ncommands=syslog",
                  m_output);
  if (!AwaitOpen()) {
    return false;
  }
  // A receiver that takes connections and refuses events is not there again.
  if (GetUnsentEvents() == 0) {
    m_report.OnUp();
  } else {
    m_report.OnUpForNow();
  }
  m_lastAnswer = steady_clock::now();
  return true;
}

bool RelpDestination::AwaitOpen() {
  const auto deadline = steady_clock::now() + m_options.connectTimeout;
  while (!m_stop) {
    if (!WriteOutput() || !TakeAnswers()) {
      return false;
    }
    if (m_phase == Phase::Open) {
      return true;
    }
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    if (left.count() <= 0) {
      m_problem = "it does not answer as a receiver of RELP does";
      return false;
    }
    m_connection.Wait(!m_output.empty(), std::min(left, kLook));
  }
  m_problem = "the agent stops";
  return false;
}

// Until the stop; false if it ends before.
bool RelpDestination::RunSession() {
  while (!m_stop) {
    if (!Exchange() || !StillAnswers()) {
      return false;
    }
    if (m_output.empty() && HasMoreToSend()) {
      continue;
    }
    m_connection.Wait(!m_output.empty(), kLook);
    const std::lock_guard lock(m_lock);
    m_idle = false;
  }
  return true;
}

bool RelpDestination::Exchange() {
  if (!TakeAnswers()) {
    return false;
  }
  Gather();
  return WriteOutput();
}

// If there is nothing, the thread is woken by what comes.
bool RelpDestination::HasMoreToSend() {
  const std::lock_guard lock(m_lock);
  m_idle = m_nextEvent == m_window.GetFirst() + m_window.GetSize() && !m_stop;
  return !m_idle;
}

bool RelpDestination::TakeAnswers() {
  std::array<char, 16 * 1024> bytes;
  for (;;) {
    std::size_t size = 0;
    switch (m_connection.Read(bytes.data(), bytes.size(), size)) {
      case TcpConnection::ReadResult::Nothing:
        return true;
      case TcpConnection::ReadResult::Ended:
        m_problem = m_connection.GetReason();
        return false;
      case TcpConnection::ReadResult::Some:
        break;
    }
    m_reader.Append({bytes.data(), size});
    const std::lock_guard lock(m_lock);
    RelpFrame frame;
    RelpFrameReader::Result result = RelpFrameReader::Result::More;
    while ((result = m_reader.Next(frame)) == RelpFrameReader::Result::Frame) {
      if (!TakeFrame(frame)) {
        return false;
      }
    }
    if (result == RelpFrameReader::Result::Unreadable) {
      m_problem = "what it sends is not RELP";
      return false;
    }
    CountEvents();
    m_room.notify_all();
  }
}

bool RelpDestination::TakeFrame(const RelpFrame& frame) {
  if (frame.number == 0) {
    // A hint. The only one there is announces the end of the connection, which comes anyway.
    return true;
  }
  const RelpAnswer answer = ParseRelpAnswer(frame.data);
  if (frame.command != "rsp" || !answer.isReadable) {
    m_problem = "what it sends is not RELP";
    return false;
  }
  if (m_phase == Phase::Opening && frame.number == kOpenNumber) {
    if (answer.status != kTaken || !OffersRelpCommand(answer.lines, "syslog")) {
      m_problem = "it does not take events: " + std::to_string(answer.status) + " " +
                  std::string(answer.text);
      return false;
    }
    m_phase = Phase::Open;
    return true;
  }
  if (m_phase == Phase::Closing && frame.number == m_closeNumber) {
    m_phase = Phase::Closed;
    return true;
  }
  return AcknowledgeEvent(frame, answer);
}

bool RelpDestination::AcknowledgeEvent(const RelpFrame& frame, const RelpAnswer& answer) {
  const std::uint64_t oldest = m_window.GetFirst();
  const std::uint64_t event =
      oldest +
      GetRelpDistance(AdvanceRelpNumber(m_firstNumber, oldest - m_firstEvent), frame.number);
  if (m_phase == Phase::Opening || event >= m_nextEvent) {
    m_problem = "it answers what was not sent";
    return false;
  }
  if (answer.status != kTaken) {
    ++m_refusedEvents;
    m_problem =
        "it refuses an event: " + std::to_string(answer.status) + " " + std::string(answer.text);
    return false;
  }
  m_window.Acknowledge(event);
  if (!std::exchange(m_anyAcknowledged, true)) {
    m_report.OnWorks();
  }
  m_pause = kShortestPause;
  m_lastAnswer = steady_clock::now();
  return true;
}

void RelpDestination::Gather() {
  if (!m_output.empty()) {
    return;
  }
  const std::lock_guard lock(m_lock);
  const std::uint64_t end = m_window.GetFirst() + m_window.GetSize();
  if (m_nextEvent == m_window.GetFirst() && m_nextEvent != end) {
    // Nothing was under way: the receiver's time begins now.
    m_lastAnswer = steady_clock::now();
  }
  while (m_nextEvent != end && m_output.size() < kOutput) {
    AppendRelpFrame(AdvanceRelpNumber(m_firstNumber, m_nextEvent - m_firstEvent), "syslog",
                    m_window.GetMessage(m_nextEvent), m_output);
    ++m_nextEvent;
  }
}

bool RelpDestination::WriteOutput() {
  if (m_output.empty()) {
    return true;
  }
  const TcpConnection::WriteResult result =
      m_connection.Write(std::string_view(m_output).substr(m_written), milliseconds(0));
  m_written += result.written;
  if (m_written == m_output.size()) {
    m_output.clear();
    m_written = 0;
  }
  if (result.broken) {
    m_problem = m_connection.GetReason();
  }
  return !result.broken;
}

bool RelpDestination::StillAnswers() {
  if (m_options.ackTimeout.count() == 0 ||
      steady_clock::now() - m_lastAnswer < m_options.ackTimeout) {
    return true;
  }
  const std::lock_guard lock(m_lock);
  if (m_nextEvent == m_window.GetFirst()) {
    return true;
  }
  m_problem = "it has acknowledged nothing for " +
              std::to_string(m_options.ackTimeout.count() / 1000) + " s";
  return false;
}

void RelpDestination::OnBreak() {
  m_connection.Close();
  if (m_stop) {
    return;
  }
  m_report.OnDown(m_problem);
  const bool wasRefused =
      m_phase == Phase::Open && !m_anyAcknowledged && m_nextEvent != m_firstEvent;
  m_nextAttempt = steady_clock::now() + m_pause;
  if (wasRefused) {
    m_pause = std::min(2 * m_pause, kLongestPause);
  }
}

// Gives the receiver a moment for its last answers and for an end in good order.
void RelpDestination::EndSession() {
  const auto deadline = steady_clock::now() + kLongestEnd;
  while (m_phase != Phase::Closed && steady_clock::now() < deadline) {
    if (!Exchange()) {
      break;
    }
    if (m_phase == Phase::Open && GetUnsentEvents() == 0) {
      m_phase = Phase::Closing;
      m_closeNumber = AdvanceRelpNumber(m_firstNumber, m_nextEvent - m_firstEvent);
      AppendRelpFrame(m_closeNumber, "close", {}, m_output);
      continue;
    }
    if (m_phase != Phase::Closed) {
      m_connection.Wait(!m_output.empty(), kSlice);
    }
  }
  m_connection.CloseInOrder(milliseconds(0));
}

void RelpDestination::Stop() {
  m_refusing = true;
  {
    const std::lock_guard lock(m_lock);
    if (m_ended) {
      return;
    }
    m_ended = true;
    m_stop = true;
  }
  m_stopped.notify_all();
  m_connection.Wake();
  if (m_thread.joinable()) {
    m_thread.join();
  }
  if (const std::uint64_t unacknowledged = GetUnsentEvents(); unacknowledged > 0) {
    LogFacade::Warn(m_log, "%d events were not acknowledged; %s may have some of them or none.",
                    unacknowledged, ToText(m_options.target));
  }
}

}  // namespace

std::unique_ptr<Destination> MakeRelpDestination(const RelpDestinationOptions& options,
                                                 const std::string& streamName) {
  return std::make_unique<RelpDestination>(options, streamName);
}

}  // namespace OrloAgent
