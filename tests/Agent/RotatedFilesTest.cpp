#include "Agent/RotatedFiles.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "Agent/Gzip.h"
#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;
using OrloAgent::MakeRotatedName;
using OrloAgent::RotatedFiles;
using OrloAgent::RotationOptions;
using std::chrono::milliseconds;
using std::chrono::system_clock;
using TestSupport::WaitUntil;
using WindowsAgentCommon::LogLevel;
using Names = std::vector<std::string>;
using namespace std::string_literals;

constexpr char kOldest[] = "events.log.2026-11-20T23-59-59.999Z";
constexpr char kMiddle[] = "events.log.2026-11-21T00-00-00.000Z";
constexpr char kNewest[] = "events.log.2026-11-21T00-00-00.001Z";

std::string ReadAll(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::chrono::sys_time<milliseconds> Now() {
  return std::chrono::floor<milliseconds>(system_clock::now());
}

class RotatedFilesTest : public testing::Test {
 protected:
  void Make(const std::string& name, const std::string& content = "x\n") {
    std::ofstream(m_directory.Path() / name, std::ios::binary) << content;
  }

  // What lies in the directory, in the order of names.
  Names List() {
    Names names;
    for (const auto& entry : fs::directory_iterator(m_directory.Path())) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  bool BecomesList(const Names& names) {
    const bool became = WaitUntil([&] { return List() == names; }, std::chrono::seconds(60));
    EXPECT_EQ(List(), names);
    return became;
  }

  TestSupport::TemporaryDirectory m_directory;
  const fs::path m_file = m_directory.Path() / "events.log";
};

TEST(RotatedName, IsTheTimeInUtcSoThatNamesSortByIt) {
  const auto name = [](std::int64_t time) {
    return MakeRotatedName("a/events.log", std::chrono::sys_time<milliseconds>(milliseconds(time)))
        .string();
  };
  EXPECT_EQ(name(0), "a/events.log.1970-01-01T00-00-00.000Z");
  EXPECT_EQ(name(1'709'251'199'999), "a/events.log.2024-02-29T23-59-59.999Z");
  EXPECT_EQ(name(4'102'444'800'001), "a/events.log.2100-01-01T00-00-00.001Z");
}

TEST_F(RotatedFilesTest, OnlyClosedFilesOfThisOneAreFoundOldestFirst) {
  for (const char* name :
       {kNewest, kOldest, "events.log", "events.log.1", "other.log.2026-11-21T00-00-00.000Z",
        "events.log.2026-11-21T00-00-00.000", "events.log.2026-11-21 00-00-00.000Z",
        "events.log.2026-11-21T00-00-00.000Z.bak", "xevents.log.2026-11-21T00-00-00.000Z"}) {
    Make(name);
  }
  Make(std::string(kMiddle) + ".gz");
  const RotatedFiles files(m_file, {}, "S");
  EXPECT_EQ(files.Find(),
            (std::vector<fs::path>{m_directory.Path() / kOldest,
                                   m_directory.Path() / (std::string(kMiddle) + ".gz"),
                                   m_directory.Path() / kNewest}));
}

TEST_F(RotatedFilesTest, AClosedFileGetsTheTime) {
  RotatedFiles files(m_file, {}, "S");
  Make("events.log", "content\n");
  std::error_code error;
  const auto before = MakeRotatedName(m_file, Now());
  files.Close(error);
  const auto after = MakeRotatedName(m_file, Now());
  ASSERT_FALSE(error) << error.message();
  const auto found = files.Find();
  ASSERT_EQ(found.size(), 1u);
  EXPECT_GE(found[0], before);
  EXPECT_LE(found[0], after);
  EXPECT_EQ(ReadAll(found[0]), "content\n");
  EXPECT_FALSE(fs::exists(m_file));
}

TEST_F(RotatedFilesTest, NamesGoOnBehindTheNewestWhateverTheClockSays) {
  Make("events.log.2970-01-01T00-00-00.000Z");
  RotatedFiles files(m_file, {}, "S");
  for (const char* content : {"first", "second"}) {
    Make("events.log", content);
    std::error_code error;
    files.Close(error);
    ASSERT_FALSE(error) << error.message();
  }
  const auto found = files.Find();
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(ReadAll(found[1]), "first");
  EXPECT_EQ(ReadAll(found[2]), "second");
}

TEST_F(RotatedFilesTest, AFileThatIsNotThereIsAnErrorAndNothingElse) {
  RotatedFiles files(m_file, {}, "S");
  std::error_code error;
  files.Close(error);
  EXPECT_EQ(error, std::errc::no_such_file_or_directory) << error.message();
  EXPECT_TRUE(files.Find().empty());
}

TEST_F(RotatedFilesTest, TheOldestAreDeletedAtTheStartAndAfterEachClose) {
  for (const char* name : {kOldest, kMiddle, kNewest}) {
    Make(name);
  }
  RotationOptions options;
  options.keep = 2;
  RotatedFiles files(m_file, options, "S");
  ASSERT_TRUE(BecomesList({kMiddle, kNewest}));
  Make("events.log");
  std::error_code error;
  files.Close(error);
  ASSERT_TRUE(WaitUntil([&] { return List().size() == 2 && List()[0] == kNewest; }));
}

TEST_F(RotatedFilesTest, AFileThatCannotBeDeletedIsNamed) {
  TestSupport::LogCapture log;
  fs::create_directories(m_directory.Path() / kOldest / "in the way");
  Make(kNewest);
  RotationOptions options;
  options.keep = 1;
  const RotatedFiles files(m_file, options, "S");
  EXPECT_TRUE(WaitUntil([&] {
    const auto lines = log.Lines();
    return std::any_of(lines.begin(), lines.end(), [](const auto& line) {
      return line.level == LogLevel::Warn &&
             line.text.find("which is one too many, can't be deleted") != std::string::npos;
    });
  }));
}

class CompressedFilesTest : public RotatedFilesTest {
 protected:
  static void Compress(const fs::path& from, const fs::path& to) {
    std::string problem;
    ASSERT_TRUE(OrloAgent::CompressFile(
        from, to, [] { return false; }, problem))
        << problem;
  }

  static RotationOptions Options() {
    RotationOptions options;
    options.compress = true;
    return options;
  }
};

TEST_F(CompressedFilesTest, WhatACrashLeftUndoneIsDoneAtTheStart) {
  // One that was not begun; one that was in the middle; one that only had to be deleted.
  Make(kOldest);
  Make(kMiddle);
  Make(std::string(kMiddle) + ".gz.part", "half");
  Make(kNewest, "complete\n");
  const fs::path newest = m_directory.Path() / (std::string(kNewest) + ".gz");
  Compress(m_directory.Path() / kNewest, newest);
  const std::string compressed = ReadAll(newest);
  const RotatedFiles files(m_file, Options(), "S");
  ASSERT_TRUE(BecomesList(
      {std::string(kOldest) + ".gz", std::string(kMiddle) + ".gz", std::string(kNewest) + ".gz"}));
  EXPECT_EQ(ReadAll(newest), compressed);
}

TEST_F(CompressedFilesTest, ACompressedFileThatIsNotCompleteDoesNotCostThePlainOne) {
  const fs::path plain = m_directory.Path() / kOldest;
  const fs::path packed = m_directory.Path() / (std::string(kOldest) + ".gz");
  Make(kOldest, "precious\n");
  Compress(plain, packed);
  const std::string complete = ReadAll(packed);
  std::string broken = complete;
  broken[broken.size() - 6] ^= 1;  // in its checksum
  const std::string others[] = {"",
                                "no such format",
                                complete.substr(0, complete.size() / 2),
                                complete.substr(0, complete.size() - 1),
                                broken,
                                complete + "x"};
  for (const std::string& other : others) {
    TestSupport::LogCapture log;
    Make(kOldest + ".gz"s, other);
    RotationOptions options;
    options.keep = 10;
    const RotatedFiles files(m_file, options, "S");
    ASSERT_TRUE(WaitUntil([&] {
      return log.Count(LogLevel::Warn, "The file " + packed.string() + " does not hold all of " +
                                           plain.string() + ", which is kept.") == 1;
    }));
    EXPECT_EQ(ReadAll(plain), "precious\n");
  }
  TestSupport::LogCapture log;
  const RotatedFiles files(m_file, Options(), "S");
  ASSERT_TRUE(BecomesList({std::string(kOldest) + ".gz"}));
  EXPECT_EQ(log.Count(LogLevel::Warn, "The file " + packed.string() + " does not hold all of " +
                                          plain.string() + ", and is made anew."),
            1u);
  EXPECT_EQ(ReadAll(packed), complete);
}

TEST_F(CompressedFilesTest, OnlyACompleteFileOfTheSameContentHoldsAnother) {
  const fs::path plain = m_directory.Path() / "plain";
  const fs::path packed = m_directory.Path() / "packed";
  const auto goOn = [] { return false; };
  // More than one piece of memory.
  std::string content(1024 * 1024, 'x');
  for (std::size_t i = 0; i < content.size(); i += 7) {
    content[i] = static_cast<char>('a' + i * i % 23);
  }
  for (const std::string& held : {std::string(), content}) {
    Make("plain", held);
    Compress(plain, packed);
    EXPECT_TRUE(OrloAgent::HoldsCompressed(packed, plain, goOn));
    EXPECT_FALSE(OrloAgent::HoldsCompressed(packed, plain, [] { return true; }));
    EXPECT_FALSE(OrloAgent::HoldsCompressed(m_directory.Path() / "none", plain, goOn));
    Make("plain", held + "y");
    EXPECT_FALSE(OrloAgent::HoldsCompressed(packed, plain, goOn));
  }
  Make("plain", content.substr(0, content.size() - 1));
  EXPECT_FALSE(OrloAgent::HoldsCompressed(packed, plain, goOn));
}

TEST_F(CompressedFilesTest, AFileInTheWayIsReportedAndThePlainFileStays) {
  TestSupport::LogCapture log;
  Make(kOldest, "precious\n");
  fs::create_directories(m_directory.Path() / (std::string(kOldest) + ".gz") / "in the way");
  const RotatedFiles files(m_file, Options(), "S");
  ASSERT_TRUE(WaitUntil([&] {
    const auto lines = log.Lines();
    return std::any_of(lines.begin(), lines.end(), [](const auto& line) {
      return line.level == LogLevel::Warn &&
             line.text.find("can't be compressed") != std::string::npos;
    });
  }));
  EXPECT_EQ(ReadAll(m_directory.Path() / kOldest), "precious\n");
  EXPECT_FALSE(fs::exists(m_directory.Path() / (std::string(kOldest) + ".gz.part")));
}

TEST_F(CompressedFilesTest, ACancelledCompressionIsNoProblem) {
  Make(kOldest, std::string(1024 * 1024, 'x'));
  std::string problem = "before";
  EXPECT_FALSE(OrloAgent::CompressFile(
      m_directory.Path() / kOldest, m_directory.Path() / "to", [] { return true; }, problem));
  EXPECT_EQ(problem, "");
}

TEST_F(CompressedFilesTest, ADiskThatIsFullIsAProblem) {
  Make(kOldest, "content");
  std::string problem;
  EXPECT_FALSE(OrloAgent::CompressFile(
      m_directory.Path() / kOldest, "/dev/full", [] { return false; }, problem));
  EXPECT_NE(problem, "");
}

TEST_F(CompressedFilesTest, PermissionsAreThoseOfThePlainFile) {
  Make(kOldest, "content");
  fs::permissions(m_directory.Path() / kOldest, fs::perms::owner_read | fs::perms::owner_write);
  const RotatedFiles files(m_file, Options(), "S");
  const std::string name = std::string(kOldest) + ".gz";
  ASSERT_TRUE(BecomesList({name}));
  EXPECT_EQ(fs::status(m_directory.Path() / name).permissions(),
            fs::perms::owner_read | fs::perms::owner_write);
}

}  // namespace
