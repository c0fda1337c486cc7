#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <string>

#include "Platform/Windows.h"
#include "Platform/testing/TestRegistry.h"
#include "StoreAndForward/Schedule.h"

namespace OrloStoreAndForward {
namespace {

constexpr wchar_t kZonesKey[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Time Zones\\";

TIME_ZONE_INFORMATION Marked() {
  TIME_ZONE_INFORMATION zone;
  std::memset(&zone, 0x5A, sizeof(zone));
  return zone;
}

bool IsMarked(const TIME_ZONE_INFORMATION& zone) {
  const TIME_ZONE_INFORMATION marked = Marked();
  return std::memcmp(&zone, &marked, sizeof(zone)) == 0;
}

bool SameRules(const TIME_ZONE_INFORMATION& left, const TIME_ZONE_INFORMATION& right) {
  return left.Bias == right.Bias && left.StandardBias == right.StandardBias &&
         left.DaylightBias == right.DaylightBias &&
         std::memcmp(&left.StandardDate, &right.StandardDate, sizeof(SYSTEMTIME)) == 0 &&
         std::memcmp(&left.DaylightDate, &right.DaylightDate, sizeof(SYSTEMTIME)) == 0;
}

// IANA name to Windows name, as the data file lists them: one line per Windows zone, tab-separated.
std::map<std::string, std::string> ReadZonePairs() {
  std::ifstream file(std::string(ORLO_TEST_DATA) + "/schedule-zones.tsv");
  EXPECT_TRUE(file.is_open());
  std::map<std::string, std::string> pairs;
  std::string line;
  while (std::getline(file, line)) {
    const std::size_t tab = line.find('\t');
    std::size_t start = tab + 1;
    while (start <= line.size()) {
      const std::size_t end = std::min(line.find(',', start), line.size());
      pairs[line.substr(start, end - start)] = line.substr(0, tab);
      start = end + 1;
    }
  }
  return pairs;
}

class ResolveTimeZone : public testing::Test {
 protected:
  ~ResolveTimeZone() override { Platform::TestRegistry::Reset(); }

  static bool RegistryHolds(const std::wstring& zone) {
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, (kZonesKey + zone).c_str(), 0, KEY_QUERY_VALUE, &key) !=
        ERROR_SUCCESS) {
      return false;
    }
    RegCloseKey(key);
    return true;
  }

  static void SetRegistryZone(const std::wstring& name, std::vector<std::uint8_t> data) {
    Platform::TestRegistry::SetValue(kZonesKey + name, L"TZI", 3, std::move(data));
  }
};

TEST_F(ResolveTimeZone, All408NamesResolveThroughThoseOf93WindowsZonesThatTheRegistryHolds) {
  const auto pairs = ReadZonePairs();
  ASSERT_EQ(pairs.size(), 408u);
  std::set<std::string> windowsNames;
  std::set<std::string> missing;
  for (const auto& [iana, windows] : pairs) {
    const bool bIsThere = RegistryHolds(std::wstring(windows.begin(), windows.end()));
    TIME_ZONE_INFORMATION zone{};
    EXPECT_EQ(Schedule::ResolveTimeZone(iana, zone), bIsThere) << iana;
    windowsNames.insert(windows);
    if (!bIsThere) {
      missing.insert(windows);
    }
  }
  EXPECT_EQ(windowsNames.size(), 93u);
  // No place keeps its time any more, and Wine's registry has no record of it.
  missing.erase("Mid-Atlantic Standard Time");
  EXPECT_TRUE(missing.empty()) << *missing.begin() << " is missing";
}

TEST_F(ResolveTimeZone, EachNameGoesThroughItsOwnWindowsZone) {
  // Each Windows zone gets a bias of its own, by which it is recognised.
  const auto pairs = ReadZonePairs();
  std::map<std::string, std::uint8_t> biases;
  for (const auto& [iana, windows] : pairs) {
    if (biases.emplace(windows, static_cast<std::uint8_t>(biases.size() + 1)).second) {
      std::vector<std::uint8_t> data(44, 0);
      data[0] = biases[windows];
      SetRegistryZone(std::wstring(windows.begin(), windows.end()), data);
    }
  }
  for (const auto& [iana, windows] : pairs) {
    TIME_ZONE_INFORMATION zone{};
    ASSERT_TRUE(Schedule::ResolveTimeZone(iana, zone)) << iana;
    EXPECT_EQ(zone.Bias, biases[windows]) << iana;
  }
}

TEST_F(ResolveTimeZone, ReginaHasTheRulesOfCentralStandardTime) {
  TIME_ZONE_INFORMATION regina{};
  TIME_ZONE_INFORMATION chicago{};
  ASSERT_TRUE(Schedule::ResolveTimeZone("America/Regina", regina));
  ASSERT_TRUE(Schedule::ResolveTimeZone("America/Chicago", chicago));
  EXPECT_TRUE(SameRules(regina, chicago));
  EXPECT_EQ(regina.DaylightBias, -60);
  EXPECT_EQ(regina.StandardDate.wMonth, 11);
}

TEST_F(ResolveTimeZone, RecordCarriesFiveFieldsAndNothingElse) {
  std::vector<std::uint8_t> data(44);
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<std::uint8_t>(i + 1);
  }
  SetRegistryZone(L"China Standard Time", data);
  TIME_ZONE_INFORMATION zone = Marked();
  ASSERT_TRUE(Schedule::ResolveTimeZone("Asia/Hong_Kong", zone));
  EXPECT_EQ(zone.Bias, 0x04030201);
  EXPECT_EQ(zone.StandardBias, 0x08070605);
  EXPECT_EQ(zone.DaylightBias, 0x0C0B0A09);
  EXPECT_EQ(zone.StandardDate.wYear, 0x0E0D);
  EXPECT_EQ(zone.StandardDate.wMilliseconds, 0x1C1B);
  EXPECT_EQ(zone.DaylightDate.wYear, 0x1E1D);
  EXPECT_EQ(zone.DaylightDate.wMilliseconds, 0x2C2B);
  for (std::size_t i = 0; i < 32; ++i) {
    EXPECT_EQ(zone.StandardName[i], L'\0');
    EXPECT_EQ(zone.DaylightName[i], L'\0');
  }
}

