#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include "Platform/Windows.h"
#include "Platform/posix/Paths.h"
#include "tests/Platform/PathStates.h"

namespace PlatformTest {
namespace {

HANDLE OpenForReading(const std::wstring& path) {
  return CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0,
                     nullptr);
}

HANDLE OpenForWriting(const std::wstring& path) {
  return CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS, 0, nullptr);
}

TEST(ReadWriteTest, WhatWasWrittenIsReadBackPieceByPieceUntilTheEnd) {
  const PathInState path(State::Missing);
  const HANDLE writer = OpenForWriting(path.WidePath());
  ASSERT_NE(writer, INVALID_HANDLE_VALUE);
  DWORD count = kStale;
  const char data[] = {'a', '\0', 'b', '\n', 'c'};
  EXPECT_TRUE(WriteFile(writer, data, 2, &count, nullptr));
  EXPECT_EQ(count, 2u);
  EXPECT_TRUE(WriteFile(writer, data + 2, 3, &count, nullptr));
  EXPECT_EQ(count, 3u);
  EXPECT_TRUE(CloseHandle(writer));

  const HANDLE reader = OpenForReading(path.WidePath());
  char buffer[8] = {};
  EXPECT_TRUE(ReadFile(reader, buffer, 3, &count, nullptr));
  EXPECT_EQ(std::string(buffer, count), std::string("a\0b", 3));
  EXPECT_TRUE(ReadFile(reader, buffer, 8, &count, nullptr));
  EXPECT_EQ(std::string(buffer, count), "\nc");
  SetLastError(kStale);
  EXPECT_TRUE(ReadFile(reader, buffer, 8, &count, nullptr));
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
  EXPECT_TRUE(CloseHandle(reader));
}

TEST(ReadWriteTest, EmptyTransfersSucceedWithoutABuffer) {
  const PathInState path(State::File);
  DWORD count = kStale;
  const HANDLE reader = OpenForReading(path.WidePath());
  EXPECT_TRUE(ReadFile(reader, nullptr, 0, &count, nullptr));
  EXPECT_EQ(count, 0u);
  EXPECT_TRUE(CloseHandle(reader));
  count = kStale;
  const HANDLE writer = OpenForWriting(path.WidePath());
  EXPECT_TRUE(WriteFile(writer, nullptr, 0, &count, nullptr));
  EXPECT_EQ(count, 0u);
  EXPECT_TRUE(CloseHandle(writer));
}

TEST(ReadWriteTest, BadArgumentsAreRefused) {
  const PathInState path(State::File);
  const HANDLE file = CreateFileW(path.WidePath().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                  OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  char buffer[4] = {};
  DWORD count = kStale;
  const auto overlapped = reinterpret_cast<LPOVERLAPPED>(buffer);
  EXPECT_FALSE(ReadFile(file, buffer, 4, &count, overlapped));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(WriteFile(file, buffer, 4, &count, overlapped));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(ReadFile(file, buffer, 4, nullptr, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(WriteFile(file, buffer, 4, nullptr, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(ReadFile(file, nullptr, 4, &count, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_NOACCESS);
  EXPECT_FALSE(WriteFile(file, nullptr, 4, &count, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_USER_BUFFER);
  EXPECT_TRUE(CloseHandle(file));
  EXPECT_EQ(path.Content(), kContent);
}

TEST(ReadWriteTest, FullDeviceGivesDiskFullAndNoBytes) {
  const HANDLE file = OpenForWriting(L"\\dev\\full");
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  DWORD count = kStale;
  EXPECT_FALSE(WriteFile(file, "abc", 3, &count, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
  EXPECT_EQ(count, 0u);
  EXPECT_TRUE(CloseHandle(file));
}

TEST(ReadWriteTest, WriteThatMeetsTheSizeLimitReportsTheBytesWrittenBefore) {
  const PathInState path(State::Missing);
  const HANDLE file = OpenForWriting(path.WidePath());
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  rlimit previous;
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &previous), 0);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{100, previous.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  const std::string data(250, 'x');
  DWORD count = kStale;
  const BOOL written = WriteFile(file, data.data(), 250, &count, nullptr);
  const DWORD error = GetLastError();
  ::setrlimit(RLIMIT_FSIZE, &previous);
  std::signal(SIGXFSZ, handler);
  EXPECT_FALSE(written);
  EXPECT_EQ(error, ERROR_FILE_TOO_LARGE);
  EXPECT_EQ(count, 100u);
  EXPECT_TRUE(CloseHandle(file));
  EXPECT_EQ(path.Content().size(), 100u);
}

// A terminal hands out its input line by line, so one ReadFile needs several reads.
class Terminal {
 public:
  Terminal() : m_master(::posix_openpt(O_RDWR | O_NOCTTY)) {
    char name[64] = {};
    if (m_master >= 0 && ::grantpt(m_master) == 0 && ::unlockpt(m_master) == 0 &&
        ::ptsname_r(m_master, name, sizeof name) == 0) {
      m_path = Platform::FromNativeName(name);
    }
  }
  ~Terminal() { ::close(m_master); }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  const std::wstring& Path() const { return m_path; }
  bool Type(const std::string& text) const {
    return ::write(m_master, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }

 private:
  int m_master;
  std::wstring m_path;
};

TEST(ReadWriteTest, ShortReadsAreContinuedUntilTheCountIsReached) {
  const Terminal terminal;
  const HANDLE file = OpenForReading(terminal.Path());
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  ASSERT_TRUE(terminal.Type("ab\ncd\nef\n"));
  char buffer[6] = {};
  DWORD count = 0;
  EXPECT_TRUE(ReadFile(file, buffer, 6, &count, nullptr));
  EXPECT_EQ(std::string(buffer, count), "ab\ncd\n");
  EXPECT_TRUE(CloseHandle(file));
}

std::atomic<int> signalsSeen{0};

TEST(ReadWriteTest, InterruptedReadIsRepeated) {
  const Terminal terminal;
  const HANDLE file = OpenForReading(terminal.Path());
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  struct sigaction action {};
  action.sa_handler = [](int) { ++signalsSeen; };  // without SA_RESTART
  struct sigaction previous {};
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
  char buffer[3] = {};
  DWORD count = 0;
  BOOL result = FALSE;
  std::thread reader([&] { result = ReadFile(file, buffer, 3, &count, nullptr); });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  // One signal may hit before the read begins, a hundred with pauses between them can't all.
  for (int sent = 0; sent < 100 && std::chrono::steady_clock::now() < deadline; ++sent) {
    const int seen = signalsSeen;
    ::pthread_kill(reader.native_handle(), SIGUSR1);
    while (signalsSeen == seen && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }
  ASSERT_TRUE(terminal.Type("ab\n"));
  reader.join();
  ::sigaction(SIGUSR1, &previous, nullptr);
  EXPECT_EQ(signalsSeen, 100);
  EXPECT_TRUE(result);
  EXPECT_EQ(std::string(buffer, count), "ab\n");
  EXPECT_TRUE(CloseHandle(file));
}

}  // namespace
}  // namespace PlatformTest
