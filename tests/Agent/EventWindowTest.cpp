#include "Agent/EventWindow.h"

#include <gtest/gtest.h>

#include "tests/support/Events.h"

namespace {

using OrloAgent::EventWindow;
using WindowsAgentCommon::MessageBlockPtr;

MessageBlockPtr Event(const std::string& payload) {
  return MessageBlockPtr(TestSupport::MakeEvent("head", payload));
}

void AddThree(EventWindow& window) {
  for (const char* name : {"a", "b", "c"}) {
    window.Add(Event(name));
  }
}

TEST(EventWindow, EventsLeaveWhenAllBeforeThemAreAcknowledged) {
  EventWindow window;
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

TEST(EventWindow, AcknowledgementsThatComeTwiceOrTooLateChangeNothing) {
  EventWindow window;
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

TEST(EventWindow, RewindMakesAllOfItUnacknowledgedSoThatTheOrderHolds) {
  EventWindow window;
  AddThree(window);
  window.Acknowledge(1);
  window.Rewind();
  EXPECT_EQ(window.GetUnacknowledged(), 3u);
  EXPECT_EQ(window.GetFirst(), 0u);
  window.Acknowledge(0);
  EXPECT_EQ(window.GetFirst(), 1u);
}

TEST(EventWindow, AnEventThatIsGivenUpLeavesItInItsTurnAndDoesNotCountAsTaken) {
  EventWindow window;
  AddThree(window);
  EXPECT_TRUE(window.GiveUp(1));
  EXPECT_FALSE(window.IsUnacknowledged(1));
  EXPECT_EQ(window.GetUnacknowledged(), 2u);
  EXPECT_EQ(window.GetFirst(), 0u);
  window.Acknowledge(0);
  EXPECT_EQ(window.GetFirst(), 2u);
  EXPECT_EQ(window.GetTaken(), 1u);
  window.Acknowledge(2);
  EXPECT_EQ(window.GetTaken(), 2u);
}

TEST(EventWindow, AnEventIsGivenUpOnceAndForGood) {
  EventWindow window;
  AddThree(window);
  EXPECT_TRUE(window.GiveUp(1));
  window.Acknowledge(2);
  window.Rewind();
  EXPECT_TRUE(window.IsUnacknowledged(0));
  EXPECT_FALSE(window.IsUnacknowledged(1)) << "it is not sent again";
  EXPECT_TRUE(window.IsUnacknowledged(2));
  EXPECT_EQ(window.GetUnacknowledged(), 2u);
  EXPECT_FALSE(window.GiveUp(1));
  window.Acknowledge(1);
  window.Acknowledge(0);
  EXPECT_FALSE(window.GiveUp(1)) << "it has left the window";
  window.Acknowledge(2);
  EXPECT_EQ(window.GetFirst(), 3u);
  EXPECT_EQ(window.GetTaken(), 2u);
}

TEST(EventWindow, WhatIsTakenOutOfItIsNeitherAcknowledgedNorGivenUp) {
  EventWindow window;
  for (const char* name : {"a", "b", "c", "d"}) {
    window.Add(Event(name));
  }
  window.GiveUp(1);
  window.Acknowledge(2);
  const auto events = window.TakeUnacknowledged();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(TestSupport::PayloadOf(events[0].get()), "a");
  EXPECT_EQ(TestSupport::PayloadOf(events[1].get()), "d");
  EXPECT_EQ(window.GetTaken(), 1u);
  EXPECT_EQ(window.GetUnacknowledged(), 0u);
  EXPECT_EQ(window.GetSize(), 0u);
}

TEST(EventWindow, LastOneCanBeTakenBack) {
  EventWindow window;
  window.Add(Event("a"));
  window.Add(Event("b"));
  const MessageBlockPtr back = window.TakeBackLast();
  EXPECT_EQ(TestSupport::PayloadOf(back.get()), "b");
  EXPECT_EQ(window.GetUnacknowledged(), 1u);
  EXPECT_EQ(window.Add(Event("c")), 1u);
}

TEST(EventWindow, APayloadInSeveralBlocksBecomesOne) {
  MessageBlockPtr event = Event("one ");
  event->cont()->cont(TestSupport::MakeEvent("two", "three"));
  ASSERT_TRUE(OrloAgent::JoinPayload(*event));
  EXPECT_EQ(event->cont()->cont(), nullptr);
  EXPECT_EQ(TestSupport::PayloadOf(event.get()), "one twothree");
}

TEST(EventWindow, AnEventWithoutAPayloadStaysAsItIs) {
  MessageBlockPtr event = Event("gone");
  MessageBlockPtr(event->cont()).reset();
  event->cont(nullptr);
  EXPECT_TRUE(OrloAgent::JoinPayload(*event));
  EXPECT_EQ(event->cont(), nullptr);
}

}  // namespace
