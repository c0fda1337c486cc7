#include "StoreAndForward/TaskThread.h"

#include <ace/OS_NS_errno.h>
#include <ace/OS_NS_sys_time.h>

#include "WindowsAgentCommon/MessageBlockPtr.h"

namespace OrloStoreAndForward {

namespace {

// How long a hang-up waits for room in a full queue before it looks whether the thread that makes
// room is still there.
constexpr time_t kHangUpAttemptSeconds = 1;

}  // namespace

void ActivateOneThread(WindowsAgentCommon::OrloTask& task) {
  constexpr long kFlags = 0;
  constexpr int kThreads = 1;
  constexpr int kForceActive = 0;
  constexpr long kPriority = 0;
  task.activate(kFlags, kThreads, kForceActive, kPriority);
}

void HangUpAndWait(WindowsAgentCommon::OrloTask& task) {
  WindowsAgentCommon::MessageBlockPtr hangUp(
      new ACE_Message_Block(0, ACE_Message_Block::MB_HANGUP, nullptr, nullptr, nullptr, nullptr, 0,
                            ACE_Time_Value::zero, ACE_Time_Value::max_time));
  while (task.thr_count() > 0) {
    ACE_Time_Value deadline = ACE_OS::gettimeofday() + ACE_Time_Value(kHangUpAttemptSeconds);
    if (task.msg_queue()->enqueue_head(hangUp.get(), &deadline) != -1) {
      hangUp.release();
      break;
    }
    if (errno == ESHUTDOWN) {
      // Somebody deactivated the queue. Its thread would never see the hang-up.
      task.msg_queue()->activate();
    } else if (errno != EWOULDBLOCK) {
      break;
    }
  }
  task.wait();
}

}  // namespace OrloStoreAndForward
