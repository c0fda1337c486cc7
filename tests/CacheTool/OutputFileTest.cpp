#include "CacheTool/OutputFile.h"

#include <gtest/gtest.h>

#include "CacheTool/ToolError.h"
#include "tests/CacheTool/CacheFiles.h"
#include "tests/support/TemporaryDirectory.h"

namespace OrloCacheTool {

class OutputFileTest : public testing::Test {
 protected:
  TestSupport::TemporaryDirectory m_directory;
  const std::filesystem::path m_file{m_directory.Path() / "events.json"};
};

TEST_F(OutputFileTest, HoldsAllThatWasWrittenHoweverLargeItsPieces) {
  std::string all;
  OutputFile file(m_file);
  for (const std::size_t size : {1u, 70'000u, 3u, 200'000u, 65'536u}) {
    const std::string piece(size, static_cast<char>('a' + size % 26));
    file.Stream() << piece;
    all += piece;
  }
  file.Stream().put('\n');
  file.Keep();
  EXPECT_EQ(ReadFile(m_file), all + "\n");
}

TEST_F(OutputFileTest, WhatWasNotKeptIsGone) {
  {
    OutputFile file(m_file);
    file.Stream() << "half of it" << std::flush;
    EXPECT_TRUE(std::filesystem::exists(m_file));
  }
  EXPECT_FALSE(std::filesystem::exists(m_file));
}

TEST_F(OutputFileTest, AFileThatIsThereIsNotWrittenOverAndStays) {
  WriteFile(m_file, "precious");
  EXPECT_THROW(OutputFile{m_file}, ToolError);
  EXPECT_EQ(ReadFile(m_file), "precious");
}

TEST_F(OutputFileTest, WhereNothingCanBeMadeIsSaid) {
  EXPECT_THROW(OutputFile{m_directory.Path() / "absent" / "events.json"}, ToolError);
  EXPECT_THROW(OutputFile{m_directory.Path()}, ToolError);
  EXPECT_FALSE(std::filesystem::exists(m_directory.Path() / "absent"));
}

}  // namespace OrloCacheTool
