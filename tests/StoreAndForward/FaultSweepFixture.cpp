#include "tests/StoreAndForward/FaultSweepFixture.h"

#include <filesystem>
#include <sstream>

#include "Platform/Windows.h"
#include "tests/StoreAndForward/ProcessFigures.h"

namespace OrloStoreAndForward {

namespace {

using Platform::TestFaults::Fault;
using Platform::TestFaults::FileCall;

std::vector<std::uint32_t> ErrorsOf(FileCall call) {
  switch (call) {
    case FileCall::CreateFileW:
      return {ERROR_FILE_NOT_FOUND,      ERROR_PATH_NOT_FOUND, ERROR_ACCESS_DENIED,
              ERROR_TOO_MANY_OPEN_FILES, ERROR_DISK_FULL,      ERROR_SHARING_VIOLATION,
              ERROR_IO_DEVICE,           ERROR_WRITE_PROTECT};
    case FileCall::ReadFile:
      return {ERROR_IO_DEVICE, ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_MEMORY};
    case FileCall::WriteFile:
      return {ERROR_SUCCESS, ERROR_DISK_FULL, ERROR_IO_DEVICE, ERROR_ACCESS_DENIED};
    case FileCall::CloseHandle:
      return {ERROR_IO_DEVICE, ERROR_DISK_FULL, ERROR_INVALID_HANDLE};
    case FileCall::FindFirstFileW:
      return {ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_ACCESS_DENIED,
              ERROR_TOO_MANY_OPEN_FILES, ERROR_IO_DEVICE};
    case FileCall::FindNextFileW:
      return {ERROR_IO_DEVICE, ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_MEMORY};
    case FileCall::CreateDirectoryW:
      return {ERROR_PATH_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_DISK_FULL,
              ERROR_ALREADY_EXISTS, ERROR_WRITE_PROTECT, ERROR_IO_DEVICE};
    case FileCall::RemoveDirectoryW:
      return {ERROR_ACCESS_DENIED, ERROR_DIR_NOT_EMPTY, ERROR_SHARING_VIOLATION};
    case FileCall::GetFileAttributesW:
      return {ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_ACCESS_DENIED,
              ERROR_SHARING_VIOLATION, ERROR_IO_DEVICE};
    case FileCall::Unlink:
      return {ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION, ERROR_IO_DEVICE};
  }
  return {};
}

// Nothing, in and behind the count, in and behind a length, in and behind a block and an event, in
// the padding, just short of all, all.
std::vector<std::int64_t> WrittenOf(FileCall call) {
  return call == FileCall::WriteFile
             ? std::vector<std::int64_t>{0, 1, 4, 6, 8, 10, 12, 16, 17, 18, 20, 46, 100, 4095, -1}
             : std::vector<std::int64_t>{-1};
}

}  // namespace

void FaultSweepFixture::Sweep(const Attempt& attempt) {
  Try(attempt, std::nullopt);
  const std::vector<FileCall> calls = m_calls;
  ASSERT_FALSE(calls.empty());
  for (std::size_t position = 0; position < calls.size(); ++position) {
    const FileCall call = calls[position];
    for (const std::uint32_t error : ErrorsOf(call)) {
      for (const std::int64_t written : WrittenOf(call)) {
        Try(attempt, Failure{position, call, error, written, false});
        if (error != ERROR_SUCCESS) {
          Try(attempt, Failure{position, call, error, written, true});
        }
      }
    }
  }
  Try(attempt, std::nullopt);
}

void FaultSweepFixture::Try(const Attempt& attempt, std::optional<Failure> failure) {
  std::ostringstream trace;
  if (failure) {
    trace << "call " << failure->position << " of kind " << static_cast<int>(failure->call)
          << (failure->bAndAllAfter ? " and all after it fail" : " fails") << " with error "
          << failure->error << ", written " << failure->written;
  }
  SCOPED_TRACE(trace.str());
  std::filesystem::remove_all(m_directory.Path() / "Events");
  m_diskRegistration.reset();
  m_disk = std::make_shared<TestSupport::TestDiskManager>(m_directory.WidePath());
  m_diskRegistration = std::make_unique<WindowsAgentCommon::ServiceRegistration>(
      WindowsAgentCommon::IDiskManager::GetServiceName(), m_disk);
  SetTime(kStart);
  m_failure = failure;
  attempt();
  EXPECT_TRUE(m_allocators.NothingAlive());
}

void FaultSweepFixture::Meanwhile(const std::function<void()>& operation) {
  m_calls.clear();
  bool reached = false;
  const std::size_t descriptors = CountDescriptors();
  Platform::TestFaults::SetHook([&](FileCall call) -> Fault {
    const std::size_t position = m_calls.size();
    m_calls.push_back(call);
    if (!m_failure || position < m_failure->position ||
        (position > m_failure->position && !m_failure->bAndAllAfter)) {
      return {};
    }
    reached = true;
    return {m_failure->error, m_failure->written};
  });
  operation();
  Platform::TestFaults::Reset();
  EXPECT_EQ(CountDescriptors(), descriptors);
  EXPECT_EQ(reached, m_failure.has_value());
}

FaultSweepFixture::Strings FaultSweepFixture::Take(EventCache& cache) {
  Strings payloads = FrontPayloads(cache);
  cache.Pop();
  return payloads;
}

void FaultSweepFixture::ExpectToWork(EventCache& cache) {
  SetTime(kStart + 1);
  EXPECT_TRUE(PushEvents(cache, 2, "after "));
  EXPECT_FALSE(cache.Empty());
  EXPECT_EQ(Take(cache), (Strings{"after 0", "after 1"}));
  EXPECT_TRUE(cache.Empty());
}

std::uint64_t FaultSweepFixture::Reserved() const {
  std::uint64_t bytes = 0;
  for (const auto& call : m_disk->Reserved()) {
    EXPECT_EQ(call.first, 0u);
    bytes += call.bytes;
  }
  return bytes;
}

std::uint64_t FaultSweepFixture::Released() const {
  std::uint64_t bytes = 0;
  for (const auto& call : m_disk->Released()) {
    EXPECT_EQ(call.first, 0u);
    bytes += call.bytes;
  }
  return bytes;
}

}  // namespace OrloStoreAndForward
