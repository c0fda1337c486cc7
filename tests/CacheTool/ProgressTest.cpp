#include "CacheTool/Progress.h"

#include <gtest/gtest.h>

#include <sstream>

namespace OrloCacheTool {

namespace {

class ProgressTest : public testing::Test {
 protected:
  std::unique_ptr<Progress> Make(bool isTerminal) {
    return std::make_unique<Progress>("Working", 200, m_terminal, isTerminal,
                                      [this] { return m_now; });
  }

  std::ostringstream m_terminal;
  Progress::Clock::time_point m_now{};
};

}  // namespace

TEST_F(ProgressTest, NothingIsDrawnWithinTheFirstSecond) {
  {
    const auto progress = Make(true);
    m_now += std::chrono::milliseconds(999);
    progress->Add(100);
  }
  EXPECT_EQ(m_terminal.str(), "");
}

TEST_F(ProgressTest, LongerWorkIsDrawnAndWipedAtItsEnd) {
  auto progress = Make(true);
  m_now += std::chrono::seconds(1);
  progress->Add(100);
  const std::string bar = "Working [####################....................]  50 %";
  EXPECT_EQ(m_terminal.str(), "\r" + bar);
  progress->Add(50);
  EXPECT_EQ(m_terminal.str(), "\r" + bar) << "not more often than ten times in a second";
  m_now += std::chrono::milliseconds(100);
  progress->Add(1000);
  EXPECT_NE(m_terminal.str().find("100 %"), std::string::npos) << "and never beyond";
  m_terminal.str("");
  progress.reset();
  EXPECT_EQ(m_terminal.str(), "\r" + std::string(bar.size(), ' ') + "\r");
}

TEST_F(ProgressTest, ElsewhereThanOnATerminalNothingIsWritten) {
  {
    const auto progress = Make(false);
    m_now += std::chrono::seconds(10);
    progress->Add(100);
  }
  EXPECT_EQ(m_terminal.str(), "");
}

}  // namespace OrloCacheTool
