// What the tool does in a data directory that is another user's, who leads it elsewhere by links.
// Where root runs these tests, it works for that user; anybody else is that user.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <sstream>

#include "Agent/PathText.h"
#include "CacheTool/Commands.h"
#include "CacheTool/System.h"
#include "tests/CacheTool/CacheFiles.h"
#include "tests/support/TemporaryDirectory.h"

namespace OrloCacheTool {

namespace fs = std::filesystem;
using OrloAgent::ToText;

namespace {

// Nobody is called so.
constexpr uid_t kOther = 54321;
constexpr gid_t kOtherGroup = 54322;

struct stat Look(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

}  // namespace

class ForeignDirectoryTest : public testing::Test {
 protected:
  ForeignDirectoryTest()
      : m_data(m_directory.Path() / "data"),
        m_cache(m_data / "Events" / "Default"),
        m_minute(m_cache / "2016-03-07-14-05"),
        m_elsewhere(m_directory.Path() / "elsewhere"),
        m_own(m_directory.Path() / "own") {
    WriteFile(m_minute / "07", MakeChunkOf({"first"}));
    WriteFile(m_elsewhere / "07", "precious");
    WriteFile(m_own / "chunk", MakeChunkOf({"second"}));
    // Nobody takes it for a chunk that is still being written.
    fs::last_write_time(m_elsewhere / "07",
                        fs::file_time_type::clock::now() - std::chrono::hours(1));
    fs::permissions(m_directory.Path(), fs::perms(0755));
    fs::permissions(m_own, fs::perms(0700));
    fs::permissions(m_own / "chunk", fs::perms(0600));
    // Not even their owner, but root.
    fs::permissions(m_elsewhere, fs::perms(0555));
    fs::permissions(m_elsewhere / "07", fs::perms(0444));
  }

  ~ForeignDirectoryTest() override {
    std::error_code ignored;
    fs::permissions(m_elsewhere, fs::perms(0755), ignored);
  }

  // All of it, when the test has put there what it wants.
  void GiveAway() const {
    if (geteuid() != 0) {
      return;
    }
    ASSERT_EQ(lchown(m_data.c_str(), kOther, kOtherGroup), 0);
    for (const auto& entry : fs::recursive_directory_iterator(m_data)) {
      ASSERT_EQ(lchown(entry.path().c_str(), kOther, kOtherGroup), 0);
    }
  }

  void ReplaceByLink(const fs::path& path) const {
    fs::remove_all(path);
    fs::create_symlink(m_elsewhere, path);
  }

  ExitCode Requeue() {
    GiveAway();
    RequeueOptions options;
    options.place = ToText(m_data);
    options.stream = "Default";
    options.files = {ToText(m_own / "chunk")};
    options.removeFiles = true;
    return RunRequeue(options, m_out, m_messages);
  }

  ExitCode Quarantine() {
    GiveAway();
    QuarantineOptions options;
    options.place = ToText(m_data);
    options.stream = "Default";
    options.chunks = {"oldest"};
    options.force = true;
    return RunQuarantine(options, m_out, m_messages);
  }

  void ExpectElsewhereUntouched() const {
    EXPECT_EQ(ListTree(m_elsewhere), std::vector<std::string>{"07"});
    EXPECT_EQ(ReadFile(m_elsewhere / "07"), "precious");
  }

  void ExpectRefusalAsALink(const fs::path& path) {
    ReplaceByLink(path);
    EXPECT_THROW(Requeue(), ToolError);
    EXPECT_THROW(Quarantine(), ToolError);
    ExpectElsewhereUntouched();
  }

