// requeue and quarantine, as functions.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "Agent/FileLock.h"
#include "Agent/PathText.h"
#include "CacheTool/Commands.h"
#include "CacheTool/EventText.h"
#include "tests/CacheTool/CacheFiles.h"
#include "tests/support/TemporaryDirectory.h"

namespace OrloCacheTool {

class MovingCommandsTest : public testing::Test {
 protected:
  MovingCommandsTest()
      : m_data(m_directory.Path() / "data"), m_cache(m_data / "Events" / "Default") {
    Put("2016-03-07-14-05/07", MakeChunkOf({"first"}));
    Put("2016-03-07-14-06/02", MakeChunkOf({"second"}));
  }

  void Put(const std::string& name, const std::string& bytes) const {
    WriteFile(m_cache / name, bytes);
    std::filesystem::last_write_time(
        m_cache / name, std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  }

  std::string File(const std::string& name, const std::string& bytes) const {
    WriteFile(m_directory.Path() / name, bytes);
    return OrloAgent::ToText(m_directory.Path() / name);
  }

  // The events of the whole cache, in the order of delivery.
  std::string Payloads() const {
    ExportOptions options;
    options.place = OrloAgent::ToText(m_cache);
    options.format = ExportFormat::Raw;
    std::ostringstream out;
    std::ostringstream messages;
    EXPECT_EQ(RunExport(options, out, messages), kDone) << messages.str();
    return out.str();
  }

  RequeueOptions Requeue(std::vector<std::string> files) const {
    RequeueOptions options;
    options.place = OrloAgent::ToText(m_data);
    options.files = std::move(files);
    return options;
  }

  QuarantineOptions Quarantine(std::vector<std::string> chunks) const {
    QuarantineOptions options;
    options.place = OrloAgent::ToText(m_data);
    options.chunks = std::move(chunks);
    return options;
  }

  std::vector<std::string> Tree() const { return ListTree(m_cache); }

  TestSupport::TemporaryDirectory m_directory;
  const std::filesystem::path m_data;
  const std::filesystem::path m_cache;
  std::ostringstream m_out;
  std::ostringstream m_messages;
};

TEST_F(MovingCommandsTest, RequeuedEventsComeLastInTheOrderOfTheirFiles) {
  const std::string lines =
      File("events.json", EventToJson({MakeHead(), "third"}, "x", 1).dump() + "\n\n" +
                              EventToJson({MakeHead(), "fourth"}, "x", 2).dump() + "\n");
  const std::string chunk = File("chunk", MakeChunkOf({"fifth"}));
  EXPECT_EQ(RunRequeue(Requeue({lines, chunk}), m_out, m_messages), kDone);
  EXPECT_EQ(m_out.str(),
            "3 events put at the end of the cache, in 1 chunk, the first of them "
            "2016-03-07-14-06/02-000001\n");
  EXPECT_EQ(Payloads(), "first\nsecond\nthird\nfourth\nfifth\n");
  EXPECT_EQ(RunRequeue(Requeue({chunk}), m_out, m_messages), kDone);
  EXPECT_EQ(Payloads(), "first\nsecond\nthird\nfourth\nfifth\nfifth\n");
  EXPECT_TRUE(std::filesystem::exists(chunk)) << "the files stay";
}

TEST_F(MovingCommandsTest, RequeuedFilesAreRemovedOnRequest) {
  auto options = Requeue({File("chunk", MakeChunkOf({"third"}))});
  options.removeFiles = true;
  EXPECT_EQ(RunRequeue(options, m_out, m_messages), kDone);
  EXPECT_FALSE(std::filesystem::exists(options.files.front()));
}

TEST_F(MovingCommandsTest, AnEmptyCacheTakesRequeuedEvents) {
  std::filesystem::remove_all(m_cache);
  std::filesystem::create_directories(m_cache);
  EXPECT_EQ(RunRequeue(Requeue({File("chunk", MakeChunkOf({"only"}))}), m_out, m_messages), kDone);
  EXPECT_EQ(Payloads(), "only\n");
}

TEST_F(MovingCommandsTest, OneLineThatIsNoEventLeavesTheCacheAsItWas) {
  const auto before = Tree();
  const std::string lines =
      File("events.json", EventToJson({MakeHead(), "third"}, "x", 1).dump() + "\n{}\n");
  auto options = Requeue({File("chunk", MakeChunkOf({"third"})), lines});
  options.chunkSize = 1;
  options.removeFiles = true;
  try {
    RunRequeue(options, m_out, m_messages);
    FAIL() << "taken";
  } catch (const ToolError& error) {
    EXPECT_NE(std::string(error.what()).find("line 2"), std::string::npos) << error.what();
  }
  EXPECT_EQ(Tree(), before);
  EXPECT_TRUE(std::filesystem::exists(lines));
}

TEST_F(MovingCommandsTest, OfADamagedChunkTheReadablePartIsRequeuedOnRequest) {
  std::string bytes = MakeChunkOf({"third", "lost"});
  bytes.resize(4 + 8 + MakeHead().size() + 5 + 10);
  auto options = Requeue({File("chunk", bytes)});
  EXPECT_THROW(RunRequeue(options, m_out, m_messages), ToolError);
  options.salvage = true;
  EXPECT_EQ(RunRequeue(options, m_out, m_messages), kDamage);
  EXPECT_EQ(Payloads(), "first\nsecond\nthird\n");
}

TEST_F(MovingCommandsTest, ADamagedChunkStaysWhereRequeuedFilesAreRemoved) {
  std::string bytes = MakeChunkOf({"third", "lost"});
  bytes.resize(4 + 8 + MakeHead().size() + 5 + 10);
  auto options = Requeue({File("damaged", bytes), File("healthy", MakeChunkOf({"fourth"}))});
  options.salvage = true;
  options.removeFiles = true;
  EXPECT_EQ(RunRequeue(options, m_out, m_messages), kDamage);
  EXPECT_EQ(Payloads(), "first\nsecond\nthird\nfourth\n");
  EXPECT_EQ(ReadFile(options.files.front()), bytes);
  EXPECT_FALSE(std::filesystem::exists(options.files.back()));
  EXPECT_NE(m_messages.str().find("; 1 event of it requeued, and it stays\n"), std::string::npos)
      << m_messages.str();
}

TEST_F(MovingCommandsTest, AChunkOfTheCacheItselfIsNotRequeued) {
  const auto before = Tree();
  const auto chunk = OrloAgent::ToText(m_cache / "2016-03-07-14-05" / "07");
  EXPECT_THROW(RunRequeue(Requeue({chunk}), m_out, m_messages), ToolError);
  EXPECT_THROW(RunRequeue(Requeue({chunk + ".absent"}), m_out, m_messages), ToolError);
  EXPECT_EQ(Tree(), before);
}

TEST_F(MovingCommandsTest, QuarantineOfTheDamagedLeavesHealthyChunksWhateverElseIsSaid) {
  Put("2016-03-07-14-07/01", "x");
  auto options = Quarantine({});
  options.damaged = true;
  options.force = true;
  EXPECT_EQ(RunQuarantine(options, m_out, m_messages), kDone);
  EXPECT_EQ(Payloads(), "first\nsecond\n");
}

TEST_F(MovingCommandsTest, QuarantineMovesDamagedChunksAwayWithANote) {
  Put("2016-03-07-14-05/31", "");
  Put("2016-03-07-14-07/01", "x");
  auto options = Quarantine({});
  options.damaged = true;
  EXPECT_EQ(RunQuarantine(options, m_out, m_messages), kDone);
  EXPECT_EQ(Payloads(), "first\nsecond\n");
  EXPECT_EQ(Tree(), (std::vector<std::string>{
                        "2016-03-07-14-05", "2016-03-07-14-05/07", "2016-03-07-14-06",
                        "2016-03-07-14-06/02", "quarantine.d", "quarantine.d/2016-03-07-14-05_31",
                        "quarantine.d/2016-03-07-14-05_31.txt", "quarantine.d/2016-03-07-14-07_01",
                        "quarantine.d/2016-03-07-14-07_01.txt"}));
  const std::string note = ReadFile(m_cache / "quarantine.d" / "2016-03-07-14-05_31.txt");
  EXPECT_NE(note.find("it is empty"), std::string::npos) << note;
  EXPECT_EQ(ReadFile(m_cache / "quarantine.d" / "2016-03-07-14-07_01"), "x");
}

TEST_F(MovingCommandsTest, QuarantineMovesADirectoryThatStandsInTheWay) {
  std::filesystem::create_directories(m_cache / "2016-03-07-14-05" / "01" / "inner");
  EXPECT_EQ(RunQuarantine(Quarantine({"oldest"}), m_out, m_messages), kDone);
  EXPECT_EQ(Payloads(), "first\nsecond\n");
}

TEST_F(MovingCommandsTest, AHealthyChunkIsQuarantinedByForceOnly) {
  const auto before = Tree();
  auto options = Quarantine({"2016-03-07-14-05/07"});
  EXPECT_THROW(RunQuarantine(options, m_out, m_messages), ToolError);
  EXPECT_EQ(Tree(), before);
  options.force = true;
  EXPECT_EQ(RunQuarantine(options, m_out, m_messages), kDone);
  EXPECT_EQ(Payloads(), "second\n");
  // And back again, at the end.
  EXPECT_EQ(
      RunRequeue(Requeue({OrloAgent::ToText(m_cache / "quarantine.d" / "2016-03-07-14-05_07")}),
                 m_out, m_messages),
      kDone);
  EXPECT_EQ(Payloads(), "second\nfirst\n");
}

TEST_F(MovingCommandsTest, ASecondChunkOfTheSameNameGetsAnotherOneInQuarantine) {
  for (const char* bytes : {"a", "b"}) {
    Put("2016-03-07-14-05/31", bytes);
    EXPECT_EQ(RunQuarantine(Quarantine({"2016-03-07-14-05/31"}), m_out, m_messages), kDone);
  }
  EXPECT_EQ(ReadFile(m_cache / "quarantine.d" / "2016-03-07-14-05_31"), "a");
  EXPECT_EQ(ReadFile(m_cache / "quarantine.d" / "2016-03-07-14-05_31_2"), "b");
}

}  // namespace OrloCacheTool
