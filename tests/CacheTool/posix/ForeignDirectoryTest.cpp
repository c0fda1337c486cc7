// What the tool, run as root, does in a cache whose owner leads it elsewhere by links.
#include <gtest/gtest.h>

#include <sstream>

#include "Agent/PathText.h"
#include "CacheTool/Commands.h"
#include "tests/CacheTool/CacheFiles.h"
#include "tests/support/TemporaryDirectory.h"

namespace OrloCacheTool {

namespace fs = std::filesystem;
using OrloAgent::ToText;

class ForeignDirectoryTest : public testing::Test {
 protected:
  ForeignDirectoryTest()
      : m_data(m_directory.Path() / "data"),
        m_cache(m_data / "Events" / "Default"),
        m_minute(m_cache / "2016-03-07-14-05"),
        m_elsewhere(m_directory.Path() / "elsewhere") {
    WriteFile(m_minute / "07", MakeChunkOf({"first"}));
    WriteFile(m_elsewhere / "precious", "precious");
  }

  ExitCode Requeue() {
    WriteFile(m_directory.Path() / "chunk", MakeChunkOf({"second"}));
    RequeueOptions options;
    options.place = ToText(m_data);
    options.files = {ToText(m_directory.Path() / "chunk")};
    return RunRequeue(options, m_out, m_messages);
  }

  ExitCode Quarantine() {
    QuarantineOptions options;
    options.place = ToText(m_data);
    options.chunks = {"oldest"};
    options.force = true;
    return RunQuarantine(options, m_out, m_messages);
  }

  void ExpectElsewhereUntouched() const {
    EXPECT_EQ(ListTree(m_elsewhere), std::vector<std::string>{"precious"});
    EXPECT_EQ(ReadFile(m_elsewhere / "precious"), "precious");
  }

  TestSupport::TemporaryDirectory m_directory;
  const fs::path m_data;
  const fs::path m_cache;
  const fs::path m_minute;
  const fs::path m_elsewhere;
  std::ostringstream m_out;
  std::ostringstream m_messages;
};

TEST_F(ForeignDirectoryTest, ALinkUnderTheNameOfANewChunkIsNotFollowed) {
  fs::create_symlink(m_elsewhere / "precious", m_minute / "07-000001.new");
  EXPECT_EQ(Requeue(), kDone);
  ExpectElsewhereUntouched();
  EXPECT_EQ(ReadFile(m_minute / "07-000001"), MakeChunkOf({"second"}));
}

TEST_F(ForeignDirectoryTest, AMinuteThatIsALinkGetsNoChunks) {
  fs::rename(m_minute / "07", m_elsewhere / "07");
  fs::remove(m_minute);
  fs::create_directory_symlink(m_elsewhere, m_minute);
  EXPECT_THROW(Requeue(), ToolError);
  fs::remove(m_elsewhere / "07");
  ExpectElsewhereUntouched();
}

TEST_F(ForeignDirectoryTest, AQuarantineThatIsALinkIsRefused) {
  fs::create_directory_symlink(m_elsewhere, m_cache / "quarantine.d");
  EXPECT_THROW(Quarantine(), ToolError);
  ExpectElsewhereUntouched();
  EXPECT_TRUE(fs::exists(m_minute / "07"));
}

TEST_F(ForeignDirectoryTest, ANoteIsNotWrittenThroughALink) {
  fs::create_directory(m_cache / "quarantine.d");
  fs::create_symlink(m_elsewhere / "precious",
                     m_cache / "quarantine.d" / "2016-03-07-14-05_07.txt");
  EXPECT_EQ(Quarantine(), kDone);
  ExpectElsewhereUntouched();
  EXPECT_TRUE(fs::exists(m_cache / "quarantine.d" / "2016-03-07-14-05_07_2.txt"));
}

TEST_F(ForeignDirectoryTest, ALockThatIsALinkIsRefused) {
  fs::create_symlink(m_elsewhere / "new", m_data / "agent.lock");
  EXPECT_THROW(Requeue(), ToolError);
  ExpectElsewhereUntouched();
}

}  // namespace OrloCacheTool
