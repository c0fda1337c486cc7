#include "StoreAndForward/StoreAndForwardStage.h"

#include <new>

#include "WindowsAgentCommon/MessageBlockPtr.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloStoreAndForward {

using OrloStream::Status;
using WindowsAgentCommon::MessageBlockPtr;

namespace {

constexpr char kStageName[] = "StoreAndForwardStage";
constexpr int kVersionMajor = 7;
constexpr int kVersionMinor = 2;
constexpr int kVersionPatch = 5;

}  // namespace

StoreAndForwardStage::StoreAndForwardStage() = default;

StoreAndForwardStage::~StoreAndForwardStage() = default;

void StoreAndForwardStage::Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) {
  m_outgoing = std::make_shared<StoreAndForwardOutgoing>(this);
  m_incoming = std::make_shared<StoreAndForwardIncoming>(this, m_outgoing.get());
  m_outgoing->Initialize(environment);
  m_incoming->Initialize(environment);
}

void StoreAndForwardStage::Stop() {
  if (m_incoming) {
    m_incoming->Stop();
  }
  if (m_outgoing) {
    m_outgoing->Stop();
  }
}

std::string StoreAndForwardStage::GetVersionString() {
  return WindowsAgentCommon::Format("StoreAndForwardStage Stream Stage v%d.%d.%d", kVersionMajor,
                                    kVersionMinor, kVersionPatch);
}

Status StoreAndForwardStage::ProcessMessage(ACE_Message_Block* block) {
  Status status;
  MessageBlockPtr queued(block->duplicate());
  const bool failed = !queued || m_incoming->putq(queued.get()) < 0;
  if (!failed) {
    queued.release();
  }
  // A block that could not be queued was posted all the same.
  m_statistics->UpdateTotalEventsPosted(1, false);
  if (failed) {
    queued.reset();
    status.Set(Status::kFailed);
    m_statistics->UpdateTotalEventsFailedToQueue(1, false);
  }
  return status;
}

void StoreAndForwardStage::CreateStatisticsProfile(
    std::shared_ptr<OrloStream::StreamStageBaseStatisticsProfile>& profile) {
  if (!m_statistics) {
    m_statistics = std::make_shared<StoreAndForwardStatisticsProfile>();
  }
  profile = m_statistics;
}

std::string StoreAndForwardStage::GetStageName() { return kStageName; }

ACE_Module<ACE_MT_SYNCH>* CreateStoreAndForwardModule() {
  using Module = ACE_Module<ACE_MT_SYNCH>;
  auto* const stage = new (std::nothrow) StoreAndForwardStage;
  auto* const module = new (std::nothrow)
      Module(ACE_TEXT("StoreAndForwardStage"), stage, nullptr, nullptr, Module::M_DELETE);
  if (module == nullptr) {
    delete stage;
  }
  return module;
}

}  // namespace OrloStoreAndForward
