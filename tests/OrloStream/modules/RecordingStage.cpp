// A stage that writes down what happens to it and hands every message on. Built as several modules
// that differ in their name, STAGE_NAME.

#include <ace/Module.h>

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "OrloStream/StreamStageBase.h"
#include "WindowsAgentCommon/EnvironmentBlockHelper.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Text.h"
#include "tests/OrloStream/modules/Journal.h"

#define STAGE_TEXT_OF(name) #name
#define STAGE_TEXT(name) STAGE_TEXT_OF(name)
#define STAGE_FACTORY_OF(name) make_##name
#define STAGE_FACTORY(name) STAGE_FACTORY_OF(name)

namespace {

constexpr const char* kName = STAGE_TEXT(STAGE_NAME);

void Note(const std::string& what) { Journal::Add(kName + ("." + what)); }

class RecordingProfile final : public OrloStream::StreamStageBaseStatisticsProfile {
 public:
  void Initialize() override {
    Note("InitializeProfile");
    StreamStageBaseStatisticsProfile::Initialize();
  }
};

class RecordingStage : public OrloStream::StreamStageBase {
 public:
  RecordingStage() { Journal::CountAlive(1); }
  ~RecordingStage() override {
    EndThread();
    Journal::CountAlive(-1);
  }

  int open(void* args) override {
    return GetParentStreamName() == L"refused" ? -1 : StreamStageBase::open(args);
  }

  // The settings: "Throw" (1: after the thread was started), "Result" (a status word other than 0
  // is answered to every message, which is then not handed on).
  void Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) override {
    Note("Initialize " + WindowsAgentCommon::ToUtf8(GetParentStreamName()));
    const WindowsAgentCommon::EnvironmentBlockHelper settings(environment);
    settings.GetIntegerValue("Result", m_result, 0);
    int throws = 0;
    settings.GetIntegerValue("Throw", throws, 0);
    StartThread();
    if (throws != 0) {
      throw WindowsAgentCommon::InitializationException("the file", "the function", 12,
                                                        "the stage's reason");
    }
  }

  void Stop() override {
    Note("Stop");
    EndThread();
    if (GetParentStreamName() == L"unstoppable") {
      throw std::runtime_error("the stop's reason");
    }
  }

  std::string GetVersionString() override { return std::string(kName) + " v1"; }
  std::string GetStageName() override { return kName; }

  OrloStream::Status ProcessMessage(ACE_Message_Block* block) override {
    Note("ProcessMessage");
    if (m_result != 0) {
      return OrloStream::Status::FromInt(m_result);
    }
    return OrloStream::Status::FromInt(put_next(block->duplicate()));
  }

  void CreateStatisticsProfile(
      std::shared_ptr<OrloStream::StreamStageBaseStatisticsProfile>& profile) override {
    if (GetParentStreamName() == L"profile throws") {
      throw std::runtime_error("the profile's reason");
    }
    if (GetParentStreamName() == L"profile throws a number") {
      throw 7;
    }
    if (!m_profile) {
      m_profile = std::make_shared<RecordingProfile>();
    }
    profile = m_profile;
  }

 private:
  void StartThread() {
    Journal::CountRunning(1);
    m_thread = std::thread([this] {
      std::unique_lock guard(m_lock);
      m_changed.wait(guard, [this] { return m_stop; });
      Journal::CountRunning(-1);
    });
  }

  void EndThread() {
    {
      const std::lock_guard guard(m_lock);
      m_stop = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable()) {
      m_thread.join();
    }
  }

  int m_result = 0;
  std::shared_ptr<RecordingProfile> m_profile;
  std::mutex m_lock;
  std::condition_variable m_changed;
  bool m_stop = false;  // guarded by m_lock
  std::thread m_thread;
};

}  // namespace

extern "C" ACE_Module<ACE_MT_SYNCH>* STAGE_FACTORY(STAGE_NAME)() {
  return new ACE_Module<ACE_MT_SYNCH>(ACE_TEXT(STAGE_TEXT(STAGE_NAME)), new RecordingStage);
}
