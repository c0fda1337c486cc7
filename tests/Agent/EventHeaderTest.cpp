#include "Agent/EventHeader.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace std::string_literals;

using boost::asio::ip::make_address;
using OrloAgent::EventHeaderTemplate;
using OrloAgent::EventOrigin;
using OrloAgent::ParseEventHeader;
namespace EventFlags = OrloAgent::EventFlags;

constexpr std::uint64_t kTime = 0x01dc5a0102030405 / 1000 * 1000;

std::string Build(const EventHeaderTemplate& header, std::uint8_t flags = 0,
                  std::uint64_t time = kTime) {
  std::string bytes(header.GetSize(), '?');
  header.Write(bytes.data(), flags, time);
  return bytes;
}

std::string BuildForSender(EventOrigin transport, const char* address) {
  return Build(EventHeaderTemplate(transport, make_address(address)));
}

// As versions before the compact layout wrote it.
std::string BuildVersion1(std::uint8_t flags, std::uint64_t time, const std::string& source) {
  std::string bytes{'\x01', static_cast<char>(flags)};
  for (int i = 0; i < 8; ++i) {
    bytes += static_cast<char>(time >> (8 * i));
  }
  bytes += static_cast<char>(source.size());
  bytes += static_cast<char>(source.size() >> 8);
  return bytes + source;
}

TEST(EventHeader, HasTheLayoutThatIsWrittenDown) {
  const EventHeaderTemplate header(EventOrigin::Tcp, make_address("192.0.2.1"));
  // 1 | 0011 | 010; 0x060504030201 tenths of a millisecond; four bytes of address
  EXPECT_EQ(Build(header, EventFlags::kCut, 0x060504030201ull * 1000 + 999),
            "\x9a\x01\x02\x03\x04\x05\x06\xc0\x00\x02\x01"s);
}

TEST(EventHeader, ASenderWithAnIpv4AddressTakesElevenBytes) {
  for (const auto transport : {EventOrigin::Tcp, EventOrigin::Tls, EventOrigin::Udp}) {
    EXPECT_EQ(BuildForSender(transport, "192.0.2.1").size(), 11u);
  }
}

TEST(EventHeader, EverySourceIsReadBack) {
  const struct {
    EventHeaderTemplate header;
    const char* source;
  } cases[] = {
      {{EventOrigin::Text, "whatever ä"}, "whatever ä"},
      {{EventOrigin::Text, ""}, ""},
      {{EventOrigin::Stdin, ""}, "stdin"},
      {{EventOrigin::File, "/var/log/messages"}, "file:/var/log/messages"},
      {{EventOrigin::Tcp, make_address("192.0.2.1")}, "tcp:192.0.2.1"},
      {{EventOrigin::Tls, make_address("255.255.255.255")}, "tls:255.255.255.255"},
      {{EventOrigin::Udp, make_address("2001:db8::1")}, "udp:[2001:db8::1]"},
      {{EventOrigin::Tcp, make_address("::ffff:192.0.2.1")}, "tcp:192.0.2.1"},
      {{EventOrigin::Tls, make_address("fe80::1%7")}, "tls:[fe80::1%7]"},
  };
  for (const auto& [header, source] : cases) {
    for (const std::uint8_t flags :
         {std::uint8_t{0}, EventFlags::kNoLineEnd, EventFlags::kCut, EventFlags::kAll}) {
      const std::string bytes = Build(header, flags);
      const auto parsed = ParseEventHeader(bytes);
      ASSERT_TRUE(parsed) << source;
      EXPECT_EQ(parsed->DescribeSource(), source);
      EXPECT_EQ(parsed->flags, flags);
      EXPECT_EQ(parsed->receiveTime, kTime);
    }
  }
}

TEST(EventHeader, TheTimeIsKeptToATenthOfAMillisecondForCenturies) {
  const EventHeaderTemplate header(EventOrigin::Stdin, "");
  EXPECT_EQ(ParseEventHeader(Build(header, 0, 1'999))->receiveTime, 1'000u);
  constexpr std::uint64_t kYear2400 = 252'138'528'000'000'000;
  EXPECT_EQ(ParseEventHeader(Build(header, 0, kYear2400))->receiveTime, kYear2400);
}

TEST(EventHeader, ALongPathIsKeptWhole) {
  const std::string path = "/" + std::string(70'000, 'x');
  EXPECT_EQ(ParseEventHeader(Build({EventOrigin::File, path}))->source, path);
}

TEST(EventHeader, BytesThatAreNoHeaderAreRefused) {
  for (const std::string& bytes : std::vector<std::string>{
           "", "\x02"s + std::string(10, '\0'),              // neither layout
           "\x98\x01\x02\x03\x04\x05"s,                      // the time is not complete
           "\x9c\x01\x02\x03\x04\x05\x06\xc0\x00\x02\x01"s,  // a flag that is not known
           "\xb0\x01\x02\x03\x04\x05\x06"s,                  // an origin that is not known
           "\x88\x01\x02\x03\x04\x05\x06x"s,                 // standard input says nothing more
           "\x98\x01\x02\x03\x04\x05\x06\xc0\x00\x02"s,      // addresses of other sizes
           "\x98\x01\x02\x03\x04\x05\x06\xc0\x00\x02\x01x"s, "\x98\x01\x02\x03\x04\x05\x06"s}) {
    EXPECT_FALSE(ParseEventHeader(bytes)) << testing::PrintToString(bytes);
  }
}

TEST(EventHeader, WhatEarlierVersionsWroteIsRead) {
  const std::string bytes = BuildVersion1(EventFlags::kNoLineEnd, ~0ull, "tcp:[::1]:514");
  const auto header = ParseEventHeader(bytes);
  ASSERT_TRUE(header);
  EXPECT_EQ(header->flags, EventFlags::kNoLineEnd);
  EXPECT_EQ(header->receiveTime, ~0ull);
  EXPECT_EQ(header->DescribeSource(), "tcp:[::1]:514");
  EXPECT_EQ(ParseEventHeader(BuildVersion1(0, 7, ""))->DescribeSource(), "");
}

TEST(EventHeader, BytesThatAreNoHeaderOfEarlierVersionsAreRefused) {
  const std::string good = BuildVersion1(0, 1, "stdin");
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
