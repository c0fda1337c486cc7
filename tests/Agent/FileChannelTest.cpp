#include "Agent/FileChannel.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "WindowsAgentCommon/Exceptions.h"
#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;
using OrloAgent::IChannel;
using OrloAgent::MakeFileChannel;
using std::chrono::milliseconds;
using TestSupport::WaitUntil;
using WindowsAgentCommon::LogLevel;

std::string ReadAll(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class FileChannelTest : public testing::Test {
 protected:
  void Write(IChannel& channel, std::string_view text) {
    EXPECT_EQ(channel.Write(text, milliseconds(0)).written, text.size());
  }

  TestSupport::TemporaryDirectory m_directory;
  const fs::path m_path = m_directory.Path() / "events.log";
};

TEST_F(FileChannelTest, AppendsToWhatIsThere) {
  std::ofstream(m_path, std::ios::binary) << "before\n";
  const auto channel = MakeFileChannel(m_path.string(), "S");
  ASSERT_EQ(channel->Prepare(true), IChannel::Readiness::Ready);
  Write(*channel, "after\n");
  channel->Close();
  EXPECT_EQ(ReadAll(m_path), "before\nafter\n");
}

TEST_F(FileChannelTest, MakesMissingDirectories) {
  const fs::path path = m_directory.Path() / "a" / "b" / "events.log";
  const auto channel = MakeFileChannel(path.string(), "S");
  Write(*channel, "x\n");
  EXPECT_EQ(ReadAll(path), "x\n");
}

TEST_F(FileChannelTest, APathThatCannotBeOpenedIsRefusedWithItsName) {
  std::ofstream(m_directory.Path() / "file") << "";
  const std::string path = (m_directory.Path() / "file" / "events.log").string();
  try {
    MakeFileChannel(path, "S");
    FAIL() << "a file was taken for a directory";
  } catch (const WindowsAgentCommon::InitializationException& exception) {
    EXPECT_NE(std::string(exception.what()).find(path), std::string::npos) << exception.what();
  }
}

TEST_F(FileChannelTest, AfterARenameTheNextFrameGoesIntoANewFile) {
  const auto channel = MakeFileChannel(m_path.string(), "S");
  Write(*channel, "old\n");
  const fs::path rotated = m_directory.Path() / "events.log.1";
  fs::rename(m_path, rotated);
  ASSERT_TRUE(WaitUntil([&] {
    EXPECT_NE(channel->Prepare(true), IChannel::Readiness::NotReady);
    return fs::exists(m_path);
  }));
  Write(*channel, "new\n");
  EXPECT_EQ(ReadAll(rotated), "old\n");
  EXPECT_EQ(ReadAll(m_path), "new\n");
}

TEST_F(FileChannelTest, AFrameThatWasBegunIsCompletedInTheOldFile) {
  const auto channel = MakeFileChannel(m_path.string(), "S");
  Write(*channel, "beg");
  const fs::path rotated = m_directory.Path() / "events.log.1";
  fs::rename(m_path, rotated);
  const auto end = std::chrono::steady_clock::now() + milliseconds(1200);
  while (std::chrono::steady_clock::now() < end) {
    ASSERT_EQ(channel->Prepare(false), IChannel::Readiness::Ready);
  }
  Write(*channel, "un\n");
  EXPECT_EQ(channel->Prepare(true), IChannel::Readiness::ReadyAnew);
  Write(*channel, "next\n");
  EXPECT_EQ(ReadAll(rotated), "begun\n");
  EXPECT_EQ(ReadAll(m_path), "next\n");
}

TEST_F(FileChannelTest, AFileThatCannotBeMadeAgainIsReportedOnceAndTriedAgain) {
  TestSupport::LogCapture log;
  const fs::path directory = m_directory.Path() / "logs";
  const fs::path path = directory / "events.log";
  const auto channel = MakeFileChannel(path.string(), "S");
  fs::remove_all(directory);
  std::ofstream(directory) << "in the way";
  ASSERT_TRUE(WaitUntil([&] { return channel->Prepare(true) == IChannel::Readiness::NotReady; }));
  fs::remove(directory);
  ASSERT_TRUE(WaitUntil([&] { return channel->Prepare(true) == IChannel::Readiness::ReadyAnew; }));
  Write(*channel, "x\n");
  EXPECT_EQ(ReadAll(path), "x\n");
  EXPECT_TRUE(log.Contains(LogLevel::Info, "Code.FileDestination.S",
                           "The file " + path.string() + " is written again."));
  std::size_t warnings = 0;
  for (const auto& line : log.Lines()) {
    warnings += line.level == LogLevel::Warn ? 1 : 0;
  }
  EXPECT_EQ(warnings, 1u);
}

// A device that is always full stands for a full disk.
TEST_F(FileChannelTest, AFullDiskIsReportedOnceAndTakesNothing) {
  const fs::path full("/dev/full");
  if (!fs::exists(full)) {
    FAIL() << "this system has no /dev/full";
  }
  TestSupport::LogCapture log;
  fs::create_symlink(full, m_path);
  const auto channel = MakeFileChannel(m_path.string(), "S");
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(channel->Prepare(true), IChannel::Readiness::Ready);
    const auto result = channel->Write("x\n", milliseconds(1));
    EXPECT_EQ(result.written, 0u);
    EXPECT_FALSE(result.broken);
  }
  EXPECT_EQ(log.Count(LogLevel::Warn,
                      "The file " + m_path.string() +
                          " can't be written (No space left on device); events wait until it can."),
            1u);
}

}  // namespace
