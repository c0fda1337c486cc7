#include "Agent/ConfigurationReader.h"

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "Agent/ConfigurationNodes.h"
#include "Agent/ConfigurationShape.h"
#include "Agent/Monitor/Monitor.h"
#include "Agent/PathText.h"
#include "Agent/ShownForms.h"
#include "Agent/StreamSection.h"
#include "Agent/Units.h"

namespace OrloAgent {

namespace {

// Far beyond any sensible configuration, and small enough to be read at once.
constexpr std::size_t kLargestText = 1024 * 1024;

int LineAt(std::string_view text, std::size_t position) {
  return 1 + static_cast<int>(std::count(text.begin(), text.begin() + position, '\n'));
}

void ReadDisk(const ConfigurationEntry& entry, ValueReader& reader, DiskOptions& disk) {
  MapReader map(entry, reader);
  if (const auto quota = map.Find("quota")) {
    reader.ReadSize(*quota, disk.quota);
  }
  if (const auto keepFree = map.Find("keep_free")) {
    reader.ReadSize(*keepFree, disk.keepFree);
  }
  map.RefuseOthers();
}

void ReadLog(const ConfigurationEntry& entry, ValueReader& reader, LogOptions& log) {
  MapReader map(entry, reader);
  if (const auto level = map.Find("level")) {
    reader.ReadLevel(*level, log.level);
  }
  if (const auto levels = map.Find("levels")) {
    const MapReader prefixes(*levels, reader);
    for (const auto& [prefix, level] : prefixes.GetAll()) {
      reader.ReadLevel(level, log.levels[prefix]);
    }
  }
  if (const auto file = map.Find("file")) {
    reader.ReadPath(*file, log.file);
  }
  map.RefuseOthers();
}

void ReadShutdown(const ConfigurationEntry& entry, ValueReader& reader, ShutdownOptions& shutdown) {
  MapReader map(entry, reader);
  if (const auto timeout = map.Find("drain_timeout")) {
    reader.ReadDuration(*timeout, std::chrono::milliseconds(0), std::chrono::hours(24),
                        shutdown.drainTimeout);
  }
  map.RefuseOthers();
}

void ReadWatch(const ConfigurationEntry& entry, ValueReader& reader, WatchOptions& watch) {
  MapReader map(entry, reader);
  if (const auto after = map.Find("stall_after")) {
    reader.ReadDuration(*after, std::chrono::seconds(1), std::chrono::hours(24), watch.stallAfter);
  }
  if (const auto repeat = map.Find("repeat")) {
    reader.ReadDuration(*repeat, std::chrono::seconds(1), std::chrono::hours(24), watch.repeat);
  }
  if (const auto report = map.Find("report")) {
    reader.ReadDuration(*report, std::chrono::milliseconds(0), std::chrono::hours(24),
                        watch.report);
  }
  map.RefuseOthers();
}

// HOST:PORT, the host an address: a name could lead elsewhere tomorrow.
void ReadMonitorAddress(const ConfigurationEntry& entry, ValueReader& reader,
                        MonitorOptions& monitor) {
  std::string text;
  if (!reader.ReadText(entry, text)) {
    return;
  }
  std::string problem;
  const auto endpoint = ParseEndpoint("tcp://" + text, true, problem);
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(endpoint ? endpoint->host : "", error);
  if (error) {
    reader.Note(
        entry, reader.Quote(entry, text) + " is not ADDRESS:PORT, as 127.0.0.1:9464 or [::1]:9464");
    return;
  }
  reader.AddShownForms(entry, GetShownForms(*endpoint));
  monitor.host = endpoint->host;
  monitor.port = endpoint->port;
  if (!address.is_loopback() && monitor.token.empty()) {
    reader.Note(entry, reader.Quote(entry, text) +
                           " can be reached from other machines; it needs \"token\" beside it");
  }
}

void ReadMonitor(const ConfigurationEntry& entry, ValueReader& reader, MonitorOptions& monitor) {
  constexpr std::size_t kShortestToken = 16;
  if (!IsMonitorAvailable()) {
    reader.Note(entry, "can't be used: this program was built without the monitor");
    return;
  }
  MapReader map(entry, reader);
  if (const auto token = map.Find("token"); token && reader.ReadText(*token, monitor.token)) {
    if (monitor.token.size() < kShortestToken) {
      // Without its text.
      reader.Note(*token, "is too short; a token has 16 characters or more");
    }
  }
  if (const auto listen = map.Require("listen")) {
    ReadMonitorAddress(*listen, reader, monitor);
  }
  if (const auto after = map.Find("refused_after")) {
    reader.ReadDuration(*after, std::chrono::milliseconds(0), std::chrono::hours(24),
                        monitor.refusedAfter);
  }
  map.RefuseOthers();
}

void ReadDocument(const YAML::Node& document, const References& references,
                  Configuration& configuration) {
  ValueReader reader(configuration.mistakes, references, configuration.secrets);
  MapReader map({document, 1, ""}, reader);
  AgentOptions& options = configuration.options;
  if (const auto directory = map.Find("data_directory")) {
    reader.ReadPath(*directory, options.dataDirectory);
  }
  if (const auto disk = map.Find("disk")) {
    ReadDisk(*disk, reader, options.disk);
  }
  if (const auto log = map.Find("log")) {
    ReadLog(*log, reader, options.log);
  }
  if (const auto shutdown = map.Find("shutdown")) {
    ReadShutdown(*shutdown, reader, options.shutdown);
  }
  if (const auto watch = map.Find("watch")) {
    ReadWatch(*watch, reader, options.watch);
  }
  if (const auto monitor = map.Find("monitor")) {
    ReadMonitor(*monitor, reader, options.monitor);
  }
  if (const auto streams = map.Require("streams")) {
    options.streams = ReadStreams(*streams, reader);
  }
  map.RefuseOthers();
}

void ReadText(std::string_view text, const References& references, Configuration& configuration) {
  if (text.size() > kLargestText) {
    configuration.mistakes.push_back({1, "", "the file is larger than 1 MiB"});
    return;
  }
  // The YAML reader would take it for the end of the text.
  if (const std::size_t nul = text.find('\0'); nul != text.npos) {
    configuration.mistakes.push_back({LineAt(text, nul), "", "there is a NUL byte in the file"});
    return;
  }
  const std::string copy(text);
  if (auto problem = FindProblemOfShape(copy)) {
    configuration.mistakes.push_back(std::move(*problem));
    return;
  }
  const YAML::Node document = YAML::Load(copy);
  if (document.IsNull()) {
    configuration.mistakes.push_back({1, "", "the file is empty; the agent needs a stream"});
    return;
  }
  ReadDocument(document, references, configuration);
}

}  // namespace

Configuration ParseConfiguration(std::string_view text, const References& references) {
  Configuration configuration;
  try {
    ReadText(text, references, configuration);
  } catch (const YAML::Exception& exception) {
    const int line = exception.mark.is_null() ? 1 : exception.mark.line + 1;
    configuration.mistakes.push_back({line, "", "this is not valid YAML: " + exception.msg});
  } catch (const std::exception& exception) {
    configuration.mistakes.push_back(
        {1, "", std::string("the file can't be read: ") + exception.what()});
  }
  for (ConfigurationMistake& mistake : configuration.mistakes) {
    mistake.problem = WindowsAgentCommon::HideSecrets(mistake.problem, configuration.secrets);
  }
  std::stable_sort(configuration.mistakes.begin(), configuration.mistakes.end(),
                   [](const auto& left, const auto& right) { return left.line < right.line; });
  return configuration;
}

Configuration LoadConfiguration(const std::string& path) {
  const auto refuse = [](const std::string& reason) {
    Configuration configuration;
    configuration.mistakes.push_back({0, "", "the file can't be read: " + reason});
    return configuration;
  };
  std::error_code ignored;
  const std::filesystem::path file = ToPath(path);
  if (std::filesystem::is_directory(file, ignored)) {
    return refuse("it is a directory");
  }
  errno = 0;
  std::ifstream stream(file, std::ios::binary);
  if (!stream) {
    return refuse(std::generic_category().message(errno));
  }
  // One byte more than is allowed, so that a file that is too large is seen to be.
  std::string text(kLargestText + 1, '\0');
  stream.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(stream.gcount()));
  if (stream.bad()) {
    return refuse(std::generic_category().message(errno));
  }
  return ParseConfiguration(text, SystemReferences());
}

std::string ToText(const ConfigurationMistake& mistake, const std::string& file) {
  std::string text = file + ":";
  if (mistake.line > 0) {
    text += std::to_string(mistake.line) + ":";
  }
  if (!mistake.key.empty()) {
    text += " " + mistake.key + ":";
  }
  text += " " + mistake.problem;
  // Keys and values of the file may hold line ends; the message must not.
  std::replace_if(
      text.begin(), text.end(),
      [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '?');
  return text;
}

}  // namespace OrloAgent
