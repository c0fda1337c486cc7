#include "Agent/Units.h"

#include <gtest/gtest.h>

namespace {

using OrloAgent::ParseDuration;
using OrloAgent::ParseEndpoint;
using OrloAgent::ParseSize;
using OrloAgent::ParseWholeNumber;
using std::chrono::milliseconds;

TEST(Units, SizesAreBytesOrHaveABinaryUnit) {
  EXPECT_EQ(ParseSize("0"), 0u);
  EXPECT_EQ(ParseSize("4096"), 4096u);
  EXPECT_EQ(ParseSize("512KiB"), 512u * 1024);
  EXPECT_EQ(ParseSize("3MiB"), 3u * 1024 * 1024);
  EXPECT_EQ(ParseSize("10GiB"), std::uint64_t{10} << 30);
  EXPECT_EQ(ParseSize("2TiB"), std::uint64_t{2} << 40);
  EXPECT_EQ(ParseSize("18446744073709551615"), 18446744073709551615u);
}

TEST(Units, OtherSizesAreRefused) {
  for (const char* text : {"", " ", "KiB", "10 GiB", "10GB", "10gib", "1.5GiB", "-1", "+1", "1e3",
                           "0x10", "18446744073709551616", "16777216TiB", "10GiBs"}) {
    EXPECT_EQ(ParseSize(text), std::nullopt) << text;
  }
}

TEST(Units, DurationsHaveAUnit) {
  EXPECT_EQ(ParseDuration("0"), milliseconds(0));
  EXPECT_EQ(ParseDuration("500ms"), milliseconds(500));
  EXPECT_EQ(ParseDuration("30s"), milliseconds(30'000));
  EXPECT_EQ(ParseDuration("5m"), milliseconds(300'000));
  EXPECT_EQ(ParseDuration("24h"), milliseconds(86'400'000));
}

TEST(Units, OtherDurationsAreRefused) {
  for (const char* text : {"", "s", "30", "30 s", "-1s", "1.5s", "25h", "1d", "30S",
                           "99999999999999999999s", "18446744073709551615h"}) {
    EXPECT_EQ(ParseDuration(text), std::nullopt) << text;
  }
}

TEST(Units, WholeNumbersHaveNoSignAndNoRest) {
  EXPECT_EQ(ParseWholeNumber("0"), 0u);
  EXPECT_EQ(ParseWholeNumber("007"), 7u);
  for (const char* text : {"", "-1", "+1", " 1", "1 ", "1a", "18446744073709551616"}) {
    EXPECT_EQ(ParseWholeNumber(text), std::nullopt) << text;
  }
}

struct EndpointCase {
  const char* text;
  const char* host;
  std::uint16_t port;
};

class GoodEndpoint : public testing::TestWithParam<EndpointCase> {};

TEST_P(GoodEndpoint, IsReadAndWrittenBack) {
  std::string problem;
  const auto endpoint = ParseEndpoint(GetParam().text, true, problem);
  ASSERT_TRUE(endpoint) << problem;
  EXPECT_EQ(endpoint->host, GetParam().host);
  EXPECT_EQ(endpoint->port, GetParam().port);
  EXPECT_EQ(OrloAgent::ToText(*endpoint), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Endpoint, GoodEndpoint,
                         testing::Values(EndpointCase{"tcp://127.0.0.1:5140", "127.0.0.1", 5140},
                                         EndpointCase{"tcp://log-host.example:6514",
                                                      "log-host.example", 6514},
                                         EndpointCase{"tcp://[::1]:65535", "::1", 65535},
                                         EndpointCase{"udp://[::]:514", "::", 514},
                                         EndpointCase{"tls://h:6514", "h", 6514},
                                         EndpointCase{"tcp://localhost:0", "localhost", 0}));

class BadEndpoint : public testing::TestWithParam<const char*> {};

TEST_P(BadEndpoint, IsRefusedWithAReason) {
  std::string problem;
  EXPECT_FALSE(ParseEndpoint(GetParam(), true, problem));
  EXPECT_FALSE(problem.empty());
}

INSTANTIATE_TEST_SUITE_P(Endpoint, BadEndpoint,
                         testing::Values("", "127.0.0.1:5140", "http://127.0.0.1:1", "udp://",
                                         "tcp://", "tcp://:1", "tcp://host", "tcp://host:",
                                         "tcp://host:x", "tcp://host:65536", "tcp://host:-1",
                                         "tcp://host:1 ", "tcp://ho st:1", "tcp://::1:5",
                                         "tcp://[::1:5", "tcp://[::1]5", "tcp://[]:5",
                                         "tcp://[host]:5", "tcp://host:1/x", "tcp://a/b:1"));

TEST(Units, SchemeNamesTheTransport) {
  std::string problem;
  EXPECT_EQ(ParseEndpoint("tcp://h:1", true, problem)->transport, OrloAgent::Transport::Tcp);
  EXPECT_EQ(ParseEndpoint("udp://h:1", true, problem)->transport, OrloAgent::Transport::Udp);
  EXPECT_EQ(ParseEndpoint("tls://h:1", true, problem)->transport, OrloAgent::Transport::Tls);
}

TEST(Units, PortZeroIsForListeningOnly) {
  std::string problem;
  EXPECT_TRUE(ParseEndpoint("tcp://h:0", true, problem));
  EXPECT_FALSE(ParseEndpoint("tcp://h:0", false, problem));
  EXPECT_EQ(problem, "has a port out of range: 0 is not 1 to 65535");
}

}  // namespace
