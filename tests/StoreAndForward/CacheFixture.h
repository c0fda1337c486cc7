#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Platform/testing/TestClock.h"
#include "Platform/testing/TestFaults.h"
#include "StoreAndForward/EventCache.h"
#include "WindowsAgentCommon/Services.h"
#include "tests/support/CountingAllocators.h"
#include "tests/support/Events.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestDiskManager.h"

namespace OrloStoreAndForward {

// An event cache of the stream "Test" on a directory of its own, with a scripted disk manager, a
// clock that stands at 2016-03-07 14:05:07 UTC, and counted message blocks.
class CacheFixture : public testing::Test {
 protected:
  using Events = std::vector<ACE_Message_Block*>;
  static constexpr std::int64_t kStart = 1457359507;

  CacheFixture();
  ~CacheFixture() override;

  void SetTime(std::int64_t secondsSince1970);

  // A new cache object on the same directory, as after a restart.
  std::shared_ptr<EventCache> Open();

  // Pushes events with the payloads "<prefix>0", ...
  bool PushEvents(EventCache& cache, std::size_t count, const std::string& prefix);
  // The payloads of the oldest chunk; fails the test if there is no reading it.
  std::vector<std::string> FrontPayloads(EventCache& cache);

  // <data>/Events/Test/<relative>
  std::filesystem::path InCache(const std::string& relative) const;
  std::string FileBytes(const std::string& relative) const;
  void WriteFileBytes(const std::string& relative, const std::string& bytes) const;
  // Relative paths of everything below the cache directory, sorted.
  std::vector<std::string> Tree() const;

  TestSupport::TemporaryDirectory m_directory;
  TestSupport::CountingAllocators m_allocators;
  std::shared_ptr<TestSupport::TestDiskManager> m_disk;
  std::unique_ptr<WindowsAgentCommon::ServiceRegistration> m_diskRegistration;
};

}  // namespace OrloStoreAndForward
