#include "Agent/EndSections.h"

#include <algorithm>

#include "Agent/Gzip.h"
#include "Agent/KafkaDestination.h"
#include "Agent/PathText.h"
#include "Agent/ShownForms.h"
#include "Agent/Tls.h"
#include "Agent/Units.h"

namespace OrloAgent {

namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::uint64_t kSmallestEvent = 64;
constexpr std::uint64_t kLargestEvent = 16 * 1024 * 1024;

constexpr std::uint64_t kSmallestRotation = 1024;
constexpr std::uint64_t kLargestRotation = std::uint64_t{1} << 50;

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
    // The problem may name a part of the value.
    reader.Note(entry, HasReference(entry.value.Scalar())
                           ? "(hidden) is not a usable address SCHEME://HOST:PORT"
                           : "\"" + text + "\" " + problem);
    return false;
  }
  reader.AddShownForms(entry, GetShownForms(*parsed));
  if (parsed->transport == Transport::Tls && !IsTlsAvailable()) {
    reader.Note(entry,
                reader.Quote(entry, text) + " can't be used: this program was built without TLS");
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

// TLS runs over TCP: the two share ports.
void RefuseSecondListener(const ConfigurationEntry& entry, const Endpoint& listen,
                          ValueReader& reader, SharedEnds& shared) {
  if (listen.port == 0) {
    return;
  }
  Endpoint used = listen;
  used.transport = listen.transport == Transport::Udp ? Transport::Udp : Transport::Tcp;
  const auto [first, added] = shared.listeners.emplace(ToText(used), entry.line);
  if (!added) {
    reader.Note(entry, reader.Quote(entry, ToText(listen)) + " is where the source in line " +
                           std::to_string(first->second) + " listens already");
  }
}

SyslogSourceOptions ReadSyslogSource(MapReader& map, ValueReader& reader, SharedEnds& shared) {
  SyslogSourceOptions options;
  const auto listen = map.Require("listen");
  const bool isKnown = listen && ReadEndpoint(*listen, true, reader, options.listen);
  if (isKnown) {
    RefuseSecondListener(*listen, options.listen, reader, shared);
  }
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
    reader.Note(*entry, reader.Quote(*entry, type) + " is not known; known are: " + known);
    return std::nullopt;
  }
  return type;
}

FileSourceOptions ReadFileSource(MapReader& map, ValueReader& reader) {
  FileSourceOptions options;
  if (const auto paths = map.Require("path")) {
    const auto list = reader.ReadList(*paths, true);
    for (const ConfigurationEntry& one : list) {
      std::string path;
      if (reader.ReadPath(one, path)) {
        reader.AddShownForms(one, GetShownFormsOfDirectory(path));
        options.paths.push_back(std::move(path));
      }
    }
    if (list.empty()) {
      reader.Note(*paths, "is an empty list; a source of files needs a path");
    }
  }
  std::string start;
  if (const auto entry = map.Find("start"); entry && reader.ReadText(*entry, start)) {
    if (start == "end") {
      options.start = FileStart::End;
    } else if (start != "beginning") {
      reader.Note(*entry, reader.Quote(*entry, start) + " is not known; known are: beginning, end");
    }
  }
  if (const auto size = map.Find("max_event_size")) {
    reader.ReadSize(*size, kSmallestEvent, kLargestEvent, options.maxEventSize);
  }
  if (const auto interval = map.Find("poll_interval")) {
    reader.ReadDuration(*interval, milliseconds(10), hours(1), options.pollInterval);
  }
  if (const auto count = map.Find("max_files")) {
    reader.ReadCount(*count, 1, 1'000'000, options.maxFiles);
  }
  return options;
}

void ReadSendTimeout(MapReader& map, ValueReader& reader, milliseconds& timeout) {
  if (const auto entry = map.Find("send_timeout")) {
    reader.ReadDuration(*entry, milliseconds(1), hours(1), timeout);
  }
}

