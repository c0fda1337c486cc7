#include "Agent/Monitor/StatusText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Agent/Monitor/StateJson.h"

namespace OrloAgent {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

AgentState MakeState() {
  AgentState state;
  state.version = "1.2.3";
  state.started = 1'000'000;
  state.sampled = 1'090'000;
  StreamState stream;
  stream.name = "S";
  stream.posted = 1'234'567;
  stream.sources = {{"stdin", "stdin", {}}};
  stream.destination = {"syslog", "tcp://h:1", {}};
  state.streams.push_back(stream);
  return state;
}

json ToJson(const AgentState& state) { return json::parse(MakeStatusJson(state)); }

TEST(StatusText, SaysWhereTheEventsAre) {
  AgentState state = MakeState();
  state.streams[0].cachedChunks = 2;
  state.streams[0].cachedEvents = 3'000;
  state.streams[0].cachedBytes = 3 << 19;
  state.streams[0].oldestSeconds = 190.0;
  const std::string text = MakeStatusText(ToJson(state), json());
  EXPECT_THAT(text, HasSubstr("orlo-agent 1.2.3: healthy, up 90 s\n"));
  EXPECT_THAT(text, HasSubstr("  in        1 234 567 events  from stdin\n"));
  EXPECT_THAT(text, HasSubstr("to syslog tcp://h:1\n"));
  EXPECT_THAT(text, HasSubstr("3 000 events in 2 chunks, 1.5 MiB, the oldest from 3 min 10 s ago"));
}

TEST(StatusText, ProblemsStandWithTheirStream) {
  AgentState state = MakeState();
  state.problems = {"disk full"};
  state.streams[0].problems = {"stuck"};
  const std::string text = MakeStatusText(ToJson(state), json());
  EXPECT_THAT(text, HasSubstr("orlo-agent 1.2.3: degraded"));
  EXPECT_THAT(text, HasSubstr("\n! disk full\n"));
  EXPECT_THAT(text, HasSubstr("S: degraded\n  ! stuck\n"));
}

TEST(StatusText, AStatusThatLacksSomethingIsNoStatus) {
  for (const char* const key : {"fallback", "schedule", "memory"}) {
    json status = ToJson(MakeState());
    status["streams"][0].erase(key);
    EXPECT_THROW(MakeStatusText(status, json()), json::exception) << key;
  }
}

TEST(StatusText, RatesComeFromAnEarlierStatus) {
  AgentState later = MakeState();
  later.sampled += 2'000;
  later.streams[0].posted += 500;
  EXPECT_THAT(MakeStatusText(ToJson(later), ToJson(MakeState())),
              HasSubstr("1 235 067 events  250/s"));
  // A stream that was made anew counts from the beginning.
  later.streams[0].posted = 3;
  EXPECT_THAT(MakeStatusText(ToJson(later), ToJson(MakeState())), HasSubstr("3 events  from"));
}

TEST(StatusText, NothingSteersTheTerminal) {
  AgentState state = MakeState();
  state.messages.push_back({1'080'000, WindowsAgentCommon::LogLevel::Error, "Code.X",
                            "red \x1b[31m and \xc2\x9b of two bytes\r\n"});
  const std::string text = MakeStatusText(ToJson(state), json());
  EXPECT_THAT(text, HasSubstr("1970-01-01 00:18:00 error Code.X: red ?[31m and ? of two bytes??"));
  EXPECT_THAT(text, Not(HasSubstr("\x1b")));
}

TEST(StatusText, StatusThatLacksSomethingIsRefused) {
  const json whole = ToJson(MakeState());
  for (const char* key :
       {"healthy", "problems", "sampled", "started", "disk", "streams", "messages"}) {
    json status = whole;
    ASSERT_EQ(status.erase(key), 1u) << key;
    EXPECT_THROW(MakeStatusText(status, json()), json::exception) << key;
  }
  for (const char* key : {"healthy", "problems", "sources", "events", "destination", "memory",
                          "cache", "near", "spilled", "far", "schedule"}) {
    json status = whole;
    ASSERT_EQ(status.at("streams").at(0).erase(key), 1u) << key;
    EXPECT_THROW(MakeStatusText(status, json()), json::exception) << key;
  }
}

}  // namespace
}  // namespace OrloAgent
