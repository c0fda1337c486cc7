#include "Agent/FrameReader.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using OrloAgent::Frame;
using OrloAgent::FrameReader;
using OrloAgent::FrameReaderOptions;

struct Taken {
  std::string bytes;
  bool cut = false;
  bool lineEnd = true;
  bool operator==(const Taken&) const = default;
};

void PrintTo(const Taken& taken, std::ostream* out) {
  *out << '"' << taken.bytes << '"' << (taken.cut ? " cut" : "")
       << (taken.lineEnd ? "" : " without line end");
}

class Sink : public OrloAgent::IFrameSink {
 public:
  void OnFrame(const Frame& frame) override {
    frames.push_back({std::string(frame.bytes), frame.cut, frame.lineEnd});
  }
  std::vector<Taken> frames;
};

struct Result {
  std::vector<Taken> frames;
  bool wellFormed = true;
  bool complete = true;
  bool operator==(const Result&) const = default;
};

void PrintTo(const Result& result, std::ostream* out) {
  *out << testing::PrintToString(result.frames) << (result.wellFormed ? "" : " malformed")
       << (result.complete ? "" : " truncated");
}

Result Read(const std::vector<std::string_view>& pieces, const FrameReaderOptions& options) {
  Result result;
  Sink sink;
  FrameReader reader(options);
  for (const std::string_view piece : pieces) {
    result.wellFormed = reader.Feed(piece, sink) && result.wellFormed;
  }
  if (result.wellFormed) {
    result.complete = reader.Finish(sink);
  }
  result.frames = sink.frames;
  return result;
}

struct Case {
  const char* name;
  std::string input;
  Result expected;
  FrameReaderOptions options{};
};

void PrintTo(const Case& one, std::ostream* out) { *out << one.name; }

FrameReaderOptions Limit(std::size_t size) { return {size, {}, {}}; }

FrameReaderOptions Plain() { return {64, FrameReaderOptions::Framing::DetectPlain, {}}; }

FrameReaderOptions Lines(std::size_t size) {
  return {size, FrameReaderOptions::Framing::Newline, FrameReaderOptions::TooLong::Split};
}

std::vector<Case> Cases() {
  using namespace std::string_literals;
  return {
      {"Nothing", "", {}},
      {"Lines", "<1>a\n<2>b\n", {{{"<1>a"}, {"<2>b"}}}},
      {"EmptyLines", "\n\na\n\n", {{{""}, {""}, {"a"}, {""}}}},
      {"LastLineWithoutEnd", "a\nb", {{{"a"}, {"b", false, false}}}},
      {"CarriageReturnsAreBytesOfTheMessage", "a\r\nb\r\n", {{{"a\r"}, {"b\r"}}}},
      {"NulAndInvalidUtf8", "a\0b\xff\xc3(\n"s, {{{"a\0b\xff\xc3("s}}}},
      {"OctetCounting", "5 hello3 a\nb", {{{"hello"}, {"a\nb"}}}},
      {"OctetCountedEmpty", "0 0 1 x0 ", {{{""}, {""}, {"x"}, {""}}}},
      {"OctetCountedWithLeadingZeros", "003 abc", {{{"abc"}}}},
      {"OctetCountedNul", "3 \0\n\xff"s, {{{"\0\n\xff"s}}}},
      {"OctetCountedEndsInsideMessage", "5 hello5 hel", {{{"hello"}}, true, false}},
      {"OctetCountedEndsInsideLength", "5 hello12", {{{"hello"}}, true, false}},
      {"OctetCountedEndsAfterLength", "5 hello12 ", {{{"hello"}}, true, false}},
      {"LengthWithLetter", "5 hello1x abc", {{{"hello"}}, false}},
      {"LengthFollowedByLineEnd", "5 hello\n5 world", {{{"hello"}}, false}},
      {"LengthMissing", "5 hello abc", {{{"hello"}}, false}},
      {"LengthOfElevenDigits", "00000000001 a", {{}, false}},
      {"LengthOfTenDigits", "0000000001 a", {{{"a"}}}},
      {"LineAtTheLimit", "abcd\ne\n", {{{"abcd"}, {"e"}}}, Limit(4)},
      {"LineOverTheLimitIsCut", "abcdefghij\nk\n", {{{"abcd", true, true}, {"k"}}}, Limit(4)},
      {"EndlessLineGivesItsBeginning", "abcdefghij", {{{"abcd", true, true}}}, Limit(4)},
      {"OctetCountedAtTheLimit", "4 abcd1 e", {{{"abcd"}, {"e"}}}, Limit(4)},
      {"OctetCountedOverTheLimitIsCut",
       "10 abcdefghij1 k",
       {{{"abcd", true, true}, {"k"}}},
       Limit(4)},
      {"OctetCountedOverTheLimitEndsEarly",
       "9999999999 abcdef",
       {{{"abcd", true, true}}},
       Limit(4)},
      {"DigitsAreTextWhereOnlyLinesAreRead", "5 hello\n7\n", {{{"5 hello"}, {"7"}}}, Lines(64)},
      {"TlsIsRefused", "\x16\x03\x01\x02\0\x01\n7 <13>six"s, {{}, false}, Plain()},
      {"TlsOfTheNewestVersionIsRefused", "\x16\x03\x04"s, {{}, false}, Plain()},
      {"TlsOfTheOldestVersionIsRefused", "\x16\x03\0\n"s, {{}, false}, Plain()},
      {"AlmostTlsIsALine", "\x16\x03\x05\nb\n", {{{"\x16\x03\x05"}, {"b"}}}, Plain()},
      {"ALineThatBeginsAsTlsDoes", "\x16\nb\n", {{{"\x16"}, {"b"}}}, Plain()},
      {"TooShortToBeTls", "\x16\x03", {{{"\x16\x03", false, false}}}, Plain()},
      {"TlsInTheMiddleIsText", "a\n\x16\x03\x01\n", {{{"a"}, {"\x16\x03\x01"}}}, Plain()},
      {"OctetCountingWhereTlsIsRefused", "3 \x16\x03\x01", {{{"\x16\x03\x01"}}}, Plain()},
      {"TlsIsTextWhereItIsNotLookedFor", "\x16\x03\x01\n", {{{"\x16\x03\x01"}}}, Lines(64)},
      {"LongLineInPieces",
       "abcdefghij\nk\n",
       {{{"abcd", false, false}, {"efgh", false, false}, {"ij"}, {"k"}}},
       Lines(4)},
      {"LineOfExactlyTwoPieces",
       "abcdefgh\n\n",
       {{{"abcd", false, false}, {"efgh"}, {""}}},
       Lines(4)},
      {"LongLastLineWithoutEnd",
       "abcdefgh",
       {{{"abcd", false, false}, {"efgh", false, false}}},
       Lines(4)},
  };
}

