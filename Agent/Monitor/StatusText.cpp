#include "Agent/Monitor/StatusText.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <optional>

#include "Agent/Monitor/UtcTime.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloAgent {

using nlohmann::json;
using WindowsAgentCommon::Format;

namespace {

std::string GetText(const json& object, const char* key) {
  return Printable(object.value(key, std::string()));
}

// "1234567" with a blank between thousands.
std::string Grouped(std::uint64_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3;) {
    at -= 3;
    digits.insert(at, 1, ' ');
  }
  return digits;
}

std::string Size(std::uint64_t bytes) {
  constexpr std::array<const char*, 5> kUnits{"B", "KiB", "MiB", "GiB", "TiB"};
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < kUnits.size()) {
    value /= 1024.0;
    ++unit;
  }
  return unit == 0 ? Format("%d B", bytes) : Format("%.1f %s", value, kUnits[unit]);
}

std::string Age(double seconds) {
  const auto whole = static_cast<std::int64_t>(seconds);
  if (whole < 120) {
    return Format("%d s", whole);
  }
  if (whole < 2 * 3600) {
    return Format("%d min %d s", whole / 60, whole % 60);
  }
  if (whole < 48 * 3600) {
    return Format("%d h %d min", whole / 3600, whole % 3600 / 60);
  }
  return Format("%d days %d h", whole / 86400, whole % 86400 / 3600);
}

const json* FindStream(const json& status, const std::string& name) {
  if (!status.is_object() || !status.contains("streams")) {
    return nullptr;
  }
  for (const json& stream : status.at("streams")) {
    if (stream.at("name") == name) {
      return &stream;
    }
  }
  return nullptr;
}

// Events per second since `before`, as a column; empty without it.
std::string Rate(const json& status, const json& before, const json& stream, const char* counter) {
  const json* const earlier = FindStream(before, stream.at("name"));
  if (earlier == nullptr) {
    return "";
  }
  const double seconds =
      (status.at("sampled").get<double>() - before.at("sampled").get<double>()) / 1000;
  const double events = stream.at("events").at(counter).get<double>() -
                        earlier->at("events").at(counter).get<double>();
  if (seconds <= 0.0 || events < 0.0) {
    return "";
  }
  return Format("  %s/s", Grouped(static_cast<std::uint64_t>(std::llround(events / seconds))));
}

std::string DescribeEnd(const json& end) {
  const std::string type = GetText(end, "type");
  const std::string name = GetText(end, "name");
  return type == name ? type : type + " " + name;
}

std::string CountChunks(std::uint64_t chunks) {
  return Grouped(chunks) + (chunks == 1 ? " chunk" : " chunks");
}

std::string DescribeWay(const json& way) {
  return Format("%s events in %s", Grouped(way.at("events")), CountChunks(way.at("chunks")));
}

std::string DescribeSchedule(const json& schedule) {
  std::string text = schedule.at("open").get<bool>() ? "open" : "closed";
  if (schedule.at("next_change").is_number()) {
    text += " until " + UtcTime(schedule.at("next_change")) + " UTC";
  }
  return text + " (" + GetText(schedule, "zone") + ")";
}

void AddProblems(const json& problems, const char* indent, std::string& text) {
  for (const json& problem : problems) {
    text += std::string(indent) + "! " + Printable(problem) + "\n";
  }
}

void AddStream(const json& status, const json& before, const json& stream, std::string& text) {
  text += "\n" + GetText(stream, "name") + ": " +
          (stream.at("healthy").get<bool>() ? "healthy" : "degraded") + "\n";
  AddProblems(stream.at("problems"), "  ", text);
  std::string sources;
  for (const json& source : stream.at("sources")) {
    sources += (sources.empty() ? "" : ", ") + DescribeEnd(source);
  }
  const json& events = stream.at("events");
  text += "  in        " + Grouped(events.at("posted")) + " events" +
          Rate(status, before, stream, "posted") + "  from " + sources + "\n";
  text += "  out       " + Grouped(events.at("delivered")) + " events" +
          Rate(status, before, stream, "delivered") + "  to " +
          DescribeEnd(stream.at("destination")) + "\n";
  if (stream.at("fallback").is_object()) {
    text += "  fallback  " + DescribeEnd(stream.at("fallback"));
    text += stream.at("fallback_since").is_number()
                ? " gets the events since " + UtcTime(stream.at("fallback_since")) + " UTC\n"
                : " is not used\n";
  }
  const json& memory = stream.at("memory");
  text += Format("  memory    %s queued (%s), %s in the chunk (%s old), %s pending, %s unsent\n",
                 Grouped(memory.at("queue_events")), Size(memory.at("queue_bytes")),
                 Grouped(memory.at("chunk_events")), Age(memory.at("chunk_age")),
                 Grouped(memory.at("pending_events")), Grouped(memory.at("unsent_events")));
  const json& cache = stream.at("cache");
  text += Format("  cache     %s events in %s, %s", Grouped(cache.at("events")),
                 CountChunks(cache.at("chunks")), Size(cache.at("bytes")));
  text += cache.at("chunks") != 0 ? ", the oldest from " + Age(cache.at("oldest_age")) + " ago\n"
                                  : "\n";
  text += "  near      " + DescribeWay(stream.at("near")) + "\n";
  text += "  spilled   " + DescribeWay(stream.at("spilled")) + "\n";
  text += "  far       " + DescribeWay(stream.at("far")) + "\n";
  text += "  lost      " + Grouped(events.at("lost")) + " events\n";
  if (stream.at("schedule").is_object()) {
    text += "  schedule  " + DescribeSchedule(stream.at("schedule")) + "\n";
  }
}

void AddMessages(const json& messages, std::string& text) {
  constexpr std::size_t kShown = 5;
  if (messages.empty()) {
    return;
  }
  text += "\nLast warnings\n";
  for (std::size_t i = messages.size() - std::min(messages.size(), kShown); i < messages.size();
       ++i) {
    text += "  " + UtcTime(messages[i].at("time").get<std::int64_t>() / 1000) + " " +
            GetText(messages[i], "level") + " " + GetText(messages[i], "logger") + ": " +
            GetText(messages[i], "text") + "\n";
  }
}

}  // namespace

std::string Printable(const std::string& text) {
  std::string printable;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0u;
    const bool isTwoByteControl = byte == 0xC2 && next >= 0x80 && next <= 0x9F;
    printable += byte < 0x20 || byte == 0x7F || isTwoByteControl ? '?' : text[i];
    i += isTwoByteControl ? 1 : 0;
  }
  return printable;
}

std::string MakeStatusText(const json& status, const json& before) {
  std::string text =
      "orlo-agent " + GetText(status, "version") + ": " +
      (status.at("healthy").get<bool>() ? "healthy" : "degraded") + ", up " +
      Age((status.at("sampled").get<double>() - status.at("started").get<double>()) / 1000) + "\n";
  AddProblems(status.at("problems"), "", text);
  const json& disk = status.at("disk");
  text += "disk: " + Size(disk.at("used")) + " used";
  text += disk.at("quota") != 0 ? " of " + Size(disk.at("quota")) : "";
  text += disk.at("available").is_number() ? ", " + Size(disk.at("available")) + " free" : "";
  text += "\n";
  for (const json& stream : status.at("streams")) {
    AddStream(status, before, stream, text);
  }
  AddMessages(status.at("messages"), text);
  return text;
}

}  // namespace OrloAgent
