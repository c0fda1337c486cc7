#include "WindowsAgentCommon/DiskManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <limits>
#include <thread>
#include <vector>

#include "Platform/Windows.h"
#include "Platform/testing/TestFaults.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "tests/support/TemporaryDirectory.h"

namespace WindowsAgentCommon {
namespace {

namespace TestFaults = Platform::TestFaults;
using testing::HasSubstr;

constexpr std::uint64_t kEverything = std::numeric_limits<std::uint64_t>::max();

class DiskManagerTest : public testing::Test {
 protected:
  ~DiskManagerTest() override { TestFaults::Reset(); }

  DiskManagerOptions Options(std::uint64_t quota = 0, std::uint64_t keepFree = 0) {
    return {m_directory.WidePath(), quota, keepFree};
  }
  void MakeFile(const std::string& name, std::size_t size) {
    const std::filesystem::path path = m_directory.Path() / name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << std::string(size, 'x');
  }
  std::uint64_t Available() { return std::filesystem::space(m_directory.Path()).available; }

  // The message of the exception that the constructor throws; empty if it throws none.
  static std::string FailureOf(const DiskManagerOptions& options) {
    try {
      const DiskManager manager(options);
    } catch (const InitializationException& error) {
      return error.what();
    }
    return {};
  }

