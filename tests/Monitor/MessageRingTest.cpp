#include "Agent/Monitor/MessageRing.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/LogCapture.h"

namespace OrloAgent {
namespace {

using WindowsAgentCommon::LogFacade;
using WindowsAgentCommon::LoggerFactory;
using WindowsAgentCommon::LogLevel;

TEST(MessageRing, KeepsTheLastWarningsAndErrorsAndCountsAll) {
  const TestSupport::LogCapture capture;
  const MessageRing ring(2);
  const auto log = LoggerFactory::GetLog("Code.RingTest");
  LogFacade::Warn(log, "first");
  LogFacade::Info(log, "no warning");
  LogFacade::Error(log, "second");
  LogFacade::Warn(log, "third");
  AgentState state;
  ring.AddTo(state);
  ASSERT_EQ(state.messages.size(), 2u);
  EXPECT_EQ(state.messages[0].text, "second");
  EXPECT_EQ(state.messages[0].level, LogLevel::Error);
  EXPECT_EQ(state.messages[1].text, "third");
  EXPECT_EQ(state.messages[1].logger, "Code.RingTest");
  EXPECT_GE(state.messages[1].time, state.messages[0].time);
  EXPECT_EQ(state.warnings, 2u);
  EXPECT_EQ(state.errors, 1u);
}

}  // namespace
}  // namespace OrloAgent
