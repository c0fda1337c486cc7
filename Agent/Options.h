#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

// The agent's configuration as plain values, after every check: what ConfigurationReader makes of
// the file and what the rest of the agent is built from. Paths and texts are UTF-8. Sections are
// compared when the file is read again.
namespace OrloAgent {

enum class Transport { Tcp, Udp, Tls };

// An address as written in the file: SCHEME://HOST:PORT, the scheme one of tcp, udp and tls, an
// IPv6 address in brackets.
struct Endpoint {
  // A name or an address, without brackets.
  std::string host;
  // 0 is accepted for listening only and lets the system choose.
  std::uint16_t port = 0;
  Transport transport = Transport::Tcp;

  bool operator==(const Endpoint&) const = default;
};

struct DiskOptions {
  // How many bytes all event caches together may take; beyond it chunks are refused and their
  // events are lost (and counted). 0: no limit.
  std::uint64_t quota = std::uint64_t{10} << 30;

  // How many bytes must stay free on the file system of the data directory, whoever uses them.
  // 0: no limit.
  std::uint64_t keepFree = std::uint64_t{1} << 30;

  bool operator==(const DiskOptions&) const = default;
};

struct LogOptions {
  // What is written by loggers that `levels` does not name: debug, info, warn, error or off.
  std::string level = "info";

  // Logger-name prefix to level; the longest prefix that fits decides.
  std::map<std::string, std::string> levels;

  // Messages are appended to this file as well as written to standard error. Empty: no file.
  std::string file;

