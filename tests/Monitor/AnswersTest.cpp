#include "Agent/Monitor/Answers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace OrloAgent {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::HasSubstr;

constexpr std::chrono::milliseconds kSampled{1'700'000'000'000};
constexpr std::chrono::steady_clock::time_point kLooked{1000h};

std::shared_ptr<const AgentState> MakeState() {
  auto state = std::make_shared<AgentState>();
  state->version = "1.2.3";
  state->sampled = kSampled.count();
  state->looked = kLooked;
  StreamState stream;
  stream.name = "S";
  state->streams.push_back(stream);
  return state;
}

HttpAnswer Ask(const std::string& path, std::chrono::milliseconds age) {
  return AnswerRequest(path, "", *JudgeAge(MakeState(), kLooked + age),
                       [](std::int64_t) { return History(); });
}

TEST(Answers, AgentThatHasJustLookedAtItselfIsHealthy) {
  for (const auto age : {-5s, 0s, 60s}) {
    EXPECT_EQ(Ask("/healthz", age).status, 200u) << age.count();
    EXPECT_TRUE(json::parse(Ask("/status", age).body)["healthy"]);
    EXPECT_THAT(Ask("/metrics", age).body, HasSubstr("\norlo_agent_healthy 1\n"));
  }
}

TEST(Answers, FiguresThatHaveGrownOldAreAProblemWhereverTheyAreShown) {
  const std::string problem = "the agent has not been able to look at itself for 61 s";
  const HttpAnswer health = Ask("/healthz", 61s);
  EXPECT_EQ(health.status, 503u);
  EXPECT_THAT(health.body, HasSubstr(problem));
  const json status = json::parse(Ask("/status", 61s).body);
  EXPECT_FALSE(status["healthy"]);
  EXPECT_THAT(status["problems"][0].get<std::string>(), HasSubstr(problem));
  EXPECT_EQ(status["sampled"], kSampled.count());
  EXPECT_THAT(Ask("/metrics", 61s).body, HasSubstr("\norlo_agent_healthy 0\n"));
}

TEST(Answers, OldFiguresKeepTheProblemsThatTheyHad) {
  AgentState state = *MakeState();
  state.problems = {"disk full"};
  const auto judged = JudgeAge(std::make_shared<AgentState>(state), kLooked + 1h);
  ASSERT_EQ(judged->problems.size(), 2u);
  EXPECT_EQ(judged->problems.back(), "disk full");
}

TEST(Answers, HistoryIsAskedForWhatIsYounger) {
  std::int64_t asked = -1;
  const auto history = [&asked](std::int64_t since) {
    asked = since;
    return History{{"S", {HistoryPoint{}}}};
  };
  const HttpAnswer answer = AnswerRequest("/history", "since=1234", *MakeState(), history);
  EXPECT_EQ(asked, 1234);
  EXPECT_TRUE(json::parse(answer.body).contains("S"));
  AnswerRequest("/history", "since=x", *MakeState(), history);
  EXPECT_EQ(asked, 0);
}

TEST(Answers, OtherPathsNameThoseThatThereAre) {
  const HttpAnswer answer = Ask("/nowhere", 0s);
  EXPECT_EQ(answer.status, 404u);
  EXPECT_THAT(answer.body, HasSubstr("/healthz"));
  EXPECT_THAT(Ask("/", 0s).body, HasSubstr("<!doctype html>"));
}

}  // namespace
}  // namespace OrloAgent
