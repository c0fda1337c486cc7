#include "tests/StoreAndForward/CacheFixture.h"

#include <algorithm>
#include <fstream>
#include <iterator>

namespace OrloStoreAndForward {

using TestSupport::TestDiskManager;
using WindowsAgentCommon::IDiskManager;

CacheFixture::CacheFixture()
    : m_disk(std::make_shared<TestDiskManager>(m_directory.WidePath())),
      m_diskRegistration(std::make_unique<WindowsAgentCommon::ServiceRegistration>(
          IDiskManager::GetServiceName(), m_disk)) {
  SetTime(kStart);
}

CacheFixture::~CacheFixture() {
  Platform::TestFaults::Reset();
  Platform::TestClock::Reset();
}

void CacheFixture::SetTime(std::int64_t secondsSince1970) {
  constexpr std::int64_t kSecondsFrom1601To1970 = 11644473600;
  Platform::TestClock::Set(static_cast<std::uint64_t>(secondsSince1970 + kSecondsFrom1601To1970) *
                           10'000'000);
}

std::shared_ptr<EventCache> CacheFixture::Open() {
  std::shared_ptr<EventCache> cache;
  EXPECT_EQ(CreateEventCache(L"Test", cache), 0u);
  return cache;
}

bool CacheFixture::PushEvents(EventCache& cache, std::size_t count, const std::string& prefix) {
  Events events = TestSupport::MakeEvents(count, prefix);
  const bool pushed = cache.Push(events);
  EXPECT_TRUE(!pushed || events.empty());
  TestSupport::ReleaseAll(events);
  return pushed;
}

std::vector<std::string> CacheFixture::FrontPayloads(EventCache& cache) {
  Events events;
  EXPECT_TRUE(cache.Front(events));
  std::vector<std::string> payloads = TestSupport::PayloadsOf(events);
  TestSupport::ReleaseAll(events);
  return payloads;
}

std::filesystem::path CacheFixture::InCache(const std::string& relative) const {
  return m_directory.Path() / "Events" / "Test" / relative;
}

std::string CacheFixture::FileBytes(const std::string& relative) const {
  std::ifstream file(InCache(relative), std::ios::binary);
  EXPECT_TRUE(file.is_open()) << relative;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

void CacheFixture::WriteFileBytes(const std::string& relative, const std::string& bytes) const {
  std::filesystem::create_directories(InCache(relative).parent_path());
  std::ofstream(InCache(relative), std::ios::binary) << bytes;
}

std::vector<std::string> CacheFixture::Tree() const {
  std::vector<std::string> paths;
  const std::filesystem::path root = InCache("");
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    paths.push_back(std::filesystem::relative(entry.path(), root).generic_string());
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace OrloStoreAndForward
