#include "OrloStream/StreamStageBaseStatisticsProfile.h"

#include "OrloStream/StatisticsTables.h"

namespace OrloStream {

using WindowsAgentCommon::IStatisticsServer;

namespace {

const StatisticDeclaration& MessagesRejected() {
  static const StatisticDeclaration declaration{
      "MessagesRejected", "The number of messages that the stage gave back as failed", kCounterKind,
      std::int64_t{0}, __LINE__};
  return declaration;
}

}  // namespace

IStatisticsServer* StreamStageBaseStatisticsProfile::GetStatisticsServer() {
  return dynamic_cast<IStatisticsServer*>(
      WindowsAgentCommon::_getService(IStatisticsServer::GetServiceName()));
}

void StreamStageBaseStatisticsProfile::Initialize() {
  InitializeStatistics(true);
  GetStatisticsServer()->RegisterGroup(m_group);
}

void StreamStageBaseStatisticsProfile::InitializeStatistics(bool publish) {
  if (!m_group) {
    GetStatisticsServer()->CreateGroup("StreamStage", "AgentCore/StreamManager/Stages", m_group);
  }
  DeclareCounter(*m_group, m_declared, m_counters, MessagesRejected());
  if (publish) {
    m_group->Publish();
  }
}

void StreamStageBaseStatisticsProfile::UpdateMessagesRejected(std::int64_t amount, bool flag) {
  UpdateCounter(m_group.get(), m_declared, m_counters, MessagesRejected(), amount, flag,
                {"OrloStream/StreamStageBaseStatisticsProfile",
                 "OrloStream::StreamStageBaseStatisticsProfile::UpdateMessagesRejected"});
}

}  // namespace OrloStream
