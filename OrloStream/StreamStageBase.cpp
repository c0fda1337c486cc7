#include "OrloStream/StreamStageBase.h"

#include "WindowsAgentCommon/MessageBlockPtr.h"

namespace OrloStream {

using WindowsAgentCommon::MessageBlockPtr;

namespace {

Status ProcessAndRelease(StreamStageBase& stage, MessageBlockPtr block) {
  const Status status = stage.ProcessMessage(block.get());
  if (status.Failed()) {
    std::shared_ptr<StreamStageBaseStatisticsProfile> profile;
    stage.CreateStatisticsProfile(profile);
    if (profile) {
      profile->UpdateMessagesRejected(1, false);
    }
  }
  return status;
}

}  // namespace

StreamStageBase::StreamStageBase() = default;

StreamStageBase::~StreamStageBase() = default;

int StreamStageBase::open(void* /*args*/) { return 0; }

int StreamStageBase::module_closed() { return 0; }

int StreamStageBase::put(ACE_Message_Block* block, ACE_Time_Value* /*timeout*/) {
  return ProcessAndRelease(*this, MessageBlockPtr(block)).ToInt();
}

int StreamStageBase::svc() {
  OnBeginThread();
  for (;;) {
    ACE_Message_Block* next = nullptr;
    if (getq(next) == -1) {
      break;  // the queue was closed
    }
    MessageBlockPtr block(next);
    if (block->msg_type() == ACE_Message_Block::MB_HANGUP) {
      break;
    }
    ProcessAndRelease(*this, std::move(block));
  }
  OnFinishThread();
  return 0;
}

void StreamStageBase::OnBeginThread() {}

void StreamStageBase::OnFinishThread() {}

void StreamStageBase::CreateStatisticsProfile(
    std::shared_ptr<StreamStageBaseStatisticsProfile>& profile) {
  profile.reset();
}

void StreamStageBase::CreateStageThreadStatisticsProfile(
    std::shared_ptr<StreamStageBaseStatisticsProfile>& profile) {
  profile.reset();
}

}  // namespace OrloStream
