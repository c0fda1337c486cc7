#include "StoreAndForward/StoreAndForwardOutgoing.h"

#include <ace/Guard_T.h>

#include "OrloStream/Status.h"
#include "StoreAndForward/ScheduleSettings.h"
#include "StoreAndForward/StoreAndForwardStage.h"
#include "StoreAndForward/StreamNameText.h"
#include "StoreAndForward/TaskThread.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"

namespace OrloStoreAndForward {

using WindowsAgentCommon::EnvironmentBlock;
using WindowsAgentCommon::LogFacade;
using WindowsAgentCommon::LoggerFactory;
using WindowsAgentCommon::MessageBlockPtr;

namespace {

constexpr time_t kRetryPeriodSeconds = 30;
constexpr DWORD kBackOffMilliseconds = 1000;

// The time of day by the system's own clock, as ACE's queues count it.
ACE_Time_Value CurrentTime() {
  constexpr std::uint64_t kTicksTo1970 = 116'444'736'000'000'000;
  constexpr std::uint64_t kTicksPerSecond = 10'000'000;
  constexpr std::uint64_t kTicksPerMicrosecond = 10;
  FILETIME fileTime{};
  GetSystemTimeAsFileTime(&fileTime);
  const std::uint64_t ticks =
      (static_cast<std::uint64_t>(fileTime.dwHighDateTime) << 32 | fileTime.dwLowDateTime) -
      kTicksTo1970;
  return ACE_Time_Value(static_cast<time_t>(ticks / kTicksPerSecond),
                        static_cast<suseconds_t>(ticks % kTicksPerSecond / kTicksPerMicrosecond));
}

}  // namespace

StoreAndForwardOutgoing::StoreAndForwardOutgoing(StoreAndForwardStage* stage) : m_stage(stage) {}

StoreAndForwardOutgoing::~StoreAndForwardOutgoing() = default;

void StoreAndForwardOutgoing::Initialize(const EnvironmentBlock& environment) {
  m_log = LoggerFactory::GetLog("Code.StoreAndForwardOutgoing." +
                                StreamNameText(m_stage->GetParentStreamName()));
  m_schedule = ReadSchedule(environment, m_log);
  m_statistics = std::make_shared<StoreAndForwardOutgoingStatisticsProfile>();
  m_statistics->Initialize();
  ActivateOneThread(*this);
  m_running = true;
  LogFacade::Info(m_log, "Started");
}

void StoreAndForwardOutgoing::Stop() {
  if (!m_running) {
    return;
  }
  LogFacade::Info(m_log, "Stopping...");
  HangUpAndWait(*this);
  m_running = false;
}

bool StoreAndForwardOutgoing::CanAccept() {
  if (!m_running) {
    return false;
  }
  if (m_lock.tryacquire() == -1) {
    return false;
  }
  const bool allowed = !m_schedule || m_schedule->IsSendingAllowed();
  m_lock.release();
  return m_pendingEmpty && allowed;
}

void StoreAndForwardOutgoing::Accept(std::vector<ACE_Message_Block*>& events) {
  const ACE_Guard<ACE_Recursive_Thread_Mutex> guard(m_lock);
  m_pending.insert(m_pending.end(), events.begin(), events.end());
  m_pendingEmpty = m_pending.empty();
  m_statistics->UpdateEventsIncoming(static_cast<std::int64_t>(events.size()), false);
  MessageBlockPtr wakeUp(new ACE_Message_Block(0, ACE_Message_Block::MB_EVENT));
  if (putq(wakeUp.get()) != -1) {
    wakeUp.release();
  }
}

int StoreAndForwardOutgoing::svc() {
  LogFacade::Info(m_log, "Thread running...");
  bool keepRunning = true;
  while (keepRunning) {
    ACE_Time_Value deadline = CurrentTime() + ACE_Time_Value(kRetryPeriodSeconds);
    ACE_Message_Block* taken = nullptr;
    if (getq(taken, &deadline) != -1) {
      const MessageBlockPtr control(taken);
      keepRunning = control->msg_type() != ACE_Message_Block::MB_HANGUP;
    }
    if (keepRunning && !m_pendingEmpty) {
      DeliverPending();
    }
  }
  LogFacade::Debug(m_log, "Thread exiting.");
  return 0;
}

void StoreAndForwardOutgoing::DeliverPending() {
  const ACE_Guard<ACE_Recursive_Thread_Mutex> guard(m_lock);
  while (!m_pending.empty()) {
    ACE_Message_Block* const event = m_pending.front();
    // Without memory for the reference, the event can't be sent now any more than under
    // backpressure.
    ACE_Message_Block* const reference = event->duplicate();
    if (reference == nullptr ||
        OrloStream::Status::FromInt(m_stage->put_next(reference)).Backpressure()) {
      m_statistics->UpdateNumberOfRequeues(1, false);
      // Under the lock, so that CanAccept answers no without looking further.
      Sleep(kBackOffMilliseconds);
      return;
    }
    // An error has no second try: the event is dropped and counted like a delivered one.
    event->release();
    m_statistics->UpdateEventsOutgoing(1, false);
    m_pending.pop_front();
    if (m_pending.empty()) {
      m_pendingEmpty = true;
    }
  }
}

}  // namespace OrloStoreAndForward
