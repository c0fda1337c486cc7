#include "Agent/KafkaWindow.h"

#include <gtest/gtest.h>

#include "tests/support/Events.h"

namespace {

using OrloAgent::KafkaWindow;
using WindowsAgentCommon::MessageBlockPtr;

MessageBlockPtr Event(const std::string& payload) {
  return MessageBlockPtr(TestSupport::MakeEvent("head", payload));
}

TEST(KafkaWindow, EventsLeaveWhenAllBeforeThemAreAcknowledged) {
  KafkaWindow window;
  EXPECT_EQ(window.Add(Event("a")), 0u);
  EXPECT_EQ(window.Add(Event("b")), 1u);
  EXPECT_EQ(window.Add(Event("c")), 2u);
  window.Acknowledge(1);
  EXPECT_EQ(window.GetUnacknowledged(), 2u);
  EXPECT_EQ(window.GetSize(), 3u);
  EXPECT_EQ(window.GetMessage(2), "c");
  window.Acknowledge(0);
  EXPECT_EQ(window.GetFirst(), 2u);
  EXPECT_EQ(window.GetSize(), 1u);
  EXPECT_EQ(window.GetUnacknowledged(), 1u);
  EXPECT_EQ(window.GetMessage(2), "c");
  window.Acknowledge(2);
  EXPECT_EQ(window.GetSize(), 0u);
  EXPECT_EQ(window.Add(Event("d")), 3u);
}

TEST(KafkaWindow, AcknowledgementsThatComeTwiceOrTooLateChangeNothing) {
  KafkaWindow window;
  window.Add(Event("a"));
  window.Add(Event("b"));
  window.Acknowledge(1);
  window.Acknowledge(1);
  EXPECT_EQ(window.GetUnacknowledged(), 1u);
  window.Acknowledge(0);
  window.Acknowledge(0);
  window.Acknowledge(7);
  EXPECT_EQ(window.GetUnacknowledged(), 0u);
  EXPECT_EQ(window.GetFirst(), 2u);
}

TEST(KafkaWindow, RewindMakesAllOfItUnacknowledgedSoThatTheOrderHolds) {
  KafkaWindow window;
  window.Add(Event("a"));
  window.Add(Event("b"));
  window.Add(Event("c"));
  window.Acknowledge(1);
  window.Rewind();
  EXPECT_EQ(window.GetUnacknowledged(), 3u);
  EXPECT_EQ(window.GetFirst(), 0u);
  window.Acknowledge(0);
  EXPECT_EQ(window.GetFirst(), 1u);
}

TEST(KafkaWindow, LastOneCanBeTakenBack) {
  KafkaWindow window;
  window.Add(Event("a"));
  window.Add(Event("b"));
  const MessageBlockPtr back = window.TakeBackLast();
  EXPECT_EQ(TestSupport::PayloadOf(back.get()), "b");
  EXPECT_EQ(window.GetUnacknowledged(), 1u);
  EXPECT_EQ(window.Add(Event("c")), 1u);
}

}  // namespace
