#include "WindowsAgentCommon/EventQueue.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_errno.h>
#include <ace/OS_NS_sys_time.h>

#include <algorithm>
#include <mutex>

namespace WindowsAgentCommon {

namespace {

// As many blocks taken in a row mean that more are on their way.
constexpr std::size_t kManyInARow = 16;

constexpr std::size_t kGather = 256;
constexpr suseconds_t kGatherTime = 1000;  // microseconds

using QueueGuard = ACE_Guard<ACE_Thread_Mutex>;

}  // namespace

EventQueue::EventQueue() = default;

// ACE's destructor releases what is in its list.
EventQueue::~EventQueue() { ReturnBatch(); }

int EventQueue::dequeue_head(ACE_Message_Block*& first, ACE_Time_Value* timeout) {
  bool lowEnough = false;
  if (TakeFromBatch(first, lowEnough)) {
    if (lowEnough) {
      const QueueGuard guard(lock_);
      Settle();
    }
    return 0;
  }
  const QueueGuard guard(lock_);
  if (state_ == ACE_Message_Queue_Base::DEACTIVATED) {
    errno = ESHUTDOWN;
    return -1;
  }
  if (wait_not_empty_cond(timeout) == -1) {
    return -1;
  }
  if (MakeBatchAndTake(first)) {
    Settle();
  }
  return 0;
}

// False if there is none. `lowEnough`: a poster waits for what has been taken by now.
bool EventQueue::TakeFromBatch(ACE_Message_Block*& first, bool& lowEnough) {
  const std::lock_guard guard(m_batchLock);
  if (m_batchHead == nullptr) {
    return false;
  }
  lowEnough = TakeFirst(first);
  return true;
}

// The whole list, which is not empty, becomes the batch; requires that there is no other. Takes the
// first block at once, before another thread takes them all. Returns what TakeFirst does.
bool EventQueue::MakeBatchAndTake(ACE_Message_Block*& first) {
  m_takenInARow += cur_count_;
  const std::lock_guard guard(m_batchLock);
  m_batchHead = head_;
  m_batchTail = tail_;
  head_ = nullptr;
  tail_ = nullptr;
  return TakeFirst(first);
}

// Requires a batch that is not empty, and its lock. True if a poster waits for what has been taken
// by now.
bool EventQueue::TakeFirst(ACE_Message_Block*& first) {
  first = m_batchHead;
  m_batchHead = first->next();
  first->next(nullptr);
  first->prev(nullptr);
  ++m_takenCount;
  first->total_size_and_length(m_takenBytes, m_takenLength);
  return m_takenBytes >= m_settleAtBytes;
}

// What is left of the batch goes back to the head of the list.
void EventQueue::ReturnBatch() {
  const std::lock_guard guard(m_batchLock);
  SettleTotals();
  if (m_batchHead == nullptr) {
    return;
  }
  m_batchHead->prev(nullptr);
  m_batchTail->next(head_);
  if (head_ == nullptr) {
    tail_ = m_batchTail;
  } else {
    head_->prev(m_batchTail);
  }
  head_ = m_batchHead;
  m_batchHead = nullptr;
  m_batchTail = nullptr;
}

void EventQueue::Settle() {
  const std::lock_guard guard(m_batchLock);
  SettleTotals();
}

// Takes what has left by the batch off the queue's totals, and lets posters on if that is enough.
// Both locks are held.
void EventQueue::SettleTotals() {
  cur_count_ -= m_takenCount;
  cur_bytes_ -= m_takenBytes;
  cur_length_ -= m_takenLength;
  m_takenCount = 0;
  m_takenBytes = 0;
  m_takenLength = 0;
  if (m_settleAtBytes == kNobodyWaits) {
    return;
  }
  if (cur_bytes_ <= low_water_mark_) {
    m_settleAtBytes = kNobodyWaits;
    not_full_cond_.broadcast();
  } else {
    m_settleAtBytes = cur_bytes_ - low_water_mark_;
  }
}

bool EventQueue::is_full_i() {
  if (cur_bytes_ < high_water_mark_) {
    return false;
  }
  const std::lock_guard guard(m_batchLock);
  SettleTotals();
  if (cur_bytes_ < high_water_mark_) {
    return false;
  }
  m_settleAtBytes = cur_bytes_ - std::min(cur_bytes_, low_water_mark_);
  return true;
}

bool EventQueue::is_empty_i() {
  const std::lock_guard guard(m_batchLock);
  return tail_ == nullptr && m_batchHead == nullptr;
}

// Every operation that takes, but for taking from the batch, waits here first and then looks at the
// list.
int EventQueue::wait_not_empty_cond(ACE_Time_Value* timeout) {
  for (;;) {
    ReturnBatch();
    if (head_ != nullptr) {
      return 0;
    }
    const bool gathers = m_takenInARow >= kManyInARow;
    m_takenInARow = 0;
    const int stateBefore = state_;
    const bool isWoken = gathers ? WaitForMany(timeout) : WaitForOne(timeout);
    // The queue may have been closed after the time had passed and before the lock was had again;
    // nobody would wake the next wait then.
    if (state_ != ACE_Message_Queue_Base::ACTIVATED && (isWoken || state_ != stateBefore)) {
      errno = ESHUTDOWN;
      return -1;
    }
    if (!isWoken && !gathers) {
      ReturnBatch();
      if (head_ != nullptr) {
        return 0;
      }
      errno = EWOULDBLOCK;
      return -1;
    }
  }
}

// False if the time has passed.
bool EventQueue::WaitForOne(ACE_Time_Value* timeout) {
  ++m_waiting;
  const int result = not_empty_cond_.wait(timeout);
  --m_waiting;
  m_woken = 0;
  return result != -1;
}

// False if the time for gathering has passed, or `timeout` before it.
bool EventQueue::WaitForMany(ACE_Time_Value* timeout) {
  ACE_Time_Value until = ACE_OS::gettimeofday() + ACE_Time_Value(0, kGatherTime);
  if (timeout != nullptr) {
    until = std::min(until, *timeout);
  }
  ++m_gathering;
  const bool isWoken = WaitForOne(&until);
  --m_gathering;
  // Nobody has told other threads of what has gathered.
  if (head_ != tail_ && m_woken < m_waiting) {
    ++m_woken;
    Base::signal_dequeue_waiters();
  }
  return isWoken;
}

int EventQueue::signal_dequeue_waiters() {
  if (m_woken >= m_waiting ||
      (m_gathering > 0 && cur_count_ < kGather && cur_bytes_ < high_water_mark_ / 2)) {
    return 0;
  }
  ++m_woken;
  return Base::signal_dequeue_waiters();
}

int EventQueue::enqueue_i(ACE_Message_Block* block) {
  ReturnBatch();
  return Base::enqueue_i(block);
}

int EventQueue::enqueue_head_i(ACE_Message_Block* block) {
  ReturnBatch();
  const int result = Base::enqueue_head_i(block);
  if (result != -1 && m_gathering > 0) {
    // Not one that others are gathered for.
    Base::signal_dequeue_waiters();
  }
  return result;
}

int EventQueue::flush_i() {
  ReturnBatch();
  return Base::flush_i();
}

int EventQueue::deactivate_i(int pulse) {
  ReturnBatch();
  return Base::deactivate_i(pulse);
}

std::size_t EventQueue::message_bytes() {
  const QueueGuard guard(lock_);
  Settle();
  return cur_bytes_;
}

std::size_t EventQueue::message_length() {
  const QueueGuard guard(lock_);
  Settle();
  return cur_length_;
}

std::size_t EventQueue::message_count() {
  const QueueGuard guard(lock_);
  Settle();
  return cur_count_;
}

}  // namespace WindowsAgentCommon
