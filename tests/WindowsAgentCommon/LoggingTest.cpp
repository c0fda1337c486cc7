#include "WindowsAgentCommon/Logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryDirectory.h"

namespace WindowsAgentCommon {
namespace {

using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

class LoggingTest : public testing::Test {
 protected:
  ~LoggingTest() override { LoggerFactory::Configure({}); }

  std::string LogFile() { return (m_directory.Path() / "test.log").string(); }
  std::string LogText() {
    std::ifstream file(LogFile(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }
  LoggingOptions FileOnly(LogLevel level = LogLevel::Debug) {
    LoggingOptions options;
    options.level = level;
    options.file = LogFile();
    options.standardError = false;
    return options;
  }
  // The lines of the file from behind the time.
  std::vector<std::string> LoggedLines() {
    std::istringstream text(LogText());
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
      const std::size_t blank = line.find(' ');
      lines.push_back(blank == std::string::npos ? line : line.substr(blank + 1));
    }
    return lines;
  }

  TestSupport::TemporaryDirectory m_directory;
};

using Lines = std::vector<std::string>;

TEST_F(LoggingTest, ADefaultConstructedLogDropsEverything) {
  const TestSupport::LogCapture capture;
  const Log log;
  EXPECT_FALSE(log.IsEnabled(LogLevel::Error));
  log.Write(LogLevel::Error, "text");
  LogFacade::Error(log, "text");
  EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(LoggingTest, BeforeConfigurationInfoAndAboveGoToStandardError) {
  CaptureStderr();
  const Log log = LoggerFactory::GetLog("Early");
  LogFacade::Debug(log, "one");
  LogFacade::Info(log, "two");
  LogFacade::Error(log, "three");
  const std::string text = GetCapturedStderr();
  EXPECT_THAT(text, testing::Not(HasSubstr("one")));
  EXPECT_THAT(text, HasSubstr("Info Early: two\n"));
  EXPECT_THAT(text, HasSubstr("Error Early: three\n"));
}

TEST_F(LoggingTest, ALineHasUtcTimeLevelLoggerAndText) {
  LoggerFactory::Configure(FileOnly());
  const std::time_t before = std::time(nullptr);
  LogFacade::Warn(LoggerFactory::GetLog("Code.Class.Stream"), "%d of %s", 3, "five");
  const std::time_t after = std::time(nullptr);
  const std::string text = LogText();
  const std::regex expected(
      "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z "
      "Warn Code\\.Class\\.Stream: 3 of five\n");
  EXPECT_TRUE(std::regex_match(text, expected)) << text;
  const auto utc = [](std::time_t time) {
    char buffer[32];
    std::strftime(buffer, sizeof(buffer), "%Y-%m-%dT%H:%M:%S", std::gmtime(&time));
    return std::string(buffer);
  };
  EXPECT_GE(text.substr(0, 19), utc(before));
  EXPECT_LE(text.substr(0, 19), utc(after));
}

TEST_F(LoggingTest, EveryLevelHasItsName) {
  LoggerFactory::Configure(FileOnly());
  const Log log = LoggerFactory::GetLog("L");
  LogFacade::Debug(log, "a");
  LogFacade::Info(log, "b");
  LogFacade::Warn(log, "c");
  LogFacade::Error(log, "d");
  EXPECT_EQ(LoggedLines(), (Lines{"Debug L: a", "Info L: b", "Warn L: c", "Error L: d"}));
}

TEST_F(LoggingTest, OneMessageIsOneLineWhateverItContains) {
  LoggerFactory::Configure(FileOnly());
  LogFacade::Info(LoggerFactory::GetLog("L"), "%s",
                  std::string("a\nb\r\tc\0d\x1b[31m\x7f\xc2\x9bz \xc3\xa4\\", 21));
  EXPECT_EQ(LoggedLines(), Lines{"Info L: a\\nb\\r\\tc\\x00d\\x1b[31m\\x7f\\u009bz \xc3\xa4\\"});
}

TEST_F(LoggingTest, ControlCharactersInALoggersNameAreEscapedToo) {
  LoggerFactory::Configure(FileOnly());
  LogFacade::Info(LoggerFactory::GetLog("Code.Evil\n2026 Error X"), "t");
  EXPECT_EQ(LoggedLines(), Lines{"Info Code.Evil\\n2026 Error X: t"});
}

TEST_F(LoggingTest, PercentSignsAndBracesOfAMessageAreText) {
  LoggerFactory::Configure(FileOnly());
  const Log log = LoggerFactory::GetLog("%v {}");
  log.Write(LogLevel::Info, "100% %v %n {} {0}");
  LogFacade::Info(log, "%s", "%d {}");
  EXPECT_EQ(LoggedLines(), (Lines{"Info %v {}: 100% %v %n {} {0}", "Info %v {}: %d {}"}));
}

TEST_F(LoggingTest, TheLevelDecidesWhatIsWritten) {
  for (const LogLevel level :
       {LogLevel::Debug, LogLevel::Info, LogLevel::Warn, LogLevel::Error, LogLevel::Off}) {
    SCOPED_TRACE(static_cast<int>(level));
    LoggerFactory::Configure(FileOnly(level));
    const Log log = LoggerFactory::GetLog("L");
    for (const LogLevel asked :
         {LogLevel::Debug, LogLevel::Info, LogLevel::Warn, LogLevel::Error}) {
      EXPECT_EQ(log.IsEnabled(asked), asked >= level);
    }
    EXPECT_FALSE(log.IsEnabled(LogLevel::Off));
  }
  LoggerFactory::Configure(FileOnly(LogLevel::Warn));
  const Log log = LoggerFactory::GetLog("L");
  log.Write(LogLevel::Info, "no");
  log.Write(LogLevel::Warn, "yes");
  log.Write(LogLevel::Off, "never");
  EXPECT_EQ(LoggedLines(), Lines{"Warn L: yes"});
}

TEST_F(LoggingTest, TheLongestPrefixThatFitsDecides) {
  LoggingOptions options = FileOnly(LogLevel::Warn);
  options.levels = {{"Code.A", LogLevel::Info},
                    {"Code.A.One", LogLevel::Debug},
                    {"Code.A.One.Quiet", LogLevel::Off},
                    {"Z", LogLevel::Error}};
  LoggerFactory::Configure(options);
  const auto isEnabled = [](const char* name, LogLevel level) {
    return LoggerFactory::GetLog(name).IsEnabled(level);
  };
  EXPECT_FALSE(isEnabled("Code.B", LogLevel::Info));
  EXPECT_TRUE(isEnabled("Code.B", LogLevel::Warn));
  EXPECT_FALSE(isEnabled("Code", LogLevel::Info));
  EXPECT_TRUE(isEnabled("Code.A", LogLevel::Info));
  EXPECT_FALSE(isEnabled("Code.A", LogLevel::Debug));
  EXPECT_TRUE(isEnabled("Code.A.Two", LogLevel::Info));
  EXPECT_FALSE(isEnabled("Code.A.Two", LogLevel::Debug));
  EXPECT_TRUE(isEnabled("Code.A.One", LogLevel::Debug));
  EXPECT_TRUE(isEnabled("Code.A.One.Default", LogLevel::Debug));
  EXPECT_FALSE(isEnabled("Code.A.One.Quiet.X", LogLevel::Error));
  EXPECT_FALSE(isEnabled("Z.Y", LogLevel::Warn));
}

TEST_F(LoggingTest, AnEmptyPrefixFitsEveryName) {
  LoggingOptions options = FileOnly(LogLevel::Warn);
  options.levels = {{"", LogLevel::Debug}};
  LoggerFactory::Configure(options);
  EXPECT_TRUE(LoggerFactory::GetLog("any").IsEnabled(LogLevel::Debug));
}

TEST_F(LoggingTest, ReconfiguringAppliesToHandlesThatExist) {
  LoggerFactory::Configure(FileOnly(LogLevel::Error));
  const Log log = LoggerFactory::GetLog("L");
  const Log copy = log;
  EXPECT_FALSE(log.IsEnabled(LogLevel::Debug));
  LoggingOptions options = FileOnly(LogLevel::Error);
  options.levels = {{"L", LogLevel::Debug}};
  LoggerFactory::Configure(options);
  EXPECT_TRUE(log.IsEnabled(LogLevel::Debug));
  EXPECT_TRUE(copy.IsEnabled(LogLevel::Debug));
  LogFacade::Debug(copy, "now");
  EXPECT_EQ(LoggedLines(), Lines{"Debug L: now"});
  LoggerFactory::Configure({});
  EXPECT_FALSE(log.IsEnabled(LogLevel::Debug));
}

TEST_F(LoggingTest, StandardErrorAndFileGetTheSameLines) {
  CaptureStderr();
  LoggingOptions options = FileOnly();
  options.standardError = true;
  LoggerFactory::Configure(options);
  LogFacade::Info(LoggerFactory::GetLog("L"), "both");
  EXPECT_EQ(GetCapturedStderr(), LogText());
  EXPECT_EQ(LoggedLines(), Lines{"Info L: both"});
}

TEST_F(LoggingTest, StandardErrorCanBeTurnedOff) {
  CaptureStderr();
  LoggerFactory::Configure(FileOnly());
  LogFacade::Error(LoggerFactory::GetLog("L"), "quiet");
  EXPECT_EQ(GetCapturedStderr(), "");
}

TEST_F(LoggingTest, TheFileIsAppendedTo) {
  std::ofstream(LogFile(), std::ios::binary) << "2026-01-01T00:00:00.000Z Info Old: kept\n";
  LoggerFactory::Configure(FileOnly());
  LogFacade::Info(LoggerFactory::GetLog("L"), "first");
  LoggerFactory::Configure(FileOnly());
  LogFacade::Info(LoggerFactory::GetLog("L"), "second");
  EXPECT_EQ(LoggedLines(), (Lines{"Info Old: kept", "Info L: first", "Info L: second"}));
}

TEST_F(LoggingTest, TheFilesNameIsUtf8) {
  LoggingOptions options = FileOnly();
  options.file = (m_directory.Path() / "").string() + "\xc3\xa4\xe6\x97\xa5.log";
  LoggerFactory::Configure(options);
  LogFacade::Info(LoggerFactory::GetLog("L"), "text");
  EXPECT_TRUE(std::filesystem::exists(m_directory.Path() / u8"\u00e4\u65e5.log"));
}

TEST_F(LoggingTest, AFileThatCannotBeOpenedIsReportedOnStandardErrorAndLoggingGoesOn) {
  CaptureStderr();
  LoggingOptions options = FileOnly();
  options.file = m_directory.Path().string();
  LoggerFactory::Configure(options);
  const std::string report = GetCapturedStderr();
  EXPECT_THAT(report, HasSubstr(" Error Code.Logging: "));
  EXPECT_THAT(report, HasSubstr(m_directory.Path().string()));

  CaptureStderr();
  options.standardError = true;
  LoggerFactory::Configure(options);
  LogFacade::Info(LoggerFactory::GetLog("L"), "still here");
  EXPECT_THAT(GetCapturedStderr(), HasSubstr("Info L: still here\n"));
}

TEST_F(LoggingTest, AMessageThatCannotBeFormattedIsDropped) {
  LoggerFactory::Configure(FileOnly());
  const char* const null = nullptr;
  const Log log = LoggerFactory::GetLog("L");
  EXPECT_NO_THROW(LogFacade::Info(log, "%s", null));
  LogFacade::Info(log, "next");
  EXPECT_EQ(LoggedLines().back(), "Info L: next");
}

TEST_F(LoggingTest, ASinkReceivesLoggerLevelAndTextAsItIs) {
  const TestSupport::LogCapture capture;
  LogFacade::Warn(LoggerFactory::GetLog("L\n"), "a\nb");
  EXPECT_EQ(capture.Lines(), (std::vector<TestSupport::LogLine>{{LogLevel::Warn, "L\n", "a\nb"}}));
}

TEST_F(LoggingTest, ASinkReceivesOnlyWhatTheLevelLetsThrough) {
  LoggerFactory::Configure(FileOnly(LogLevel::Error));
  int calls = 0;
  const int number =
      LoggerFactory::AddSink([&](LogLevel, const std::string&, const std::string&) { ++calls; });
  const Log log = LoggerFactory::GetLog("L");
  LogFacade::Warn(log, "no");
  LogFacade::Error(log, "yes");
  EXPECT_EQ(calls, 1);
  LoggerFactory::RemoveSink(number);
  LogFacade::Error(log, "nobody listens");
  EXPECT_EQ(calls, 1);
}

TEST_F(LoggingTest, ASinkThatThrowsKeepsNothingFromTheOthers) {
  LoggerFactory::Configure(FileOnly());
  int calls = 0;
  const int throwing =
      LoggerFactory::AddSink([](LogLevel, const std::string&, const std::string&) { throw 1; });
  const int counting =
      LoggerFactory::AddSink([&](LogLevel, const std::string&, const std::string&) { ++calls; });
  EXPECT_NO_THROW(LogFacade::Info(LoggerFactory::GetLog("L"), "t"));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(LoggedLines(), Lines{"Info L: t"});
  LoggerFactory::RemoveSink(throwing);
  LoggerFactory::RemoveSink(counting);
}

TEST_F(LoggingTest, ASinkMayLogItselfWithoutBeingCalledAgain) {
  LoggerFactory::Configure(FileOnly());
  int calls = 0;
  const int number = LoggerFactory::AddSink([&](LogLevel, const std::string&, const std::string&) {
    ++calls;
    LogFacade::Info(LoggerFactory::GetLog("Sink"), "inner");
  });
  LogFacade::Info(LoggerFactory::GetLog("L"), "outer");
  LoggerFactory::RemoveSink(number);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(LoggedLines(), (Lines{"Info L: outer", "Info Sink: inner"}));
}

TEST_F(LoggingTest, AfterRemoveSinkTheSinkIsNotRunning) {
  LoggerFactory::Configure(FileOnly());
  std::atomic<bool> stop{false};
  std::thread logger([&] {
    const Log log = LoggerFactory::GetLog("L");
    while (!stop) {
      LogFacade::Info(log, "t");
    }
  });
  for (int round = 0; round < 200; ++round) {
    // Freed right after the removal: a late call would be a use after free.
    auto calls = std::make_unique<int>(0);
    const int number = LoggerFactory::AddSink(
        [&count = *calls](LogLevel, const std::string&, const std::string&) { ++count; });
    std::this_thread::yield();
    LoggerFactory::RemoveSink(number);
    const int after = *calls;
    std::this_thread::yield();
    EXPECT_EQ(*calls, after);
  }
  stop = true;
  logger.join();
}

TEST_F(LoggingTest, ThreadsWriteWholeLinesWhileTheLevelsChange) {
  LoggerFactory::Configure(FileOnly());
  constexpr int kThreads = 4;
  constexpr int kMessages = 500;
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([number] {
      for (int i = 0; i < kMessages; ++i) {
        LogFacade::Error(LoggerFactory::GetLog("T" + std::to_string(number)), "message %d", i);
      }
    });
  }
  for (int round = 0; round < 20; ++round) {
    LoggerFactory::Configure(FileOnly(round % 2 == 0 ? LogLevel::Debug : LogLevel::Error));
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::vector<int> next(kThreads, 0);
  for (const std::string& line : LoggedLines()) {
    int number = 0;
    int message = 0;
    ASSERT_EQ(std::sscanf(line.c_str(), "Error T%d: message %d", &number, &message), 2) << line;
    ASSERT_LT(number, kThreads);
    EXPECT_EQ(message, next[static_cast<std::size_t>(number)]++);
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kMessages));
}

}  // namespace
}  // namespace WindowsAgentCommon
