#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fcntl.h>
#include <unistd.h>

#include <set>

#include "Platform/Windows.h"
#include "tests/Platform/PathStates.h"

namespace PlatformTest {
namespace {

namespace fs = std::filesystem;

struct Outcome {
  bool bOpens;
  DWORD error;
};

constexpr DWORD kDispositions[] = {CREATE_NEW, CREATE_ALWAYS, OPEN_EXISTING, OPEN_ALWAYS,
                                   TRUNCATE_EXISTING};
constexpr DWORD kAccesses[] = {GENERIC_READ, GENERIC_WRITE, GENERIC_READ | GENERIC_WRITE};

// What Windows answers, row by row: CREATE_NEW to TRUNCATE_EXISTING, in the order of kStates.
// Where write access makes a difference, the second table holds.
constexpr Outcome kReading[][6] = {
    {{true, 0}, {false, 80}, {false, 80}, {false, 80}, {false, 3}, {false, 3}},
    {{true, 0}, {true, 183}, {false, 5}, {false, 5}, {false, 3}, {false, 3}},
    {{false, 2}, {true, 0}, {true, 0}, {false, 5}, {false, 3}, {false, 3}},
    {{true, 0}, {true, 183}, {true, 183}, {false, 5}, {false, 3}, {false, 3}},
    {{false, 87}, {false, 87}, {false, 87}, {false, 87}, {false, 87}, {false, 87}},
};
constexpr Outcome kWriting[][6] = {
    {{true, 0}, {false, 80}, {false, 80}, {false, 80}, {false, 3}, {false, 3}},
    {{true, 0}, {true, 183}, {false, 5}, {false, 5}, {false, 3}, {false, 3}},
    {{false, 2}, {true, 0}, {false, 5}, {false, 5}, {false, 3}, {false, 3}},
    {{true, 0}, {true, 183}, {false, 5}, {false, 5}, {false, 3}, {false, 3}},
    {{false, 2}, {true, 0}, {false, 5}, {false, 5}, {false, 3}, {false, 3}},
};

bool Empties(DWORD disposition) {
  return disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING;
}

// One cell of the walk: the result, the last error, what the handle can do, what became of the
// file.
void CheckCell(DWORD disposition, DWORD access, State state, DWORD flags) {
  const PathInState path(state);
  const bool bWrites = (access & GENERIC_WRITE) != 0;
  const Outcome expected =
      (bWrites ? kWriting : kReading)[disposition - 1][static_cast<int>(state)];
  SetLastError(kStale);
  const HANDLE file = CreateFileW(path.WidePath().c_str(), access, FILE_SHARE_READ, nullptr,
                                  disposition, flags, nullptr);
  EXPECT_EQ(GetLastError(), expected.error);
  ASSERT_EQ(file != INVALID_HANDLE_VALUE, expected.bOpens);
  if (!expected.bOpens) {
    if (state == State::File || state == State::ReadOnlyFile) {
      EXPECT_EQ(path.Content(), kContent) << "a refused call must leave the file alone";
    } else if (state == State::Missing) {
      EXPECT_FALSE(fs::exists(path.Path()));
    }
    return;
  }
  const bool bKeepsContent = state != State::Missing && !Empties(disposition);
  EXPECT_EQ(path.Content(), bKeepsContent ? kContent : "");
  struct stat status;
  ASSERT_EQ(::stat(path.Path().c_str(), &status), 0);
  const bool bReadOnly = state == State::ReadOnlyFile ||
                         (state == State::Missing && (flags & FILE_ATTRIBUTE_READONLY) != 0);
  EXPECT_EQ((status.st_mode & 0222) == 0, bReadOnly);

  DWORD count = kStale;
  EXPECT_EQ(WriteFile(file, "abc", 3, &count, nullptr), bWrites ? TRUE : FALSE);
  EXPECT_EQ(GetLastError(), bWrites ? ERROR_SUCCESS : ERROR_ACCESS_DENIED);
  EXPECT_EQ(count, bWrites ? 3u : 0u);
  char buffer[16];
  const bool bReads = (access & GENERIC_READ) != 0;
  EXPECT_EQ(ReadFile(file, buffer, sizeof buffer, &count, nullptr), bReads ? TRUE : FALSE);
  EXPECT_EQ(GetLastError(), bReads ? ERROR_SUCCESS : ERROR_ACCESS_DENIED);
  EXPECT_TRUE(CloseHandle(file));
}

TEST(CreateFileTest, EveryDispositionAccessFlagAndStateAnswersAsOnWindows) {
  constexpr DWORD kFlags[] = {0,
                              FILE_ATTRIBUTE_NORMAL,
                              FILE_ATTRIBUTE_READONLY,
                              FILE_FLAG_SEQUENTIAL_SCAN,
                              FILE_FLAG_SEQUENTIAL_SCAN | FILE_ATTRIBUTE_READONLY,
                              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN};
  for (const DWORD disposition : kDispositions) {
    for (const DWORD access : kAccesses) {
      for (const State state : kStates) {
        for (const DWORD flags : kFlags) {
          SCOPED_TRACE(testing::Message() << "disposition " << disposition << " access " << access
                                          << " flags " << flags << ", " << state);
          CheckCell(disposition, access, state, flags);
        }
      }
    }
  }
}

TEST(CreateFileTest, EveryUnsupportedFlagIsRefusedAndNothingIsCreated) {
  const PathInState path(State::Missing);
  constexpr DWORD kSupported =
      FILE_ATTRIBUTE_NORMAL | FILE_ATTRIBUTE_READONLY | FILE_FLAG_SEQUENTIAL_SCAN;
  for (int bit = 0; bit < 32; ++bit) {
    const DWORD flag = 1u << bit;
    if ((flag & kSupported) != 0) {
      continue;
    }
    SetLastError(kStale);
    EXPECT_EQ(CreateFileW(path.WidePath().c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, flag,
                          nullptr),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER) << "flag " << flag;
  }
  EXPECT_FALSE(fs::exists(path.Path()));
}

TEST(CreateFileTest, EveryUnsupportedAccessRightIsRefused) {
  const PathInState path(State::File);
  for (int bit = 0; bit < 30; ++bit) {
    SetLastError(kStale);
    EXPECT_EQ(CreateFileW(path.WidePath().c_str(), GENERIC_READ | (1u << bit), 0, nullptr,
                          OPEN_EXISTING, 0, nullptr),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER) << "bit " << bit;
  }
}

TEST(CreateFileTest, AccessOfZeroIsRefused) {
  const PathInState path(State::File);
  EXPECT_EQ(CreateFileW(path.WidePath().c_str(), 0, 0, nullptr, OPEN_EXISTING, 0, nullptr),
            INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(CreateFileTest, UnknownDispositionsAreRefused) {
  const PathInState path(State::File);
  for (const DWORD disposition : {0u, 6u, 0xFFFFFFFFu}) {
    EXPECT_EQ(
        CreateFileW(path.WidePath().c_str(), GENERIC_READ, 0, nullptr, disposition, 0, nullptr),
        INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  }
}

TEST(CreateFileTest, SecurityAttributesAndTemplateAreRefused) {
  const PathInState path(State::File);
  SECURITY_ATTRIBUTES security{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  EXPECT_EQ(
      CreateFileW(path.WidePath().c_str(), GENERIC_READ, 0, &security, OPEN_EXISTING, 0, nullptr),
      INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  const HANDLE templateFile =
      CreateFileW(path.WidePath().c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(templateFile, INVALID_HANDLE_VALUE);
  EXPECT_EQ(CreateFileW(path.WidePath().c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0,
                        templateFile),
            INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_TRUE(CloseHandle(templateFile));
}

TEST(CreateFileTest, KnownShareModesAreAcceptedAndOthersRefused) {
  const PathInState path(State::File);
  for (int bit = 0; bit < 32; ++bit) {
    const DWORD share = 1u << bit;
    const HANDLE file = CreateFileW(path.WidePath().c_str(), GENERIC_READ, share, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(file != INVALID_HANDLE_VALUE, bit < 3) << "bit " << bit;
    EXPECT_EQ(GetLastError(), bit < 3 ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER);
    if (file != INVALID_HANDLE_VALUE) {
      EXPECT_TRUE(CloseHandle(file));
    }
  }
}

TEST(CreateFileTest, ShareModesAreNotEnforced) {
  const PathInState path(State::File);
  const HANDLE first = CreateFileW(path.WidePath().c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                                   nullptr, OPEN_EXISTING, 0, nullptr);
  const HANDLE second =
      CreateFileW(path.WidePath().c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  EXPECT_NE(first, INVALID_HANDLE_VALUE);
  EXPECT_NE(second, INVALID_HANDLE_VALUE);
  EXPECT_TRUE(CloseHandle(first));
  EXPECT_TRUE(CloseHandle(second));
}

TEST(CreateFileTest, ReadOnlyFlagDoesNotTouchAnExistingFile) {
  const PathInState path(State::File);
  const HANDLE file = CreateFileW(path.WidePath().c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                  FILE_ATTRIBUTE_READONLY, nullptr);
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  EXPECT_TRUE(CloseHandle(file));
  EXPECT_EQ(GetFileAttributesW(path.WidePath().c_str()), FILE_ATTRIBUTE_NORMAL);
}

TEST(CreateFileTest, FileIsNotInheritedByChildProcesses) {
  const PathInState path(State::File);
  std::set<int> before;
  for (int descriptor = 0; descriptor < 256; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) != -1) before.insert(descriptor);
  }
  const HANDLE file =
      CreateFileW(path.WidePath().c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  int opened = 0;
  for (int descriptor = 0; descriptor < 256; ++descriptor) {
    const int flags = ::fcntl(descriptor, F_GETFD);
    if (flags != -1 && !before.contains(descriptor)) {
      ++opened;
      EXPECT_NE(flags & FD_CLOEXEC, 0);
    }
  }
  EXPECT_EQ(opened, 1);
  EXPECT_TRUE(CloseHandle(file));
}

TEST(CreateFileTest, NamedPipeIsDeniedWithoutWaitingForItsOtherEnd) {
  const PathInState path(State::Missing);
  ASSERT_EQ(::mkfifo(path.Path().c_str(), 0600), 0);
  EXPECT_EQ(
      CreateFileW(path.WidePath().c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr),
      INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
}

TEST(CreateFileTest, LinkToNowhereIsNotFoundUnderEveryDisposition) {
  const PathInState path(State::Missing);
  fs::create_symlink("nowhere", path.Path());
  for (const DWORD disposition : {CREATE_ALWAYS, OPEN_EXISTING, OPEN_ALWAYS, TRUNCATE_EXISTING}) {
    EXPECT_EQ(
        CreateFileW(path.WidePath().c_str(), GENERIC_WRITE, 0, nullptr, disposition, 0, nullptr),
        INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND) << "disposition " << disposition;
  }
}

TEST(CreateFileTest, FileWithSeparatorBehindItIsAnInvalidName) {
  const PathInState path(State::File);
  EXPECT_EQ(CreateFileW((path.WidePath() + L"\\").c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                        0, nullptr),
            INVALID_HANDLE_VALUE);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_NAME);
}

TEST(CreateFileTest, NewFileWithSeparatorBehindItIsAnInvalidName) {
  const PathInState path(State::Missing);
  for (const DWORD disposition : {CREATE_NEW, CREATE_ALWAYS, OPEN_ALWAYS}) {
    EXPECT_EQ(CreateFileW((path.WidePath() + L"\\").c_str(), GENERIC_WRITE, 0, nullptr, disposition,
                          0, nullptr),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_NAME) << "disposition " << disposition;
  }
}

}  // namespace
}  // namespace PlatformTest
