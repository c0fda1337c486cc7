#pragma once

#include <ace/Module.h>

#include <memory>
#include <string>

#include "OrloStream/StreamStageBase.h"
#include "StoreAndForward/StoreAndForwardIncoming.h"
#include "StoreAndForward/StoreAndForwardOutgoing.h"
#include "StoreAndForward/StoreAndForwardStatisticsProfile.h"

namespace OrloStoreAndForward {

// The store-and-forward stage: queues what is posted to it and owns the two processors that do the
// rest. Posting never waits for the destination, only for the queue's high-water mark.
//
// The stream manager creates the statistics profile and calls Initialize before the first post, and
// Stop before it closes the stream; the destructor does not stop anything.
class StoreAndForwardStage : public OrloStream::StreamStageBase {
 public:
  StoreAndForwardStage();
  ~StoreAndForwardStage() override;

  // Creates both processors and starts Outgoing, then Incoming. InitializationException of either
  // goes through.
  void Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) override;

  // Stops Incoming, then Outgoing, so that the last hand-over is complete before Outgoing ends.
  void Stop() override;

  // "StoreAndForwardStage Stream Stage v7.2.5"
  std::string GetVersionString() override;

  // Queues a reference to the block; the caller keeps its own. Waits while the queue is above its
  // high-water mark. Failed if the block can't be queued. Any thread.
  OrloStream::Status ProcessMessage(ACE_Message_Block* block) override;

  void CreateStatisticsProfile(
      std::shared_ptr<OrloStream::StreamStageBaseStatisticsProfile>& profile) override;

  std::string GetStageName() override;

 private:
  friend struct StageTestAccess;

  std::shared_ptr<StoreAndForwardStatisticsProfile> m_statistics;
  std::shared_ptr<StoreAndForwardOutgoing> m_outgoing;
  // After m_outgoing, so that it goes first: it borrows the other.
  std::shared_ptr<StoreAndForwardIncoming> m_incoming;
};

// The stage as a stream module, which owns it. Null when there is no memory for the module; a
// module without a writer task of ours when there is none for the stage.
ACE_Module<ACE_MT_SYNCH>* CreateStoreAndForwardModule();

}  // namespace OrloStoreAndForward