RotationOptions ReadRotation(const ConfigurationEntry& entry, ValueReader& reader) {
  RotationOptions rotation;
  MapReader map(entry, reader);
  const auto size = map.Find("size");
  const auto every = map.Find("every");
  if (size) {
    std::size_t bytes = static_cast<std::size_t>(kSmallestRotation);
    reader.ReadSize(*size, kSmallestRotation, kLargestRotation, bytes);
    rotation.size = bytes;
  }
  if (every) {
    reader.ReadDuration(*every, std::chrono::seconds(1), hours(24), rotation.every);
  }
  if (map.IsMap() && !size && !every) {
    reader.Note(entry, "has neither \"size\" nor \"every\", and would never rotate");
  }
  if (const auto keep = map.Find("keep")) {
    reader.ReadCount(*keep, 0, 100'000, rotation.keep);
  }
  std::string compress;
  if (const auto by = map.Find("compress"); by && reader.ReadText(*by, compress)) {
    rotation.compress = compress == "gzip";
    if (compress != "gzip" && compress != "none") {
      reader.Note(*by, reader.Quote(*by, compress) + " is not known; known are: none, gzip");
    } else if (rotation.compress && !IsGzipAvailable()) {
      reader.Note(*by, "can't be used: this program was built without gzip");
    }
  }
  map.RefuseOthers();
  return rotation;
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
      reader.Note(*entry, reader.Quote(*entry, framing) +
                              " is not known; known are: newline, octet-counted");
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

void ReadProperties(const ConfigurationEntry& entry, ValueReader& reader,
                    std::map<std::string, std::string>& properties) {
  const MapReader map(entry, reader);
  for (const auto& [name, property] : map.GetAll()) {
    if (IsReservedKafkaProperty(name)) {
      reader.Note(property, "is set by the agent: its guarantees rest on it");
    } else {
      reader.ReadText(property, properties[name]);
    }
  }
}

KafkaDestinationOptions ReadKafkaDestination(MapReader& map, ValueReader& reader) {
  KafkaDestinationOptions options;
  if (const auto brokers = map.Require("brokers")) {
    for (const ConfigurationEntry& one : reader.ReadList(*brokers, true)) {
      std::string broker;
      if (reader.ReadText(one, broker)) {
        reader.AddShownForms(one, GetShownFormsOfBrokers(broker));
        options.brokers += (options.brokers.empty() ? "" : ",") + broker;
      }
    }
    if (options.brokers.empty()) {
      reader.Note(*brokers, "names no broker");
    }
  }
  if (const auto topic = map.Require("topic"); topic && reader.ReadText(*topic, options.topic)) {
    if (options.topic.empty()) {
      reader.Note(*topic, "is empty");
    }
  }
  if (const auto key = map.Find("key")) {
    reader.ReadText(*key, options.key);
  }
  if (const auto window = map.Find("window")) {
    reader.ReadCount(*window, 1, 1'000'000, options.window);
  }
  if (const auto properties = map.Find("properties")) {
    ReadProperties(*properties, reader, options.properties);
  }
  ReadSendTimeout(map, reader, options.sendTimeout);
  return options;
}

RelpDestinationOptions ReadRelpDestination(MapReader& map, ValueReader& reader) {
  RelpDestinationOptions options;
  const auto target = map.Require("target");
  const bool isKnown = target && ReadEndpoint(*target, false, reader, options.target);
  if (const auto tls = map.Find("tls")) {
    ReadTlsClient(*tls, reader, options.tls);
  }
  if (const auto window = map.Find("window")) {
    reader.ReadCount(*window, 1, 1'000'000, options.window);
  }
  if (const auto timeout = map.Find("connect_timeout")) {
    reader.ReadDuration(*timeout, milliseconds(1), hours(1), options.connectTimeout);
  }
  if (const auto timeout = map.Find("ack_timeout")) {
    reader.ReadDuration(*timeout, milliseconds(0), hours(1), options.ackTimeout);
    if (options.ackTimeout.count() > 0 && options.ackTimeout < seconds(1)) {
      reader.Note(*timeout, "is shorter than a second, and not 0");
    }
  }
  ReadSendTimeout(map, reader, options.sendTimeout);
  if (isKnown && options.target.transport == Transport::Udp) {
    reader.Note(*target, "is no address for RELP, which needs tcp:// or tls://");
  }
  if (isKnown && options.target.transport != Transport::Tls) {
    RefuseForTransport(map, reader, "tls", options.target);
  }
  return options;
}

}  // namespace

void ReadSource(const ConfigurationEntry& entry, ValueReader& reader, SharedEnds& shared,
                std::vector<SourceOptions>& sources) {
  MapReader map(entry, reader);
  const auto type = ReadType(map, reader, {"stdin", "syslog", "file"});
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
  } else if (*type == "file") {
    const bool isSecond = std::any_of(sources.begin(), sources.end(), [](const auto& other) {
      return std::holds_alternative<FileSourceOptions>(other);
    });
    if (isSecond) {
      reader.Note(entry, "is the second source of files of its stream; one can have several paths");
    }
    sources.emplace_back(ReadFileSource(map, reader));
  } else {
    sources.emplace_back(ReadSyslogSource(map, reader, shared));
  }
  map.RefuseOthers();
}

void ReadDestination(const ConfigurationEntry& entry, ValueReader& reader, SharedEnds& shared,
                     DestinationOptions& destination) {
  MapReader map(entry, reader);
  const auto type = ReadType(map, reader, {"stdout", "file", "syslog", "kafka", "relp"});
  if (!type) {
    return;
  }
  if (*type == "stdout") {
    StdoutDestinationOptions options;
    ReadSendTimeout(map, reader, options.sendTimeout);
    if (!shared.outputs.insert("").second) {
      reader.Note(entry, "writes to the standard output, which another destination uses already");
    }
    destination = options;
  } else if (*type == "file") {
    FileDestinationOptions options;
    const auto path = map.Require("path");
    if (path && reader.ReadPath(*path, options.path) &&
        !shared.outputs.insert(ToText(ToPath(options.path).lexically_normal())).second) {
      reader.Note(
          *path, reader.Quote(*path, options.path) + " is the file of another destination already");
    }
    if (const auto rotation = map.Find("rotate")) {
      options.rotation = ReadRotation(*rotation, reader);
    }
    ReadSendTimeout(map, reader, options.sendTimeout);
    destination = std::move(options);
  } else if (*type == "kafka") {
    if (!IsKafkaAvailable()) {
      reader.Note(entry, "can't be used: this program was built without Kafka");
    }
    destination = ReadKafkaDestination(map, reader);
  } else if (*type == "relp") {
    destination = ReadRelpDestination(map, reader);
  } else {
    destination = ReadSyslogDestination(map, reader);
  }
  map.RefuseOthers();
}

}  // namespace OrloAgent
