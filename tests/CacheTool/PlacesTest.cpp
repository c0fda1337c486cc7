#include <gtest/gtest.h>

#include "Agent/PathText.h"
#include "CacheTool/CacheLock.h"
#include "CacheTool/CachePlace.h"
#include "CacheTool/ChunkListing.h"
#include "CacheTool/ToolError.h"
#include "tests/CacheTool/CacheFiles.h"
#include "tests/support/TemporaryDirectory.h"

namespace OrloCacheTool {

using OrloAgent::ToText;

class PlacesTest : public testing::Test {
 protected:
  void MakeCache(const std::string& stream) const {
    WriteFile(Data() / "Events" / OrloAgent::ToPath(stream) / "2016-03-07-14-05" / "07",
              MakeChunkOf({"one"}));
  }

  std::filesystem::path Data() const { return m_directory.Path() / "data"; }

  // What the error says; empty if there is none.
  static std::string Refusal(const std::filesystem::path& place, const std::string& stream) {
    try {
      FindCache(ToText(place), stream);
      return {};
    } catch (const ToolError& error) {
      return error.what();
    }
  }

  TestSupport::TemporaryDirectory m_directory;
};

TEST_F(PlacesTest, ACacheDirectoryIsFoundWithItsDataDirectory) {
  MakeCache("Default");
  for (const std::string& place :
       {ToText(Data() / "Events" / "Default"), ToText(Data() / "Events" / "Default") + "/"}) {
    const CachePlace found = FindCache(place, "");
    EXPECT_EQ(found.cache, Data() / "Events" / "Default");
    EXPECT_EQ(found.data, Data());
  }
}

TEST_F(PlacesTest, ADataDirectoryWithOneStreamIsEnough) {
  MakeCache("Default");
  for (const auto& place : {Data(), Data() / "Events"}) {
    EXPECT_EQ(FindCache(ToText(place), "").cache, Data() / "Events" / "Default");
    EXPECT_EQ(FindCache(ToText(place), "").data, Data());
  }
}

TEST_F(PlacesTest, OfSeveralStreamsOneIsToBeChosen) {
  MakeCache("One");
  MakeCache("Two words");
  EXPECT_NE(Refusal(Data(), "").find("One, Two words"), std::string::npos);
  EXPECT_EQ(FindCache(ToText(Data()), "Two words").cache, Data() / "Events" / "Two words");
  EXPECT_NE(Refusal(Data(), "Three").find("One, Two words"), std::string::npos);
}

TEST_F(PlacesTest, WhatIsNoCacheIsRefused) {
  EXPECT_NE(Refusal(m_directory.Path() / "absent", ""), "");
  WriteFile(m_directory.Path() / "file", "");
  EXPECT_NE(Refusal(m_directory.Path() / "file", ""), "");
  std::filesystem::create_directories(m_directory.Path() / "other" / "documents");
  EXPECT_NE(Refusal(m_directory.Path() / "other", "").find("documents"), std::string::npos);
  EXPECT_NE(Refusal(m_directory.Path() / "other", "Default"), "");
  std::filesystem::create_directories(m_directory.Path() / "empty" / "Events");
  EXPECT_NE(Refusal(m_directory.Path() / "empty", ""), "");
}

TEST_F(PlacesTest, ACopyElsewhereIsACacheThatNoAgentUses) {
  WriteFile(m_directory.Path() / "copy" / "2016-03-07-14-05" / "07", MakeChunkOf({"one"}));
  const CachePlace found = FindCache(ToText(m_directory.Path() / "copy"), "");
  EXPECT_EQ(found.cache, m_directory.Path() / "copy");
  EXPECT_EQ(found.data, std::filesystem::path());
  const CacheLock lock(found, "Nothing");
  EXPECT_EQ(ListTree(m_directory.Path() / "copy").size(), 2u) << "there is nothing to lock";
}

TEST_F(PlacesTest, ChunksAreListedInTheOrderOfDelivery) {
  const auto cache = m_directory.Path() / "cache";
  for (const char* name : {"2016-03-07-14-06/02", "2016-03-07-14-05/31", "2016-03-07-14-05/07",
                           "2016-03-07-14-05/07-000010", "2016-03-07-14-05/07-000002",
                           "2017-01-01-00-00/00", "2016-03-07-14-06/03.bak", "note.d/09"}) {
    WriteFile(cache / name, MakeChunkOf({"one"}));
  }
  WriteFile(cache / "stray", "in the cache directory itself");
  std::filesystem::create_directories(cache / "2016-03-07-14-07" / "40");
  std::filesystem::create_directories(cache / "2016-03-07-14-08");

  std::vector<std::string> skipped;
  const auto chunks = ListChunks(cache, skipped);
  std::vector<std::string> names;
  for (const ListedChunk& chunk : chunks) {
    names.push_back(chunk.GetName());
    EXPECT_EQ(chunk.isDirectory, chunk.GetName() == "2016-03-07-14-07/40");
    EXPECT_EQ(chunk.size, chunk.isDirectory ? 0u : 4096u);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"2016-03-07-14-05/07", "2016-03-07-14-05/07-000002",
                                             "2016-03-07-14-05/07-000010", "2016-03-07-14-05/31",
                                             "2016-03-07-14-06/02", "2016-03-07-14-07/40",
                                             "2017-01-01-00-00/00"}));
  EXPECT_TRUE(skipped.empty());
  EXPECT_EQ(FindChunk(chunks, "oldest").GetName(), "2016-03-07-14-05/07");
  EXPECT_EQ(FindChunk(chunks, "newest").GetName(), "2017-01-01-00-00/00");
  EXPECT_EQ(FindChunk(chunks, "2016-03-07-14-06/02").GetName(), "2016-03-07-14-06/02");
  EXPECT_THROW(FindChunk(chunks, "2016-03-07-14-06/03"), ToolError);
  EXPECT_THROW(FindChunk({}, "oldest"), ToolError);
}

TEST_F(PlacesTest, TimesComeFromNames) {
  const auto time = [](const std::string& minute, const std::string& file) {
    return GetNamedTime({minute, file, {}, 0, false, {}});
  };
  EXPECT_EQ(time("2016-03-07-14-05", "07"), "2016-03-07T14:05:07Z");
  EXPECT_EQ(time("2016-03-07-14-05", "60-000001"), "2016-03-07T14:05:60Z");
  EXPECT_EQ(time("2016-03-07-14-05", "stray"), "");
  EXPECT_EQ(time("2016-03-07-14-05", "7"), "");
  EXPECT_EQ(time("stray", "07"), "");
}

}  // namespace OrloCacheTool
