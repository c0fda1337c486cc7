#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <optional>
#include <string>

#include "Platform/Windows.h"
#include "Platform/posix/TimeZones.h"
#include "tests/support/TemporaryDirectory.h"

namespace PlatformTest {
namespace {

namespace fs = std::filesystem;
using Platform::FooterOfTzif;

struct Counts {
  std::uint32_t utIndicators = 0;
  std::uint32_t standardIndicators = 0;
  std::uint32_t leapSeconds = 0;
  std::uint32_t transitions = 0;
  std::uint32_t types = 1;
  std::uint32_t nameBytes = 4;
};

std::string Header(char version, const Counts& counts) {
  std::string bytes = "TZif";
  bytes += version;
  bytes.append(15, '\0');
  for (const std::uint32_t count :
       {counts.utIndicators, counts.standardIndicators, counts.leapSeconds, counts.transitions,
        counts.types, counts.nameBytes}) {
    for (int shift = 24; shift >= 0; shift -= 8) {
      bytes += static_cast<char>(count >> shift);
    }
  }
  return bytes;
}

std::string Block(char version, const Counts& counts, std::size_t timeSize) {
  const std::size_t size = counts.transitions * (timeSize + 1) + counts.types * 6 +
                           counts.nameBytes + counts.leapSeconds * (timeSize + 4) +
                           counts.standardIndicators + counts.utIndicators;
  return Header(version, counts) + std::string(size, '\x01');
}

constexpr Counts kCounts{2, 3, 4, 5, 6, 7};

std::string ZoneFile(const std::string& footer, char version = '2') {
  return Block(version, kCounts, 4) + Block(version, kCounts, 8) + "\n" + footer + "\n";
}

TEST(ZoneFilesTest, FooterStandsBehindTheSecondBlock) {
  for (const char version : {'2', '3', '4'}) {
    EXPECT_EQ(FooterOfTzif(ZoneFile("CET-1", version)), "CET-1");
  }
  EXPECT_EQ(FooterOfTzif(ZoneFile("CET-1") + "more"), "CET-1");
}

TEST(ZoneFilesTest, FileOfTheFirstVersionOrWithoutRulesHasNoFooter) {
  EXPECT_FALSE(FooterOfTzif(Block('\0', kCounts, 4)));
  EXPECT_FALSE(FooterOfTzif(ZoneFile("CET-1", '\0')));
  EXPECT_FALSE(FooterOfTzif(ZoneFile("")));
  EXPECT_FALSE(FooterOfTzif("not a zone file, though long enough for a header of one"));
  EXPECT_FALSE(FooterOfTzif(""));
}

TEST(ZoneFilesTest, EveryTruncationHasNoFooter) {
  const std::string file = ZoneFile("CET-1CEST,M3.5.0,M10.5.0/3");
  for (std::size_t size = 0; size < file.size(); ++size) {
    EXPECT_FALSE(FooterOfTzif(std::string_view(file).substr(0, size))) << size;
  }
}

TEST(ZoneFilesTest, CountsThatPointOutsideTheFileHaveNoFooter) {
  const std::string good = ZoneFile("CET-1");
  const std::size_t second = Block('2', kCounts, 4).size();
  for (const std::size_t block : {std::size_t{0}, second}) {
    for (std::size_t count = 20; count < 44; count += 4) {
      std::string file = good;
      file.replace(block + count, 4, "\xFF\xFF\xFF\xFF");
      EXPECT_FALSE(FooterOfTzif(file)) << block << " " << count;
    }
  }
  std::string file = good;
  file[second] = 'X';
  EXPECT_FALSE(FooterOfTzif(file));
}

class ZoneDirectoryTest : public testing::Test {
 protected:
  ZoneDirectoryTest() { ::setenv("TZDIR", m_directory.Path().c_str(), 1); }
  ~ZoneDirectoryTest() override { ::unsetenv("TZDIR"); }

  void WriteZone(const std::string& name, const std::string& bytes) const {
    const fs::path path = m_directory.Path() / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
  }

  // The bias of the zone's record; the code of the call that failed in `m_error`.
  std::optional<LONG> Bias(const std::wstring& zone) {
    HKEY key = nullptr;
    const std::wstring path =
        L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Time Zones\\" + zone;
    m_bOpened = false;
    m_error = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key);
    if (m_error != 0) {
      return std::nullopt;
    }
    m_bOpened = true;
    LONG fields[11];
    DWORD size = sizeof fields;
    m_error =
        RegQueryValueExW(key, L"TZI", nullptr, nullptr, reinterpret_cast<BYTE*>(fields), &size);
    EXPECT_EQ(RegCloseKey(key), 0);
    return m_error == 0 ? std::optional<LONG>(fields[0]) : std::nullopt;
  }

  TestSupport::TemporaryDirectory m_directory;
  LSTATUS m_error = 0;
  bool m_bOpened = false;
};

TEST_F(ZoneDirectoryTest, ZonesComeFromTheDirectoryThatTzdirNames) {
  WriteZone("Europe/Berlin", ZoneFile("XXX7"));
  EXPECT_EQ(Bias(L"W. Europe Standard Time"), 420);
  ::setenv("TZDIR", "", 1);
  EXPECT_EQ(Bias(L"W. Europe Standard Time"), -60) << "an empty name is as good as none";
}

TEST_F(ZoneDirectoryTest, MissingOrUnreadableFileMeansNoKey) {
  EXPECT_FALSE(Bias(L"W. Europe Standard Time"));
  EXPECT_EQ(m_error, LSTATUS{ERROR_FILE_NOT_FOUND});
  EXPECT_FALSE(m_bOpened);
  fs::create_directories(m_directory.Path() / "Europe/Berlin");
  EXPECT_FALSE(Bias(L"W. Europe Standard Time"));
  EXPECT_FALSE(m_bOpened);
}

TEST_F(ZoneDirectoryTest, FileThatIsNoZoneOrHasNoFooterMeansNoKey) {
  for (const std::string& bytes :
       {std::string(), std::string("text"), ZoneFile(""), ZoneFile("CET-1", '\0'),
        ZoneFile("CET-1").substr(0, 60), std::string(2 << 20, 'x')}) {
    WriteZone("Europe/Berlin", bytes);
    EXPECT_FALSE(Bias(L"W. Europe Standard Time"));
    EXPECT_EQ(m_error, LSTATUS{ERROR_FILE_NOT_FOUND});
    EXPECT_FALSE(m_bOpened);
  }
}

TEST_F(ZoneDirectoryTest, RulesThatDoNotFitARecordMeanAKeyWithoutTheValue) {
  for (const char* footer : {"CET-1CEST,J60,J300", "garbage", "CET-1CEST"}) {
    WriteZone("Europe/Berlin", ZoneFile(footer));
    EXPECT_FALSE(Bias(L"W. Europe Standard Time"));
    EXPECT_EQ(m_error, LSTATUS{ERROR_FILE_NOT_FOUND});
    EXPECT_TRUE(m_bOpened);
  }
}

TEST_F(ZoneDirectoryTest, ZoneWithoutAFileOfItsOwnNeedsNone) {
  EXPECT_EQ(Bias(L"Mid-Atlantic Standard Time"), 120);
}

}  // namespace
}  // namespace PlatformTest
