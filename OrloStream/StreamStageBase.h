#pragma once

#include <memory>
#include <string>

#include "OrloStream/Status.h"
#include "OrloStream/StreamStageBaseStatisticsProfile.h"
#include "WindowsAgentCommon/OrloTask.h"

namespace OrloStream {

// The base of every stage: the writer task of a stream module. Messages come in through put() on
// whichever thread posts to the stream; Initialize and Stop are called by the stream manager on its
// control thread. Opening and closing the module starts and stops nothing.
//
// The stream's name is set by the stream manager before anything else is called.
class StreamStageBase : public WindowsAgentCommon::OrloTask {
 public:
  StreamStageBase();
  ~StreamStageBase() override;

  int open(void* args = nullptr) override;
  int module_closed() override;

  // Hands the block to ProcessMessage, then releases it: the block belongs to the stage from here
  // on, whatever the result. The time-out is not used. Returns the status word as an int, so a
  // failure is negative and backpressure is bit 30.
  int put(ACE_Message_Block* block, ACE_Time_Value* timeout = nullptr) override;

  // The body of threads that a stage activates for itself: OnBeginThread, then, for each block of
  // the task's queue until a hang-up block, ProcessMessage, then OnFinishThread.
  int svc() override;

  void Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) override = 0;
  void Stop() override = 0;

  virtual std::string GetVersionString() = 0;

  // Deals with one block, which still belongs to the caller: a stage that keeps it takes a
  // reference of its own. Any thread that posts.
  virtual Status ProcessMessage(ACE_Message_Block* block) = 0;

  // First and last call of each thread that runs svc.
  virtual void OnBeginThread();
  virtual void OnFinishThread();

  // Fills `profile` with the stage's profile, the same one at every call. The base has none and
  // leaves it empty.
  virtual void CreateStatisticsProfile(std::shared_ptr<StreamStageBaseStatisticsProfile>& profile);

  // The same for each thread of svc.
  virtual void CreateStageThreadStatisticsProfile(
      std::shared_ptr<StreamStageBaseStatisticsProfile>& profile);

  virtual std::string GetStageName() = 0;

  const std::wstring& GetParentStreamName() const { return m_parentStreamName; }
  void SetParentStreamName(std::wstring name) { m_parentStreamName = std::move(name); }

 private:
  std::wstring m_parentStreamName;
};

}  // namespace OrloStream
