// Exports into what is no file: pipes, devices and links.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>

#include "CacheTool/OutputFile.h"
#include "CacheTool/ToolError.h"
#include "tests/CacheTool/CacheFiles.h"
#include "tests/support/TemporaryDirectory.h"

namespace OrloCacheTool {

namespace fs = std::filesystem;

class OutputPlacesTest : public testing::Test {
 protected:
  TestSupport::TemporaryDirectory m_directory;
  const fs::path m_place{m_directory.Path() / "place"};
};

TEST_F(OutputPlacesTest, APipeGetsTheEventsAndStaysWhetherTheExportFailsOrNot) {
  ASSERT_EQ(mkfifo(m_place.c_str(), 0600), 0);
  const int pipe = open(m_place.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(pipe, 0);
  {
    OutputFile file(m_place);
    file.Stream() << "event\n";
    file.Keep();
  }
  std::array<char, 16> bytes{};
  EXPECT_EQ(read(pipe, bytes.data(), bytes.size()), 6);
  EXPECT_EQ(std::string(bytes.data()), "event\n");
  { const OutputFile failing(m_place); }
  EXPECT_TRUE(fs::is_fifo(m_place));
  close(pipe);
}

TEST_F(OutputPlacesTest, ALinkToADeviceIsThatDevice) {
  // As /dev/stdout is.
  fs::create_symlink("/dev/null", m_place);
  OutputFile file(m_place);
  file.Stream() << "event\n";
  file.Keep();
  EXPECT_TRUE(fs::is_symlink(m_place));
}

TEST_F(OutputPlacesTest, NothingIsWrittenThroughALinkToAFile) {
  WriteFile(m_directory.Path() / "chunk", "precious");
  fs::create_symlink("chunk", m_place);
  EXPECT_THROW(OutputFile{m_place}, ToolError);
  EXPECT_EQ(ReadFile(m_directory.Path() / "chunk"), "precious");
  fs::remove(m_directory.Path() / "chunk");
  EXPECT_THROW(OutputFile{m_place}, ToolError);
  EXPECT_FALSE(fs::exists(m_directory.Path() / "chunk"));
  EXPECT_TRUE(fs::is_symlink(m_place));
}

}  // namespace OrloCacheTool
