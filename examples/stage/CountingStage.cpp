// A stage that passes every event on and counts events and bytes.
//
// Settings: "CountingStage.ReportEvery", default and minimum 1: after how many events the totals
// are logged. They are logged at the stop in any case.

#include <ace/Module.h>

#include <atomic>
#include <cstdint>
#include <new>

#include "OrloStream/StreamStageBase.h"
#include "WindowsAgentCommon/EnvironmentBlockHelper.h"
#include "WindowsAgentCommon/Logging.h"
#include "WindowsAgentCommon/Text.h"

namespace {

using OrloStream::Status;
using WindowsAgentCommon::EnvironmentBlock;
using WindowsAgentCommon::EnvironmentBlockHelper;
using WindowsAgentCommon::LogFacade;
using WindowsAgentCommon::LoggerFactory;

class CountingStage : public OrloStream::StreamStageBase {
 public:
  // Called once, on the stream manager's thread, before the first event. A stage that can't work
  // with its settings throws InitializationException here.
  void Initialize(const EnvironmentBlock& environment) override {
    m_log = LoggerFactory::GetLog("Example.CountingStage." +
                                  WindowsAgentCommon::ToUtf8(GetParentStreamName()));
    const EnvironmentBlockHelper helper(environment);
    int every = 0;
    helper.GetIntegerValue("CountingStage.ReportEvery", every, 1'000'000);
    m_reportEvery = every < 1 ? 1 : static_cast<std::uint64_t>(every);
  }

  // Called after the last event; the stage upstream has stopped before.
  void Stop() override { Report(); }

  std::string GetVersionString() override { return "CountingStage v1.0"; }
  std::string GetStageName() override { return "CountingStage"; }

  // Called on whichever thread posts: here the sending thread of the stage upstream, or several
  // source threads if this is the first stage. The block still belongs to the caller; what goes on
  // to the next module is a reference of our own.
  Status ProcessMessage(ACE_Message_Block* block) override {
    const std::size_t size = block->cont() == nullptr ? 0 : block->cont()->length();
    const Status status = Status::FromInt(put_next(block->duplicate()));
    // An event that was not taken now will be offered again, and counts only then.
    if (!status.Backpressure()) {
      m_bytes += size;
      if (++m_events % m_reportEvery == 0) {
        Report();
      }
    }
    return status;
  }

 private:
  void Report() const {
    LogFacade::Info(m_log, "%u events with %u bytes have passed", m_events.load(), m_bytes.load());
  }

  WindowsAgentCommon::Log m_log;
  std::uint64_t m_reportEvery = 1;
  std::atomic<std::uint64_t> m_events{0};
  std::atomic<std::uint64_t> m_bytes{0};
};

}  // namespace

// The module owns the stage and deletes it when the stream is closed.
extern "C" ACE_Module<ACE_MT_SYNCH>* make_CountingStage() {
  using Module = ACE_Module<ACE_MT_SYNCH>;
  return new (std::nothrow)
      Module(ACE_TEXT("CountingStage"), new CountingStage, nullptr, nullptr, Module::M_DELETE);
}
