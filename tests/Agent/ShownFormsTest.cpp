#include "Agent/ShownForms.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

namespace OrloAgent {

namespace {

bool Has(const std::vector<std::string>& forms, const std::string& form) {
  return std::find(forms.begin(), forms.end(), form) != forms.end();
}

TEST(ShownForms, OfAnAddressAreItsPartsAndTheWholeAsMessagesHaveThem) {
  const auto forms = GetShownForms({"Logs.Example", 514, Transport::Tls});
  for (const char* form : {"tls://Logs.Example:514", "tls://logs.example:514", "Logs.Example",
                           "logs.example", "Logs.Example:514", "logs.example:514"}) {
    EXPECT_TRUE(Has(forms, form)) << form;
  }
}

TEST(ShownForms, OfAnIpv6AddressAreThoseWithBracketsAndInTheShortestWriting) {
  const auto forms = GetShownForms({"2001:0DB8:0:0::1", 514, Transport::Tcp});
  for (const char* form : {"tcp://[2001:0DB8:0:0::1]:514", "2001:0DB8:0:0::1", "2001:db8::1",
                           "[2001:db8::1]:514", "2001:0db8:0:0::1"}) {
    EXPECT_TRUE(Has(forms, form)) << form;
  }
}

TEST(ShownForms, OfBrokersAreThoseOfEachWithoutItsScheme) {
  const auto forms = GetShownFormsOfBrokers("SASL_SSL://One.example:9093, two.example,[::2]:7");
  for (const char* form :
       {"One.example:9093", "one.example", "one.example:9093", "two.example", "::2", "[::2]:7"}) {
    EXPECT_TRUE(Has(forms, form)) << form;
  }
  EXPECT_FALSE(Has(forms, "")) << "everything would have to be hidden";
  EXPECT_TRUE(GetShownFormsOfBrokers(" , ").empty());
}

TEST(ShownForms, OfAPathAreItsNormalAndItsAbsoluteForm) {
  const auto forms = GetShownFormsOfPath("./one/../secret/place/");
  const auto absolute = std::filesystem::current_path() / "secret" / "place";
  EXPECT_TRUE(Has(forms, (std::filesystem::path("secret") / "place").string()));
  EXPECT_TRUE(Has(forms, absolute.string()));
}

TEST(ShownForms, OfAPatternIsTheDirectoryBelowWhichItFindsFiles) {
  const auto forms = GetShownFormsOfDirectory("/srv/secret/*/app.log");
  EXPECT_TRUE(Has(forms, std::filesystem::path("/srv/secret").make_preferred().string()));
  for (const std::string& form : GetShownFormsOfPath("/srv/secret/*/app.log")) {
    EXPECT_FALSE(Has(forms, form)) << form << " is a form of the path already";
  }
  EXPECT_FALSE(Has(GetShownFormsOfDirectory("logs/app.log"), "logs"))
      << "a word that may stand anywhere";
}

}  // namespace

}  // namespace OrloAgent
