#include "CacheTool/NewChunks.h"

#include <gtest/gtest.h>

#include "CacheTool/ToolError.h"
#include "Platform/testing/TestClock.h"
#include "StoreAndForward/ChunkNames.h"
#include "WindowsAgentCommon/Text.h"
#include "tests/CacheTool/CacheFiles.h"
#include "tests/support/TemporaryDirectory.h"

namespace OrloCacheTool {

namespace {

bool SortsBefore(const std::string& left, const std::string& right) {
  return OrloStoreAndForward::NameSortsBefore(WindowsAgentCommon::ToWide(left),
                                              WindowsAgentCommon::ToWide(right));
}

}  // namespace

TEST(NameBehind, FollowsItsChunkAndComesBeforeEverySecondAfterIt) {
  std::string name = "07";
  for (int i = 0; i < 1000; ++i) {
    const std::string next = NameBehind(name);
    ASSERT_TRUE(SortsBefore(name, next)) << next;
    ASSERT_TRUE(SortsBefore(next, "08")) << next;
    // A stage's own names are two digits.
    ASSERT_GT(next.size(), 2u);
    name = next;
  }
  EXPECT_EQ(name, "07-001000");
}

TEST(NameBehind, StaysInOrderWhenItsNumbersAreUsedUpAndForStrangeNames) {
  for (const std::string name : {"07-999999", "07-", "stray", "a-00000b", "60", "07-1000000"}) {
    EXPECT_TRUE(SortsBefore(name, NameBehind(name))) << name;
  }
}

class NewChunksTest : public testing::Test {
 protected:
  TestSupport::TemporaryDirectory m_directory;
};

TEST_F(NewChunksTest, EventsAreCutIntoChunksOfTheSize) {
  NewChunks chunks({m_directory.Path(), {}},
                   ListedChunk{"2016-03-07-14-05", "07", {}, 0, false, {}}, 100);
  const std::string head = MakeHead();
  for (const std::string payload : {"one", "two", "three"}) {
    chunks.Add({head, payload});
  }
  const std::string large(300, 'x');
  chunks.Add({head, large});
  chunks.Add({head, "last"});
  EXPECT_EQ(chunks.Finish(),
            (std::vector<std::string>{"2016-03-07-14-05/07-000001", "2016-03-07-14-05/07-000002",
                                      "2016-03-07-14-05/07-000003"}));
  const auto read = [&](const std::string& name) {
    return ReadFile(m_directory.Path() / "2016-03-07-14-05" / name);
  };
  EXPECT_EQ(read("07-000001"), MakeChunkOf({"one", "two", "three"}));
  EXPECT_EQ(read("07-000002"), MakeChunkOf({large}));
  EXPECT_EQ(read("07-000003"), MakeChunkOf({"last"}));
}

TEST_F(NewChunksTest, WithoutAnEndNothingIsLeft) {
  {
    NewChunks chunks({m_directory.Path(), {}}, std::nullopt, 10);
    chunks.Add({MakeHead(), "one"});
    chunks.Add({MakeHead(), "two"});
    EXPECT_EQ(ListTree(m_directory.Path()).size(), 2u);
  }
  EXPECT_EQ(ListTree(m_directory.Path()), std::vector<std::string>());
}

TEST_F(NewChunksTest, NothingIsAChunkBeforeTheEnd) {
  NewChunks chunks({m_directory.Path(), {}}, std::nullopt, 10);
  chunks.Add({MakeHead(), "one"});
  chunks.Add({MakeHead(), "two"});
  std::vector<std::string> skipped;
  EXPECT_TRUE(ListChunks(m_directory.Path(), skipped).empty());
  EXPECT_EQ(chunks.Finish().size(), 2u);
  EXPECT_EQ(ListChunks(m_directory.Path(), skipped).size(), 2u);
}

TEST_F(NewChunksTest, NoEventsMakeNoChunk) {
  NewChunks chunks({m_directory.Path(), {}}, std::nullopt, 10);
  EXPECT_TRUE(chunks.Finish().empty());
  EXPECT_TRUE(ListTree(m_directory.Path()).empty());
}

TEST_F(NewChunksTest, ADirectoryThatCanNotBeMadeEndsIt) {
  WriteFile(m_directory.Path() / "2016-03-07-14-05", "a file");
  NewChunks chunks({m_directory.Path(), {}},
                   ListedChunk{"2016-03-07-14-05", "07", {}, 0, false, {}}, 1);
  chunks.Add({MakeHead(), "one"});
  EXPECT_THROW(chunks.Finish(), ToolError);
}

TEST_F(NewChunksTest, ANameThatIsTakenByADirectoryTakesAllNamesBack) {
  std::filesystem::create_directories(m_directory.Path() / "2016-03-07-14-05" / "07-000002" / "x");
  {
    NewChunks chunks({m_directory.Path(), {}},
                     ListedChunk{"2016-03-07-14-05", "07", {}, 0, false, {}}, 1);
    chunks.Add({MakeHead(), "one"});
    chunks.Add({MakeHead(), "two"});
    EXPECT_THROW(chunks.Finish(), ToolError);
  }
  EXPECT_EQ(ListTree(m_directory.Path()),
            (std::vector<std::string>{"2016-03-07-14-05", "2016-03-07-14-05/07-000002",
                                      "2016-03-07-14-05/07-000002/x"}));
}

}  // namespace OrloCacheTool
