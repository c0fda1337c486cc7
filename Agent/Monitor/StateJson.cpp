#include "Agent/Monitor/StateJson.h"

#include <nlohmann/json.hpp>

#include "Agent/Monitor/Metrics.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloAgent {

namespace {

// Keeps the order in which keys were added.
using Json = nlohmann::ordered_json;

std::string Dump(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

Json ToJson(const EndState& end) {
  Json json{{"type", end.type}, {"name", end.name}};
  for (const EndCounter& counter : end.counters) {
    json["counters"][counter.name] = counter.value;
  }
  if (end.unsent) {
    json["unsent"] = *end.unsent;
  }
  return json;
}

Json ToJson(const WayState& way) { return {{"chunks", way.chunks}, {"events", way.events}}; }

Json ToJson(const std::optional<ScheduleState>& schedule) {
  if (!schedule) {
    return nullptr;
  }
  return {{"open", schedule->open},
          {"next_change", schedule->nextChange ? Json(*schedule->nextChange) : Json()},
          {"zone", schedule->zone},
          {"now_minute", schedule->nowMinute},
          {"open_minutes", schedule->openSpans}};
}

Json ToJson(const StreamState& stream) {
  Json sources = Json::array();
  for (const EndState& source : stream.sources) {
    sources.push_back(ToJson(source));
  }
  return {
      {"name", stream.name},
      {"healthy", stream.problems.empty()},
      {"problems", stream.problems},
      {"events",
       {{"posted", stream.posted},
        {"delivered", stream.delivered},
        {"lost", stream.lost + stream.failed}}},
      {"near", ToJson(stream.fromMemory)},
      {"far", ToJson(stream.fromDisk)},
      {"spilled", ToJson(stream.toDisk)},
      {"chunks_refused", stream.chunksRefused},
      {"memory",
       {{"queue_bytes", stream.queueBytes},
        {"queue_events", stream.queueEvents},
        {"chunk_events", stream.chunkEvents},
        {"chunk_age", stream.chunkAgeSeconds},
        {"pending_events", stream.pendingEvents},
        {"unsent_events", stream.unsentEvents}}},
      {"cache",
       {{"events", stream.cachedEvents},
        {"chunks", stream.cachedChunks},
        {"bytes", stream.cachedBytes},
        {"oldest_age", stream.oldestSeconds}}},
      {"stalled", stream.stalled},
      {"stalled_seconds", stream.stalledSeconds},
      {"refusing_seconds", stream.refusingSeconds},
      {"refusals", stream.refusals},
      {"schedule", ToJson(stream.schedule)},
      {"sources", sources},
      {"destination", ToJson(stream.destination)},
      {"fallback", stream.fallback ? ToJson(*stream.fallback) : Json()},
      {"fallback_since", stream.fallbackSince ? Json(*stream.fallbackSince) : Json()},
  };
}

Json ToJson(const DiskState& disk) {
  return {{"used", disk.used},
          {"quota", disk.quota},
          {"available", disk.available ? Json(*disk.available) : Json()},
          {"keep_free", disk.keepFree}};
}

Json ToJson(const LoggedMessage& message) {
  return {{"time", message.time},
          {"level", message.level == WindowsAgentCommon::LogLevel::Warn ? "warn" : "error"},
          {"logger", message.logger},
          {"text", message.text}};
}

class ValueToJson : public boost::static_visitor<Json> {
 public:
  Json operator()(const std::wstring& text) const { return WindowsAgentCommon::ToUtf8(text); }
  Json operator()(const ACE_Time_Value& time) const {
    return static_cast<double>(time.sec()) + static_cast<double>(time.usec()) * 1e-6;
  }
  template <typename Value>
  Json operator()(const Value& value) const {
    return value;
  }
};

double GetValue(const prometheus::ClientMetric& metric, prometheus::MetricType type) {
  return type == prometheus::MetricType::Counter ? metric.counter.value
         : type == prometheus::MetricType::Gauge ? metric.gauge.value
                                                 : metric.untyped.value;
}

// What is no published statistic, under a path of its own.
void AddDerived(const AgentState& state, Json& json) {
  AgentState derived = state;
  derived.statistics.clear();
  for (const auto& family : MakeMetrics(derived)) {
    for (const auto& metric : family.metric) {
      Json labels = Json::object();
      for (const auto& label : metric.label) {
        labels[label.name] = label.value;
      }
      json["AgentCore/Monitor"][family.name].push_back({{"labels", labels},
                                                        {"value", GetValue(metric, family.type)},
                                                        {"description", family.help}});
    }
  }
}

}  // namespace

std::string MakeStatusJson(const AgentState& state) {
  Json streams = Json::array();
  for (const StreamState& stream : state.streams) {
    streams.push_back(ToJson(stream));
  }
  Json messages = Json::array();
  for (const LoggedMessage& message : state.messages) {
    messages.push_back(ToJson(message));
  }
  return Dump({{"version", state.version},
               {"healthy", state.IsHealthy()},
               {"problems", state.problems},
               {"started", state.started},
               {"sampled", state.sampled},
               {"disk", ToJson(state.disk)},
               {"streams", streams},
               {"warnings", state.warnings},
               {"errors", state.errors},
               {"messages", messages}});
}

std::string MakeStatisticsJson(const AgentState& state) {
  Json json = Json::object();
  for (const auto& group : state.statistics) {
    Json& groups = json[group.categoryPath][group.instance];
    // Sources of one stream have groups of the same name.
    std::string name = group.name;
    for (int number = 2; groups.contains(name); ++number) {
      name = group.name + " (" + std::to_string(number) + ")";
    }
    Json& place = groups[name];
    for (const auto& statistic : group.statistics) {
      place[statistic.name] = {
          {"value", boost::apply_visitor(ValueToJson(), statistic.value.GetValue())},
          {"description", statistic.description},
          {"kind", statistic.value.GetKind()}};
    }
  }
  AddDerived(state, json);
  return Dump(json);
}

std::string MakeHistoryJson(const History& history) {
  Json json = Json::object();
  for (const auto& [name, points] : history) {
    Json columns{{"time", Json::array()},  {"posted", Json::array()}, {"delivered", Json::array()},
                 {"lost", Json::array()},  {"memory", Json::array()}, {"cached", Json::array()},
                 {"bytes", Json::array()}, {"oldest", Json::array()}, {"open", Json::array()}};
    for (const HistoryPoint& point : points) {
      columns["time"].push_back(point.time);
      columns["posted"].push_back(point.posted);
      columns["delivered"].push_back(point.delivered);
      columns["lost"].push_back(point.lost);
      columns["memory"].push_back(point.inMemory);
      columns["cached"].push_back(point.cached);
      columns["bytes"].push_back(point.cachedBytes);
      columns["oldest"].push_back(point.oldestSeconds);
      columns["open"].push_back(point.open);
    }
    json[name] = std::move(columns);
  }
  return Dump(json);
}

std::string MakeHealthJson(const AgentState& state) {
  Json problems = Json::array();
  for (const std::string& problem : state.problems) {
    problems.push_back({{"problem", problem}});
  }
  for (const StreamState& stream : state.streams) {
    for (const std::string& problem : stream.problems) {
      problems.push_back({{"stream", stream.name}, {"problem", problem}});
    }
  }
  Json json{{"status", problems.empty() ? "ok" : "degraded"}};
  if (!problems.empty()) {
    json["problems"] = problems;
  }
  return Dump(json);
}

}  // namespace OrloAgent
