#pragma once

#include <ace/Recursive_Thread_Mutex.h>

#include <atomic>
#include <deque>
#include <memory>
#include <vector>

#include "StoreAndForward/Schedule.h"
#include "StoreAndForward/StoreAndForwardStatisticsProfile.h"
#include "WindowsAgentCommon/Logging.h"
#include "WindowsAgentCommon/OrloTask.h"

namespace OrloStoreAndForward {

class StoreAndForwardStage;

// The sending side of the stage: takes whole chunks when it is idle and the send schedule allows
// it, and delivers their events one by one to the next module, on a thread of its own. Owned by
// the stage, which outlives it.
//
// Threads: the control thread calls Initialize and Stop; the Incoming thread calls CanAccept and
// Accept; svc is the Outgoing thread. The task's own message queue carries no events, only control
// blocks: one MB_EVENT per accepted chunk, which wakes the thread, and MB_HANGUP to end it.
//
// Settings: "Schedule.Enable", "Schedule.Interval" (a list), "Schedule.Invert". One interval that
// can't be read turns the whole schedule off, with an Error line: then sending is always allowed.
// The zone of the first interval is the zone of all.
class StoreAndForwardOutgoing : public WindowsAgentCommon::OrloTask {
 public:
  explicit StoreAndForwardOutgoing(StoreAndForwardStage* stage);
  ~StoreAndForwardOutgoing() override;

  // Reads the schedule, publishes the statistics, starts the thread.
  void Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) override;

  // Ends the thread; a delivery that is under way runs to its end first. Events that are still
  // pending are neither delivered nor released: they are abandoned.
  void Stop() override;

  // Whether a chunk would be taken now. Never waits: false while the thread is delivering or
  // backing off, while an event of an earlier chunk is pending, and outside the schedule.
  bool CanAccept();

  // Takes over every event of a chunk, in order; the vector is left as it is and its blocks no
  // longer belong to the caller. Only directly after a CanAccept that returned true.
  void Accept(std::vector<ACE_Message_Block*>& events);

  // The Outgoing thread.
  int svc() override;

 private:
  void DeliverPending();

  WindowsAgentCommon::Log m_log;
  // Held by the Outgoing thread for a whole delivery pass, its back-off included.
  ACE_Recursive_Thread_Mutex m_lock;
  // Oldest first; owns one reference to each event. Guarded by m_lock.
  std::deque<ACE_Message_Block*> m_pending;
  // Whether m_pending is empty, for those who look without the lock; written under it.
  std::atomic<bool> m_pendingEmpty{true};
  StoreAndForwardStage* m_stage;
  std::shared_ptr<Schedule> m_schedule;  // its use is guarded by m_lock
  std::shared_ptr<StoreAndForwardOutgoingStatisticsProfile> m_statistics;
  std::atomic<bool> m_running{false};
};

}  // namespace OrloStoreAndForward
