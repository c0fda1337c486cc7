#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

// The agent's configuration as plain values, after every check: what ConfigurationReader makes of
// the file and what the rest of the agent is built from. Paths and texts are UTF-8.
namespace OrloAgent {

// A TCP address as written in the file: tcp://HOST:PORT, an IPv6 address in brackets.
struct Endpoint {
  // A name or an address, without brackets.
  std::string host;
  // 0 is accepted for listening only and lets the system choose.
  std::uint16_t port = 0;
};

struct DiskOptions {
  // How many bytes all event caches together may take; beyond it chunks are refused and their
  // events are lost (and counted). 0: no limit.
  std::uint64_t quota = std::uint64_t{10} << 30;

  // How many bytes must stay free on the file system of the data directory, whoever uses them.
  // 0: no limit.
  std::uint64_t keepFree = std::uint64_t{1} << 30;
};

struct LogOptions {
  // What is written by loggers that `levels` does not name: debug, info, warn, error or off.
  std::string level = "info";

  // Logger-name prefix to level; the longest prefix that fits decides.
  std::map<std::string, std::string> levels;

  // Messages are appended to this file as well as written to standard error. Empty: no file.
  std::string file;
};

struct ShutdownOptions {
  // How long the agent waits, after its sources have stopped, until every event is delivered,
  // cached or counted as lost. The stage decides about its newest events once per DataChunkPeriod,
  // so a shorter wait can leave events behind. 0: no wait. At most a day.
  std::chrono::milliseconds drainTimeout{30'000};
};

// When a stream is called stalled: its cache is not empty, its destination and its schedule would
// let it send, and still nothing moves.
struct WatchOptions {
  // How long nothing has moved before the first warning. 1 s to a day.
  std::chrono::milliseconds stallAfter{60'000};

  // How long until the warning is repeated while it stays so. 1 s to a day.
  std::chrono::milliseconds repeat{600'000};
};

// Lines of standard input. Its end stops the agent, unless another source goes on.
struct StdinSourceOptions {
  // A longer line becomes several events, none of it is dropped. 64 bytes to 16 MiB.
  std::size_t maxEventSize = 64 * 1024;
};

// Syslog over TCP, framed as RFC 6587 describes.
struct SyslogSourceOptions {
  Endpoint listen;

  // A longer message is cut to this size and counted. It is also what one connection may make the
  // agent keep in memory. 64 bytes to 16 MiB.
  std::size_t maxEventSize = 64 * 1024;

  // Further connections are closed as soon as they are accepted, with a message. 1 to 1,000,000.
  std::size_t maxConnections = 4096;

  // A connection that has sent nothing for so long is closed. 0: it may stay silent for ever; a
  // peer that is gone is still found by TCP keep-alive.
  std::chrono::milliseconds idleTimeout{0};
};

using SourceOptions = std::variant<StdinSourceOptions, SyslogSourceOptions>;

// A stage module and its settings, which the agent hands on as text. A key with a list of values
// stands there once per element, in order.
struct StageOptions {
  std::string module;
  std::vector<std::pair<std::string, std::string>> settings;
};

struct StdoutDestinationOptions {
  // How long one event may wait for a reader that is behind before the stage is told to hold it
  // and come back in half a minute. 1 ms to 1 h.
  std::chrono::milliseconds sendTimeout{5'000};
};

struct FileDestinationOptions {
  // Events are appended, one per line. Missing directories are made. May be renamed or removed at
  // any time; the file is then made anew within a second.
  std::string path;

  // How long one event may wait for a full disk before the stage holds it. 1 ms to 1 h.
  std::chrono::milliseconds sendTimeout{5'000};
};

enum class SyslogFraming {
  // Each message ends with a line feed. A message that has line feeds inside arrives as several.
  Newline,
  // Each message is preceded by its length; any bytes pass.
  OctetCounted
};

struct SyslogDestinationOptions {
  Endpoint target;
  SyslogFraming framing = SyslogFraming::Newline;

  // How long one event may wait for a receiver that is behind (its and our buffers are full) before
  // the stage holds it. 1 ms to 1 h.
  std::chrono::milliseconds sendTimeout{5'000};

  // How long one attempt to connect, the look-up of the name included, may take. 1 ms to 1 h.
  std::chrono::milliseconds connectTimeout{5'000};
};

using DestinationOptions =
    std::variant<StdoutDestinationOptions, FileDestinationOptions, SyslogDestinationOptions>;

// One chain of sources, stages and a destination.
struct StreamOptions {
  // Also the name of its cache directory, so it is a possible file name and differs from the other
  // names by more than letter case. At most 255 bytes.
  std::string name;

  // At least one.
  std::vector<SourceOptions> sources;

  // At least one, upstream first, no module twice.
  std::vector<StageOptions> stages;

  DestinationOptions destination;
};

struct AgentOptions {
  // Event caches live below its directory Events. Made if it does not exist. One agent at a time.
  std::string dataDirectory = "./data";

  DiskOptions disk;
  LogOptions log;
  ShutdownOptions shutdown;
  WatchOptions watch;

  // At least one.
  std::vector<StreamOptions> streams;
};

}  // namespace OrloAgent
