#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Windows.h"
#include "Platform/testing/TestFaults.h"
#include "tests/Platform/PathStates.h"

namespace PlatformTest {
namespace {

using Platform::TestFaults::Fault;
using Platform::TestFaults::FileCall;

class FaultsTest : public testing::Test {
 protected:
  ~FaultsTest() override { Platform::TestFaults::Reset(); }

  HANDLE OpenFile() const {
    return CreateFileW(m_file.WidePath().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                       OPEN_EXISTING, 0, nullptr);
  }

  PathInState m_file{State::File};
  PathInState m_directory{State::Directory};
  PathInState m_missing{State::Missing};
};

TEST_F(FaultsTest, CallCanFailWithoutAnError) {
  Platform::TestFaults::FailNth(0, Platform::TestFaults::kFailsWithoutError);
  SetLastError(ERROR_ACCESS_DENIED);
  EXPECT_FALSE(CreateDirectoryW(m_missing.WidePath().c_str(), nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SUCCESS));
  EXPECT_TRUE(CreateDirectoryW(m_missing.WidePath().c_str(), nullptr));
}

TEST_F(FaultsTest, HookIsAskedOnceByEveryFileCallWithItsKind) {
  std::vector<FileCall> calls;
  Platform::TestFaults::SetHook([&](FileCall call) {
    calls.push_back(call);
    return Fault{};
  });
  char buffer[4] = {};
  DWORD count = 0;
  WIN32_FIND_DATAW data;
  const HANDLE file = OpenFile();
  EXPECT_TRUE(ReadFile(file, buffer, 1, &count, nullptr));
  EXPECT_TRUE(WriteFile(file, buffer, 1, &count, nullptr));
  EXPECT_TRUE(CloseHandle(file));
  const HANDLE listing = FindFirstFileW((m_directory.WidePath() + L"\\*").c_str(), &data);
  EXPECT_TRUE(FindNextFileW(listing, &data));
  EXPECT_TRUE(FindClose(listing));
  EXPECT_TRUE(CreateDirectoryW(m_missing.WidePath().c_str(), nullptr));
  EXPECT_TRUE(RemoveDirectoryW(m_missing.WidePath().c_str()));
  EXPECT_NE(GetFileAttributesW(m_file.WidePath().c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(_wunlink(m_file.WidePath().c_str()), 0);
  EXPECT_EQ(calls, (std::vector<FileCall>{FileCall::CreateFileW, FileCall::ReadFile,
                                          FileCall::WriteFile, FileCall::CloseHandle,
                                          FileCall::FindFirstFileW, FileCall::FindNextFileW,
                                          FileCall::CreateDirectoryW, FileCall::RemoveDirectoryW,
                                          FileCall::GetFileAttributesW, FileCall::Unlink}));
  EXPECT_EQ(Platform::TestFaults::CallCount(), calls.size());
}

TEST_F(FaultsTest, FaultIsWhatTheCallerSeesAndNothingHappens) {
  const HANDLE file = OpenFile();
  WIN32_FIND_DATAW data;
  const HANDLE listing = FindFirstFileW((m_directory.WidePath() + L"\\*").c_str(), &data);
  static constexpr DWORD kError = ERROR_IO_DEVICE;
  Platform::TestFaults::SetHook([](FileCall) { return Fault{kError, 0}; });
  char buffer[4] = {};
  DWORD count = kStale;
  const auto expectError = [] {
    EXPECT_EQ(GetLastError(), kError);
    SetLastError(kStale);
  };
  EXPECT_EQ(OpenFile(), INVALID_HANDLE_VALUE);
  expectError();
  EXPECT_FALSE(ReadFile(file, buffer, 4, &count, nullptr));
  expectError();
  EXPECT_EQ(count, 0u);
  EXPECT_FALSE(WriteFile(file, "XXXX", 4, &count, nullptr));
  expectError();
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(FindFirstFileW((m_directory.WidePath() + L"\\*").c_str(), &data), INVALID_HANDLE_VALUE);
  expectError();
  EXPECT_FALSE(FindNextFileW(listing, &data));
  expectError();
  EXPECT_FALSE(CreateDirectoryW(m_missing.WidePath().c_str(), nullptr));
  expectError();
  EXPECT_FALSE(RemoveDirectoryW(m_directory.WidePath().c_str()));
  expectError();
  EXPECT_EQ(GetFileAttributesW(m_file.WidePath().c_str()), INVALID_FILE_ATTRIBUTES);
  expectError();
  errno = 0;
  EXPECT_EQ(_wunlink(m_file.WidePath().c_str()), -1);
  EXPECT_EQ(errno, EIO);
  expectError();
  Platform::TestFaults::Reset();
  EXPECT_EQ(m_file.Content(), kContent);
  EXPECT_TRUE(std::filesystem::is_directory(m_directory.Path()));
  EXPECT_FALSE(std::filesystem::exists(m_missing.Path()));
  EXPECT_TRUE(CloseHandle(file));
  EXPECT_TRUE(FindClose(listing));
}

TEST_F(FaultsTest, FailedCloseStillReleasesTheHandle) {
  const HANDLE file = OpenFile();
  Platform::TestFaults::FailNth(0, ERROR_IO_DEVICE);
  EXPECT_FALSE(CloseHandle(file));
  EXPECT_EQ(GetLastError(), ERROR_IO_DEVICE);
  EXPECT_FALSE(CloseHandle(file));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

struct WriteCase {
  Fault fault;
  BOOL result;
  DWORD error;
  std::string written;
};

TEST_F(FaultsTest, WriteFaultsLimitTheBytesAndTheResult) {
  const WriteCase kCases[] = {
      {{}, TRUE, 0, "abcdef"},
      {{ERROR_DISK_FULL, 0}, FALSE, ERROR_DISK_FULL, ""},
      {{ERROR_DISK_FULL, 4}, FALSE, ERROR_DISK_FULL, "abcd"},
      {{ERROR_DISK_FULL, 100}, FALSE, ERROR_DISK_FULL, "abcdef"},
      {{ERROR_DISK_FULL, -1}, FALSE, ERROR_DISK_FULL, "abcdef"},
      {{0, 0}, TRUE, 0, ""},
      {{0, 4}, TRUE, 0, "abcd"},
      {{0, 100}, TRUE, 0, "abcdef"},
  };
  for (const WriteCase& testCase : kCases) {
    SCOPED_TRACE(testing::Message()
                 << "error " << testCase.fault.error << ", bytes " << testCase.fault.bytesBefore);
    const PathInState path(State::Missing);
    const HANDLE file =
        CreateFileW(path.WidePath().c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    Platform::TestFaults::SetHook([&](FileCall) { return testCase.fault; });
    DWORD count = kStale;
    SetLastError(kStale);
    EXPECT_EQ(WriteFile(file, "abcdef", 6, &count, nullptr), testCase.result);
    EXPECT_EQ(GetLastError(), testCase.error);
    Platform::TestFaults::Reset();
    EXPECT_EQ(count, testCase.written.size());
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_EQ(path.Content(), testCase.written);
  }
}

TEST_F(FaultsTest, OnlyTheNthCallFails) {
  Platform::TestFaults::FailNth(2, ERROR_ACCESS_DENIED);
  for (int call = 0; call < 5; ++call) {
    const DWORD attributes = GetFileAttributesW(m_file.WidePath().c_str());
    EXPECT_EQ(attributes == INVALID_FILE_ATTRIBUTES, call == 2) << "call " << call;
    EXPECT_EQ(GetLastError(), call == 2 ? ERROR_ACCESS_DENIED : ERROR_SUCCESS);
  }
  EXPECT_EQ(Platform::TestFaults::CallCount(), 5u);
}

TEST_F(FaultsTest, EmptyHookAndResetRemoveTheHookAndCountAnew) {
  for (const auto& remove : {std::function<void()>([] { Platform::TestFaults::SetHook({}); }),
                             std::function<void()>([] { Platform::TestFaults::Reset(); })}) {
    Platform::TestFaults::SetHook([](FileCall) { return Fault{ERROR_IO_DEVICE}; });
    EXPECT_EQ(GetFileAttributesW(L"\\"), INVALID_FILE_ATTRIBUTES);
    remove();
    EXPECT_EQ(Platform::TestFaults::CallCount(), 0u);
    EXPECT_EQ(GetFileAttributesW(L"\\"), FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(Platform::TestFaults::CallCount(), 1u);
  }
}

TEST_F(FaultsTest, HookIsCalledOnTheThreadThatMakesTheCall) {
  std::thread::id seen;
  Platform::TestFaults::SetHook([&](FileCall) {
    seen = std::this_thread::get_id();
    return Fault{};
  });
  std::thread::id caller;
  std::thread thread([&] {
    caller = std::this_thread::get_id();
    GetFileAttributesW(L"\\");
  });
  thread.join();
  EXPECT_EQ(seen, caller);
}

TEST_F(FaultsTest, HookMayItselfMakeFileCalls) {
  DWORD inner = 0;
  bool bInside = false;
  Platform::TestFaults::SetHook([&](FileCall) {
    if (!bInside) {
      bInside = true;
      inner = GetFileAttributesW(L"\\");
      bInside = false;
    }
    return Fault{};
  });
  EXPECT_EQ(GetFileAttributesW(m_file.WidePath().c_str()), FILE_ATTRIBUTE_NORMAL);
  EXPECT_EQ(inner, FILE_ATTRIBUTE_DIRECTORY);
}

}  // namespace
}  // namespace PlatformTest
