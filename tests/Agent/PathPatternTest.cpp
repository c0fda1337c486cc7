#include "Agent/PathPattern.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/TemporaryDirectory.h"

namespace {

using OrloAgent::ExpandPattern;
using OrloAgent::MatchesPattern;

TEST(PathPattern, StarStandsForAnyCharactersAndQuestionMarkForOne) {
  EXPECT_TRUE(MatchesPattern("app.log", "app.log"));
  EXPECT_TRUE(MatchesPattern("app.log", "*"));
  EXPECT_TRUE(MatchesPattern("app.log", "*.log"));
  EXPECT_TRUE(MatchesPattern("app.log", "a*p*.*g"));
  EXPECT_TRUE(MatchesPattern("app.log", "ap?.log**"));
  EXPECT_TRUE(MatchesPattern("aXbXb", "a*b"));
  EXPECT_FALSE(MatchesPattern("app.log", "*.lo"));
  EXPECT_FALSE(MatchesPattern("app.log", "app?.log"));
  EXPECT_FALSE(MatchesPattern("app.log", "b*"));
  EXPECT_FALSE(MatchesPattern("", "?"));
  EXPECT_TRUE(MatchesPattern("", "*"));
}

TEST(PathPattern, LeadingDotMustStandInThePattern) {
  EXPECT_FALSE(MatchesPattern(".hidden", "*"));
  EXPECT_FALSE(MatchesPattern(".hidden", "?hidden"));
  EXPECT_TRUE(MatchesPattern(".hidden", ".h*"));
}

TEST(PathPattern, ManyStarsTakeNoExponentialTime) {
  EXPECT_FALSE(MatchesPattern(std::string(5000, 'a'), "*a*a*a*a*a*a*a*a*a*a*a*a*b"));
}

class Expanding : public testing::Test {
 protected:
  void Touch(const std::string& name) {
    const auto path = m_directory.Path() / name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << "x";
  }

  std::vector<std::string> Expand(const std::string& pattern) {
    std::vector<std::string> found;
    for (const auto& path : ExpandPattern(m_directory.Path() / pattern)) {
      found.push_back(path.lexically_relative(m_directory.Path()).generic_string());
    }
    return found;
  }

  TestSupport::TemporaryDirectory m_directory;
};

TEST_F(Expanding, EveryPartOfAPathMayBeAPattern) {
  Touch("one/b.log");
  Touch("one/a.log");
  Touch("two/a.log");
  Touch("two/a.txt");
  EXPECT_EQ(Expand("*/?.log"), (std::vector<std::string>{"one/a.log", "one/b.log", "two/a.log"}));
  EXPECT_EQ(Expand("t*/a.log"), (std::vector<std::string>{"two/a.log"}));
}

TEST_F(Expanding, PlainPathGivesItselfIfItExists) {
  Touch("a.log");
  EXPECT_EQ(Expand("a.log"), (std::vector<std::string>{"a.log"}));
  EXPECT_EQ(Expand("b.log"), (std::vector<std::string>{}));
  EXPECT_EQ(Expand("none/*.log"), (std::vector<std::string>{}));
}

}  // namespace