  TestSupport::TemporaryDirectory m_directory;
};

TEST_F(DiskManagerTest, AnEmptyDirectoryUsesNothing) {
  const DiskManager manager(Options());
  EXPECT_EQ(manager.GetUsedSpace(), 0u);
  EXPECT_TRUE(std::filesystem::is_empty(m_directory.Path()));
}

TEST_F(DiskManagerTest, WhatLiesBelowTheDirectoryCountsAsUsed) {
  MakeFile("a", 10);
  MakeFile("deep/er/b", 200);
  MakeFile("deep/c", 3000);
  MakeFile("deep/\xff not UTF-8", 40000);
  const DiskManager manager(Options());
  EXPECT_EQ(manager.GetUsedSpace(), 43210u);
}

TEST_F(DiskManagerTest, SymbolicLinksAreNotFollowed) {
  TestSupport::TemporaryDirectory elsewhere;
  std::ofstream(elsewhere.Path() / "big") << std::string(1000, 'x');
  std::filesystem::create_directory_symlink(elsewhere.Path(), m_directory.Path() / "link");
  std::filesystem::create_directory_symlink(m_directory.Path(), m_directory.Path() / "loop");
  std::filesystem::create_symlink(elsewhere.Path() / "big", m_directory.Path() / "file");
  const DiskManager manager(Options());
  EXPECT_EQ(manager.GetUsedSpace(), 0u);
}

TEST_F(DiskManagerTest, TheDataDirectoryEndsWithASeparator) {
  std::wstring path = m_directory.WidePath();
  EXPECT_EQ(DiskManager({path, 0, 0}).GetDataDirectory(), path);
  path.pop_back();
  EXPECT_EQ(DiskManager({path, 0, 0}).GetDataDirectory(), path + L"\\");
  EXPECT_EQ(DiskManager({path + L"/", 0, 0}).GetDataDirectory(), path + L"/");
}

TEST_F(DiskManagerTest, TheDirectoryIsMadeWithItsParents) {
  const DiskManager manager({m_directory.WidePath() + L"a\\b", 0, 0});
  EXPECT_TRUE(std::filesystem::is_directory(m_directory.Path() / "a/b"));
}

TEST_F(DiskManagerTest, ADirectoryThatCannotBeMadeIsNamedWithTheReason) {
  MakeFile("file", 1);
  const std::string message = FailureOf({m_directory.WidePath() + L"file\\data", 0, 0});
  EXPECT_THAT(message, HasSubstr("file\\data"));
  EXPECT_THAT(message, HasSubstr("error 3"));
}

TEST_F(DiskManagerTest, AnEmptyDirectoryNameIsRefused) {
  EXPECT_THAT(FailureOf({L"", 0, 0}), HasSubstr("can't be made"));
}

TEST_F(DiskManagerTest, ADirectoryThatCannotBeWrittenToIsNamedWithTheReason) {
  TestFaults::SetHook([](TestFaults::FileCall call) {
    return TestFaults::Fault{call == TestFaults::FileCall::CreateFileW ? ERROR_WRITE_PROTECT : 0u,
                             -1};
  });
  const std::string message = FailureOf(Options());
  EXPECT_THAT(message, HasSubstr(m_directory.Path().filename().string()));
  EXPECT_THAT(message, HasSubstr("can't be written to"));
  EXPECT_THAT(message, HasSubstr("error 19"));
}

TEST_F(DiskManagerTest, ADirectoryWhereNothingCanBeDeletedIsRefused) {
  TestFaults::SetHook([](TestFaults::FileCall call) {
    return TestFaults::Fault{call == TestFaults::FileCall::Unlink ? ERROR_ACCESS_DENIED : 0u, -1};
  });
  EXPECT_THAT(FailureOf(Options()), HasSubstr("does not let files be deleted"));
}

TEST_F(DiskManagerTest, ReservationsStopAtTheQuota) {
  DiskManager manager(Options(100));
  EXPECT_EQ(manager.GetQuota(), 100u);
  EXPECT_TRUE(manager.ReserveSpace(0, 60));
  EXPECT_FALSE(manager.ReserveSpace(0, 41));
  EXPECT_EQ(manager.GetUsedSpace(), 60u);
  EXPECT_TRUE(manager.ReserveSpace(0, 40));
  EXPECT_FALSE(manager.ReserveSpace(0, 1));
  EXPECT_TRUE(manager.ReserveSpace(0, 0));
  EXPECT_EQ(manager.GetUsedSpace(), 100u);
}

TEST_F(DiskManagerTest, WhatWasThereBeforeCountsAgainstTheQuota) {
  MakeFile("old", 70);
  DiskManager manager(Options(100));
  EXPECT_FALSE(manager.ReserveSpace(0, 31));
  EXPECT_TRUE(manager.ReserveSpace(0, 30));
}

TEST_F(DiskManagerTest, MoreThanTheQuotaFromBeforeRefusesEverything) {
  MakeFile("old", 200);
  DiskManager manager(Options(100));
  EXPECT_FALSE(manager.ReserveSpace(0, 0));
  EXPECT_FALSE(manager.ReserveSpace(0, 1));
  manager.ReleaseSpace(0, 101);
  EXPECT_TRUE(manager.ReserveSpace(0, 1));
}

TEST_F(DiskManagerTest, ReleasedSpaceCanBeReservedAgain) {
  DiskManager manager(Options(100));
  EXPECT_TRUE(manager.ReserveSpace(0, 100));
  manager.ReleaseSpace(0, 30);
  EXPECT_FALSE(manager.ReserveSpace(0, 31));
  EXPECT_TRUE(manager.ReserveSpace(0, 30));
}

TEST_F(DiskManagerTest, ReleasingMoreThanIsUsedStopsAtZero) {
  DiskManager manager(Options(100));
  EXPECT_TRUE(manager.ReserveSpace(0, 10));
  manager.ReleaseSpace(0, 11);
  EXPECT_EQ(manager.GetUsedSpace(), 0u);
  manager.ReleaseSpace(0, kEverything);
  EXPECT_EQ(manager.GetUsedSpace(), 0u);
  EXPECT_FALSE(manager.ReserveSpace(0, 101));
  EXPECT_TRUE(manager.ReserveSpace(0, 100));
}

TEST_F(DiskManagerTest, NewLimitsHoldForTheNextReservations) {
  DiskManager manager(Options(100));
  EXPECT_TRUE(manager.ReserveSpace(0, 80));
  manager.SetLimits(50, 0);
  EXPECT_EQ(manager.GetQuota(), 50u);
  EXPECT_FALSE(manager.ReserveSpace(0, 1));
  manager.SetLimits(0, 0);
  EXPECT_TRUE(manager.ReserveSpace(0, 1000));
  manager.SetLimits(0, kEverything);
  EXPECT_FALSE(manager.ReserveSpace(0, 1));
}

TEST_F(DiskManagerTest, WithoutLimitsOnlyTheCountersEndRefuses) {
  DiskManager manager(Options());
  EXPECT_TRUE(manager.ReserveSpace(0, kEverything - 1));
  EXPECT_FALSE(manager.ReserveSpace(0, 2));
  EXPECT_TRUE(manager.ReserveSpace(0, 1));
  EXPECT_EQ(manager.GetUsedSpace(), kEverything);
}

TEST_F(DiskManagerTest, WhatMustStayFreeIsNotReserved) {
  DiskManager nothingLeft(Options(0, kEverything));
  EXPECT_FALSE(nothingLeft.ReserveSpace(0, 1));
  EXPECT_EQ(nothingLeft.GetUsedSpace(), 0u);

  // Others use the file system meanwhile: half of it is a wide enough margin.
  DiskManager halfLeft(Options(0, Available() / 2));
  EXPECT_TRUE(halfLeft.ReserveSpace(0, 1));
  EXPECT_FALSE(halfLeft.ReserveSpace(0, Available()));
  EXPECT_FALSE(halfLeft.ReserveSpace(0, kEverything));
}

TEST_F(DiskManagerTest, WhereFreeSpaceCannotBeAskedOnlyTheQuotaCounts) {
  DiskManager manager(Options(100, kEverything));
  EXPECT_FALSE(manager.ReserveSpace(0, 1));
  std::filesystem::remove_all(m_directory.Path());
  EXPECT_TRUE(manager.ReserveSpace(0, 100));
  EXPECT_FALSE(manager.ReserveSpace(0, 1));
}

TEST_F(DiskManagerTest, ThreadsNeverReserveMoreThanTheQuotaTogether) {
  DiskManager manager(Options(1000));
  std::atomic<std::uint64_t> held{0};
  std::atomic<bool> exceeded{false};
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&] {
      for (int round = 0; round < 5000; ++round) {
        if (manager.ReserveSpace(0, 300)) {
          exceeded = exceeded || held.fetch_add(300) + 300 > 1000;
          held -= 300;
          manager.ReleaseSpace(0, 300);
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_FALSE(exceeded);
  EXPECT_EQ(manager.GetUsedSpace(), 0u);
}

TEST_F(DiskManagerTest, IsFoundAsAService) {
  const auto manager = std::make_shared<DiskManager>(Options());
  const ServiceRegistration registration(IDiskManager::GetServiceName(), manager);
  EXPECT_EQ(dynamic_cast<IDiskManager*>(_getService(IDiskManager::GetServiceName())),
            manager.get());
}

}  // namespace
}  // namespace WindowsAgentCommon
