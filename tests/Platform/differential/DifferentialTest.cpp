// The calls of Platform/Windows.h over POSIX against the record of the same calls on Windows.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <sstream>

#include "tests/Platform/differential/RecordedCalls.h"
#include "tests/support/TemporaryDirectory.h"

namespace Differential {

namespace {

const std::filesystem::path kDirectory = ORLO_DIFFERENTIAL_DATA;

// All groups. "conversion" and "zone" are made per zone.
const std::vector<std::string> kGroups = {
    "create",  "share",    "spelling", "names",    "transfer", "handles", "directories",
    "listing", "calendar", "rules",    "registry", "text",     "zone",    "conversion"};

std::vector<Difference> Differences() { return ReadDifferences(kDirectory / "differences.tsv"); }

void ExpectAsRecorded(const std::string& group, const Record& here) {
  const Recorded recorded = ReadRecord(kDirectory / "windows-calls.txt");
  ASSERT_FALSE(here.empty());
  std::string text;
  const std::vector<std::string> complaints = Compare(group, recorded, here, Differences());
  for (const std::string& complaint : complaints) {
    text += complaint + "\n";
  }
  EXPECT_TRUE(complaints.empty()) << complaints.size() << " of " << here.size() << ":\n" << text;
}

void ExpectFilesAsRecorded(const std::string& group,
                           const std::function<void(const Place&, Record&)>& make) {
  const TestSupport::TemporaryDirectory directory;
  std::wstring widePath = directory.WidePath();
  widePath.pop_back();
  Record record;
  make({directory.Path(), widePath}, record);
  ExpectAsRecorded(group, record);
}

void ExpectValuesAsRecorded(const std::string& group, const std::function<void(Record&)>& make) {
  Record record;
  make(record);
  ExpectAsRecorded(group, record);
}

void ExpectZonesAsRecorded(const std::string& group,
                           const std::function<void(const Zone&, Record&)>& make) {
  Record record;
  for (const Zone& zone : ZonesOf(ReadRecord(kDirectory / "windows-calls.txt"))) {
    make(zone, record);
  }
  ExpectAsRecorded(group, record);
}

TEST(DifferentialTest, FilesAreCreatedAndOpenedAsRecorded) {
  ExpectFilesAsRecorded("create", RecordCreate);
}

TEST(DifferentialTest, OpenFilesAreSharedAsRecorded) {
  ExpectFilesAsRecorded("share", RecordShare);
}

TEST(DifferentialTest, PathsAreUnderstoodAsRecorded) {
  ExpectFilesAsRecorded("spelling", RecordSpelling);
}

TEST(DifferentialTest, NamesAreTakenAsRecorded) { ExpectFilesAsRecorded("names", RecordNames); }

TEST(DifferentialTest, ReadsAndWritesMoveTheBytesThatWereRecorded) {
  ExpectFilesAsRecorded("transfer", RecordTransfer);
}

TEST(DifferentialTest, BadHandlesAreRefusedAsRecorded) {
  ExpectFilesAsRecorded("handles", RecordHandles);
}

TEST(DifferentialTest, CallsOnTheSamePathFollowEachOtherAsRecorded) {
  ExpectFilesAsRecorded("directories", RecordDirectories);
}

TEST(DifferentialTest, ListingsHoldTheEntriesThatWereRecorded) {
  ExpectFilesAsRecorded("listing", RecordListing);
}

TEST(DifferentialTest, TimesAreConvertedAsRecorded) {
  ExpectValuesAsRecorded("calendar", RecordCalendar);
}

TEST(DifferentialTest, RulesHoldWhenRecorded) { ExpectValuesAsRecorded("rules", RecordRules); }

TEST(DifferentialTest, RegistryAnswersAsRecorded) {
  ExpectValuesAsRecorded("registry", RecordRegistry);
}

TEST(DifferentialTest, TextIsConvertedAsRecorded) { ExpectValuesAsRecorded("text", RecordText); }

TEST(DifferentialTest, ZonesHaveTheRecordsThatWereRecorded) {
  ExpectZonesAsRecorded("zone", RecordRegistryOf);
}

// With the zone's record as it was recorded, so that newer rules of a zone don't matter.
TEST(DifferentialTest, EveryZoneChangesAtTheMillisecondThatWasRecorded) {
  ExpectZonesAsRecorded("conversion", RecordConversions);
}

TEST(DifferentialTest, EveryLineOfTheRecordBelongsToAGroup) {
  for (const auto& [name, result] : ReadRecord(kDirectory / "windows-calls.txt")) {
    EXPECT_EQ(std::ranges::count(kGroups, name.substr(0, name.find(' '))), 1) << name;
  }
}

TEST(DifferentialTest, EveryKnownDifferenceBelongsToAGroupAndIsExplainedInTheDocumentation) {
  std::ifstream page(ORLO_PLATFORM_PAGE);
  std::ostringstream content;
  content << page.rdbuf();
  const std::string text = content.str();
  ASSERT_FALSE(text.empty());
  for (const Difference& difference : Differences()) {
    EXPECT_EQ(std::ranges::count(kGroups, difference.cases.substr(0, difference.cases.find(' '))),
              1)
        << difference.cases;
    EXPECT_GT(difference.count, 0u) << difference.cases;
    EXPECT_NE(text.find("| " + difference.reason + " |"), std::string::npos) << difference.reason;
  }
}

TEST(DifferentialTest, ComparisonReportsEveryKindOfDeviation) {
  const Recorded recorded = {{"g a", "1"}, {"g b", "2"}, {"g c", "3"}, {"g d", "4"}};
  const Record here = {{"g a", "1"}, {"g b", "9"}, {"g c", "8"}, {"g e", "5"}};
  const std::vector<Difference> differences = {{"g c", "3", "*", 1, "known"},
                                               {"g a", "1", "*", 1, "no longer there"},
                                               {"other *", "*", "*", 7, "of another group"}};
  const std::vector<std::string> complaints = Compare("g", recorded, here, differences);
  EXPECT_EQ(complaints,
            (std::vector<std::string>{"g b\n  Windows: 2\n  here:    9", "not recorded: g e",
                                      "recorded, and not made here: g d",
                                      "the difference \"g a\" covers 0 cases, not 1"}));
}

TEST(DifferentialTest, AsteriskOfAPatternStandsForAnyText) {
  EXPECT_TRUE(Matches("", ""));
  EXPECT_TRUE(Matches("*", ""));
  EXPECT_TRUE(Matches("a*c", "abc"));
  EXPECT_TRUE(Matches("*b*", "abab"));
  EXPECT_TRUE(Matches("a*", "a"));
  EXPECT_FALSE(Matches("a", "ab"));
  EXPECT_FALSE(Matches("a*c", "abcd"));
  EXPECT_FALSE(Matches("a*b*c", "acb"));
}

}  // namespace

}  // namespace Differential
