#include "Agent/DestinationGate.h"

#include <algorithm>
#include <iterator>
#include <system_error>
#include <utility>

#include "OrloStream/Status.h"
#include "WindowsAgentCommon/Gauges.h"

namespace OrloAgent {

using OrloStream::Status;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using WindowsAgentCommon::LogFacade;
using WindowsAgentCommon::MessageBlockPtr;

namespace {

// Between two offers of an event that was refused.
constexpr milliseconds kBetweenOffers{100};
constexpr milliseconds kBetweenOlder{1'000};

// How long the sender waits for older events to leave before it is sent away for half a minute.
constexpr milliseconds kLongestWait{5'000};

constexpr milliseconds kBetweenLooks{5};

// How often an event that waits to be kept counts as refused.
constexpr milliseconds kBetweenRefusals{1'000};

int Backpressure() { return Status(Status::kBackpressure).ToInt(); }

// Whether a stage of the stream may still hand something over. One that does not say is taken to be
// at its end.
bool MayHandOver(const std::string& streamName) {
  const auto running = WindowsAgentCommon::ReadGauges(streamName, "IncomingRunning");
  return std::any_of(running.begin(), running.end(), [](std::int64_t value) { return value != 0; });
}

}  // namespace

DestinationGate::DestinationGate(std::unique_ptr<Destination> destination, std::string streamName)
    : m_streamName(std::move(streamName)),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.Agent")),
      m_destination(std::move(destination)) {}

DestinationGate::~DestinationGate() { DestinationGate::Stop(); }

void DestinationGate::Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) {
  if (m_destination) {
    m_destination->Initialize(environment);
  }
}

void DestinationGate::Open(Leftover& left) {
  const std::lock_guard lock(m_lock);
  if (left.destination) {
    m_destination = std::move(left.destination);
    m_lostBefore = left.lostBefore;
  }
  m_inherited = left.count;
  m_inheritedLost = left.lost;
  if (!left.events.empty()) {
    LogFacade::Info(m_log, "Stream %s: %d events of the stream before it are sent first.",
                    m_streamName, left.events.size());
  }
  std::move(left.events.begin(), left.events.end(), std::back_inserter(m_older));
  left.events.clear();
  left.count = left.lost = left.lostBefore = 0;
  // What a stage that does not say whether it runs has handed over already.
  std::move(m_kept.begin(), m_kept.end(), std::back_inserter(m_older));
  m_kept.clear();
  m_keptCount = 0;
  m_olderCount = m_older.size();
  m_opened = true;
  m_clear = m_older.empty();
  m_mode = Mode::Passing;
  if (m_clear) {
    return;
  }
  try {
    m_thread = std::thread(&DestinationGate::RunOlder, this);
  } catch (const std::system_error& error) {
    LogFacade::Warn(m_log, "Stream %s: these events wait for the next one (%s).", m_streamName,
                    std::string(error.what()));
  }
}

int DestinationGate::put(ACE_Message_Block* block, ACE_Time_Value* timeout) {
  if (m_clear.load(std::memory_order_acquire) &&
      m_mode.load(std::memory_order_acquire) == Mode::Passing) {
    return m_destination->put(block, timeout);
  }
  const int result = PutOneByOne(MessageBlockPtr(block));
  m_heldIn = Mode::Passing;
  return result;
}

int DestinationGate::PutOneByOne(MessageBlockPtr event) {
  auto deadline = steady_clock::now() + kLongestWait;
  while (!m_refusing) {
    if (m_mode == Mode::Keeping) {
      WaitToBeKept();
      // Under the lock, so that Open finds it among the others or lets it pass.
      const std::lock_guard lock(m_lock);
      if (m_mode == Mode::Keeping && !m_refusing) {
        m_kept.push_back(std::move(event));
        ++m_keptCount;
        return 0;
      }
      deadline = steady_clock::now() + kLongestWait;
      continue;
    }
    int result = 0;
    {
      const std::lock_guard lock(m_lock);
      if (DeliverOlder() && Offer(*event, result)) {
        return result;
      }
    }
    ++m_refusals;
    const Mode mode = m_mode;
    if (mode == Mode::Keeping) {
      continue;
    }
    if (mode == Mode::Passing && (m_clear || steady_clock::now() >= deadline)) {
      break;
    }
    m_heldIn = mode;
    std::this_thread::sleep_for(kBetweenOffers);
  }
  return Backpressure();
}

// Returns when the stages hand over nothing any more, or the gate does not keep any longer.
void DestinationGate::WaitToBeKept() {
  m_heldIn = Mode::Keeping;
  auto counted = steady_clock::now();
  while (m_mode == Mode::Keeping && !m_refusing && MayHandOver(m_streamName)) {
    if (const auto now = steady_clock::now(); now - counted >= kBetweenRefusals) {
      // To whoever looks at the stream: its sender does not hang.
      ++m_refusals;
      counted = now;
    }
    std::this_thread::sleep_for(kBetweenLooks);
  }
}

// False if the destination can't take it now. Requires m_lock.
bool DestinationGate::Offer(const ACE_Message_Block& event, int& result) {
  ACE_Message_Block* const reference = event.duplicate();
  result = reference == nullptr ? Backpressure() : m_destination->put(reference);
  return !Status::FromInt(result).Backpressure();
}

// True if nothing is left. Requires m_lock.
bool DestinationGate::DeliverOlder() {
  int ignored = 0;
  while (!m_older.empty()) {
    if (m_refusing || m_mode == Mode::Keeping || !Offer(*m_older.front(), ignored)) {
      return false;
    }
    m_older.pop_front();
    m_olderCount = m_older.size();
  }
  m_clear = true;
  return true;
}

void DestinationGate::RunOlder() {
  std::unique_lock lock(m_lock);
  while (!m_stop && !DeliverOlder()) {
    m_stopped.wait_for(lock, kBetweenOlder, [this] { return m_stop; });
  }
}

void DestinationGate::Hold() { m_mode = Mode::Holding; }

void DestinationGate::Keep() { m_mode = Mode::Keeping; }

void DestinationGate::Pass() { m_mode = Mode::Passing; }

void DestinationGate::Refuse() {
  m_refusing = true;
  if (m_destination) {
    m_destination->Refuse();
  }
}

void DestinationGate::Stop() {
  const bool isKeeping = m_mode == Mode::Keeping;
  if (!isKeeping) {
    m_refusing = true;
  }
  {
    const std::lock_guard lock(m_lock);
    m_stop = true;
  }
  m_stopped.notify_all();
  if (m_thread.joinable()) {
    m_thread.join();
  }
  if (isKeeping && m_opened) {
    m_last = Count();
  } else if (m_destination && !std::exchange(m_ended, true)) {
    m_destination->Stop();
  }
}

void DestinationGate::TakeLeft(Leftover& left) {
  const std::lock_guard lock(m_lock);
  const Counts counts = Count();
  std::move(m_older.begin(), m_older.end(), std::back_inserter(left.events));
  std::move(m_kept.begin(), m_kept.end(), std::back_inserter(left.events));
  m_older.clear();
  m_kept.clear();
  m_olderCount = 0;
  m_keptCount = 0;
  m_last = Counts{0, counts.lost};
  left.count += counts.unsent;
  if (m_opened) {
    left.lostBefore = counts.lost;
    left.destination = std::move(m_destination);
  }
}

DestinationGate::Counts DestinationGate::Count() const {
  if (m_last) {
    return *m_last;
  }
  Counts counts{m_olderCount + m_keptCount, 0};
  if (m_destination) {
    counts.unsent += m_destination->GetUnsentEvents();
    counts.lost = m_destination->GetLostEvents();
  }
  return counts;
}

std::uint64_t DestinationGate::GetUnsentEvents() const { return Count().unsent; }

std::uint64_t DestinationGate::GetSentEvents() const {
  return m_destination ? m_destination->GetSentEvents() : 0;
}

std::optional<Destination::Parts> DestinationGate::GetParts() const {
  return m_destination ? m_destination->GetParts() : std::nullopt;
}

std::uint64_t DestinationGate::GetLostEvents() const {
  return Count().lost - m_lostBefore + m_inheritedLost;
}

std::vector<EndCounter> DestinationGate::GetCounters() const {
  return m_destination ? m_destination->GetCounters() : std::vector<EndCounter>();
}

}  // namespace OrloAgent
