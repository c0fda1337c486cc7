#include <algorithm>
#include <chrono>
#include <cstring>
#include <set>
#include <string>
#include <string_view>

#include "Agent/ConfigurationReader.h"
#include "fuzz/FuzzTarget.h"

// The input is the text of a configuration file.

namespace {

using Fuzz::Require;
using namespace OrloAgent;
using std::chrono::hours;
using std::chrono::milliseconds;

bool IsIn(milliseconds value, milliseconds lowest, milliseconds highest) {
  return value >= lowest && value <= highest;
}

bool IsLevel(const std::string& level) {
  return level == "debug" || level == "info" || level == "warn" || level == "error" ||
         level == "off";
}

// By a function of the C library: a loop here would report each of its comparisons to the fuzzer,
// and take half of the time.
bool HasControlCharacter(const std::string& text) {
  static const std::string controls = [] {
    std::string made;
    for (char c = 1; c < 0x20; ++c) {
      made += c;
    }
    return made + '\x7f';
  }();
  return std::strcspn(text.c_str(), controls.c_str()) != text.size();
}

// Each Check* says what the comments of Agent/Options.h promise.

void CheckEventSize(std::size_t size) {
  Require(size >= 64 && size <= 16 * 1024 * 1024, "the event size is in range");
}

void CheckSource(const StdinSourceOptions& source) { CheckEventSize(source.maxEventSize); }

void CheckSource(const SyslogSourceOptions& source) {
  CheckEventSize(source.maxEventSize);
  Require(!source.listen.host.empty(), "a listening address has a host");
  Require(source.maxConnections >= 1 && source.maxConnections <= 1'000'000,
          "the number of connections is in range");
  Require(IsIn(source.idleTimeout, milliseconds(0), hours(24)), "the idle timeout is in range");
  Require(source.receiveBuffer >= 4096 && source.receiveBuffer <= std::size_t{1} << 30,
          "the receive buffer is in range");
  Require(IsIn(source.tls.handshakeTimeout, milliseconds(100), hours(1)),
          "the handshake timeout is in range");
  if (source.listen.transport == Transport::Tls) {
    Require(!source.tls.certificate.empty() && !source.tls.key.empty(),
            "a TLS server has a certificate and a key");
  }
}

void CheckSource(const FileSourceOptions& source) {
  CheckEventSize(source.maxEventSize);
  Require(!source.paths.empty(), "a source of files has a path");
  for (const std::string& path : source.paths) {
    Require(!path.empty() && !HasControlCharacter(path), "a followed path is usable");
  }
  Require(IsIn(source.pollInterval, milliseconds(10), hours(1)), "the poll interval is in range");
  Require(source.maxFiles >= 1 && source.maxFiles <= 1'000'000, "the number of files is in range");
}

void CheckDestination(const StdoutDestinationOptions& destination) {
  Require(IsIn(destination.sendTimeout, milliseconds(1), hours(1)), "the send timeout is in range");
}

void CheckDestination(const FileDestinationOptions& destination) {
  Require(IsIn(destination.sendTimeout, milliseconds(1), hours(1)), "the send timeout is in range");
  Require(!destination.path.empty() && !HasControlCharacter(destination.path),
          "a destination's file has a usable path");
  if (destination.rotation) {
    const RotationOptions& rotation = *destination.rotation;
    Require(rotation.size > 0 || rotation.every.count() > 0, "a rotation has an occasion");
    Require(rotation.size == 0 || rotation.size >= 1024, "the size of a rotation is in range");
    Require(rotation.every.count() == 0 || IsIn(rotation.every, std::chrono::seconds(1), hours(24)),
            "the period of a rotation is in range");
    Require(rotation.keep <= 100'000, "the number of kept files is in range");
  }
}

void CheckDestination(const SyslogDestinationOptions& destination) {
  Require(IsIn(destination.sendTimeout, milliseconds(1), hours(1)), "the send timeout is in range");
  Require(IsIn(destination.connectTimeout, milliseconds(1), hours(1)),
          "the connect timeout is in range");
  Require(!destination.target.host.empty() && destination.target.port != 0,
          "a target has a host and a port");
  Require(destination.tls.certificate.empty() == destination.tls.key.empty(),
          "a client's certificate and key stand together");
}

void CheckDestination(const KafkaDestinationOptions& destination) {
  Require(IsIn(destination.sendTimeout, milliseconds(1), hours(1)), "the send timeout is in range");
  Require(!destination.brokers.empty() && !destination.topic.empty(),
          "a Kafka destination has a broker and a topic");
  Require(destination.window >= 1 && destination.window <= 1'000'000, "the window is in range");
}

void CheckDestination(const RelpDestinationOptions& destination) {
  Require(IsIn(destination.sendTimeout, milliseconds(1), hours(1)), "the send timeout is in range");
  Require(IsIn(destination.connectTimeout, milliseconds(1), hours(1)),
          "the connect timeout is in range");
  Require(destination.ackTimeout.count() == 0 ||
              IsIn(destination.ackTimeout, milliseconds(1000), hours(1)),
          "the time for acknowledgements is in range");
  Require(destination.window >= 1 && destination.window <= 1'000'000, "the window is in range");
  Require(!destination.target.host.empty() && destination.target.port != 0 &&
              destination.target.transport != Transport::Udp,
          "a target has a host, a port and a connection");
  Require(destination.tls.certificate.empty() == destination.tls.key.empty(),
          "a client's certificate and key stand together");
}

void CheckName(const std::string& name) {
  Require(!name.empty() && name.size() <= 255 && name != "." && name != ".." &&
              !HasControlCharacter(name) && name.find_first_of("/\\") == name.npos,
          "a stream's name is a possible file name");
}

void CheckStages(const std::vector<StageOptions>& stages) {
  Require(!stages.empty(), "a stream has a stage");
  std::set<std::string> modules;
  for (const StageOptions& stage : stages) {
    Require(!stage.module.empty() && modules.insert(stage.module).second,
            "each module is named and stands there once");
  }
}

void CheckStreams(const std::vector<StreamOptions>& streams) {
  Require(!streams.empty(), "there is a stream");
  std::set<std::string> names;
  std::set<std::string> foldedNames;
  long standardInputs = 0;
  long standardOutputs = 0;
  for (const StreamOptions& stream : streams) {
    CheckName(stream.name);
    Require(names.insert(stream.name).second, "names of streams differ");
    Require(!stream.sources.empty(), "a stream has a source");
    for (const SourceOptions& source : stream.sources) {
      std::visit([](const auto& one) { CheckSource(one); }, source);
      standardInputs += std::holds_alternative<StdinSourceOptions>(source) ? 1 : 0;
    }
    CheckStages(stream.stages);
    std::vector<DestinationOptions> destinations{stream.destination};
    if (stream.fallback) {
      Require(IsIn(stream.fallback->after, std::chrono::seconds(1), hours(24)) &&
                  IsIn(stream.fallback->retry, std::chrono::seconds(1), hours(24)),
              "the times of a fallback are in range");
      destinations.push_back(stream.fallback->destination);
    }
    for (const DestinationOptions& destination : destinations) {
      std::visit([](const auto& one) { CheckDestination(one); }, destination);
      standardOutputs += std::holds_alternative<StdoutDestinationOptions>(destination) ? 1 : 0;
    }
  }
  for (const std::string& name : names) {
    std::string folded = name;
    std::transform(folded.begin(), folded.end(), folded.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    Require(foldedNames.insert(folded).second, "names of streams differ by more than letter case");
  }
  Require(standardInputs <= 1, "one source reads the standard input");
  Require(standardOutputs <= 1, "one destination writes to the standard output");
}

void CheckOptions(const AgentOptions& options) {
  Require(!options.dataDirectory.empty() && !HasControlCharacter(options.dataDirectory),
          "the data directory is a usable path");
  Require(IsLevel(options.log.level), "the level is known");
  for (const auto& [prefix, level] : options.log.levels) {
    Require(IsLevel(level), "the level of a prefix is known");
  }
  Require(!HasControlCharacter(options.log.file), "the log file is a usable path");
  Require(IsIn(options.shutdown.drainTimeout, milliseconds(0), hours(24)),
          "the drain timeout is in range");
  Require(IsIn(options.watch.stallAfter, std::chrono::seconds(1), hours(24)),
          "the time until a stall is in range");
  Require(IsIn(options.watch.repeat, std::chrono::seconds(1), hours(24)),
          "the time between warnings of a stall is in range");
  const MonitorOptions& monitor = options.monitor;
  Require(IsIn(monitor.refusedAfter, milliseconds(0), hours(24)),
          "the time until a refusal counts is in range");
  Require(monitor.token.empty() || monitor.token.size() >= 16, "a token is no short one");
  Require(monitor.host.find_first_not_of("0123456789abcdefABCDEF.:%") == monitor.host.npos ||
              monitor.host.find('%') != monitor.host.npos,
          "the monitor listens on an address");
  Require(IsIn(options.watch.report, milliseconds(0), hours(24)),
          "the time between reports is in range");
  CheckStreams(options.streams);
}

void CheckMistakes(const std::vector<ConfigurationMistake>& mistakes, std::string_view text) {
  const auto lines = 1 + std::count(text.begin(), text.end(), '\n');
  constexpr int kLookedAt = 20;
  int looked = 0;
  int last = 0;
  for (const ConfigurationMistake& mistake : mistakes) {
    Require(mistake.line >= 1 && mistake.line <= lines, "a mistake's line is one of the text");
    Require(mistake.line >= last, "mistakes stand in the order of the text");
    last = mistake.line;
    Require(!mistake.problem.empty(), "a mistake says what is wrong");
    // Mistakes by the hundred are alike.
    if (looked < kLookedAt) {
      ++looked;
      Require(!HasControlCharacter(ToText(mistake, "f")), "a mistake is told in one line");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const Configuration configuration = ParseConfiguration(text);
  if (configuration.mistakes.empty()) {
    CheckOptions(configuration.options);
  } else {
    CheckMistakes(configuration.mistakes, text);
  }
  return 0;
}
