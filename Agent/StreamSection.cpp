#include "Agent/StreamSection.h"

#include <algorithm>
#include <locale>
#include <set>

<<<<<<< HEAD
#include "Agent/PathText.h"
#include "Agent/Tls.h"
#include "Agent/Units.h"
=======
#include "Agent/EndSections.h"
>>>>>>> 596da38 (Files as a source: followed across rotation, restarts and kills)
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
  if (!reader.ReadText(entry, text)) {
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

<<<<<<< HEAD
// False if there is no usable endpoint.
bool ReadEndpoint(const ConfigurationEntry& entry, bool mayBePortZero, ValueReader& reader,
                  Endpoint& endpoint) {
  std::string text;
  if (!reader.ReadText(entry, text)) {
    return false;
  }
  std::string problem;
  auto parsed = ParseEndpoint(text, mayBePortZero, problem);
  if (!parsed) {
    reader.Note(entry, "\"" + text + "\" " + problem);
    return false;
  }
  if (parsed->transport == Transport::Tls && !IsTlsAvailable()) {
    reader.Note(entry, "\"" + text + "\" can't be used: this program was built without TLS");
    return false;
  }
  endpoint = std::move(*parsed);
  return true;
}

// The keys of a certificate and its key stand together.
void ReadCertificate(MapReader& map, ValueReader& reader, std::string& certificate,
                     std::string& key) {
  const auto certificateEntry = map.Find("certificate");
  const auto keyEntry = map.Find("key");
  if (certificateEntry) {
    reader.ReadPath(*certificateEntry, certificate);
  }
  if (keyEntry) {
    reader.ReadPath(*keyEntry, key);
  }
  if (certificateEntry && !keyEntry) {
    reader.Note(*certificateEntry, "needs \"key\" beside it, the file of its private key");
  } else if (keyEntry && !certificateEntry) {
    reader.Note(*keyEntry, "needs \"certificate\" beside it, the certificate that it belongs to");
  }
}

void ReadTlsServer(const ConfigurationEntry& entry, ValueReader& reader, TlsServerOptions& tls) {
  MapReader map(entry, reader);
  ReadCertificate(map, reader, tls.certificate, tls.key);
  if (map.IsMap() && !map.Find("certificate") && !map.Find("key")) {
    reader.Note(entry, "has no \"certificate\" and no \"key\", which a server needs");
  }
  if (const auto ca = map.Find("client_ca")) {
    reader.ReadPath(*ca, tls.clientCa);
  }
  if (const auto timeout = map.Find("handshake_timeout")) {
    reader.ReadDuration(*timeout, milliseconds(100), hours(1), tls.handshakeTimeout);
  }
  map.RefuseOthers();
}

void ReadTlsClient(const ConfigurationEntry& entry, ValueReader& reader, TlsClientOptions& tls) {
  MapReader map(entry, reader);
  ReadCertificate(map, reader, tls.certificate, tls.key);
  if (const auto ca = map.Find("ca")) {
    reader.ReadPath(*ca, tls.ca);
  }
  if (const auto name = map.Find("server_name")) {
    reader.ReadText(*name, tls.serverName);
  }
  if (const auto verify = map.Find("verify")) {
    reader.ReadFlag(*verify, tls.verify);
  }
  map.RefuseOthers();
}

// A key that the address's transport has no use for is a mistake: who wrote it expects something.
void RefuseForTransport(MapReader& map, ValueReader& reader, const char* key,
                        const Endpoint& endpoint) {
  if (const auto entry = map.Find(key)) {
    reader.Note(*entry, "has no meaning for " + ToText(endpoint));
  }
}

SyslogSourceOptions ReadSyslogSource(MapReader& map, ValueReader& reader) {
  SyslogSourceOptions options;
  const auto listen = map.Require("listen");
  const bool isKnown = listen && ReadEndpoint(*listen, true, reader, options.listen);
  if (const auto size = map.Find("max_event_size")) {
    reader.ReadSize(*size, kSmallestEvent, kLargestEvent, options.maxEventSize);
  }
  if (const auto count = map.Find("max_connections")) {
    reader.ReadCount(*count, 1, 1'000'000, options.maxConnections);
  }
  if (const auto timeout = map.Find("idle_timeout")) {
    reader.ReadDuration(*timeout, milliseconds(0), hours(24), options.idleTimeout);
  }
  if (const auto buffer = map.Find("receive_buffer")) {
    reader.ReadSize(*buffer, 4096, std::uint64_t{1} << 30, options.receiveBuffer);
  }
  if (const auto tls = map.Find("tls")) {
    ReadTlsServer(*tls, reader, options.tls);
  } else if (isKnown && options.listen.transport == Transport::Tls) {
    reader.Note(*listen, "needs \"tls\" beside it, with the server's certificate and key");
  }
  if (isKnown && options.listen.transport == Transport::Udp) {
    RefuseForTransport(map, reader, "max_connections", options.listen);
    RefuseForTransport(map, reader, "idle_timeout", options.listen);
  } else if (isKnown) {
    RefuseForTransport(map, reader, "receive_buffer", options.listen);
  }
  if (isKnown && options.listen.transport != Transport::Tls) {
    RefuseForTransport(map, reader, "tls", options.listen);
  }
  return options;
}

// The value of "type", if it is one of those.
std::optional<std::string> ReadType(MapReader& map, ValueReader& reader,
                                    const std::vector<std::string>& types) {
  const auto entry = map.Require("type");
  std::string type;
  if (!entry || !reader.ReadText(*entry, type)) {
    return std::nullopt;
  }
  if (std::find(types.begin(), types.end(), type) == types.end()) {
    std::string known;
    for (const std::string& one : types) {
      known += (known.empty() ? "" : ", ") + one;
    }
    reader.Note(*entry, "\"" + type + "\" is not known; known are: " + known);
    return std::nullopt;
  }
  return type;
}

void ReadSource(const ConfigurationEntry& entry, ValueReader& reader, Shared& shared,
                std::vector<SourceOptions>& sources) {
  MapReader map(entry, reader);
  const auto type = ReadType(map, reader, {"stdin", "syslog"});
  if (!type) {
    return;
  }
  if (*type == "stdin") {
    StdinSourceOptions options;
    if (const auto size = map.Find("max_event_size")) {
      reader.ReadSize(*size, kSmallestEvent, kLargestEvent, options.maxEventSize);
    }
    if (shared.standardInput) {
      reader.Note(entry, "reads the standard input, which another source reads already");
    }
    shared.standardInput = true;
    sources.emplace_back(options);
  } else {
    sources.emplace_back(ReadSyslogSource(map, reader));
  }
  map.RefuseOthers();
}

void ReadSendTimeout(MapReader& map, ValueReader& reader, milliseconds& timeout) {
  if (const auto entry = map.Find("send_timeout")) {
    reader.ReadDuration(*entry, milliseconds(1), hours(1), timeout);
  }
}

SyslogDestinationOptions ReadSyslogDestination(MapReader& map, ValueReader& reader) {
  SyslogDestinationOptions options;
  const auto target = map.Require("target");
  const bool isKnown = target && ReadEndpoint(*target, false, reader, options.target);
  if (const auto tls = map.Find("tls")) {
    ReadTlsClient(*tls, reader, options.tls);
  }
  std::string framing;
  if (const auto entry = map.Find("framing"); entry && reader.ReadText(*entry, framing)) {
    if (framing == "octet-counted") {
      options.framing = SyslogFraming::OctetCounted;
    } else if (framing != "newline") {
      reader.Note(*entry, "\"" + framing + "\" is not known; known are: newline, octet-counted");
    }
  }
  if (const auto entry = map.Find("connect_timeout")) {
    reader.ReadDuration(*entry, milliseconds(1), hours(1), options.connectTimeout);
  }
  ReadSendTimeout(map, reader, options.sendTimeout);
  if (isKnown && options.target.transport == Transport::Udp) {
    RefuseForTransport(map, reader, "framing", options.target);
    RefuseForTransport(map, reader, "connect_timeout", options.target);
  }
  if (isKnown && options.target.transport != Transport::Tls) {
    RefuseForTransport(map, reader, "tls", options.target);
  }
  return options;
}

void ReadDestination(const ConfigurationEntry& entry, ValueReader& reader, Shared& shared,
                     DestinationOptions& destination) {
  MapReader map(entry, reader);
  const auto type = ReadType(map, reader, {"stdout", "file", "syslog"});
  if (!type) {
    return;
  }
  if (*type == "stdout") {
    StdoutDestinationOptions options;
    ReadSendTimeout(map, reader, options.sendTimeout);
    if (!shared.outputs.insert("").second) {
      reader.Note(entry, "writes to the standard output, which another stream uses already");
    }
    destination = options;
  } else if (*type == "file") {
    FileDestinationOptions options;
    const auto path = map.Require("path");
    if (path && reader.ReadPath(*path, options.path) &&
        !shared.outputs.insert(ToText(ToPath(options.path).lexically_normal())).second) {
      reader.Note(*path, "\"" + options.path + "\" is the file of another stream already");
    }
    ReadSendTimeout(map, reader, options.sendTimeout);
    destination = std::move(options);
  } else {
    destination = ReadSyslogDestination(map, reader);
  }
  map.RefuseOthers();
}

=======
>>>>>>> 596da38 (Files as a source: followed across rotation, restarts and kills)
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
  if (const auto module = map.Require("module"); module && reader.ReadText(*module, stage.module)) {
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

StreamOptions ReadStream(const ConfigurationEntry& entry, ValueReader& reader, Shared& shared) {
  StreamOptions stream;
  MapReader map(entry, reader);
  if (const auto name = map.Require("name")) {
    ReadName(*name, reader, shared, stream.name);
  }
  if (const auto source = map.Require("source")) {
    const auto sources = reader.ReadList(*source, true);
    for (const ConfigurationEntry& one : sources) {
      ReadSource(one, reader, shared.ends, stream.sources);
    }
    if (sources.empty()) {
      reader.Note(*source, "is an empty list; a stream needs a source");
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
