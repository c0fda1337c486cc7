#include "WindowsAgentCommon/Secrets.h"

#include <gtest/gtest.h>

#include "WindowsAgentCommon/Logging.h"
#include "tests/support/LogCapture.h"

namespace WindowsAgentCommon {
namespace {

TEST(Secrets, AreHiddenWhereverTheyStand) {
  const Secrets secrets{"hunter2"};
  EXPECT_EQ(HideSecrets("", secrets), "");
  EXPECT_EQ(HideSecrets("nothing here", secrets), "nothing here");
  EXPECT_EQ(HideSecrets("hunter2", secrets), "(hidden)");
  EXPECT_EQ(HideSecrets("a hunter2hunter2 b", secrets), "a (hidden)(hidden) b");
  EXPECT_EQ(HideSecrets("Hunter2", secrets), "Hunter2");
}

TEST(Secrets, ALongerOneGoesBeforeTheOneThatItContains) {
  const Secrets secrets{"word", "tcp://word:514", ""};
  EXPECT_EQ(HideSecrets("at tcp://word:514, word", secrets), "at (hidden), (hidden)");
}

TEST(Secrets, ThatWouldBeFoundByChanceAreHiddenWhereTheyStandAlone) {
  const Secrets secrets{"abc", "1234567", "12345678"};
  EXPECT_EQ(HideSecrets("abc abcd \"abc\" 'abc' (abc) \"abc", secrets),
            "abc abcd \"(hidden)\" '(hidden)' ((hidden)) \"abc");
  EXPECT_EQ(HideSecrets("1234567 events \"1234567\"", secrets), "1234567 events \"(hidden)\"");
  EXPECT_EQ(HideSecrets("x12345678", secrets), "x(hidden)");
}

TEST(Secrets, OfATextThatWasCutAreHiddenInPart) {
  const Secrets secrets{"hunter2-password", "other"};
  EXPECT_EQ(HideCutSecrets("it was hunter2-password", secrets), "it was (hidden)");
  EXPECT_EQ(HideCutSecrets("it was hunter2-pass", secrets), "it was (hidden)");
  EXPECT_EQ(HideCutSecrets("other hunt", secrets), "(hidden) (hidden)");
  EXPECT_EQ(HideCutSecrets("it was hun", secrets), "it was hun") << "as likely another word";
  EXPECT_EQ(HideCutSecrets("hunt it", secrets), "hunt it") << "nothing was cut here";
  EXPECT_EQ(HideCutSecrets("hunter2", secrets), "(hidden)");
  EXPECT_EQ(HideCutSecrets("", secrets), "");
}

TEST(Secrets, AreHiddenInMessages) {
  TestSupport::LogCapture log;
  LoggerFactory::AddSecrets({"SeCrEt of the messages"});
  LogFacade::Error(LoggerFactory::GetLog("Code.Test"), "Invalid value \"%s\".",
                   std::string("SeCrEt of the messages"));
  EXPECT_EQ(log.Count(LogLevel::Error, "Invalid value \"(hidden)\"."), 1u);
  EXPECT_EQ(LoggerFactory::WithoutSecrets("a SeCrEt of the messages"), "a (hidden)");
}

}  // namespace
}  // namespace WindowsAgentCommon
