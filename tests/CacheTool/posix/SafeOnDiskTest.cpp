// What the tool does when the disk does not take all: it removes files only when what they held is
// there. The program's own write stands in for the system's.
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
#include "CacheTool/OutputFile.h"
#include "tests/CacheTool/CacheFiles.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/posix/SyncWatch.h"

namespace fs = std::filesystem;

namespace {

struct Synced {
  std::string path;
  // Whether the new chunk had its name by then.
  bool hasName;
};

// What the calls do, and what they were asked for. One thread makes them.
struct Calls {
  std::vector<Synced> synced;
  fs::path chunk;
  // Of the entry whose path ends so, fsync gives that error.
  std::string failing;
  int error = EIO;
  // Into the file whose path ends so, write can't write anything.
  std::string full;
};

Calls& GetCalls() {
  static Calls calls;
  return calls;
}

std::string GetPath(int descriptor) {
  std::error_code error;
  return fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error).string();
}

bool IsMeant(const std::string& path, const std::string& ending) {
  return !ending.empty() && path.ends_with(ending);
}

}  // namespace

extern "C" ssize_t write(int descriptor, const void* bytes, std::size_t size) {
  const std::string& full = GetCalls().full;
  if (!full.empty() && IsMeant(GetPath(descriptor), full)) {
    return 0;
  }
  return syscall(SYS_write, descriptor, bytes, size);
}

namespace OrloCacheTool {

class SafeOnDiskTest : public testing::Test {
 protected:
  SafeOnDiskTest()
      : m_data(m_directory.Path() / "data"),
        m_cache(m_data / "Events" / "Default"),
        m_minute(m_cache / "2016-03-07-14-05") {
    WriteFile(m_minute / "07", MakeChunkOf({"first"}));
    WriteFile(m_directory.Path() / "chunk", MakeChunkOf({"second"}));
    m_options.place = OrloAgent::ToText(m_data);
    m_options.files = {OrloAgent::ToText(m_directory.Path() / "chunk")};
    m_options.removeFiles = true;
    GetCalls() = {};
    GetCalls().chunk = m_minute / "07-000001";
  }
  ~SafeOnDiskTest() override { GetCalls() = {}; }

  // With the new chunk under its name, or before it has one.
  static bool IsSynced(const fs::path& path, bool hasName) {
    const auto& synced = GetCalls().synced;
    return std::any_of(synced.begin(), synced.end(), [&](const Synced& one) {
      return one.path == path.string() && one.hasName == hasName;
    });
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
  const fs::path m_minute;
  RequeueOptions m_options;
  std::ostringstream m_out;
  std::ostringstream m_messages;
  const TestSupport::SyncWatch m_watch{[](const fs::path& path) {
    Calls& calls = GetCalls();
    std::error_code error;
    calls.synced.push_back({path.string(), fs::exists(calls.chunk, error)});
    return IsMeant(path.string(), calls.failing) ? calls.error : 0;
  }};
};

TEST_F(SafeOnDiskTest, ChunksAndThenTheirNamesAreBroughtToTheDisk) {
  EXPECT_EQ(RunRequeue(m_options, m_out, m_messages), kDone);
  EXPECT_FALSE(fs::exists(m_options.files.front()));
  EXPECT_TRUE(IsSynced(m_minute / "07-000001.new", false));
  EXPECT_TRUE(IsSynced(m_minute, true));
}

TEST_F(SafeOnDiskTest, TheMinuteIsBroughtToTheDiskWhoeverHasMadeIt) {
  EXPECT_EQ(RunRequeue(m_options, m_out, m_messages), kDone);
  EXPECT_TRUE(IsSynced(m_cache, true)) << "an agent may have made it a moment ago";
  fs::remove_all(m_minute);
  WriteFile(m_options.files.front(), MakeChunkOf({"second"}));
  GetCalls().synced.clear();
  EXPECT_EQ(RunRequeue(m_options, m_out, m_messages), kDone);
  EXPECT_TRUE(IsSynced(m_cache, false)) << "the chunk is another one";
}

TEST_F(SafeOnDiskTest, AFileSystemThatDoesNotSyncDirectoriesTakesChunks) {
  GetCalls().failing = "2016-03-07-14-05";
  for (const int error : {EINVAL, ENOTSUP}) {
    GetCalls().error = error;
    WriteFile(m_options.files.front(), MakeChunkOf({"second"}));
    EXPECT_EQ(RunRequeue(m_options, m_out, m_messages), kDone) << error;
  }
}

TEST_F(SafeOnDiskTest, AChunkThatCanNotBeBroughtToTheDiskIsNotRequeued) {
  GetCalls().failing = "07-000001.new";
  ExpectRefusalAndEverythingAsItWas();
}

TEST_F(SafeOnDiskTest, AChunkForWhichThereIsNoRoomIsNotRequeued) {
  GetCalls().full = "07-000001.new";
  ExpectRefusalAndEverythingAsItWas();
}

TEST_F(SafeOnDiskTest, AnExportForWhichThereIsNoRoomIsSaidAndLeavesNothing) {
  const fs::path path = m_directory.Path() / "events.json";
  GetCalls().full = "events.json";
  {
    OutputFile file(path);
    file.Stream() << "event\n";
    EXPECT_THROW(file.Keep(), ToolError);
  }
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(SafeOnDiskTest, ANameThatCanNotBeBroughtToTheDiskIsTakenBack) {
  GetCalls().failing = "2016-03-07-14-05";
  ExpectRefusalAndEverythingAsItWas();
  GetCalls().failing = "Default";
  ExpectRefusalAndEverythingAsItWas();
}

}  // namespace OrloCacheTool
