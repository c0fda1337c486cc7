#include "Agent/Monitor/RequestGuard.h"

#include <gtest/gtest.h>

namespace OrloAgent {
namespace {

constexpr char kToken[] = "0123456789abcdef";

TEST(RequestGuard, TokenIsTakenAsBearerAndAsThePasswordOfAnyUser) {
  EXPECT_TRUE(CarriesToken("Bearer 0123456789abcdef", kToken));
  EXPECT_TRUE(CarriesToken("bearer 0123456789abcdef", kToken));
  // "me:0123456789abcdef", and the same without a user.
  EXPECT_TRUE(CarriesToken("Basic bWU6MDEyMzQ1Njc4OWFiY2RlZg==", kToken));
  EXPECT_TRUE(CarriesToken("Basic OjAxMjM0NTY3ODlhYmNkZWY=", kToken));
}

TEST(RequestGuard, AnythingElseIsNoToken) {
  for (const char* const wrong :
       {"", "Bearer", "Bearer ", "Bearer 0123456789abcdeF", "Bearer 0123456789abcdef ",
        "Bearer 0123456789abcde", "0123456789abcdef", "Digest 0123456789abcdef",
        // "me:0123456789abcdeF", "0123456789abcdef" without a colon, and no base64.
        "Basic bWU6MDEyMzQ1Njc4OWFiY2RlRg==", "Basic MDEyMzQ1Njc4OWFiY2RlZg==", "Basic ====",
        "Basic a", "Basic !!!!", "Basic "}) {
    EXPECT_FALSE(CarriesToken(wrong, kToken)) << wrong;
  }
}

TEST(RequestGuard, HostsAreAddressesOrLocalhost) {
  for (const char* const right : {"127.0.0.1", "127.0.0.1:9464", "[::1]", "[::1]:9464", "localhost",
                                  "LOCALHOST:9464", "192.0.2.7:80"}) {
    EXPECT_TRUE(IsAddressOrLocalhost(right)) << right;
  }
  for (const char* const wrong : {"", ":9464", "example.org", "example.org:9464", "localhost.org",
                                  "127.0.0.1.example.org", "[example.org]"}) {
    EXPECT_FALSE(IsAddressOrLocalhost(wrong)) << wrong;
  }
}

}  // namespace
}  // namespace OrloAgent
