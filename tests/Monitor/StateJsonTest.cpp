#include "Agent/Monitor/StateJson.h"

#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>

namespace OrloAgent {
namespace {

using nlohmann::json;
using WindowsAgentCommon::StatisticValue;

TEST(StateJson, StatisticsStandUnderTheirPathStreamAndGroup) {
  AgentState state;
  state.statistics = {
      {"Group",
       "Some/Path",
       "S",
       {{"Number", "A number", StatisticValue(7, std::int64_t{3})},
        {"Ratio", "None yet", StatisticValue(9, std::numeric_limits<double>::quiet_NaN())},
        {"Text", "A text", StatisticValue(1, std::string("N/A"))}}}};
  const json statistics = json::parse(MakeStatisticsJson(state));
  const json& group = statistics.at("Some/Path").at("S").at("Group");
  EXPECT_EQ(group.at("Number").at("value"), 3);
  EXPECT_EQ(group.at("Number").at("description"), "A number");
  EXPECT_EQ(group.at("Number").at("kind"), 7);
  EXPECT_TRUE(group.at("Ratio").at("value").is_null());
  EXPECT_EQ(group.at("Text").at("value"), "N/A");
  EXPECT_EQ(statistics.at("AgentCore/Monitor").at("orlo_agent_healthy").at(0).at("value"), 1.0);
}

TEST(StateJson, GroupsOfOneNameAreAllThere) {
  AgentState state;
  for (const std::int64_t value : {3, 4}) {
    state.statistics.push_back(
        {"Source", "Path", "S", {{"Number", "A number", StatisticValue(7, value)}}});
  }
  const json groups = json::parse(MakeStatisticsJson(state)).at("Path").at("S");
  EXPECT_EQ(groups.at("Source").at("Number").at("value"), 3);
  EXPECT_EQ(groups.at("Source (2)").at("Number").at("value"), 4);
}

TEST(StateJson, HealthNamesEachProblemWithItsStream) {
  AgentState state;
  state.streams.resize(2);
  state.streams[0].name = "Good";
  state.streams[1].name = "Bad";
  EXPECT_EQ(json::parse(MakeHealthJson(state)), json({{"status", "ok"}}));
  state.streams[1].problems = {"stuck"};
  state.problems = {"disk full"};
  const json health = json::parse(MakeHealthJson(state));
  EXPECT_EQ(health.at("status"), "degraded");
  EXPECT_EQ(health.at("problems").at(0), json({{"problem", "disk full"}}));
  EXPECT_EQ(health.at("problems").at(1), json({{"stream", "Bad"}, {"problem", "stuck"}}));
}

TEST(StateJson, TextThatIsNoUtf8IsMadeSo) {
  AgentState state;
  state.messages.push_back({0, WindowsAgentCommon::LogLevel::Warn, "Code", "caf\xe9"});
  const json status = json::parse(MakeStatusJson(state));
  EXPECT_EQ(status.at("messages").at(0).at("text"), "caf\xef\xbf\xbd");
}

TEST(StateJson, HistoryComesInColumnsOfOneLength) {
  History history;
  history["S"].push_back({1000, 10, 5, 1, 4, 3, 4096, 2.5, true});
  history["S"].push_back({6000, 20, 5, 1, 4, 13, 8192, 7.5, false});
  const json columns = json::parse(MakeHistoryJson(history)).at("S");
  EXPECT_EQ(columns.at("time"), json({1000, 6000}));
  EXPECT_EQ(columns.at("posted"), json({10, 20}));
  EXPECT_EQ(columns.at("open"), json({true, false}));
  for (const auto& [name, column] : columns.items()) {
    EXPECT_EQ(column.size(), 2u) << name;
  }
}

}  // namespace
}  // namespace OrloAgent
