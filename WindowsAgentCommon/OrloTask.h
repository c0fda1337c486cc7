#pragma once

#include <ace/Task.h>

#include <memory>

#include "WindowsAgentCommon/EnvironmentBlockHelper.h"
#include "WindowsAgentCommon/EventQueue.h"

namespace WindowsAgentCommon {

// A task of the agent: ACE's, plus the two operations of its life cycle. Both are called on the
// control thread of whoever owns the task, Initialize at most once, Stop any number of times.
class OrloTask : public ACE_Task<ACE_MT_SYNCH> {
 public:
  OrloTask();
  ~OrloTask() override;

  // Reads the configuration and starts what the task runs. Throws InitializationException; then
  // nothing is running.
  virtual void Initialize(const EnvironmentBlock& environment) = 0;

  // Returns after every thread of the task has ended. Does nothing if none is running.
  virtual void Stop() = 0;

 private:
  // The task's message queue; blocks that are still on it go with it.
  std::unique_ptr<EventQueue> m_queue;
};

}  // namespace WindowsAgentCommon
