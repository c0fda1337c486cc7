#include "Agent/PositionRecord.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/TemporaryDirectory.h"

namespace {

using OrloAgent::FileId;
using OrloAgent::Fingerprint;
using OrloAgent::InputFile;
using OrloAgent::PositionRecord;

class PositionRecordTest : public testing::Test {
 protected:
  std::unique_ptr<InputFile> Write(const std::string& content) {
    std::ofstream(m_followed, std::ios::binary | std::ios::trunc) << content;
    std::string error;
    auto file = InputFile::Open(m_followed, error);
    EXPECT_TRUE(file) << error;
    return file;
  }

  TestSupport::TemporaryDirectory m_directory;
  const std::filesystem::path m_positions = m_directory.Path() / "positions";
  const std::filesystem::path m_followed = m_directory.Path() / "app \xc3\xbc.log";
};

TEST_F(PositionRecordTest, WhatWasKeptIsLoadedAgain) {
  const auto file = Write("content");
  const FileId id{0xfd01, 123456};
  {
    PositionRecord record = PositionRecord::Create(m_positions, id, m_followed, 5);
    EXPECT_EQ(record.GetPosition(), 5u);
    record.SetPosition(std::uint64_t{1} << 40);
    record.SetFingerprint(Fingerprint::Take(*file));
  }
  const auto path = PositionRecord::GetPath(m_positions, id);
  EXPECT_EQ(PositionRecord::GetId(path), id);
  auto record = PositionRecord::Load(path);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->GetPosition(), std::uint64_t{1} << 40);
  EXPECT_EQ(record->GetFollowed(), m_followed);
  EXPECT_TRUE(record->GetFingerprint().Fits(*file));
  record->Remove();
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(PositionRecordTest, DamagedRecordsAreNotLoaded) {
  const FileId id{1, 2};
  PositionRecord::Create(m_positions, id, m_followed, 5);
  const auto path = PositionRecord::GetPath(m_positions, id);
  const auto size = std::filesystem::file_size(path);
  for (std::uintmax_t length = 0; length < size; ++length) {
    std::filesystem::resize_file(path, length);
    EXPECT_FALSE(PositionRecord::Load(path)) << length;
    PositionRecord::Create(m_positions, id, m_followed, 5);
  }
  std::fstream(path, std::ios::in | std::ios::out | std::ios::binary) << 'X';
  EXPECT_FALSE(PositionRecord::Load(path));
  EXPECT_FALSE(PositionRecord::Load(m_positions / "none"));
}

TEST_F(PositionRecordTest, OnlyNamesOfRecordsGiveAnIdentity) {
  EXPECT_EQ(PositionRecord::GetId("x/1f-a"), (FileId{0x1f, 10}));
  for (const char* const name :
       {"", "-", "1-", "-1", "1f-a.new", "1-2-3", "g-1", "10000000000000000-1"}) {
    EXPECT_FALSE(PositionRecord::GetId(name)) << name;
  }
}

TEST_F(PositionRecordTest, FingerprintHoldsWhileAFileGrowsAndFailsWhenItsBeginningChanges) {
  const Fingerprint empty = Fingerprint::Take(*Write(""));
  EXPECT_EQ(empty.GetLength(), 0u);
  const Fingerprint shortOne = Fingerprint::Take(*Write("beginning"));
  EXPECT_EQ(shortOne.GetLength(), 9u);
  const auto grown = Write("beginning and more" + std::string(1000, 'x'));
  EXPECT_TRUE(empty.Fits(*grown));
  EXPECT_TRUE(shortOne.Fits(*grown));
  EXPECT_EQ(Fingerprint::Take(*grown).GetLength(), Fingerprint::kLongest);
  EXPECT_FALSE(shortOne.Fits(*Write("beginnin9 and more")));
  EXPECT_FALSE(shortOne.Fits(*Write("begin")));
  EXPECT_EQ(Fingerprint::FromWord(shortOne.ToWord()), shortOne);
}

}  // namespace
