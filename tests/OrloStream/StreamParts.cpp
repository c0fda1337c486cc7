#include "tests/OrloStream/StreamParts.h"

#include <stdexcept>

#include "WindowsAgentCommon/Exceptions.h"
#include "tests/support/Events.h"

namespace StreamParts {

TestDestination::TestDestination(int result, bool throws) : m_result(result), m_throws(throws) {
  Journal::CountAlive(1);
}

TestDestination::~TestDestination() { Journal::CountAlive(-1); }

int TestDestination::put(ACE_Message_Block* block, ACE_Time_Value* /*timeout*/) {
  Journal::Add("Destination.put " + TestSupport::PayloadOf(block));
  block->release();
  return m_result;
}

void TestDestination::Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) {
  Journal::Add(environment.empty() ? "Destination.Initialize"
                                   : "Destination.Initialize with settings");
  if (m_throws) {
    throw std::runtime_error("the destination's reason");
  }
}

void TestDestination::Stop() { Journal::Add("Destination.Stop"); }

TestSource::TestSource(std::string name, bool throws) : m_name(std::move(name)), m_throws(throws) {
  Journal::CountAlive(1);
}

TestSource::~TestSource() {
  Stop();
  Journal::CountAlive(-1);
}

void TestSource::Start(OrloStream::Stream& stream) {
  Journal::Add(m_name + ".Start");
  if (m_throws) {
    throw WindowsAgentCommon::InitializationException("the file", "the function", 34,
                                                      "the source's reason");
  }
  Journal::CountRunning(1);
  m_stop = false;
  m_thread = std::thread([this, &stream] {
    do {
      stream.Post(TestSupport::MakeEvent("head", "from " + m_name));
    } while (!m_stop);
    Journal::CountRunning(-1);
  });
}

void TestSource::Stop() {
  if (!m_thread.joinable()) {
    return;
  }
  m_stop = true;
  m_thread.join();
  Journal::Add(m_name + ".Stop");
}

OrloStream::StageDefinition Stage(const std::string& moduleName,
                                  WindowsAgentCommon::EnvironmentBlock settings) {
  return {moduleName, std::move(settings)};
}

OrloStream::StreamDefinition Definition(const std::wstring& name,
                                        std::vector<OrloStream::StageDefinition> stages) {
  OrloStream::StreamDefinition definition;
  definition.name = name;
  definition.stages = std::move(stages);
  definition.destination = std::make_unique<TestDestination>();
  return definition;
}

StreamManagerFixture::StreamManagerFixture()
    : m_statistics(std::make_shared<WindowsAgentCommon::StatisticsServer>()),
      m_registration(std::make_unique<WindowsAgentCommon::ServiceRegistration>(
          WindowsAgentCommon::IStatisticsServer::GetServiceName(), m_statistics)),
      m_manager(std::make_unique<OrloStream::StreamManager>(ORLO_TEST_MODULES)) {
  Journal::Clear();
}

StreamManagerFixture::~StreamManagerFixture() {
  m_manager.reset();
  EXPECT_EQ(Journal::GetAlive(), 0);
  EXPECT_EQ(Journal::GetRunning(), 0);
  EXPECT_TRUE(m_allocators.NothingAlive());
}

std::string StreamManagerFixture::CreationFailure(OrloStream::StreamDefinition definition) {
  try {
    m_manager->Create(std::move(definition));
  } catch (const WindowsAgentCommon::InitializationException& error) {
    return error.what();
  }
  return {};
}

Entries StreamManagerFixture::VisibleGroups() const {
  Entries groups;
  for (const WindowsAgentCommon::StatisticsGroupSnapshot& group : m_statistics->GetSnapshot()) {
    groups.push_back(group.name + "/" + group.instance);
  }
  return groups;
}

}  // namespace StreamParts
