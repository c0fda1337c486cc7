#pragma once

#include <ace/Message_Queue.h>
#include <ace/Synch.h>

#include <cstddef>
#include <limits>

#include "WindowsAgentCommon/BriefLock.h"

namespace WindowsAgentCommon {

// The message queue of the agent's tasks: ACE's, but for what it costs under load.
//
// Taking. Whoever takes from the head takes all that is there out of the list that posters append
// to, and the following calls take from that batch, one block each, without the queue's lock: so
// posters and takers do not stop each other with every block. Blocks of the batch are still in the
// queue to everybody else: counted, ordered, and put back at the head of the list as soon as
// another operation than taking from the head wants to see it, or the queue is deactivated. Only
// iterators do not see them.
//
// Waiting. A thread that takes blocks faster than they come falls asleep after each of them, and
// each poster pays for waking it: for a queue under load that costs more than all else. So a thread
// that has just taken many blocks one after the other first lets some gather: it sleeps until
// kGather have come, or half of what the high-water mark allows, or kGatherTime has passed, and
// only then as ACE's queue does. A single block that comes to a quiet queue wakes it at once.
//
// Nothing else differs: time-outs, water marks, order and shutdown are ACE's. dequeue_head returns
// 0 in place of the number of blocks that are left.
class EventQueue : public ACE_Message_Queue<ACE_MT_SYNCH> {
 public:
  EventQueue();
  ~EventQueue() override;

  int dequeue_head(ACE_Message_Block*& first, ACE_Time_Value* timeout = nullptr) override;

  using ACE_Message_Queue<ACE_MT_SYNCH>::message_bytes;
  using ACE_Message_Queue<ACE_MT_SYNCH>::message_length;
  std::size_t message_bytes() override;
  std::size_t message_length() override;
  std::size_t message_count() override;

 protected:
  // All are called with the queue's lock held.
  int enqueue_i(ACE_Message_Block* block) override;
  int enqueue_head_i(ACE_Message_Block* block) override;
  int flush_i() override;
  bool is_full_i() override;
  bool is_empty_i() override;
  int wait_not_empty_cond(ACE_Time_Value* timeout) override;
  int signal_dequeue_waiters() override;
  int deactivate_i(int pulse = 0) override;

 private:
  using Base = ACE_Message_Queue<ACE_MT_SYNCH>;

  static constexpr std::size_t kNobodyWaits = std::numeric_limits<std::size_t>::max();

  bool WaitForOne(ACE_Time_Value* timeout);
  bool WaitForMany(ACE_Time_Value* timeout);
  bool TakeFromBatch(ACE_Message_Block*& first, bool& lowEnough);
  bool MakeBatchAndTake(ACE_Message_Block*& first);
  bool TakeFirst(ACE_Message_Block*& first);
  void ReturnBatch();
  void Settle();
  void SettleTotals();

  // Guarded by the queue's lock.
  std::size_t m_takenInARow = 0;  // blocks, since a thread had to wait for one
  unsigned m_waiting = 0;         // threads that wait for a block
  unsigned m_gathering = 0;       // of these, threads that let blocks gather
  unsigned m_woken = 0;           // waiters that were signalled and have not yet come back

  // Guards what follows; taken alone, or with the queue's lock held. Apart from what the queue's
  // lock guards, which other threads write.
  alignas(64) BriefLock m_batchLock;
  ACE_Message_Block* m_batchHead = nullptr;
  ACE_Message_Block* m_batchTail = nullptr;
  // What was taken from the batch and is still in the queue's totals.
  std::size_t m_takenCount = 0;
  std::size_t m_takenBytes = 0;
  std::size_t m_takenLength = 0;
  // So many bytes taken bring the queue down to its low-water mark, for which a poster waits.
  std::size_t m_settleAtBytes = kNobodyWaits;
};

}  // namespace WindowsAgentCommon
