#include "Agent/FallbackDestination.h"

#include <ace/Message_Block.h>

#include <algorithm>
#include <iterator>
#include <thread>

#include "OrloStream/Status.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"

namespace OrloAgent {

using WindowsAgentCommon::LogFacade;

namespace {

// A stage that was refused comes back in half a minute. When the time is nearer than this, it is
// waited for on the spot.
constexpr std::chrono::seconds kLongestWait{5};

// Waits are cut into slices so that Refuse is seen.
constexpr std::chrono::milliseconds kSlice{100};
constexpr std::chrono::milliseconds kShortSlice{1};

}  // namespace

FallbackDestination::FallbackDestination(std::unique_ptr<Destination> first,
                                         std::unique_ptr<Destination> second,
                                         const FallbackOptions& options,
                                         const std::string& streamName)
    : m_options(options),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.Fallback." + streamName)),
      m_first(std::move(first)),
      m_second(std::move(second)) {}

FallbackDestination::~FallbackDestination() = default;

void FallbackDestination::Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) {
  m_first->Initialize(environment);
  try {
    m_second->Initialize(environment);
  } catch (const std::exception&) {
    m_first->Stop();
    throw;
  }
}

void FallbackDestination::Stop() {
  m_refusing = true;
  m_first->Stop();
  m_second->Stop();
}

void FallbackDestination::Refuse() {
  m_refusing = true;
  m_first->Refuse();
  m_second->Refuse();
}

std::uint64_t FallbackDestination::GetUnsentEvents() const {
  return m_first->GetUnsentEvents() + m_second->GetUnsentEvents();
}

std::uint64_t FallbackDestination::GetLostEvents() const {
  return m_first->GetLostEvents() + m_second->GetLostEvents();
}

std::vector<WindowsAgentCommon::MessageBlockPtr> FallbackDestination::TakeUnsent() {
  auto events = m_first->TakeUnsent();
  auto younger = m_second->TakeUnsent();
  std::move(younger.begin(), younger.end(), std::back_inserter(events));
  return events;
}

std::vector<EndCounter> FallbackDestination::GetCounters() const {
  return {{"events_to_fallback", "Events that the fallback has taken", m_takenBySecond}};
}

std::uint64_t FallbackDestination::GetSentEvents() const {
  return m_first->GetSentEvents() + m_second->GetSentEvents();
}

std::optional<Destination::Parts> FallbackDestination::GetParts() const {
  Parts parts{*m_first, *m_second, std::nullopt};
  if (const auto since = m_usedSince.load(); since != 0) {
    parts.usedSince.emplace(std::chrono::system_clock::duration(since));
  }
  return parts;
}

int FallbackDestination::put(ACE_Message_Block* block, ACE_Time_Value*) {
  const WindowsAgentCommon::MessageBlockPtr event(block);
  const bool taken = m_secondIsUsed ? PutWhileGivenUp(*event) : PutToFirst(*event);
  return taken ? 0 : OrloStream::Status(OrloStream::Status::kBackpressure).ToInt();
}

bool FallbackDestination::PutToFirst(const ACE_Message_Block& event) {
  LookAtFirst();
  // What it has not sent for so long would only be joined by this event.
  const bool isStuck = IsGivenUp() && m_first->GetUnsentEvents() > 0;
  if (!isStuck && OfferToFirst(event)) {
    return true;
  }
  while (!m_refusing && !IsGivenUp() &&
         Clock::now() + kLongestWait >= *m_waiting + m_options.after) {
    std::this_thread::sleep_for(kSlice);
    if (OfferToFirst(event)) {
      return true;
    }
  }
  if (m_refusing || !IsGivenUp()) {
    return false;
  }
  TakeOver();
  return OfferToSecond(event);
}

bool FallbackDestination::PutWhileGivenUp(const ACE_Message_Block& event) {
  if (LookAtFirst()) {
    HandBack();
    return PutToFirst(event);
  }
  if (m_first->GetUnsentEvents() == 0 && Clock::now() >= m_nextTry) {
    if (OfferToFirst(event)) {
      if (WaitForFirst()) {
        HandBack();
      }
      return true;
    }
    // Counted from the end of the attempt, which can take long.
    m_nextTry = Clock::now() + m_options.retry;
  }
  return OfferToSecond(event);
}

bool FallbackDestination::OfferToFirst(const ACE_Message_Block& event) {
  const bool wasRefused = m_refused;
  m_refused = m_first->put(event.duplicate()) != 0;
  if (!m_waiting || (wasRefused && !m_refused)) {
    m_waiting = Clock::now();
  }
  return !m_refused;
}

bool FallbackDestination::OfferToSecond(const ACE_Message_Block& event) {
  const bool taken = m_second->put(event.duplicate()) == 0;
  m_sentToSecond += taken ? 1 : 0;
  m_takenBySecond += taken ? 1 : 0;
  return taken;
}

// Whether it sends what it has just taken. A destination that does so does it at once; otherwise
// its next sign is waited for elsewhere.
bool FallbackDestination::WaitForFirst() {
  const auto end = Clock::now() + std::min<Clock::duration>(kLongestWait, m_options.retry);
  while (!LookAtFirst()) {
    if (m_refusing || Clock::now() >= end) {
      return false;
    }
    std::this_thread::sleep_for(kShortSlice);
  }
  return true;
}

bool FallbackDestination::LookAtFirst() {
  const std::uint64_t unsent = m_first->GetUnsentEvents();
  const std::uint64_t left = m_first->GetSentEvents();
  const bool hasSent = left > m_left;
  m_left = left;
  if (unsent == 0 && !m_refused) {
    m_waiting.reset();
  } else if (!m_waiting || hasSent) {
    m_waiting = Clock::now();
  }
  return hasSent;
}

bool FallbackDestination::IsGivenUp() const {
  return m_waiting && Clock::now() - *m_waiting >= m_options.after;
}

void FallbackDestination::TakeOver() {
  m_secondIsUsed = true;
  m_usedSince = std::chrono::system_clock::now().time_since_epoch().count();
  m_sentToSecond = 0;
  m_takenOver = Clock::now();
  m_nextTry = m_takenOver + m_options.retry;
  const auto waited = std::chrono::duration<double>(m_takenOver - *m_waiting);
  LogFacade::Warn(m_log,
                  "The destination has sent nothing for %.1f s; events go to the fallback until it "
                  "sends again.",
                  waited.count());
}

void FallbackDestination::HandBack() {
  m_secondIsUsed = false;
  m_usedSince = 0;
  m_waiting = Clock::now();
  const auto away = std::chrono::duration<double>(*m_waiting - m_takenOver);
  LogFacade::Info(m_log, "The destination sends again; %d events went to the fallback in %.1f s.",
                  m_sentToSecond, away.count());
}

}  // namespace OrloAgent
