#include "Agent/Monitor/Metrics.h"

#include <prometheus/text_serializer.h>

#include <sstream>

#include "Agent/Monitor/MetricBuilder.h"
#include "Agent/Monitor/PublishedMetrics.h"

namespace OrloAgent {

namespace {

using prometheus::MetricType;
using Labels = MetricBuilder::Labels;

// Adds metrics that share their labels.
class Adder {
 public:
  Adder(MetricBuilder& builder, Labels labels) : m_builder(builder), m_labels(std::move(labels)) {}

  template <typename Number>
  void Gauge(const char* name, const char* help, Number value) {
    m_builder.Add(MetricType::Gauge, name, help, m_labels, static_cast<double>(value));
  }

  template <typename Number>
  void Counter(const std::string& name, const std::string& help, Number value) {
    m_builder.Add(MetricType::Counter, name, help, m_labels, static_cast<double>(value));
  }

 private:
  MetricBuilder& m_builder;
  const Labels m_labels;
};

double ToSeconds(std::int64_t milliseconds) { return static_cast<double>(milliseconds) / 1000.0; }

void AddAgent(const AgentState& state, MetricBuilder& builder) {
  Adder({builder, {{"version", state.version}}})
      .Gauge("orlo_agent_info", "The agent's version, as a label", 1);
  Adder agent(builder, {});
  agent.Gauge("orlo_agent_start_time_seconds", "When the agent was started, since 1970",
              ToSeconds(state.started));
  agent.Gauge("orlo_agent_sample_time_seconds", "When these figures were taken, since 1970",
              ToSeconds(state.sampled));
  agent.Gauge("orlo_agent_healthy", "Whether the agent and all its streams are healthy (1)",
              state.IsHealthy() ? 1 : 0);
  agent.Gauge(
      "orlo_agent_configuration_taken",
      "Whether all of the configuration file, as it was last read, is in use (1), but for the log "
      "file",
      state.isConfigurationTaken ? 1 : 0);
  agent.Gauge("orlo_agent_streams_not_running",
              "Streams of the configuration that could not be made when it was read again",
              state.streamsNotRunning);
  agent.Gauge("orlo_disk_used_bytes", "What lies below the data directory and counts for the quota",
              state.disk.used);
  agent.Gauge("orlo_disk_quota_bytes", "What may lie below the data directory; 0 is no limit",
              state.disk.quota);
  agent.Gauge("orlo_disk_keep_free_bytes", "What must stay free on the file system; 0 is no limit",
              state.disk.keepFree);
  if (state.disk.available) {
    agent.Gauge("orlo_disk_available_bytes", "What is free on the data directory's file system",
                *state.disk.available);
  }
  constexpr char kMessages[] = "orlo_log_messages_total";
  constexpr char kMessagesHelp[] = "Warnings and errors that the agent has logged";
  Adder(builder, {{"level", "warn"}}).Counter(kMessages, kMessagesHelp, state.warnings);
  Adder(builder, {{"level", "error"}}).Counter(kMessages, kMessagesHelp, state.errors);
}

void AddWays(const StreamState& stream, MetricBuilder& builder) {
  const std::pair<const char*, const WayState*> ways[] = {
      {"near", &stream.fromMemory}, {"far", &stream.fromDisk}, {"spill", &stream.toDisk}};
  for (const auto& [name, way] : ways) {
    Adder adder(builder, {{"stream", stream.name}, {"way", name}});
    adder.Counter("orlo_stream_chunks_total",
                  "Chunks handed over from memory (near), from the disk (far), or written to it "
                  "(spill)",
                  way->chunks);
    adder.Counter("orlo_stream_chunk_events_total", "The events of these chunks", way->events);
  }
}

void AddStream(const StreamState& stream, MetricBuilder& builder) {
  Adder add(builder, {{"stream", stream.name}});
  add.Gauge("orlo_stream_healthy", "Whether nothing is wrong with the stream (1)",
            stream.problems.empty() ? 1 : 0);
  add.Counter("orlo_stream_events_posted_total",
              "Events that the sources have posted or could not make", stream.posted);
  add.Counter("orlo_stream_events_delivered_total",
              "Events that have left the destination's buffer", stream.delivered);
  add.Counter("orlo_stream_events_lost_total", "Events that nobody will ever get",
              stream.lost + stream.failed);
  add.Gauge("orlo_stream_queue_bytes", "What waits in the stage's queue", stream.queueBytes);
  add.Gauge("orlo_stream_queue_events", "Events that wait in the stage's queue",
            stream.queueEvents);
  add.Gauge("orlo_stream_chunk_events", "Events in the chunk that is being gathered",
            stream.chunkEvents);
  add.Gauge("orlo_stream_chunk_age_seconds", "Since the chunk that is being gathered was begun",
            stream.chunkAgeSeconds);
  add.Gauge("orlo_stream_pending_events", "Events that the sender has yet to deliver",
            stream.pendingEvents);
  add.Gauge("orlo_stream_unsent_events", "Events in the destination's buffer", stream.unsentEvents);
  add.Gauge("orlo_stream_cache_events", "Events in the event cache", stream.cachedEvents);
  add.Gauge("orlo_stream_cache_chunks", "Chunk files in the event cache", stream.cachedChunks);
  add.Gauge("orlo_stream_cache_bytes", "Size of the event cache's chunk files", stream.cachedBytes);
  add.Gauge("orlo_stream_cache_oldest_age_seconds",
            "Since the oldest chunk file was written; 0 without one", stream.oldestSeconds);
  add.Gauge("orlo_stream_refusing_seconds",
            "For how long the destination has taken nothing though events wait; 0: it takes",
            stream.refusingSeconds);
  if (stream.fallback) {
    add.Gauge("orlo_stream_fallback_in_use", "Whether the fallback gets the events (1) or not",
              stream.fallbackSince ? 1 : 0);
  }
  if (stream.schedule) {
    add.Gauge("orlo_stream_schedule_open", "Whether the send schedule allows sending (1)",
              stream.schedule->open ? 1 : 0);
    if (stream.schedule->nextChange) {
      add.Gauge("orlo_stream_schedule_next_change_time_seconds",
                "When the send schedule opens or closes next, since 1970",
                *stream.schedule->nextChange);
    }
  }
}

void AddEnd(const char* kind, const std::string& stream, const EndState& end,
            MetricBuilder& builder) {
  Adder add(builder, {{"stream", stream}, {"type", end.type}, {"name", end.name}});
  for (const EndCounter& counter : end.counters) {
    add.Counter(std::string("orlo_") + kind + "_" + counter.name + "_total", counter.description,
                counter.value);
  }
  if (end.unsent) {
    add.Gauge("orlo_destination_unsent_events",
              "Events in its buffer, or sent and not acknowledged", *end.unsent);
  }
}

}  // namespace

std::vector<prometheus::MetricFamily> MakeMetrics(const AgentState& state) {
  MetricBuilder builder;
  AddAgent(state, builder);
  for (const StreamState& stream : state.streams) {
    AddStream(stream, builder);
    AddWays(stream, builder);
    for (const EndState& source : stream.sources) {
      AddEnd("source", stream.name, source, builder);
    }
    AddEnd("destination", stream.name, stream.destination, builder);
    if (stream.fallback) {
      AddEnd("destination", stream.name, *stream.fallback, builder);
    }
  }
  for (const auto& group : state.statistics) {
    AddPublished(group, builder);
  }
  return builder.Take();
}

std::string MakeMetricsText(const AgentState& state) {
  std::ostringstream text;
  prometheus::TextSerializer().Serialize(text, MakeMetrics(state));
  return text.str();
}

}  // namespace OrloAgent
