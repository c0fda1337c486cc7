#include "tests/StoreAndForward/StageHarness.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "WindowsAgentCommon/MessageBlockPtr.h"

namespace OrloStoreAndForward {

using TestSupport::RecordingServer;
using TestSupport::TestDiskManager;
using WindowsAgentCommon::IDiskManager;
using WindowsAgentCommon::IStatisticsServer;

int ScriptedDestination::put(ACE_Message_Block* block, ACE_Time_Value*) {
  const WindowsAgentCommon::MessageBlockPtr event(block);
  const std::string payload = TestSupport::PayloadOf(block);
  std::function<int(const std::string&)> answer;
  {
    const std::lock_guard guard(m_lock);
    answer = m_answer;
  }
  const int result = answer ? answer(payload) : 0;
  const std::lock_guard guard(m_lock);
  m_offers.push_back({payload, std::chrono::steady_clock::now(), result});
  return result;
}

void ScriptedDestination::SetAnswer(std::function<int(const std::string&)> answer) {
  const std::lock_guard guard(m_lock);
  m_answer = std::move(answer);
}

std::vector<ScriptedDestination::Offer> ScriptedDestination::Offers() const {
  const std::lock_guard guard(m_lock);
  return m_offers;
}

std::vector<std::string> ScriptedDestination::Delivered() const {
  const std::lock_guard guard(m_lock);
  std::vector<std::string> payloads;
  for (const Offer& offer : m_offers) {
    if (offer.result == 0) {
      payloads.push_back(offer.payload);
    }
  }
  return payloads;
}

StageHarness::StageHarness()
    : m_disk(std::make_shared<TestDiskManager>(m_directory.WidePath())),
      m_server(std::make_shared<RecordingServer>()),
      m_diskRegistration(IDiskManager::GetServiceName(), m_disk),
      m_serverRegistration(IStatisticsServer::GetServiceName(), m_server),
      m_stream(std::make_unique<ACE_Stream<ACE_MT_SYNCH>>()),
      m_stage(nullptr),
      m_destination(new ScriptedDestination) {
  using Module = ACE_Module<ACE_MT_SYNCH>;
  Module* const stageModule = CreateStoreAndForwardModule();
  m_stage = dynamic_cast<StoreAndForwardStage*>(stageModule->writer());
  m_stage->SetParentStreamName(L"Test");
  m_stream->push(
      new Module(ACE_TEXT("Destination"), m_destination, nullptr, nullptr, Module::M_DELETE));
  m_stream->push(stageModule);
}

StageHarness::~StageHarness() {
  m_stage->Stop();
  m_stream->close();
}

void StageHarness::Start(WindowsAgentCommon::EnvironmentBlock settings) {
  if (!settings.contains("DataChunkPeriod")) {
    settings.emplace("DataChunkPeriod", "5");
  }
  std::shared_ptr<OrloStream::StreamStageBaseStatisticsProfile> profile;
  m_stage->CreateStatisticsProfile(profile);
  profile->Initialize();
  m_stage->Initialize(settings);
}

std::size_t StageHarness::Post(std::size_t count, const std::string& prefix) {
  std::size_t refused = 0;
  for (ACE_Message_Block* event : TestSupport::MakeEvents(count, prefix)) {
    refused += m_stage->put(event) < 0;
  }
  return refused;
}

std::int64_t StageHarness::Statistic(const std::string& name) const {
  for (const auto& group : m_server->Groups()) {
    for (const TestSupport::RecordedStatistic& declared : group->Declared()) {
      if (declared.name == name) {
        return group->Integer(name);
      }
    }
  }
  ADD_FAILURE() << "no statistic " << name;
  return -1;
}

void StageHarness::ExpectSum(std::int64_t held, std::int64_t cached) const {
  EXPECT_EQ(Statistic("TotalEventsPosted"), Statistic("TotalEventsFailedToQueue") +
                                                Statistic("MessagesLost") +
                                                Statistic("EventsOutgoing") + held + cached);
}

std::filesystem::path StageHarness::CacheDirectory() const {
  return m_directory.Path() / "Events" / "Test";
}

std::size_t StageHarness::ChunkFiles() const {
  // The stage may remove a directory while it is listed: then the look is taken again.
  for (;;) {
    std::size_t files = 0;
    std::error_code error;
    std::filesystem::recursive_directory_iterator entry(CacheDirectory(), error);
    if (error) {
      return 0;
    }
    while (!error && entry != std::filesystem::recursive_directory_iterator()) {
      files += entry->is_regular_file(error);
      if (!error) {
        entry.increment(error);
      }
    }
    if (!error) {
      return files;
    }
  }
}

std::vector<std::string> Numbered(std::size_t count, const std::string& prefix, std::size_t first) {
  std::vector<std::string> names;
  for (std::size_t i = 0; i < count; ++i) {
    names.push_back(prefix + std::to_string(first + i));
  }
  return names;
}

}  // namespace OrloStoreAndForward
