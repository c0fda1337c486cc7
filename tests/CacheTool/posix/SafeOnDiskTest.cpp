// That files are removed only when what they held is on the disk. The program's own fsync stands in
// for the system's.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sstream>
#include <vector>

#include "Agent/PathText.h"
#include "CacheTool/Commands.h"
#include "tests/CacheTool/CacheFiles.h"
#include "tests/support/TemporaryDirectory.h"

namespace fs = std::filesystem;

namespace {

// One thread calls it.
std::vector<std::string> synced;  // NOLINT(cert-err58-cpp): a vector without elements
// Of the entry whose path ends so.
std::string failing;  // NOLINT(cert-err58-cpp): a text without characters

}  // namespace

extern "C" int fsync(int descriptor) {
  std::error_code error;
  const std::string path =
      fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error).string();
  synced.push_back(path);
  if (!failing.empty() && path.ends_with(failing)) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fsync, descriptor));
}

namespace OrloCacheTool {

class SafeOnDiskTest : public testing::Test {
 protected:
  SafeOnDiskTest() : m_data(m_directory.Path() / "data"), m_cache(m_data / "Events" / "Default") {
    WriteFile(m_cache / "2016-03-07-14-05" / "07", MakeChunkOf({"first"}));
    WriteFile(m_directory.Path() / "chunk", MakeChunkOf({"second"}));
    m_options.place = OrloAgent::ToText(m_data);
    m_options.files = {OrloAgent::ToText(m_directory.Path() / "chunk")};
    m_options.removeFiles = true;
    synced.clear();
  }
  ~SafeOnDiskTest() override { failing.clear(); }

  static bool IsSynced(const fs::path& path) {
    return std::find(synced.begin(), synced.end(), path.string()) != synced.end();
  }

  void ExpectRefusalAndEverythingAsItWas() {
    const auto before = ListTree(m_data / "Events");
    EXPECT_THROW(RunRequeue(m_options, m_out, m_messages), ToolError);
    EXPECT_TRUE(fs::exists(m_options.files.front()));
    EXPECT_EQ(ListTree(m_data / "Events"), before);
  }

  TestSupport::TemporaryDirectory m_directory;
  const fs::path m_data;
  const fs::path m_cache;
  RequeueOptions m_options;
  std::ostringstream m_out;
  std::ostringstream m_messages;
};

TEST_F(SafeOnDiskTest, ChunksAndTheirNamesAreBroughtToTheDisk) {
  EXPECT_EQ(RunRequeue(m_options, m_out, m_messages), kDone);
  EXPECT_FALSE(fs::exists(m_options.files.front()));
  EXPECT_TRUE(IsSynced(m_cache / "2016-03-07-14-05" / "07-000001.new"));
  EXPECT_EQ(synced.back(), (m_cache / "2016-03-07-14-05").string()) << "behind the renaming";
}

TEST_F(SafeOnDiskTest, ANewMinuteIsBroughtToTheDisk) {
  fs::remove_all(m_cache / "2016-03-07-14-05");
  EXPECT_EQ(RunRequeue(m_options, m_out, m_messages), kDone);
  EXPECT_TRUE(IsSynced(m_cache));
}

TEST_F(SafeOnDiskTest, AChunkThatCanNotBeBroughtToTheDiskIsNotRequeued) {
  failing = "07-000001.new";
  ExpectRefusalAndEverythingAsItWas();
}

TEST_F(SafeOnDiskTest, ANameThatCanNotBeBroughtToTheDiskIsTakenBack) {
  failing = "2016-03-07-14-05";
  ExpectRefusalAndEverythingAsItWas();
}

}  // namespace OrloCacheTool
