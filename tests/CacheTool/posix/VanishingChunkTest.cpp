// A chunk that is delivered and removed by an agent while it is being looked at.
#include <gtest/gtest.h>

#include <sstream>

#include "Agent/PathText.h"
#include "CacheTool/Commands.h"
#include "Platform/testing/TestFaults.h"
#include "tests/CacheTool/CacheFiles.h"
#include "tests/support/TemporaryDirectory.h"

namespace OrloCacheTool {

using Platform::TestFaults::FileCall;

class VanishingChunkTest : public testing::Test {
 protected:
  VanishingChunkTest() : m_cache(m_directory.Path() / "cache") {
    // Half written, it looks damaged for as long as it is there.
    WriteFile(m_chunk, "x");
  }
  ~VanishingChunkTest() override { Platform::TestFaults::Reset(); }

  // It is listed and opened; then it is gone before its age is asked for.
  void RemoveItWhen(FileCall call) {
    Platform::TestFaults::SetHook([this, call](FileCall now) {
      if (now == call) {
        std::filesystem::remove(m_chunk);
      }
      return Platform::TestFaults::Fault{};
    });
  }

  template <typename Options>
  Options Make() const {
    Options options;
    options.place = OrloAgent::ToText(m_cache);
    return options;
  }

  TestSupport::TemporaryDirectory m_directory;
  const std::filesystem::path m_cache;
  const std::filesystem::path m_chunk{m_cache / "2016-03-07-14-05" / "07"};
  std::ostringstream m_out;
  std::ostringstream m_messages;
};

TEST_F(VanishingChunkTest, ListDoesNotNameIt) {
  for (const FileCall call : {FileCall::CreateFileW, FileCall::ReadFile, FileCall::CloseHandle}) {
    WriteFile(m_chunk, "x");
    RemoveItWhen(call);
    EXPECT_EQ(RunList(Make<ListOptions>(), m_out, m_messages), kDone);
    EXPECT_FALSE(std::filesystem::exists(m_chunk));
    EXPECT_EQ(m_out.str().find("2016-03-07"), std::string::npos) << m_out.str();
  }
}

TEST_F(VanishingChunkTest, VerifyFindsNoDamage) {
  for (const FileCall call : {FileCall::CreateFileW, FileCall::ReadFile, FileCall::CloseHandle}) {
    WriteFile(m_chunk, "x");
    RemoveItWhen(call);
    EXPECT_EQ(RunVerify(Make<VerifyOptions>(), m_out, m_messages), kDone) << m_out.str();
    EXPECT_FALSE(std::filesystem::exists(m_chunk));
  }
}

}  // namespace OrloCacheTool