  bool operator==(const LogOptions&) const = default;
};

struct ShutdownOptions {
  // How long the agent waits, after its sources have stopped, until every event is delivered,
  // cached or counted as lost. The stage decides about its newest events once per DataChunkPeriod,
  // so a shorter wait can leave events behind. 0: no wait. At most a day.
  std::chrono::milliseconds drainTimeout{30'000};

  bool operator==(const ShutdownOptions&) const = default;
};

// When a stream is called stalled: its cache is not empty, its destination and its schedule would
// let it send, and still nothing moves.
struct WatchOptions {
  // How long nothing has moved before the first warning. 1 s to a day.
  std::chrono::milliseconds stallAfter{60'000};

  // How long until the warning is repeated while it stays so. 1 s to a day.
  std::chrono::milliseconds repeat{600'000};

  // How often a line in the log says of each stream how many events were delivered, are cached,
  // lost and held. 0: never. At most a day.
  std::chrono::milliseconds report{0};

  bool operator==(const WatchOptions&) const = default;
};

// Where the agent shows how it is. docs/monitoring.md
struct MonitorOptions {
  // An address, never a name. Empty: there is no monitor.
  std::string host;
  // 0 lets the system choose.
  std::uint16_t port = 0;

  // What every request must carry. Needed where `host` is no loopback address; 16 characters at
  // least. Empty: none.
  std::string token;

  // For how long a destination may refuse events until the agent no longer calls itself healthy.
  // 0 to a day.
  std::chrono::milliseconds refusedAfter{30'000};

  bool operator==(const MonitorOptions&) const = default;
};

// Lines of standard input. Its end stops the agent, unless another source goes on.
struct StdinSourceOptions {
  // A longer line becomes several events, none of it is dropped. 64 bytes to 16 MiB.
  std::size_t maxEventSize = 64 * 1024;

  bool operator==(const StdinSourceOptions&) const = default;
};

// What a server shows its clients, and what it demands of them.
struct TlsServerOptions {
  // PEM files: the certificate, followed by those between it and its root, and its key.
  std::string certificate;
  std::string key;

  // PEM file. If it is set, a client must show a certificate that one of these has signed.
  std::string clientCa;

  // How long a client may take until its connection is secured. 100 ms to 1 h.
  std::chrono::milliseconds handshakeTimeout{10'000};

  bool operator==(const TlsServerOptions&) const = default;
};

// What a client demands of its server, and what it shows.
struct TlsClientOptions {
  // PEM file with the roots to trust. Empty: those that the system trusts.
  std::string ca;

  // PEM files of our own certificate and its key; empty: none is shown.
  std::string certificate;
  std::string key;

  // The name or address that the server's certificate must be for. Empty: the target's host.
  std::string serverName;

  // False: whoever answers is believed to be the server.
  bool verify = true;

  bool operator==(const TlsClientOptions&) const = default;
};

// Syslog over UDP (a message per datagram, RFC 5426), over TCP (framed as RFC 6587 describes) or
// over TLS (RFC 5425).
struct SyslogSourceOptions {
  Endpoint listen;

  // For tls:// only.
  TlsServerOptions tls;

  // For udp:// only: how many bytes of datagrams the system is asked to keep while they can't be
  // taken. 4 KiB to 1 GiB.
  std::size_t receiveBuffer = 8 * 1024 * 1024;

  // A longer message is cut to this size and counted. It is also what one connection may make the
  // agent keep in memory. 64 bytes to 16 MiB.
  std::size_t maxEventSize = 64 * 1024;

  // Further connections are closed as soon as they are accepted, with a message. 1 to 1,000,000.
  std::size_t maxConnections = 4096;

  // A connection that has sent nothing for so long is closed. 0: it may stay silent for ever; a
  // peer that is gone is still found by TCP keep-alive.
  std::chrono::milliseconds idleTimeout{0};

  bool operator==(const SyslogSourceOptions&) const = default;
};

enum class FileStart { Beginning, End };

// Lines of files that others write, rename and remove.
struct FileSourceOptions {
  // At least one; in each part of a path * stands for any characters and ? for one.
  std::vector<std::string> paths;

  // Where files are begun that are there when the source looks for the very first time. Files that
  // appear later are read from their beginning.
  FileStart start = FileStart::Beginning;

  // A longer line becomes several events, none of it is dropped. 64 bytes to 16 MiB.
  std::size_t maxEventSize = 64 * 1024;

  // How often the files are looked at. 10 ms to 1 h.
  std::chrono::milliseconds pollInterval{250};

  // Further files are not followed, with a message, until others are gone. Each takes a descriptor.
  // 1 to 1,000,000.
  std::size_t maxFiles = 1024;

  bool operator==(const FileSourceOptions&) const = default;
};

using SourceOptions = std::variant<StdinSourceOptions, SyslogSourceOptions, FileSourceOptions>;

// A stage module and its settings, which the agent hands on as text. A key with a list of values
// stands there once per element, in order.
struct StageOptions {
  std::string module;
  std::vector<std::pair<std::string, std::string>> settings;

  bool operator==(const StageOptions&) const = default;
};

struct StdoutDestinationOptions {
  // How long one event may wait for a reader that is behind before the stage is told to hold it
  // and come back in half a minute. 1 ms to 1 h.
  std::chrono::milliseconds sendTimeout{5'000};

  bool operator==(const StdoutDestinationOptions&) const = default;
};

// When a file is closed, renamed and begun anew, and what becomes of it then. Without a size and a
// period it never is.
struct RotationOptions {
  // When it has got this large; 0: no limit. 1 KiB or more.
  std::uint64_t size = 0;

  // When one of the periods of this length that begin with 1970 in UTC is over: with 24 h at
  // midnight, with 1 h at every full hour. 0: never. 1 s to a day.
  std::chrono::milliseconds every{0};

  // How many closed files are kept; the oldest are deleted. 0: all. At most 100,000.
  std::size_t keep = 0;

  // Whether closed files are compressed in gzip's format.
  bool compress = false;

  bool operator==(const RotationOptions&) const = default;
};

struct FileDestinationOptions {
  // Events are appended, one per line. Missing directories are made. May be renamed or removed at
  // any time; the file is then made anew within a second.
  std::string path;

  // Nothing: whoever wants it rotates the file himself.
  std::optional<RotationOptions> rotation;

  // How long one event may wait for a full disk before the stage holds it. 1 ms to 1 h.
  std::chrono::milliseconds sendTimeout{5'000};

  bool operator==(const FileDestinationOptions&) const = default;
};

enum class SyslogFraming {
  // Each message ends with a line feed. A message that has line feeds inside arrives as several.
  Newline,
  // Each message is preceded by its length; any bytes pass.
  OctetCounted
};

struct SyslogDestinationOptions {
  Endpoint target;

  // For tls:// only.
  TlsClientOptions tls;

  // Of no meaning for udp://, where each message is a datagram.
  SyslogFraming framing = SyslogFraming::Newline;

  // How long one event may wait for a receiver that is behind (its and our buffers are full) before
  // the stage holds it. 1 ms to 1 h.
  std::chrono::milliseconds sendTimeout{5'000};

  // How long one attempt to connect, the look-up of the name included, may take. 1 ms to 1 h.
  std::chrono::milliseconds connectTimeout{5'000};

  bool operator==(const SyslogDestinationOptions&) const = default;
};

// A topic of a Kafka cluster.
struct KafkaDestinationOptions {
  // HOST:PORT of one broker or more, separated by commas; the others are found through them.
  std::string brokers;
  std::string topic;

  // All events get this key, and so go to one partition, where their order holds. Empty: the
  // stream's name.
  std::string key;

  // How many events may be under way without having been acknowledged. 1 to 1,000,000.
  std::size_t window = 10'000;

  // How long one event may wait for room in the window before the stage holds it. 1 ms to 1 h.
  std::chrono::milliseconds sendTimeout{5'000};

  // Handed to librdkafka as they are; none of those that the agent sets itself.
  std::map<std::string, std::string> properties;

  bool operator==(const KafkaDestinationOptions&) const = default;
};

// A receiver of RELP, which acknowledges every event.
struct RelpDestinationOptions {
  // tcp:// or tls://.
  Endpoint target;

  // For tls:// only.
  TlsClientOptions tls;

  // How many events may be under way without having been acknowledged. 1 to 1,000,000.
  std::size_t window = 1'000;

  // How long one event may wait for room in the window before the stage holds it. 1 ms to 1 h.
  std::chrono::milliseconds sendTimeout{5'000};

  // How long one attempt to connect, the look-up of the name included, may take, and then how long
  // the receiver's consent to the session. 1 ms to 1 h.
  std::chrono::milliseconds connectTimeout{5'000};

  // A receiver that acknowledges nothing for so long, though something is under way, is connected
  // to anew and gets it again. 1 s to 1 h; 0: it may take for ever.
  std::chrono::milliseconds ackTimeout{60'000};

  bool operator==(const RelpDestinationOptions&) const = default;
};

using DestinationOptions =
    std::variant<StdoutDestinationOptions, FileDestinationOptions, SyslogDestinationOptions,
                 KafkaDestinationOptions, RelpDestinationOptions>;

// A second destination, for the time in which the first one takes nothing.
struct FallbackOptions {
  // How long events have waited for the first destination, which has sent nothing in that time,
  // when the second one gets them. 1 s to a day.
  std::chrono::milliseconds after{60'000};

  // How often the first one is offered an event while the second one gets them. 1 s to a day.
  std::chrono::milliseconds retry{30'000};

  DestinationOptions destination;

  bool operator==(const FallbackOptions&) const = default;
};

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
  std::optional<FallbackOptions> fallback;

  bool operator==(const StreamOptions&) const = default;
};

struct AgentOptions {
  // Event caches live below its directory Events. Made if it does not exist. One agent at a time.
  std::string dataDirectory = "./data";

  DiskOptions disk;
  LogOptions log;
  ShutdownOptions shutdown;
  WatchOptions watch;
  MonitorOptions monitor;

  // At least one.
  std::vector<StreamOptions> streams;
};

}  // namespace OrloAgent
