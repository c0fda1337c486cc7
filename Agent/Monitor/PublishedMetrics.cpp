#include "Agent/Monitor/PublishedMetrics.h"

#include <cctype>
#include <map>
#include <optional>
#include <string>

#include "WindowsAgentCommon/Text.h"

namespace OrloAgent {

namespace {

using prometheus::MetricType;
using WindowsAgentCommon::StatisticsGroupSnapshot;
using WindowsAgentCommon::StatisticSnapshot;
using WindowsAgentCommon::StatisticVariant;

struct Known {
  MetricType type = MetricType::Untyped;
  std::string name;
  // What the published number is multiplied with to be in base units.
  double factor = 1.0;
  // Where the description speaks of other units; empty: the description stands.
  std::string help;
};

constexpr double kMicrosecond = 1e-6;

// "group/statistic"
const std::map<std::string, Known>& GetKnown() {
  const auto counter = [](const char* name) { return Known{MetricType::Counter, name, 1.0, ""}; };
  const auto gauge = [](const char* name) { return Known{MetricType::Gauge, name, 1.0, ""}; };
  static const std::map<std::string, Known> known{
      {"StoreAndForwardStage/MessagesRejected", counter("orlo_stage_messages_rejected_total")},
      {"StoreAndForwardStage/TotalEventsPosted", counter("orlo_stage_events_posted_total")},
      {"StoreAndForwardStage/TotalEventsFailedToQueue",
       counter("orlo_stage_events_failed_to_queue_total")},
      {"StoreAndForwardIncoming/InputQueueLowWaterMark",
       gauge("orlo_stage_queue_low_water_mark_bytes")},
      {"StoreAndForwardIncoming/InputQueueHighWaterMark",
       gauge("orlo_stage_queue_high_water_mark_bytes")},
      {"StoreAndForwardIncoming/DataProcessingPeriod",
       {MetricType::Gauge, "orlo_stage_processing_period_seconds", kMicrosecond,
        "The time between disk checks for event data ready to be sent"}},
      {"StoreAndForwardIncoming/DataChunkingPeriod", gauge("orlo_stage_chunking_period_seconds")},
      {"StoreAndForwardIncoming/ChunkSize", gauge("orlo_stage_chunk_size_events")},
      {"StoreAndForwardIncoming/ChunkSizeMinimum", gauge("orlo_stage_chunk_size_minimum_events")},
      {"StoreAndForwardIncoming/ChunkSizeMaximum", gauge("orlo_stage_chunk_size_maximum_events")},
      {"StoreAndForwardIncoming/ChunkSizeAverage", gauge("orlo_stage_chunk_size_average_events")},
      {"StoreAndForwardIncoming/ChunkSizeRollingAverage",
       gauge("orlo_stage_chunk_size_rolling_average_events")},
      {"StoreAndForwardIncoming/ChunkSizeTotal", counter("orlo_stage_chunk_size_events_total")},
      {"StoreAndForwardIncoming/ChunkSizeTrendCoeff1", gauge("orlo_stage_chunk_size_trend_slope")},
      {"StoreAndForwardIncoming/ChunkSizeTrendCoeff2",
       gauge("orlo_stage_chunk_size_trend_intercept")},
      {"StoreAndForwardIncoming/ChunkSizeTrend", gauge("orlo_stage_chunk_size_trend")},
      {"StoreAndForwardIncoming/OutgoingHandlerAccepts",
       counter("orlo_stage_outgoing_accepts_total")},
      {"StoreAndForwardIncoming/OutgoingHandlerRejects",
       counter("orlo_stage_outgoing_rejects_total")},
      {"StoreAndForwardIncoming/EventDiskCacheAccepts", counter("orlo_stage_cache_accepts_total")},
      {"StoreAndForwardIncoming/EventDiskCacheRejects", counter("orlo_stage_cache_rejects_total")},
      {"StoreAndForwardIncoming/MessagesLost", counter("orlo_stage_events_lost_total")},
      {"StoreAndForwardOutgoing/EventsIncoming", counter("orlo_stage_events_incoming_total")},
      {"StoreAndForwardOutgoing/EventsOutgoing", counter("orlo_stage_events_outgoing_total")},
      {"StoreAndForwardOutgoing/NumberOfRequeues", counter("orlo_stage_requeues_total")},
      {"Source/SourceName", gauge("orlo_source_info")},
      {"Source/EventsPosted", counter("orlo_source_events_posted_total")},
      {"Source/EventsNotMade", counter("orlo_source_events_not_made_total")},
      {"StreamWatch/Stalled", gauge("orlo_stream_stalled")},
      {"StreamWatch/StalledSeconds", gauge("orlo_stream_stalled_seconds")},
  };
  return known;
}

// "ChunkSize" to "chunk_size"; whatever a name may not hold becomes an underscore.
std::string ToSnake(const std::string& name) {
  std::string snake;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isUpper = std::isupper(byte) != 0;
    if (isUpper && !snake.empty() && snake.back() != '_') {
      snake += '_';
    }
    snake += std::isalnum(byte) != 0 && byte < 0x80 ? static_cast<char>(std::tolower(byte)) : '_';
  }
  return snake;
}

Known GetDescription(const StatisticsGroupSnapshot& group, const StatisticSnapshot& statistic) {
  const auto found = GetKnown().find(group.name + "/" + statistic.name);
  if (found != GetKnown().end()) {
    return found->second;
  }
  return {MetricType::Untyped, "orlo_" + ToSnake(group.name) + "_" + ToSnake(statistic.name), 1.0,
          ""};
}

class ToNumber : public boost::static_visitor<std::optional<double>> {
 public:
  std::optional<double> operator()(const std::string&) const { return std::nullopt; }
  std::optional<double> operator()(const std::wstring&) const { return std::nullopt; }
  std::optional<double> operator()(const ACE_Time_Value& time) const {
    return static_cast<double>(time.sec()) + static_cast<double>(time.usec()) * kMicrosecond;
  }
  template <typename Number>
  std::optional<double> operator()(const Number& number) const {
    return static_cast<double>(number);
  }
};

std::string GetText(const StatisticVariant& value) {
  if (const auto* const text = boost::get<std::string>(&value)) {
    return *text;
  }
  const auto* const wide = boost::get<std::wstring>(&value);
  return wide != nullptr ? WindowsAgentCommon::ToUtf8(*wide) : std::string();
}

// The name of a stage is that of its module, which publishes several groups.
std::string GetStageName(const StatisticsGroupSnapshot& group) {
  return group.name.starts_with("StoreAndForward") ? "StoreAndForwardStage" : group.name;
}

}  // namespace

void AddPublished(const StatisticsGroupSnapshot& group, MetricBuilder& builder) {
  MetricBuilder::Labels labels{{"stream", group.instance}};
  // A stream has a group for each of its sources.
  if (const StatisticVariant* const source = group.Find("SourceName")) {
    labels.emplace_back("name", GetText(*source));
  } else if (group.name != "StreamWatch") {
    labels.emplace_back("stage", GetStageName(group));
  }
  for (const StatisticSnapshot& statistic : group.statistics) {
    const Known known = GetDescription(group, statistic);
    const std::string& help = known.help.empty() ? statistic.description : known.help;
    const StatisticVariant& value = statistic.value.GetValue();
    if (const auto number = boost::apply_visitor(ToNumber(), value)) {
      builder.Add(known.type, known.name, help, labels, *number * known.factor);
    } else {
      MetricBuilder::Labels withText = labels;
      withText.emplace_back("value", GetText(value));
      builder.Add(known.type, known.name, help, withText, 1.0);
    }
  }
}

}  // namespace OrloAgent
