// A stage that can't start: it waits until the file that its setting "Until" names is gone, and
// throws.

#include <ace/Module.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "OrloStream/StreamStageBase.h"
#include "WindowsAgentCommon/Exceptions.h"

namespace {

class FailingStage : public OrloStream::StreamStageBase {
 public:
  void Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) override {
    const auto until = environment.find("Until");
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (until != environment.end() && std::filesystem::exists(until->second) &&
           std::chrono::steady_clock::now() < limit) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    throw WindowsAgentCommon::InitializationException("the file", "the function", 1,
                                                      "the stage's reason");
  }

  void Stop() override {}
  std::string GetVersionString() override { return "FailingStage v1"; }
  std::string GetStageName() override { return "FailingStage"; }

  OrloStream::Status ProcessMessage(ACE_Message_Block* block) override {
    return OrloStream::Status::FromInt(put_next(block->duplicate()));
  }

  void CreateStatisticsProfile(
      std::shared_ptr<OrloStream::StreamStageBaseStatisticsProfile>&) override {}
};

}  // namespace

extern "C" ACE_Module<ACE_MT_SYNCH>* make_FailingStage() {
  return new ACE_Module<ACE_MT_SYNCH>(ACE_TEXT("FailingStage"), new FailingStage);
}
