#include "WindowsAgentCommon/EventQueue.h"

#include <ace/OS_NS_errno.h>
#include <ace/OS_NS_sys_time.h>

#include <algorithm>

namespace WindowsAgentCommon {

namespace {

// As many blocks taken in a row mean that more are on their way.
constexpr unsigned kManyInARow = 16;

constexpr std::size_t kGather = 256;
constexpr suseconds_t kGatherTime = 1000;  // microseconds

}  // namespace

EventQueue::EventQueue() = default;

EventQueue::~EventQueue() = default;

int EventQueue::enqueue_head_i(ACE_Message_Block* block) {
  const int result = ACE_Message_Queue<ACE_MT_SYNCH>::enqueue_head_i(block);
  if (result != -1 && m_gathering > 0) {
    ACE_Message_Queue<ACE_MT_SYNCH>::signal_dequeue_waiters();
  }
  return result;
}

int EventQueue::wait_not_empty_cond(ACE_Time_Value* timeout) {
  if (!is_empty_i()) {
    ++m_takenInARow;
    return 0;
  }
  if (m_takenInARow >= kManyInARow) {
    ACE_Time_Value until = ACE_OS::gettimeofday() + ACE_Time_Value(0, kGatherTime);
    if (timeout != nullptr) {
      until = std::min(until, *timeout);
    }
    ++m_gathering;
    not_empty_cond_.wait(&until);
    --m_gathering;
    if (state_ != ACE_Message_Queue_Base::ACTIVATED) {
      errno = ESHUTDOWN;
      return -1;
    }
  }
  m_takenInARow = 1;
  return ACE_Message_Queue<ACE_MT_SYNCH>::wait_not_empty_cond(timeout);
}

int EventQueue::signal_dequeue_waiters() {
  if (m_gathering > 0 && cur_count_ < kGather && cur_bytes_ < high_water_mark_ / 2) {
    return 0;
  }
  return ACE_Message_Queue<ACE_MT_SYNCH>::signal_dequeue_waiters();
}

}  // namespace WindowsAgentCommon
