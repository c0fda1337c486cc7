#include "Agent/StreamSection.h"

#include <algorithm>
#include <locale>
#include <set>

#include "Agent/EndSections.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloAgent {

namespace {

// What the streams of one file must not share.
struct Shared {
  // Name in lower case to its first user.
  std::map<std::wstring, ConfigurationEntry> names;
  SharedEnds ends;
};

std::wstring Lower(std::wstring text) {
  const auto& letters = std::use_facet<std::ctype<wchar_t>>(std::locale::classic());
  letters.tolower(text.data(), text.data() + text.size());
  return text;
}

// What makes a name impossible as the name of a cache directory; empty if nothing does.
std::string FindProblemOfName(const std::string& name) {
  constexpr std::size_t kLongestFileName = 255;
  if (name.empty()) {
    return "is empty; the stream's cache directory is named after it";
  }
  if (name == "." || name == "..") {
    return "\"" + name + "\" can't be the name of the stream's cache directory";
  }
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '/' || c == '\\' || byte < 0x20 || byte == 0x7f) {
      return "holds a separator or control character, which the name of a directory can't have";
    }
  }
  if (name.size() > kLongestFileName) {
    return "is longer than " + std::to_string(kLongestFileName) + " bytes";
  }
  if (WindowsAgentCommon::ToUtf8(WindowsAgentCommon::ToWide(name)) != name) {
    return "is not valid UTF-8";
  }
  return {};
}

void ReadName(const ConfigurationEntry& entry, ValueReader& reader, Shared& shared,
              std::string& name) {
  std::string text;
  if (!reader.ReadTextWithoutReferences(entry, text)) {
    return;
  }
  if (const std::string problem = FindProblemOfName(text); !problem.empty()) {
    reader.Note(entry, problem);
    return;
  }
  const auto [first, added] = shared.names.emplace(Lower(WindowsAgentCommon::ToWide(text)), entry);
  if (!added) {
    const bool same = first->second.value.Scalar() == text;
    reader.Note(entry, "\"" + text + (same ? "\" is" : "\" differs only by letter case from") +
                           " the name of the stream in line " + std::to_string(first->second.line));
    return;
  }
  name = std::move(text);
}

void ReadSettings(const ConfigurationEntry& entry, ValueReader& reader, StageOptions& stage) {
  static const std::set<std::string> kStoreAndForwardSettings{
      "QueueLowWaterMark", "QueueHighWaterMark", "DataProcessingPeriod", "DataChunkPeriod",
      "Schedule.Enable",   "Schedule.Interval",  "Schedule.Invert"};
  const MapReader map(entry, reader);
  for (const auto& [name, setting] : map.GetAll()) {
    if (stage.module == "StoreAndForwardStage" && !kStoreAndForwardSettings.contains(name)) {
      std::string known;
      for (const std::string& one : kStoreAndForwardSettings) {
        known += (known.empty() ? "" : ", ") + one;
      }
      reader.Note(setting, "is not a setting of StoreAndForwardStage; it has: " + known);
      continue;
    }
    for (const ConfigurationEntry& element : reader.ReadList(setting, true)) {
      std::string value;
      if (reader.ReadText(element, value)) {
        stage.settings.emplace_back(name, std::move(value));
      }
    }
  }
}

void ReadStage(const ConfigurationEntry& entry, ValueReader& reader,
               std::vector<StageOptions>& stages, std::set<std::string>& modules) {
  MapReader map(entry, reader);
  StageOptions stage;
  if (const auto module = map.Require("module");
      module && reader.ReadTextWithoutReferences(*module, stage.module)) {
    const bool isName =
        !stage.module.empty() && std::all_of(stage.module.begin(), stage.module.end(), [](char c) {
          return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 c == '_';
        });
    if (!isName) {
      reader.Note(*module, "must be a module's name: letters, digits and underscores only");
    }
    if (!modules.insert(stage.module).second) {
      reader.Note(*module, "\"" + stage.module + "\" is a stage of this stream already");
    }
  }
  if (const auto settings = map.Find("settings")) {
    ReadSettings(*settings, reader, stage);
  }
  map.RefuseOthers();
  stages.push_back(std::move(stage));
}

void ReadSources(const ConfigurationEntry& entry, bool mayStandAlone, ValueReader& reader,
                 Shared& shared, std::vector<SourceOptions>& sources) {
  const auto list = reader.ReadList(entry, mayStandAlone);
  for (const ConfigurationEntry& one : list) {
    ReadSource(one, reader, shared.ends, sources);
  }
  if (list.empty() && entry.value.IsSequence()) {
    reader.Note(entry, "is an empty list; a stream needs a source");
  }
}

FallbackOptions ReadFallback(const ConfigurationEntry& entry, ValueReader& reader, Shared& shared,
                             const DestinationOptions& first) {
  FallbackOptions fallback;
  MapReader map(entry, reader);
  if (const auto after = map.Find("after")) {
    reader.ReadDuration(*after, std::chrono::seconds(1), std::chrono::hours(24), fallback.after);
  }
  if (const auto retry = map.Find("retry")) {
    reader.ReadDuration(*retry, std::chrono::seconds(1), std::chrono::hours(24), fallback.retry);
  }
  if (const auto destination = map.Require("destination")) {
    ReadDestination(*destination, reader, shared.ends, fallback.destination);
  }
  map.RefuseOthers();
  const auto* const syslog = std::get_if<SyslogDestinationOptions>(&first);
  if (syslog != nullptr && syslog->target.transport == Transport::Udp) {
    reader.Note(entry,
                "can't be used beside a destination over UDP, which never knows whether "
                "anybody receives what it sends");
  }
  return fallback;
}

StreamOptions ReadStream(const ConfigurationEntry& entry, ValueReader& reader, Shared& shared) {
  StreamOptions stream;
  MapReader map(entry, reader);
  if (const auto name = map.Require("name")) {
    ReadName(*name, reader, shared, stream.name);
  }
  const auto several = map.Find("sources");
  if (several) {
    ReadSources(*several, false, reader, shared, stream.sources);
  }
  if (const auto source = several ? map.Find("source") : map.Require("source")) {
    ReadSources(*source, true, reader, shared, stream.sources);
    if (several) {
      reader.Note(*source, "stands beside \"sources\"; one of the two is needed");
    }
  }
  if (const auto list = map.Require("stages")) {
    std::set<std::string> modules;
    for (const ConfigurationEntry& stage : reader.ReadList(*list, false)) {
      ReadStage(stage, reader, stream.stages, modules);
    }
    if (list->value.IsSequence() && list->value.size() == 0) {
      reader.Note(*list, "is an empty list; a stream needs a stage");
    }
  }
  if (const auto destination = map.Require("destination")) {
    ReadDestination(*destination, reader, shared.ends, stream.destination);
  }
  if (const auto fallback = map.Find("fallback")) {
    stream.fallback = ReadFallback(*fallback, reader, shared, stream.destination);
  }
  map.RefuseOthers();
  return stream;
}

}  // namespace

std::vector<StreamOptions> ReadStreams(const ConfigurationEntry& entry, ValueReader& reader) {
  std::vector<StreamOptions> streams;
  Shared shared;
  for (const ConfigurationEntry& element : reader.ReadList(entry, false)) {
    streams.push_back(ReadStream(element, reader, shared));
  }
  if (entry.value.IsSequence() && streams.empty()) {
    reader.Note(entry, "is an empty list; the agent needs a stream");
  }
  return streams;
}

}  // namespace OrloAgent