TEST_F(ResolveTimeZone, UtcAndGmtGoThroughKeysOfTheirOwn) {
  TIME_ZONE_INFORMATION utc{};
  TIME_ZONE_INFORMATION gmt{};
  ASSERT_TRUE(Schedule::ResolveTimeZone("UTC", utc));
  EXPECT_EQ(utc.Bias, 0);
  EXPECT_EQ(utc.DaylightDate.wMonth, 0);
  ASSERT_TRUE(Schedule::ResolveTimeZone("GMT", gmt));
  EXPECT_EQ(gmt.DaylightDate.wMonth, 3) << "London's rules";
}

TEST_F(ResolveTimeZone, NamesOutsideTheTableFail) {
  for (const char* name : {"Etc/UTC", "Etc/GMT+5", "US/Central", "Zulu", "Nowhere", ""}) {
    TIME_ZONE_INFORMATION zone = Marked();
    EXPECT_FALSE(Schedule::ResolveTimeZone(name, zone)) << name;
    EXPECT_TRUE(IsMarked(zone)) << name;
  }
}

TEST_F(ResolveTimeZone, NamesOutsideTheTableAreNotLookedUpInTheRegistry) {
  SetRegistryZone(L"Etc/UTC", std::vector<std::uint8_t>(44, 1));
  SetRegistryZone(L"Central Standard Time", std::vector<std::uint8_t>(44, 1));
  TIME_ZONE_INFORMATION zone = Marked();
  EXPECT_FALSE(Schedule::ResolveTimeZone("Etc/UTC", zone));
  EXPECT_FALSE(Schedule::ResolveTimeZone("Central Standard Time", zone));
  EXPECT_TRUE(IsMarked(zone));
}

TEST_F(ResolveTimeZone, NamesAreComparedExactly) {
  for (const char* name : {"utc", "america/regina", " UTC", "UTC ", "America/Regina\t"}) {
    TIME_ZONE_INFORMATION zone = Marked();
    EXPECT_FALSE(Schedule::ResolveTimeZone(name, zone)) << name;
    EXPECT_TRUE(IsMarked(zone)) << name;
  }
}

TEST_F(ResolveTimeZone, ZoneMissingInTheRegistryFailsAndLeavesTheRecord) {
  Platform::TestRegistry::RemoveKey(std::wstring(kZonesKey) + L"China Standard Time");
  TIME_ZONE_INFORMATION zone = Marked();
  EXPECT_FALSE(Schedule::ResolveTimeZone("Asia/Hong_Kong", zone));
  EXPECT_TRUE(IsMarked(zone));
}

TEST_F(ResolveTimeZone, MissingValueFailsAndLeavesTheRecord) {
  Platform::TestRegistry::RemoveValue(std::wstring(kZonesKey) + L"China Standard Time", L"TZI");
  TIME_ZONE_INFORMATION zone = Marked();
  EXPECT_FALSE(Schedule::ResolveTimeZone("Asia/Hong_Kong", zone));
  EXPECT_TRUE(IsMarked(zone));
}

TEST_F(ResolveTimeZone, ValueLargerThan44BytesFailsAndLeavesTheRecord) {
  SetRegistryZone(L"China Standard Time", std::vector<std::uint8_t>(45, 1));
  TIME_ZONE_INFORMATION zone = Marked();
  EXPECT_FALSE(Schedule::ResolveTimeZone("Asia/Hong_Kong", zone));
  EXPECT_TRUE(IsMarked(zone));
}

TEST_F(ResolveTimeZone, ShorterValueIsAcceptedAsRead) {
  SetRegistryZone(L"China Standard Time", {0x20, 0xFE, 0xFF, 0xFF});
  TIME_ZONE_INFORMATION zone = Marked();
  ASSERT_TRUE(Schedule::ResolveTimeZone("Asia/Hong_Kong", zone));
  EXPECT_EQ(zone.Bias, -480);
  EXPECT_EQ(zone.DaylightBias, 0);
}

}  // namespace
}  // namespace OrloStoreAndForward
