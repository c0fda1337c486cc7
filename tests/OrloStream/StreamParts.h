#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "OrloStream/StreamManager.h"
#include "WindowsAgentCommon/Statistics.h"
#include "tests/OrloStream/modules/Journal.h"
#include "tests/support/CountingAllocators.h"

namespace StreamParts {

using Entries = std::vector<std::string>;

// Answers every message with one result, and writes down what happens to it.
class TestDestination : public WindowsAgentCommon::OrloTask {
 public:
  explicit TestDestination(int result = 0, bool throws = false);
  ~TestDestination() override;

  int put(ACE_Message_Block* block, ACE_Time_Value* timeout) override;
  void Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) override;
  void Stop() override;

 private:
  const int m_result;
  const bool m_throws;
};

// Posts events from a thread of its own until it is stopped.
class TestSource : public OrloStream::IStreamSource {
 public:
  explicit TestSource(std::string name, bool throws = false);
  ~TestSource() override;

  void Start(OrloStream::Stream& stream) override;
  void Stop() override;

 private:
  const std::string m_name;
  const bool m_throws;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

OrloStream::StageDefinition Stage(const std::string& moduleName,
                                  WindowsAgentCommon::EnvironmentBlock settings = {});

// With a TestDestination.
OrloStream::StreamDefinition Definition(const std::wstring& name,
                                        std::vector<OrloStream::StageDefinition> stages);

// A manager over the test modules, a statistics service, and the check at the end that no task, no
// thread and no block is left.
class StreamManagerFixture : public testing::Test {
 protected:
  StreamManagerFixture();
  ~StreamManagerFixture() override;

  // The message of the InitializationException that Create throws; empty if it throws none.
  std::string CreationFailure(OrloStream::StreamDefinition definition);

  // "group name/instance" of every visible group.
  Entries VisibleGroups() const;

  TestSupport::CountingAllocators m_allocators;
  std::shared_ptr<WindowsAgentCommon::StatisticsServer> m_statistics;
  std::unique_ptr<WindowsAgentCommon::ServiceRegistration> m_registration;
  std::unique_ptr<OrloStream::StreamManager> m_manager;
};

}  // namespace StreamParts
