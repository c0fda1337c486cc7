#include "WindowsAgentCommon/EnvironmentBlockHelper.h"

#include <gtest/gtest.h>

#include "tests/support/LogCapture.h"

namespace WindowsAgentCommon {
namespace {

constexpr const char* kLogger = "Code.EnvironmentBlockHelper";

class EnvironmentBlockHelperTest : public testing::Test {
 protected:
  // Fits both types; the old value differs from every default in these tests.
  template <typename T>
  struct Read {
    bool found = false;
    T value = 77;
    bool operator==(const Read&) const = default;
  };

  Read<int> ReadInt(const std::string& text, int defaultValue = 10) {
    const EnvironmentBlock block{{"Key", text}};
    Read<int> read;
    read.found = EnvironmentBlockHelper(block).GetIntegerValue("Key", read.value, defaultValue);
    return read;
  }
  Read<long> ReadLong(const std::string& text, long defaultValue = 10) {
    const EnvironmentBlock block{{"Key", text}};
    Read<long> read;
    read.found = EnvironmentBlockHelper(block).GetIntegerValue("Key", read.value, defaultValue);
    return read;
  }

  TestSupport::LogCapture m_log;
};

TEST_F(EnvironmentBlockHelperTest, AMissingKeyGivesTheDefaultSilently) {
  const EnvironmentBlock block{{"other", "1"}};
  const EnvironmentBlockHelper helper(block);
  int number = 1;
  EXPECT_FALSE(helper.GetIntegerValue("Key", number, -5));
  EXPECT_EQ(number, -5);
  long longNumber = 1;
  EXPECT_FALSE(helper.GetIntegerValue("Key", longNumber, -6L));
  EXPECT_EQ(longNumber, -6);
  bool flag = false;
  EXPECT_FALSE(helper.GetBooleanValue("Key", flag, true));
  EXPECT_TRUE(flag);
  std::vector<std::string> values{"old"};
  EXPECT_FALSE(helper.GetArrayValue("Key", values));
  EXPECT_TRUE(values.empty());
  EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(EnvironmentBlockHelperTest, KeysAreComparedExactly) {
  const EnvironmentBlock block{{"key", "1"}, {"Key ", "2"}};
  int number = 0;
  EXPECT_FALSE(EnvironmentBlockHelper(block).GetIntegerValue("Key", number, 9));
  EXPECT_EQ(number, 9);
}

TEST_F(EnvironmentBlockHelperTest, WholeNumbersOf32BitsAreRead) {
  const std::pair<const char*, int> cases[] = {{"0", 0},          {"5", 5},
                                               {"-5", -5},        {"-0", 0},
                                               {"007", 7},        {"2147483647", 2147483647},
                                               {" 12", 12},       {"12\t ", 12},
                                               {" \t -3 \t", -3}, {"-2147483648", -2147483647 - 1}};
  for (const auto& [text, value] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(ReadInt(text), (Read<int>{true, value}));
    EXPECT_EQ(ReadLong(text), (Read<long>{true, value}));
  }
  EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(EnvironmentBlockHelperTest, WhatIsNoWholeNumberOf32BitsGivesTheDefault) {
  for (const char* text :
       {"", " ", "abc", "5x", "x5", "5 6", "- 5", "--5", "-", "1.0", "1e3", "0x10", "2147483648",
        "-2147483649", "99999999999999999999999", "\xd9\xa3"}) {
    SCOPED_TRACE(text);
    m_log.Clear();
    EXPECT_EQ(ReadInt(text), (Read<int>{false, 10}));
    EXPECT_EQ(ReadLong(text), (Read<long>{false, 10}));
    EXPECT_EQ(m_log.Lines().size(), 2u);
  }
}

TEST_F(EnvironmentBlockHelperTest, ANulInsideANumberIsNotItsEnd) {
  EXPECT_EQ(ReadInt(std::string("5\0", 2)), (Read<int>{false, 10}));
}

TEST_F(EnvironmentBlockHelperTest, TheErrorLineNamesKeyValueAndDefault) {
  ReadInt("abc", 10);
  EXPECT_TRUE(m_log.Contains(LogLevel::Error, kLogger,
                             "Invalid value \"abc\" for Key (whole number from -2147483648 to "
                             "2147483647 expected). Using the default 10."));
  m_log.Clear();
  const EnvironmentBlock block{{"Flag", "maybe"}};
  bool flag = false;
  EXPECT_FALSE(EnvironmentBlockHelper(block).GetBooleanValue("Flag", flag, true));
  EXPECT_TRUE(flag);
  EXPECT_TRUE(m_log.Contains(LogLevel::Error, kLogger,
                             "Invalid value \"maybe\" for Flag (true, false, 1, 0, yes, no, on or "
                             "off expected). Using the default true."));
  EXPECT_EQ(m_log.Lines().size(), 1u);
}

TEST_F(EnvironmentBlockHelperTest, BooleansAreReadInAnyLetterCase) {
  const std::pair<const char*, bool> cases[] = {
      {"true", true},   {"TRUE", true},   {"tRuE", true}, {"1", true},    {"yes", true},
      {"Yes", true},    {"on", true},     {"ON", true},   {" on ", true}, {"false", false},
      {"False", false}, {"0", false},     {"no", false},  {"NO", false},  {"off", false},
      {"OFF", false},   {"\tno\t", false}};
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    const EnvironmentBlock block{{"Key", text}};
    bool flag = !expected;
    EXPECT_TRUE(EnvironmentBlockHelper(block).GetBooleanValue("Key", flag, !expected));
    EXPECT_EQ(flag, expected);
  }
  EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(EnvironmentBlockHelperTest, WhatIsNoBooleanGivesTheDefault) {
  for (const char* text : {"", "2", "-1", "01", "t", "y", "truee", "tru", "o n", "enable"}) {
    for (const bool defaultValue : {false, true}) {
      SCOPED_TRACE(text);
      m_log.Clear();
      const EnvironmentBlock block{{"Key", text}};
      bool flag = !defaultValue;
      EXPECT_FALSE(EnvironmentBlockHelper(block).GetBooleanValue("Key", flag, defaultValue));
      EXPECT_EQ(flag, defaultValue);
      ASSERT_EQ(m_log.Lines().size(), 1u);
      EXPECT_EQ(m_log.Lines()[0].level, LogLevel::Error);
    }
  }
}

TEST_F(EnvironmentBlockHelperTest, AnArrayHasEveryValueInOrder) {
  const EnvironmentBlock block{{"a", "0"}, {"Key", "z"}, {"Key", "a"}, {"Key", ""}, {"z", "1"}};
  std::vector<std::string> values{"old"};
  EXPECT_TRUE(EnvironmentBlockHelper(block).GetArrayValue("Key", values));
  EXPECT_EQ(values, (std::vector<std::string>{"z", "a", ""}));
  EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(EnvironmentBlockHelperTest, WhereOneValueIsExpectedTheFirstOfSeveralIsReadWithAWarning) {
  const EnvironmentBlock block{{"Key", "3"}, {"Key", "4"}, {"Key", "x"}};
  int number = 0;
  EXPECT_TRUE(EnvironmentBlockHelper(block).GetIntegerValue("Key", number, 0));
  EXPECT_EQ(number, 3);
  EXPECT_EQ(m_log.Lines(),
            (std::vector<TestSupport::LogLine>{
                {LogLevel::Warn, kLogger,
                 "Key has 3 values where one is expected. Using the first, \"3\"."}}));
}

}  // namespace
}  // namespace WindowsAgentCommon