  TestSupport::TemporaryDirectory m_directory;
  const fs::path m_data;
  const fs::path m_cache;
  const fs::path m_minute;
  const fs::path m_elsewhere;
  // The caller's, which nobody else may read.
  const fs::path m_own;
  std::ostringstream m_out;
  std::ostringstream m_messages;
};

TEST_F(ForeignDirectoryTest, WhatIsMadeBelongsToTheOwnerAndTheFilesAreTheCallers) {
  EXPECT_EQ(Requeue(), kDone);
  EXPECT_EQ(ReadFile(m_minute / "07-000001"), MakeChunkOf({"second"}));
  EXPECT_FALSE(fs::exists(m_own / "chunk")) << "removed, with the caller's rights";
  EXPECT_EQ(Quarantine(), kDone);
  const struct stat wanted = Look(m_data);
  for (const auto& made : {m_data / "agent.lock", m_minute / "07-000001", m_cache / "quarantine.d",
                           m_cache / "quarantine.d" / "2016-03-07-14-05_07.txt"}) {
    EXPECT_EQ(Look(made).st_uid, wanted.st_uid) << made;
    EXPECT_EQ(Look(made).st_gid, wanted.st_gid) << made;
  }
}

TEST_F(ForeignDirectoryTest, TheCallersRightsComeBack) {
  GiveAway();
  const gid_t group = getegid();
  const int groups = getgroups(0, nullptr);
  const uid_t user = geteuid();
  {
    const OwnersRights rights({m_cache, m_data});
    EXPECT_EQ(geteuid(), Look(m_data).st_uid);
    EXPECT_EQ(getegid(), Look(m_data).st_gid);
    const OwnersRights more({m_cache, m_data});
  }
  EXPECT_EQ(geteuid(), user);
  EXPECT_EQ(getegid(), group);
  EXPECT_EQ(getgroups(0, nullptr), groups);
}

TEST_F(ForeignDirectoryTest, WhereTheDataDirectoryIsTheCallersTheCachesOwnerCounts) {
  GiveAway();
  ASSERT_EQ(lchown(m_data.c_str(), geteuid(), getegid()), 0);
  const OwnersRights rights({m_cache, m_data});
  EXPECT_EQ(geteuid(), Look(m_cache).st_uid);
}

TEST_F(ForeignDirectoryTest, ACacheThatItsOwnerCanNotReachIsLeftAlone) {
  const auto before = ListTree(m_data);
  fs::permissions(m_data, fs::perms(0));
  EXPECT_THROW(Requeue(), ToolError);
  fs::permissions(m_data, fs::perms(0755));
  EXPECT_EQ(ListTree(m_data), before);
}

TEST_F(ForeignDirectoryTest, ACacheThatIsALinkGetsNoChunks) { ExpectRefusalAsALink(m_cache); }

TEST_F(ForeignDirectoryTest, EventsThatAreALinkGetNoChunks) {
  fs::permissions(m_elsewhere, fs::perms(0755));
  fs::create_directory(m_elsewhere / "Default");
  fs::permissions(m_elsewhere / "Default", fs::perms(0555));
  fs::permissions(m_elsewhere, fs::perms(0555));
  ReplaceByLink(m_data / "Events");
  EXPECT_THROW(Requeue(), ToolError);
  EXPECT_EQ(ListTree(m_elsewhere), (std::vector<std::string>{"07", "Default"}));
}

TEST_F(ForeignDirectoryTest, AMinuteThatIsALinkGetsAndLosesNoChunks) {
  ExpectRefusalAsALink(m_minute);
}

TEST_F(ForeignDirectoryTest, AQuarantineThatIsALinkGetsNoChunks) {
  ReplaceByLink(m_cache / "quarantine.d");
  EXPECT_THROW(Quarantine(), ToolError);
  ExpectElsewhereUntouched();
  EXPECT_TRUE(fs::exists(m_minute / "07"));
}

TEST_F(ForeignDirectoryTest, ALockIsNotMadeThroughALink) {
  fs::create_symlink(m_elsewhere / "new", m_data / "agent.lock");
  EXPECT_THROW(Requeue(), ToolError);
  ExpectElsewhereUntouched();
}

TEST_F(ForeignDirectoryTest, ALinkUnderTheNameOfANewChunkIsNotFollowed) {
  fs::create_symlink(m_elsewhere / "07", m_minute / "07-000001.new");
  EXPECT_EQ(Requeue(), kDone);
  ExpectElsewhereUntouched();
  EXPECT_EQ(ReadFile(m_minute / "07-000001"), MakeChunkOf({"second"}));
}

TEST_F(ForeignDirectoryTest, ANoteIsNotWrittenThroughALink) {
  fs::create_directory(m_cache / "quarantine.d");
  fs::create_symlink(m_elsewhere / "07", m_cache / "quarantine.d" / "2016-03-07-14-05_07.txt");
  EXPECT_EQ(Quarantine(), kDone);
  ExpectElsewhereUntouched();
  EXPECT_TRUE(fs::exists(m_cache / "quarantine.d" / "2016-03-07-14-05_07_2.txt"));
}

}  // namespace OrloCacheTool
