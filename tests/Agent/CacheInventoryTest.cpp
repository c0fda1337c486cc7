#include "Agent/CacheInventory.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;

class CacheInventoryTest : public testing::Test {
 protected:
  void Write(const std::string& name, std::uint32_t count, std::size_t size = 4096) {
    const fs::path path = m_directory.Path() / name;
    fs::create_directories(path.parent_path());
    std::string bytes(size, '\xee');
    for (std::size_t i = 0; i < 4 && i < size; ++i) {
      bytes[i] = static_cast<char>(count >> (8 * i));
    }
    std::ofstream(path, std::ios::binary) << bytes;
  }

  TestSupport::TemporaryDirectory m_directory;
  OrloAgent::CacheInventory m_inventory{m_directory.Path()};
};

TEST_F(CacheInventoryTest, ACacheThatDoesNotExistIsEmpty) {
  OrloAgent::CacheInventory inventory(m_directory.Path() / "none");
  const auto contents = inventory.Look();
  EXPECT_EQ(contents.events, 0u);
  EXPECT_EQ(contents.chunks, 0u);
}

TEST_F(CacheInventoryTest, TheOldestChunkIsTheOneThatWasWrittenFirst) {
  EXPECT_FALSE(m_inventory.Look().oldest);
  Write("2016-03-07-14-05/07", 3);
  Write("2016-03-07-14-05/31", 3);
  const auto now = fs::file_time_type::clock::now();
  fs::last_write_time(m_directory.Path() / "2016-03-07-14-05/07", now - std::chrono::hours(2));
  fs::last_write_time(m_directory.Path() / "2016-03-07-14-05/31", now - std::chrono::hours(3));
  ASSERT_TRUE(m_inventory.Look().oldest);
  EXPECT_EQ(*m_inventory.Look().oldest,
            fs::last_write_time(m_directory.Path() / "2016-03-07-14-05/31"));
}

TEST_F(CacheInventoryTest, TheCountsOfAllChunksAreAdded) {
  Write("2016-03-07-14-05/07", 3);
  Write("2016-03-07-14-05/31", 200);
  Write("2016-03-07-14-06/00", 0x1234, 1 << 20);
  const auto contents = m_inventory.Look();
  EXPECT_EQ(contents.bytes, 2u * 4096 + (1 << 20));
  EXPECT_EQ(contents.events, 3u + 200u + 0x1234u);
  EXPECT_EQ(contents.chunks, 3u);
}

TEST_F(CacheInventoryTest, AnotherLookSeesWhatHasComeGoneAndChanged) {
  Write("2016-03-07-14-05/07", 3);
  Write("2016-03-07-14-05/31", 4);
  EXPECT_EQ(m_inventory.Look().events, 7u);
  fs::remove(m_directory.Path() / "2016-03-07-14-05/07");
  Write("2016-03-07-14-05/31", 40, 8192);
  Write("2016-03-07-14-07/01", 5);
  EXPECT_EQ(m_inventory.Look().events, 45u);
  fs::remove_all(m_directory.Path() / "2016-03-07-14-05");
  EXPECT_EQ(m_inventory.Look().events, 5u);
}

TEST_F(CacheInventoryTest, AChunkWithoutACountYetIsReadAgainLater) {
  Write("2016-03-07-14-05/07", 3, 0);
  EXPECT_EQ(m_inventory.Look().events, 0u);
  Write("2016-03-07-14-05/07", 3);
  EXPECT_EQ(m_inventory.Look().events, 3u);
}

TEST_F(CacheInventoryTest, AFileThatIsNoChunkDoesNotClaimMoreEventsThanFit) {
  Write("2016-03-07-14-05/07", 0xffffffff, 4096);
  EXPECT_EQ(m_inventory.Look().events, (4096u - 4u) / 8u);
}

TEST_F(CacheInventoryTest, NamesThatTheStageDoesNotListAreNotCounted) {
  Write("2016-03-07-14-05/07.tmp", 3);
  Write("old.directory/07", 3);
  Write("stray", 3);
  EXPECT_EQ(m_inventory.Look().events, 0u);
}

}  // namespace
