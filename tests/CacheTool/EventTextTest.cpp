#include "CacheTool/EventText.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "CacheTool/ToolError.h"
#include "tests/CacheTool/CacheFiles.h"

namespace OrloCacheTool {

TEST(EventText, PrintableTextStaysAsItIs) {
  EXPECT_EQ(ToPrintable("plain \\ text"), "plain \\ text");
  EXPECT_EQ(ToPrintable("Gr\xc3\xb6\xc3\x9f"
                        "e \xe2\x82\xac \xf0\x9f\x98\x80"),
            "Gr\xc3\xb6\xc3\x9f"
            "e \xe2\x82\xac \xf0\x9f\x98\x80");
}

TEST(EventText, NothingThatCommandsATerminalPasses) {
  EXPECT_EQ(ToPrintable("\x1b[2J\r\n\t\x7f"), "\\x1b[2J\\x0d\\x0a\\x09\\x7f");
  // The same command in one character of Unicode.
  EXPECT_EQ(ToPrintable("\xc2\x9b"
                        "2J"),
            "\\xc2\\x9b2J");
  EXPECT_EQ(ToPrintable("\x9b"), "\\x9b");
}

TEST(EventText, BytesThatAreNoUtf8AreShownOneByOne) {
  for (const char* wrong : {"\xff", "\xc0\x80", "\xe0\x80\x80", "\xed\xa0\x80", "\xf0\x80\x80\x80",
                            "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xc3", "\xe2\x82", "\x80"}) {
    EXPECT_FALSE(IsUtf8(wrong)) << wrong;
    EXPECT_EQ(ToPrintable(wrong).substr(0, 2), "\\x");
  }
  EXPECT_EQ(ToPrintable("a\xe2\x82"), "a\\xe2\\x82");
}

TEST(EventText, LongTextIsShownUpToTheLimit) {
  EXPECT_EQ(ToPrintable("abcdef", 3), "abc...");
  EXPECT_EQ(ToPrintable("abc", 3), "abc");
  EXPECT_EQ(ToPrintable("abc", 0), "...");
}

TEST(EventText, ReceiveTimesHaveSevenDigits) {
  EXPECT_EQ(FormatReceiveTime(131'018'331'071'234'567), "2016-03-07T14:05:07.1234567Z");
  EXPECT_EQ(FormatReceiveTime(0), "1601-01-01T00:00:00.0000000Z");
  EXPECT_EQ(FormatReceiveTime(~std::uint64_t{0}), "");
}

TEST(EventText, JsonTellsWhatTheHeadTells) {
  const auto json =
      EventToJson({MakeHead("tcp:192.0.2.1:514", 3), "text"}, "2016-03-07-14-05/07", 4);
  EXPECT_EQ(json["chunk"], "2016-03-07-14-05/07");
  EXPECT_EQ(json["event"], 4);
  EXPECT_EQ(json["received"], "2016-03-07T14:05:07.1234567Z");
  EXPECT_EQ(json["source"], "tcp:192.0.2.1:514");
  EXPECT_EQ(json["flags"], (nlohmann::json{"no_line_end", "cut"}));
  EXPECT_EQ(json["text"], "text");
}

TEST(EventText, EveryEventComesBackFromItsJsonByteForByte) {
  std::string everything;
  for (int byte = 0; byte < 256; ++byte) {
    everything += static_cast<char>(byte);
  }
  for (const std::string& payload :
       {std::string(), std::string("a\0b", 3), everything, std::string("\xef\xbb\xbf \" \\ \n")}) {
    for (const std::string& head : {MakeHead(), std::string(), everything}) {
      const auto back = EventFromJson(EventToJson({head, payload}, "a/b", 1).dump());
      EXPECT_EQ(back.head, head);
      EXPECT_EQ(back.payload, payload);
    }
  }
}

TEST(EventText, LinesThatAreNoEventAreRefused) {
  for (const char* line :
       {"", "[]", "{", "text", "{}", R"({"text":"a"})", R"({"head":"00"})",
        R"({"head":"0","text":"a"})", R"({"head":"0g","text":"a"})", R"({"head":1,"text":"a"})",
        R"({"head":"","text":1})", R"({"head":"","text":"a","bytes":"00"})",
        R"({"head":"","bytes":"x"})"}) {
    EXPECT_THROW(EventFromJson(line), ToolError) << line;
  }
  EXPECT_EQ(EventFromJson(R"({"bytes":"00fF","head":""})").payload, std::string("\0\xff", 2));
}

}  // namespace OrloCacheTool
