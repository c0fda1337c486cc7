#include "Agent/ConfigurationShape.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using OrloAgent::ConfigurationMistake;
using OrloAgent::FindProblemOfShape;
using OrloAgent::ParseConfiguration;

std::string Repeat(const std::string& text, int times) {
  std::string repeated;
  for (int i = 0; i < times; ++i) {
    repeated += text;
  }
  return repeated;
}

// What ParseConfiguration says, if it is one mistake.
std::string OnlyMistake(const std::string& text) {
  const auto mistakes = ParseConfiguration(text).mistakes;
  return mistakes.size() == 1 ? ToText(mistakes[0], "f")
                              : std::to_string(mistakes.size()) + " mistakes";
}

TEST(ConfigurationShape, AnOrdinaryConfigurationHasNoProblem) {
  EXPECT_FALSE(FindProblemOfShape("a: &x [1, 2]\nb: *x\nc: { d: *x }\n"));
  EXPECT_FALSE(FindProblemOfShape(""));
  EXPECT_FALSE(FindProblemOfShape("---\na: b\n...\n"));
}

TEST(ConfigurationShape, TextThatTheYamlReaderNeverConsumesIsRefused) {
  EXPECT_EQ(OnlyMistake(","), "f:1: a second document begins; the file must hold one");
  EXPECT_EQ(OnlyMistake("- a\n, b\n"), "f:2: a second document begins; the file must hold one");
  EXPECT_EQ(OnlyMistake("{},\n"), "f:1: a second document begins; the file must hold one");
}

TEST(ConfigurationShape, NestingIsRefusedBeyond64Levels) {
  EXPECT_FALSE(FindProblemOfShape(Repeat("[", 64) + Repeat("]", 64)));
  EXPECT_EQ(OnlyMistake("\n" + Repeat("[", 65) + Repeat("]", 65)),
            "f:2: lists and maps are nested more than 64 deep");
}

TEST(ConfigurationShape, NestingThatFillsTheLargestFileIsRefused) {
  for (const std::string open : {"[", "{a: ", "- ", "? ", "[{"}) {
    const auto times = static_cast<int>(1024 * 1024 / open.size());
    EXPECT_EQ(OnlyMistake(Repeat(open, times)), "f:1: lists and maps are nested more than 64 deep")
        << open;
  }
}

TEST(ConfigurationShape, AListThatContainsItselfIsRefused) {
  EXPECT_EQ(OnlyMistake("streams: &a\n- [ *a ]\n"), "f:2: a list or map contains itself");
}

TEST(ConfigurationShape, AliasesThatMultiplyAreRefused) {
  std::string text = "a0: &a0 " + std::string(100, 'x') + "\n";
  for (int level = 1; level <= 8; ++level) {
    const std::string below = "*a" + std::to_string(level - 1) + ", ";
    const std::string name = "a" + std::to_string(level);
    text += name + ": &" + name + " [ " + Repeat(below, 20) + "]\n";
  }
  // A little more than 100 bytes, times 20 on each level: beyond the limit on the fifth.
  EXPECT_EQ(OnlyMistake(text),
            "f:6: with its aliases written out the configuration is larger than 32 MiB");
}

TEST(ConfigurationShape, TheLargestFileWithoutAliasesIsNotTooLarge) {
  EXPECT_FALSE(FindProblemOfShape("[" + Repeat("a,", 500'000) + "]"));
}

TEST(ConfigurationShape, EachOfVeryManyKeysIsNamed) {
  std::string text;
  for (int i = 0; i < 10'000; ++i) {
    text += "k" + std::to_string(i) + ":\n";
  }
  // Each is unknown, one stands there twice, and the streams are missing.
  EXPECT_EQ(ParseConfiguration(text + "k5000:\n").mistakes.size(), 10'002u);
}

TEST(ConfigurationShape, OneModuleManyTimesIsOneMistakeEach) {
  const std::string text =
      "streams:\n- name: N\n  source: { type: stdin }\n  destination: { type: stdout }\n"
      "  stages:\n" +
      Repeat("  - { module: M }\n", 1000);
  EXPECT_EQ(ParseConfiguration(text).mistakes.size(), 999u);
}

TEST(ConfigurationShape, AKeyBeyondTheLongestOneIsRefused) {
  EXPECT_EQ(OnlyMistake("streams:\n- name: N\n  source: { type: stdin }\n"
                        "  destination: { type: stdout }\n"
                        "  stages: [ { module: M, settings: { " +
                        std::string(256, 'k') + ": 1 } } ]\n"),
            "f:5: streams[0].stages[0].settings: has a key that is longer than 255 bytes");
}

}  // namespace
