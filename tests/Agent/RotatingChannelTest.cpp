#include "Agent/RotatingChannel.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <thread>

#include "WindowsAgentCommon/Exceptions.h"
#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;
using OrloAgent::IChannel;
using OrloAgent::MakeRotatingChannel;
using OrloAgent::RotationOptions;
using std::chrono::milliseconds;
using TestSupport::WaitUntil;
using Readiness = IChannel::Readiness;

std::string ReadAll(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class RotatingChannelTest : public testing::Test {
 protected:
  static RotationOptions OfSize(std::uint64_t size) {
    RotationOptions options;
    options.size = size;
    return options;
  }

  static void Write(IChannel& channel, std::string_view text) {
    EXPECT_EQ(channel.Write(text, milliseconds(0)).written, text.size());
  }

  // The contents of the closed files, oldest first.
  std::vector<std::string> Closed() {
    std::vector<fs::path> paths;
    for (const auto& entry : fs::directory_iterator(m_directory.Path())) {
      if (entry.path() != m_path) {
        paths.push_back(entry.path());
      }
    }
    std::sort(paths.begin(), paths.end());
    std::vector<std::string> contents;
    for (const fs::path& path : paths) {
      contents.push_back(ReadAll(path));
    }
    return contents;
  }

  TestSupport::TemporaryDirectory m_directory;
  const fs::path m_path = m_directory.Path() / "events.log";
};

TEST_F(RotatingChannelTest, AFileThatHasItsSizeIsClosedBeforeTheNextFrame) {
  const auto channel = MakeRotatingChannel(m_path.string(), OfSize(10), "S");
  Write(*channel, "12345678\n");
  ASSERT_EQ(channel->Prepare(true), Readiness::Ready);
  Write(*channel, "beg");
  ASSERT_EQ(channel->Prepare(false), Readiness::Ready) << "in the middle of a frame";
  Write(*channel, "un\n");
  ASSERT_EQ(channel->Prepare(true), Readiness::ReadyAnew);
  Write(*channel, "next\n");
  EXPECT_EQ(Closed(), std::vector<std::string>{"12345678\nbegun\n"});
  EXPECT_EQ(ReadAll(m_path), "next\n");
  ASSERT_EQ(channel->Prepare(true), Readiness::Ready);
}

TEST_F(RotatingChannelTest, WhatIsThereAtTheStartCounts) {
  std::ofstream(m_path, std::ios::binary) << "0123456789\n";
  const auto channel = MakeRotatingChannel(m_path.string(), OfSize(10), "S");
  ASSERT_EQ(channel->Prepare(true), Readiness::ReadyAnew);
  Write(*channel, "next\n");
  EXPECT_EQ(Closed(), std::vector<std::string>{"0123456789\n"});
  EXPECT_EQ(ReadAll(m_path), "next\n");
}

TEST_F(RotatingChannelTest, APeriodThatIsOverClosesTheFileAndEmptyOnesAreLeft) {
  RotationOptions options;
  options.every = std::chrono::seconds(1);
  const auto channel = MakeRotatingChannel(m_path.string(), options, "S");
  Write(*channel, "first\n");
  ASSERT_TRUE(WaitUntil([&] { return channel->Prepare(true) == Readiness::ReadyAnew; }));
  EXPECT_EQ(Closed(), std::vector<std::string>{"first\n"});
  // Nothing is written for more than a period.
  const auto end = std::chrono::steady_clock::now() + milliseconds(1'100);
  while (std::chrono::steady_clock::now() < end) {
    ASSERT_EQ(channel->Prepare(true), Readiness::Ready);
  }
  EXPECT_EQ(Closed().size(), 1u);
}

TEST_F(RotatingChannelTest, AFileThatAnEarlierPeriodLeftIsClosedAtTheStart) {
  std::ofstream(m_path, std::ios::binary) << "yesterday\n";
  fs::last_write_time(m_path, fs::file_time_type::clock::now() - std::chrono::hours(24));
  RotationOptions options;
  options.every = std::chrono::hours(24);
  const auto channel = MakeRotatingChannel(m_path.string(), options, "S");
  ASSERT_EQ(channel->Prepare(true), Readiness::ReadyAnew);
  Write(*channel, "today\n");
  EXPECT_EQ(Closed(), std::vector<std::string>{"yesterday\n"});
  EXPECT_EQ(ReadAll(m_path), "today\n");
}

TEST_F(RotatingChannelTest, AFileThatSomebodyElseRenamesIsMadeAnewAsWithoutRotation) {
  const auto channel = MakeRotatingChannel(m_path.string(), OfSize(1000), "S");
  Write(*channel, "old\n");
  fs::rename(m_path, m_directory.Path() / "mine");
  ASSERT_TRUE(WaitUntil([&] { return channel->Prepare(true) == Readiness::ReadyAnew; }));
  Write(*channel, "new\n");
  EXPECT_EQ(Closed(), std::vector<std::string>{"old\n"});
  EXPECT_EQ(ReadAll(m_path), "new\n");
}

TEST_F(RotatingChannelTest, AFileThatWasRenamedJustBeforeItsTimeIsMadeAnewAtOnce) {
  const auto channel = MakeRotatingChannel(m_path.string(), OfSize(3), "S");
  Write(*channel, "old\n");
  fs::rename(m_path, m_directory.Path() / "mine");
  ASSERT_EQ(channel->Prepare(true), Readiness::ReadyAnew);
  Write(*channel, "new\n");
  EXPECT_EQ(Closed(), std::vector<std::string>{"old\n"});
  EXPECT_EQ(ReadAll(m_path), "new\n");
}

TEST_F(RotatingChannelTest, WhileTheFileCannotBeMadeAnewItIsNotReadyAndThatIsSaidOnce) {
  TestSupport::LogCapture log;
  const fs::path directory = m_directory.Path() / "logs";
  const auto channel = MakeRotatingChannel((directory / "events.log").string(), OfSize(3), "S");
  Write(*channel, "old\n");
  fs::remove_all(directory);
  std::ofstream(directory) << "in the way";
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(channel->Prepare(true), Readiness::NotReady);
  }
  fs::remove(directory);
  ASSERT_TRUE(WaitUntil([&] { return channel->Prepare(true) == Readiness::ReadyAnew; }));
  Write(*channel, "new\n");
  EXPECT_EQ(ReadAll(directory / "events.log"), "new\n");
  std::size_t warnings = 0;
  for (const auto& line : log.Lines()) {
    warnings += line.level == WindowsAgentCommon::LogLevel::Warn ? 1 : 0;
  }
  EXPECT_EQ(warnings, 1u);
}

TEST_F(RotatingChannelTest, APathThatCannotBeOpenedIsRefused) {
  fs::create_directory(m_path);
  EXPECT_THROW(MakeRotatingChannel(m_path.string(), OfSize(10), "S"),
               WindowsAgentCommon::InitializationException);
}

}  // namespace
