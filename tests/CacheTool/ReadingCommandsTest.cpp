// list, show, verify and export, as functions.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Agent/PathText.h"
#include "CacheTool/ChunkFile.h"
#include "CacheTool/Commands.h"
#include "CacheTool/EventText.h"
#include "tests/CacheTool/CacheFiles.h"
#include "tests/support/TemporaryDirectory.h"

namespace OrloCacheTool {

class ReadingCommandsTest : public testing::Test {
 protected:
  ReadingCommandsTest() : m_cache(m_directory.Path() / "cache") {
    Put("2016-03-07-14-05/07", MakeChunkOf({"first", "second"}));
    Put("2016-03-07-14-06/02", MakeChunkOf({"third"}));
  }

  // Written an hour ago: nobody takes it for one that is still being written.
  void Put(const std::string& name, const std::string& bytes) {
    WriteFile(m_cache / name, bytes);
    std::filesystem::last_write_time(
        m_cache / name, std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  }

  std::string Damaged() const {
    std::string bytes = MakeChunkOf({"readable", "lost"});
    // The second payload's length.
    bytes[4 + (8 + MakeHead().size() + 8) + 4 + MakeHead().size() + 2] = '\x7f';
    return bytes;
  }

  template <typename Options>
  Options Make() const {
    Options options;
    options.place = OrloAgent::ToText(m_cache);
    return options;
  }

  nlohmann::json TakeJson() {
    const auto json = nlohmann::json::parse(m_out.str());
    m_out.str("");
    return json;
  }

  TestSupport::TemporaryDirectory m_directory;
  const std::filesystem::path m_cache;
  std::ostringstream m_out;
  std::ostringstream m_messages;
};

TEST_F(ReadingCommandsTest, ListShowsEveryChunkWithItsTimeSizeAndCount) {
  EXPECT_EQ(RunList(Make<ListOptions>(), m_out, m_messages), kDone);
  EXPECT_EQ(m_out.str(),
            "TIME                  FILE                        BYTES      EVENTS  STATE\n"
            "2016-03-07T14:05:07Z  2016-03-07-14-05/07          4096           2  plausible\n"
            "2016-03-07T14:06:02Z  2016-03-07-14-06/02          4096           1  plausible\n"
            "2 chunks, 3 events, 8192 bytes\n");
}

TEST_F(ReadingCommandsTest, ListNamesTheStateOfWhatIsWrong) {
  Put("2016-03-07-14-06/03", "");
  std::filesystem::create_directories(m_cache / "2016-03-07-14-06" / "04");
  WriteFile(m_cache / "2016-03-07-14-06" / "05", "");
  auto options = Make<ListOptions>();
  options.json = true;
  EXPECT_EQ(RunList(options, m_out, m_messages), kDamage);
  const auto chunks = TakeJson()["chunks"];
  ASSERT_EQ(chunks.size(), 5u);
  EXPECT_EQ(chunks[1]["state"], "plausible");
  EXPECT_EQ(chunks[2]["state"], "damaged");
  EXPECT_EQ(chunks[3]["state"], "unreadable");
  EXPECT_EQ(chunks[4]["state"], "being written") << "it is some milliseconds old";
}

TEST_F(ReadingCommandsTest, AChunkThatIsBeingWrittenIsNoDamage) {
  WriteFile(m_cache / "2016-03-07-14-06" / "05", "");
  EXPECT_EQ(RunList(Make<ListOptions>(), m_out, m_messages), kDone);
}

TEST_F(ReadingCommandsTest, AChunkThatHasGrownSinceItWasListedIsPlausible) {
  std::vector<std::string> skipped;
  auto chunks = ListChunks(m_cache, skipped);
  chunks.front().size = 0;
  bool isBeingWritten = true;
  EXPECT_TRUE(GlanceAtChunkFile(chunks.front(), {}, isBeingWritten).IsHealthy());
  EXPECT_FALSE(isBeingWritten);
  EXPECT_EQ(chunks.front().size, 4096u);
}

TEST_F(ReadingCommandsTest, ChunksThatComeAndGoAreNoDamage) {
  // Each is there for a moment, and empty: what is gone when its age is asked for looked damaged.
  const auto minute = m_cache / "2016-03-07-14-07";
  std::atomic<bool> isDone{false};
  const auto agent = std::async(std::launch::async, [&minute, &isDone] {
    // What is being looked at can't always be removed on Windows.
    std::error_code ignored;
    for (int i = 0; !isDone; ++i) {
      std::filesystem::create_directory(minute, ignored);
      std::ofstream(minute / std::to_string(i % 10)).flush();
      std::filesystem::remove(minute / std::to_string(i % 10), ignored);
      std::filesystem::remove(minute, ignored);
    }
  });
  ExitCode code = kDone;
  const auto list = [&] {
    m_out.str("");
    code = RunList(Make<ListOptions>(), m_out, m_messages);
  };
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  while (code == kDone && !HasFailure() && std::chrono::steady_clock::now() < end) {
    EXPECT_NO_THROW(list());
  }
  isDone = true;
  agent.wait();
  EXPECT_EQ(code, kDone) << m_out.str() << m_messages.str();
}

TEST_F(ReadingCommandsTest, AFileOfTheFutureIsNotTakenForOneThatIsBeingWritten) {
  Put("2016-03-07-14-07/01", "x");
  std::filesystem::last_write_time(
      m_cache / "2016-03-07-14-07" / "01",
      std::filesystem::file_time_type::clock::now() + std::chrono::hours(1));
  EXPECT_EQ(RunList(Make<ListOptions>(), m_out, m_messages), kDamage);
  EXPECT_EQ(m_out.str().find("being written"), std::string::npos) << m_out.str();
  EXPECT_NE(m_out.str().find("damaged"), std::string::npos) << m_out.str();
}

TEST_F(ReadingCommandsTest, AnEmptyCacheIsAnEmptyList) {
  std::filesystem::remove_all(m_cache);
  std::filesystem::create_directories(m_cache);
  EXPECT_EQ(RunList(Make<ListOptions>(), m_out, m_messages), kDone);
  EXPECT_NE(m_out.str().find("0 chunks, 0 events, 0 bytes"), std::string::npos);
  auto options = Make<VerifyOptions>();
  EXPECT_EQ(RunVerify(options, m_out, m_messages), kDone);
}

TEST_F(ReadingCommandsTest, ShowTellsOfEachEvent) {
  auto options = Make<ShowOptions>();
  options.chunk = "oldest";
  options.bytes = 3;
  EXPECT_EQ(RunShow(options, m_out, m_messages), kDone);
  EXPECT_NE(m_out.str().find(
                "2  2016-03-07T14:05:07.1234567Z stdin  head 17, payload 6 bytes\n    sec...\n"),
            std::string::npos)
      << m_out.str();
  options.text = true;
  EXPECT_EQ(RunShow(options, m_out, m_messages), kDone);
  EXPECT_NE(m_out.str().find("    second\n"), std::string::npos);
}

TEST_F(ReadingCommandsTest, ShowTakesAFileElsewhereAndDamage) {
  WriteFile(m_directory.Path() / "elsewhere", Damaged());
  ShowOptions options;
  options.place = OrloAgent::ToText(m_directory.Path() / "elsewhere");
  options.json = true;
  EXPECT_EQ(RunShow(options, m_out, m_messages), kDamage);
  const auto document = TakeJson();
  EXPECT_EQ(document["count"], 2);
  ASSERT_EQ(document["events"].size(), 1u);
  EXPECT_EQ(document["events"][0]["text"], "readable");
  EXPECT_FALSE(document["findings"].get<std::string>().empty());
}

TEST_F(ReadingCommandsTest, ShowOfADirectoryAsksForTheChunk) {
  EXPECT_THROW(RunShow(Make<ShowOptions>(), m_out, m_messages), ToolError);
}

TEST_F(ReadingCommandsTest, VerifyOfAHealthyCacheIsDone) {
  auto options = Make<VerifyOptions>();
  options.all = true;
  EXPECT_EQ(RunVerify(options, m_out, m_messages), kDone);
  EXPECT_EQ(m_out.str(),
            "2016-03-07-14-05/07: healthy, 2 events\n"
            "2016-03-07-14-06/02: healthy, 1 event\n"
            "2 chunks, 3 events, 8192 bytes; 0 damaged\n");
}

TEST_F(ReadingCommandsTest, VerifyNamesDamageAndWhatAnAgentMakesOfIt) {
  Put("2016-03-07-14-06/03", Damaged());
  std::filesystem::create_directories(m_cache / "2016-03-07-14-06" / "04");
  auto options = Make<VerifyOptions>();
  options.json = true;
  EXPECT_EQ(RunVerify(options, m_out, m_messages), kDamage);
  const auto document = TakeJson();
  EXPECT_EQ(document["damaged"], 2);
  ASSERT_EQ(document["verdicts"].size(), 2u);
  EXPECT_EQ(document["verdicts"][0]["chunk"], "2016-03-07-14-06/03");
  EXPECT_NE(document["verdicts"][0]["effect"].get<std::string>().find("delivers 1 of its events"),
            std::string::npos);
  EXPECT_NE(document["verdicts"][1]["effect"].get<std::string>().find("nor anything behind it"),
            std::string::npos);
}

TEST_F(ReadingCommandsTest, ExportWritesALineForEachEvent) {
  EXPECT_EQ(RunExport(Make<ExportOptions>(), m_out, m_messages), kDone);
  std::istringstream lines(m_out.str());
  std::vector<std::string> payloads;
  for (std::string line; std::getline(lines, line);) {
    payloads.push_back(EventFromJson(line).payload);
  }
  EXPECT_EQ(payloads, (std::vector<std::string>{"first", "second", "third"}));
}

TEST_F(ReadingCommandsTest, ExportWritesOneChunkAsTheAgentsOutputsDo) {
  Put("2016-03-07-14-06/03", MakeChunk({{MakeHead("stdin", 1), "no line end,"},
                                        {MakeHead(), std::string(" \xff\0", 3)},
                                        {"other", "head"}}));
  auto options = Make<ExportOptions>();
  options.chunks = {"newest"};
  options.format = ExportFormat::Raw;
  options.check.checkHeads = false;
  EXPECT_EQ(RunExport(options, m_out, m_messages), kDone);
  EXPECT_EQ(m_out.str(), std::string("no line end, \xff\0\nhead\n", 21));
}

TEST_F(ReadingCommandsTest, ExportLeavesDamageOutUnlessItIsToBeSalvaged) {
  Put("2016-03-07-14-05/31", Damaged());
  auto options = Make<ExportOptions>();
  options.format = ExportFormat::Raw;
  EXPECT_EQ(RunExport(options, m_out, m_messages), kDamage);
  EXPECT_EQ(m_out.str(), "first\nsecond\nthird\n");
  EXPECT_NE(m_messages.str().find("2016-03-07-14-05/31"), std::string::npos);
  m_out.str("");
  options.salvage = true;
  EXPECT_EQ(RunExport(options, m_out, m_messages), kDamage);
  EXPECT_EQ(m_out.str(), "first\nsecond\nreadable\nthird\n");
}

TEST_F(ReadingCommandsTest, AnOutputThatIsFullEndsTheExport) {
  m_out.setstate(std::ios::badbit);
  EXPECT_THROW(RunExport(Make<ExportOptions>(), m_out, m_messages), ToolError);
}

}  // namespace OrloCacheTool
