#pragma once

#include <ace/Message_Queue.h>
#include <ace/Synch.h>

namespace WindowsAgentCommon {

// The message queue of the agent's tasks: ACE's, but for how a thread waits at an empty queue.
//
// A thread that takes blocks faster than they come falls asleep after each of them, and each poster
// pays for waking it: for a queue under load that costs more than all else. So a thread that has
// just taken many blocks one after the other first lets some gather: it sleeps until kGather have
// come, or half of what the high-water mark allows, or kGatherTime has passed, and only then as
// ACE's queue does. A single block that comes to a quiet queue wakes it at once.
//
// Nothing else differs: blocks are taken one by one, time-outs, water marks, order and shutdown are
// ACE's.
class EventQueue : public ACE_Message_Queue<ACE_MT_SYNCH> {
 public:
  EventQueue();
  ~EventQueue() override;

 protected:
  // All are called with the queue's lock held.
  int enqueue_head_i(ACE_Message_Block* block) override;
  int wait_not_empty_cond(ACE_Time_Value* timeout) override;
  int signal_dequeue_waiters() override;

 private:
  // Guarded by the queue's lock.
  unsigned m_takenInARow = 0;  // blocks, since a thread had to wait for one
  unsigned m_gathering = 0;    // threads that let blocks gather
};

}  // namespace WindowsAgentCommon
