#include "Agent/References.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/TemporaryDirectory.h"

namespace {

using OrloAgent::ExpandReferences;
using OrloAgent::HasReference;

OrloAgent::References Letters() {
  return {[](const std::string& name) { return std::optional<std::string>("<" + name + ">"); },
          [](const std::string& path, std::string&) {
            return std::optional<std::string>("[" + path + "]");
          }};
}

TEST(References, StandAnywhereAndAreNotLookedAtAgain) {
  const auto expand = [](const std::string& text) {
    const auto expansion = ExpandReferences(text, Letters());
    EXPECT_EQ(expansion.problem, "");
    return expansion.text;
  };
  EXPECT_EQ(expand(""), "");
  EXPECT_EQ(expand("plain $5 $ {x}"), "plain $5 $ {x}");
  EXPECT_EQ(expand("${a}"), "<a>");
  EXPECT_EQ(expand("x${A_1}y${file:/p/q.txt}z$"), "x<A_1>y[/p/q.txt]z$");
  EXPECT_EQ(expand("$${a}"), "${a}");
  EXPECT_EQ(expand("$$${a}"), "$${a}");
  EXPECT_EQ(expand("$${${a}"), "${<a>");
  EXPECT_EQ(expand("${a}}"), "<a>}");
}

TEST(References, AreFoundUnlessTheyAreEscaped) {
  EXPECT_TRUE(HasReference("${a}"));
  EXPECT_TRUE(HasReference("$${a} ${b}"));
  EXPECT_TRUE(HasReference("${"));
  EXPECT_FALSE(HasReference("$${a}"));
  EXPECT_FALSE(HasReference("$a {b}"));
}

TEST(References, ValuesAreGivenForHiding) {
  EXPECT_EQ(ExpandReferences("${a} and ${file:b}", Letters()).values,
            (std::vector<std::string>{"<a>", "[b]"}));
}

TEST(SystemReferences, AFileLosesTheLineEndThatItEndsWith) {
  const TestSupport::TemporaryDirectory directory;
  const std::string path = (directory.Path() / "secret").string();
  const auto expand = [&](const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
    const auto expansion = ExpandReferences("${file:" + path + "}", OrloAgent::SystemReferences());
    return expansion.problem.empty() ? expansion.text : "! " + expansion.problem;
  };
  EXPECT_EQ(expand(""), "");
  EXPECT_EQ(expand("word"), "word");
  EXPECT_EQ(expand("word\n"), "word");
  EXPECT_EQ(expand("word\r\n"), "word");
  EXPECT_EQ(expand("two\nlines\n\n"), "two\nlines\n");
  EXPECT_EQ(expand(std::string(65'536, 'x')).size(), 65'536u);
  const std::string refused = "! refers to the file \"" + path + "\", which can't be read: ";
  EXPECT_EQ(expand(std::string(65'537, 'x')), refused + "it is larger than 64 KiB");
  EXPECT_EQ(expand(std::string("a\0b", 3)), refused + "it holds a NUL byte");
}

TEST(SystemReferences, WhatIsNotThereIsSaid) {
  const TestSupport::TemporaryDirectory directory;
  const std::string folder = directory.Path().string();
  const auto problem = [](const std::string& text) {
    return ExpandReferences(text, OrloAgent::SystemReferences()).problem;
  };
  EXPECT_EQ(problem("${file:" + folder + "}"),
            "refers to the file \"" + folder + "\", which can't be read: it is a directory");
  EXPECT_EQ(
      problem("${file:" + folder + "/none}"),
      "refers to the file \"" + folder + "/none\", which can't be read: No such file or directory");
  EXPECT_EQ(problem("${ORLO_TEST_NO_SUCH_VARIABLE}"),
            "refers to the environment variable ORLO_TEST_NO_SUCH_VARIABLE, which is not set");
  EXPECT_NE(ExpandReferences("${PATH}", OrloAgent::SystemReferences()).text, "");
}

}  // namespace