class FrameReaderCase : public testing::TestWithParam<Case> {};

TEST_P(FrameReaderCase, GivesItsFramesInOneCall) {
  EXPECT_EQ(Read({GetParam().input}, GetParam().options), GetParam().expected);
}

TEST_P(FrameReaderCase, GivesTheSameFramesHoweverTheBytesAreCutInThree) {
  const std::string_view input = GetParam().input;
  for (std::size_t first = 0; first <= input.size(); ++first) {
    for (std::size_t second = first; second <= input.size(); ++second) {
      EXPECT_EQ(
          Read({input.substr(0, first), input.substr(first, second - first), input.substr(second)},
               GetParam().options),
          GetParam().expected)
          << "cut at " << first << " and " << second;
    }
  }
}

TEST_P(FrameReaderCase, GivesTheSameFramesByteByByte) {
  std::vector<std::string_view> bytes;
  for (std::size_t i = 0; i < GetParam().input.size(); ++i) {
    bytes.push_back(std::string_view(GetParam().input).substr(i, 1));
  }
  EXPECT_EQ(Read(bytes, GetParam().options), GetParam().expected);
}

const auto kNameOfCase = [](const testing::TestParamInfo<Case>& one) {
  return std::string(one.param.name);
};
INSTANTIATE_TEST_SUITE_P(FrameReader, FrameReaderCase, testing::ValuesIn(Cases()), kNameOfCase);

TEST(FrameReader, AfterAnUnreadableLengthNothingMoreIsTaken) {
  Sink sink;
  FrameReader reader({});
  EXPECT_FALSE(reader.Feed("5x", sink));
  EXPECT_FALSE(reader.Feed("5 hello\n", sink));
  EXPECT_TRUE(sink.frames.empty());
}

TEST(FrameReader, TheRestOfAHugeMessageIsPassedOverAndTheNextIsRead) {
  Sink sink;
  FrameReader reader({16, {}, {}});
  const std::uint64_t length = (std::uint64_t{1} << 31) + 5;
  ASSERT_TRUE(reader.Feed(std::to_string(length) + " ", sink));
  const std::string block(1 << 20, 'x');
  for (std::uint64_t fed = 0; fed < length;) {
    const std::size_t size = std::min<std::uint64_t>(block.size(), length - fed);
    ASSERT_TRUE(reader.Feed({block.data(), size}, sink));
    fed += size;
  }
  ASSERT_TRUE(reader.Feed("2 ok", sink));
  EXPECT_EQ(sink.frames, (std::vector<Taken>{{std::string(16, 'x'), true, true}, {"ok"}}));
}

}  // namespace
