#include "Agent/EventHeader.h"

#include <gtest/gtest.h>

namespace {

using OrloAgent::EventHeaderTemplate;
using OrloAgent::ParseEventHeader;

std::string Build(std::string_view source, std::uint8_t flags, std::uint64_t time) {
  const EventHeaderTemplate header(source);
  std::string bytes(header.GetSize(), '?');
  header.Write(bytes.data(), flags, time);
  return bytes;
}

TEST(EventHeader, HasTheLayoutThatIsWrittenDown) {
  const std::string expected(
      "\x01\x02"
      "\x08\x07\x06\x05\x04\x03\x02\x01"
      "\x05\x00"
      "stdin",
      17);
  EXPECT_EQ(Build("stdin", 0x02, 0x0102030405060708), expected);
}

TEST(EventHeader, WhatIsWrittenIsReadBack) {
  const std::string bytes = Build("tcp:[::1]:514", OrloAgent::EventFlags::kNoLineEnd, ~0ull);
  const auto header = ParseEventHeader(bytes);
  ASSERT_TRUE(header);
  EXPECT_EQ(header->flags, OrloAgent::EventFlags::kNoLineEnd);
  EXPECT_EQ(header->receiveTime, ~0ull);
  EXPECT_EQ(header->source, "tcp:[::1]:514");
}

TEST(EventHeader, TheSourceMayBeEmpty) {
  const auto header = ParseEventHeader(Build("", 0, 7));
  ASSERT_TRUE(header);
  EXPECT_EQ(header->source, "");
  EXPECT_EQ(header->receiveTime, 7u);
}

TEST(EventHeader, ASourceThatIsTooLongIsCutSoThatTheHeaderStaysReadable) {
  const std::string bytes = Build(std::string(70'000, 'x'), 0, 0);
  const auto header = ParseEventHeader(bytes);
  ASSERT_TRUE(header);
  EXPECT_EQ(header->source.size(), 65'535u);
}

TEST(EventHeader, BytesThatAreNoHeaderAreRefused) {
  const std::string good = Build("stdin", 0, 1);
  ASSERT_TRUE(ParseEventHeader(good));
  for (std::size_t size = 0; size < good.size(); ++size) {
    EXPECT_FALSE(ParseEventHeader(good.substr(0, size))) << size;
  }
  EXPECT_FALSE(ParseEventHeader(good + "x"));

  const auto changed = [&](std::size_t at, char value) {
    std::string bytes = good;
    bytes[at] = value;
    return bytes;
  };
  EXPECT_FALSE(ParseEventHeader(changed(0, 0))) << "version";
  EXPECT_FALSE(ParseEventHeader(changed(0, 2))) << "version";
  EXPECT_FALSE(ParseEventHeader(changed(1, 4))) << "unknown flag";
  EXPECT_FALSE(ParseEventHeader(changed(1, '\x80'))) << "unknown flag";
  EXPECT_FALSE(ParseEventHeader(changed(10, 4))) << "length";
  EXPECT_FALSE(ParseEventHeader(changed(10, 6))) << "length";
  EXPECT_FALSE(ParseEventHeader(changed(11, 1))) << "length";
}

}  // namespace
