#include "Agent/ConfigurationReader.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <optional>

#include "Agent/ShownForms.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using OrloAgent::Configuration;
using OrloAgent::ConfigurationMistake;
using OrloAgent::LoadConfiguration;
using OrloAgent::ParseConfiguration;
using std::chrono::milliseconds;

std::vector<std::string> Mistakes(const std::string& text) {
  std::vector<std::string> mistakes;
  for (const ConfigurationMistake& mistake : ParseConfiguration(text).mistakes) {
    mistakes.push_back(ToText(mistake, "f"));
  }
  return mistakes;
}

// A good stream; tests put one wrong thing before or after it.
const std::string kStream = R"(streams:
  - name: Default
    source: { type: stdin }
    stages: [ { module: StoreAndForwardStage } ]
    destination: { type: stdout }
)";

// Two good streams with these destinations.
std::string WithDestinations(const std::string& first, const std::string& second) {
  const std::string stages = "    stages: [ { module: StoreAndForwardStage } ]\n";
  return "streams:\n  - name: One\n    source: { type: stdin }\n" + stages +
         "    destination: " + first +
         "\n  - name: Two\n    source: { type: syslog, listen: \"tcp://h:0\" }\n" + stages +
         "    destination: " + second + "\n";
}

template <typename Options>
const Options& GetDestination(const Configuration& configuration, std::size_t stream) {
  return std::get<Options>(configuration.options.streams.at(stream).destination);
}

TEST(Configuration, DefaultsHoldForEverythingThatIsNotSaid) {
  const Configuration configuration = ParseConfiguration(kStream);
  ASSERT_TRUE(configuration.mistakes.empty());
  const auto& options = configuration.options;
  EXPECT_EQ(options.dataDirectory, "./data");
  EXPECT_EQ(options.disk.quota, std::uint64_t{10} << 30);
  EXPECT_EQ(options.disk.keepFree, std::uint64_t{1} << 30);
  EXPECT_EQ(options.log.level, "info");
  EXPECT_EQ(options.shutdown.drainTimeout, milliseconds(30'000));
  ASSERT_EQ(options.streams.size(), 1u);
  const auto& stream = options.streams[0];
  EXPECT_EQ(std::get<OrloAgent::StdinSourceOptions>(stream.sources.at(0)).maxEventSize, 65'536u);
  EXPECT_EQ(std::get<OrloAgent::StdoutDestinationOptions>(stream.destination).sendTimeout,
            milliseconds(5'000));
  EXPECT_TRUE(stream.stages.at(0).settings.empty());
}

TEST(Configuration, EveryKeyIsRead) {
  const Configuration configuration = ParseConfiguration(R"(
data_directory: /var/lib/orlo
disk: { quota: 5GiB, keep_free: 512KiB }
log:
  level: warn
  levels: { Code.A: debug, Code.B: off }
  file: /var/log/orlo.log
shutdown: { drain_timeout: 5m }
watch: { stall_after: 2s, repeat: 3h, report: 4m }
streams:
  - name: One
    source:
      - { type: syslog, listen: "tcp://[::1]:0", max_event_size: 1MiB, max_connections: 7, idle_timeout: 90s }
      - { type: stdin, max_event_size: 100 }
    stages:
      - module: StoreAndForwardStage
        settings:
          DataChunkPeriod: 5
          Schedule.Enable: true
          Schedule.Interval: ["0800-1700;3E;Europe/Berlin", "0900-1200;40;Europe/Berlin"]
      - module: Other_Stage2
        settings: { AnyName: anything at all, "": x, List: [] }
    destination: { type: syslog, target: "tcp://h:6514", framing: octet-counted, send_timeout: 1ms, connect_timeout: 1h }
  - name: "Zwei \u00fc: 2"
    source: { type: syslog, listen: "tcp://0.0.0.0:514" }
    stages: [ { module: StoreAndForwardStage, settings: { } } ]
    destination: { type: file, path: out/events.log, send_timeout: 2m }
)");
  ASSERT_TRUE(configuration.mistakes.empty()) << ToText(configuration.mistakes[0], "f");
  const auto& options = configuration.options;
  EXPECT_EQ(options.dataDirectory, "/var/lib/orlo");
  EXPECT_EQ(options.disk.quota, std::uint64_t{5} << 30);
  EXPECT_EQ(options.disk.keepFree, 512u * 1024);
  EXPECT_EQ(options.log.level, "warn");
  EXPECT_EQ(options.log.levels,
            (std::map<std::string, std::string>{{"Code.A", "debug"}, {"Code.B", "off"}}));
  EXPECT_EQ(options.log.file, "/var/log/orlo.log");
  EXPECT_EQ(options.shutdown.drainTimeout, milliseconds(300'000));
  EXPECT_EQ(options.watch.stallAfter, milliseconds(2'000));
  EXPECT_EQ(options.watch.repeat, milliseconds(10'800'000));
  EXPECT_EQ(options.watch.report, milliseconds(240'000));
  ASSERT_EQ(options.streams.size(), 2u);

  const auto& one = options.streams[0];
  ASSERT_EQ(one.sources.size(), 2u);
  const auto& syslog = std::get<OrloAgent::SyslogSourceOptions>(one.sources[0]);
  EXPECT_EQ(syslog.listen.host, "::1");
  EXPECT_EQ(syslog.listen.port, 0);
  EXPECT_EQ(syslog.maxEventSize, 1024u * 1024);
  EXPECT_EQ(syslog.maxConnections, 7u);
  EXPECT_EQ(syslog.idleTimeout, milliseconds(90'000));
  EXPECT_EQ(std::get<OrloAgent::StdinSourceOptions>(one.sources[1]).maxEventSize, 100u);
  ASSERT_EQ(one.stages.size(), 2u);
  EXPECT_EQ(one.stages[0].settings, (std::vector<std::pair<std::string, std::string>>{
                                        {"DataChunkPeriod", "5"},
                                        {"Schedule.Enable", "true"},
                                        {"Schedule.Interval", "0800-1700;3E;Europe/Berlin"},
                                        {"Schedule.Interval", "0900-1200;40;Europe/Berlin"}}));
  EXPECT_EQ(one.stages[1].module, "Other_Stage2");
  EXPECT_EQ(one.stages[1].settings, (std::vector<std::pair<std::string, std::string>>{
                                        {"AnyName", "anything at all"}, {"", "x"}}));
  const auto& target = std::get<OrloAgent::SyslogDestinationOptions>(one.destination);
  EXPECT_EQ(target.target.host, "h");
  EXPECT_EQ(target.target.port, 6514);
  EXPECT_EQ(target.framing, OrloAgent::SyslogFraming::OctetCounted);
  EXPECT_EQ(target.sendTimeout, milliseconds(1));
  EXPECT_EQ(target.connectTimeout, milliseconds(3'600'000));

  const auto& two = options.streams[1];
  EXPECT_EQ(two.name, "Zwei \u00fc: 2");
  const auto& file = std::get<OrloAgent::FileDestinationOptions>(two.destination);
  EXPECT_EQ(file.path, "out/events.log");
  EXPECT_EQ(file.sendTimeout, milliseconds(120'000));
}

TEST(Configuration, EveryKeyOfTlsAndDatagramsIsRead) {
  const Configuration configuration = ParseConfiguration(R"(
streams:
  - name: One
    source:
      - { type: syslog, listen: "udp://127.0.0.1:514", receive_buffer: 1MiB, max_event_size: 2KiB }
      - type: syslog
        listen: "tls://0.0.0.0:6514"
        tls: { certificate: c.pem, key: k.pem, client_ca: ca.pem, handshake_timeout: 3s }
    stages: [ { module: StoreAndForwardStage } ]
    destination:
      type: syslog
      target: "tls://10.0.0.1:6514"
      tls: { ca: roots.pem, certificate: own.pem, key: ownkey.pem, server_name: log.example, verify: false }
  - name: Two
    source: { type: stdin }
    stages: [ { module: StoreAndForwardStage } ]
    destination: { type: syslog, target: "udp://h:514", send_timeout: 1s }
)");
  ASSERT_TRUE(configuration.mistakes.empty()) << ToText(configuration.mistakes[0], "f");
  const auto& one = configuration.options.streams[0];
  const auto& datagrams = std::get<OrloAgent::SyslogSourceOptions>(one.sources.at(0));
  EXPECT_EQ(datagrams.listen.transport, OrloAgent::Transport::Udp);
  EXPECT_EQ(datagrams.receiveBuffer, 1024u * 1024);
  EXPECT_EQ(datagrams.maxEventSize, 2048u);
  const auto& server = std::get<OrloAgent::SyslogSourceOptions>(one.sources.at(1)).tls;
  EXPECT_EQ(server.certificate, "c.pem");
  EXPECT_EQ(server.key, "k.pem");
  EXPECT_EQ(server.clientCa, "ca.pem");
  EXPECT_EQ(server.handshakeTimeout, milliseconds(3'000));
  const auto& client = std::get<OrloAgent::SyslogDestinationOptions>(one.destination).tls;
  EXPECT_EQ(client.ca, "roots.pem");
  EXPECT_EQ(client.certificate, "own.pem");
  EXPECT_EQ(client.key, "ownkey.pem");
  EXPECT_EQ(client.serverName, "log.example");
  EXPECT_FALSE(client.verify);
  const auto& two = configuration.options.streams[1];
  EXPECT_EQ(std::get<OrloAgent::SyslogDestinationOptions>(two.destination).target.transport,
            OrloAgent::Transport::Udp);
  EXPECT_TRUE(std::get<OrloAgent::SyslogDestinationOptions>(two.destination).tls.verify);
}

TEST(Configuration, EveryKeyOfFollowedFilesIsRead) {
  const Configuration configuration = ParseConfiguration(R"(
streams:
  - name: One
    source:
      - { type: file, path: /var/log/syslog }
    stages: [ { module: StoreAndForwardStage } ]
    destination: { type: stdout }
  - name: Two
    source:
      type: file
      path: [ "/var/log/*.log", /var/log/messages ]
      start: end
      max_event_size: 1KiB
      poll_interval: 2s
      max_files: 9
    stages: [ { module: StoreAndForwardStage } ]
    destination: { type: file, path: out }
)");
  ASSERT_TRUE(configuration.mistakes.empty()) << ToText(configuration.mistakes[0], "f");
  const auto& one =
      std::get<OrloAgent::FileSourceOptions>(configuration.options.streams[0].sources.at(0));
  EXPECT_EQ(one.paths, (std::vector<std::string>{"/var/log/syslog"}));
  EXPECT_EQ(one.start, OrloAgent::FileStart::Beginning);
  EXPECT_EQ(one.maxEventSize, 65'536u);
  EXPECT_EQ(one.pollInterval, milliseconds(250));
  EXPECT_EQ(one.maxFiles, 1024u);
  const auto& two =
      std::get<OrloAgent::FileSourceOptions>(configuration.options.streams[1].sources.at(0));
  EXPECT_EQ(two.paths, (std::vector<std::string>{"/var/log/*.log", "/var/log/messages"}));
  EXPECT_EQ(two.start, OrloAgent::FileStart::End);
  EXPECT_EQ(two.maxEventSize, 1024u);
  EXPECT_EQ(two.pollInterval, milliseconds(2'000));
  EXPECT_EQ(two.maxFiles, 9u);
}

TEST(Configuration, EveryKeyOfTheMonitorIsRead) {
  const std::string streams = R"(
streams:
  - name: One
    source: { type: stdin }
    stages: [ { module: StoreAndForwardStage } ]
    destination: { type: stdout }
)";
  const Configuration none = ParseConfiguration(streams);
  EXPECT_EQ(none.options.monitor.host, "");
  const Configuration configuration = ParseConfiguration(
      "monitor: { listen: \"[::]:9464\", token: 0123456789abcdef, refused_after: 2m }" + streams);
  ASSERT_TRUE(configuration.mistakes.empty()) << ToText(configuration.mistakes[0], "f");
  EXPECT_EQ(configuration.options.monitor.host, "::");
  EXPECT_EQ(configuration.options.monitor.port, 9464);
  EXPECT_EQ(configuration.options.monitor.token, "0123456789abcdef");
  EXPECT_EQ(configuration.options.monitor.refusedAfter, milliseconds(120'000));
  const Configuration loopback =
      ParseConfiguration("monitor: { listen: \"127.0.0.2:0\" }" + streams);
  EXPECT_TRUE(loopback.mistakes.empty());
  EXPECT_EQ(loopback.options.monitor.refusedAfter, milliseconds(30'000));
}

TEST(Configuration, SeveralSourcesMayStandBelowSources) {
  const Configuration configuration = ParseConfiguration(R"(
streams:
  - name: One
    sources: [ { type: stdin }, { type: syslog, listen: "tcp://h:0" }, { type: syslog, listen: "tcp://h:0" } ]
    stages: [ { module: StoreAndForwardStage } ]
    destination: { type: stdout }
)");
  ASSERT_TRUE(configuration.mistakes.empty()) << ToText(configuration.mistakes[0], "f");
  EXPECT_EQ(configuration.options.streams[0].sources.size(), 3u);
}

TEST(Configuration, EveryKeyOfKafkaIsRead) {
  const Configuration configuration = ParseConfiguration(WithDestinations(
      R"({ type: kafka, brokers: [ "a:1", "b:2" ], topic: t, key: k, window: 7, send_timeout: 2s, properties: { linger.ms: 3 } })",
      R"({ type: kafka, brokers: "a:1", topic: t })"));
  ASSERT_TRUE(configuration.mistakes.empty()) << ToText(configuration.mistakes[0], "f");
  const auto& one = GetDestination<OrloAgent::KafkaDestinationOptions>(configuration, 0);
  EXPECT_EQ(one.brokers, "a:1,b:2");
  EXPECT_EQ(one.topic, "t");
  EXPECT_EQ(one.key, "k");
  EXPECT_EQ(one.window, 7u);
  EXPECT_EQ(one.sendTimeout, milliseconds(2'000));
  EXPECT_EQ(one.properties, (std::map<std::string, std::string>{{"linger.ms", "3"}}));
  const auto& two = GetDestination<OrloAgent::KafkaDestinationOptions>(configuration, 1);
  EXPECT_EQ(two.brokers, "a:1");
  EXPECT_EQ(two.key, "");
  EXPECT_EQ(two.window, 10'000u);
}

TEST(Configuration, EveryKeyOfRelpIsRead) {
  const Configuration configuration = ParseConfiguration(WithDestinations(
      R"({ type: relp, target: "tls://h:1", tls: { ca: c, certificate: d, key: k, server_name: n }, window: 7, send_timeout: 2s, connect_timeout: 3s, ack_timeout: 4s })",
      R"({ type: relp, target: "tcp://h:1", ack_timeout: 0 })"));
  ASSERT_TRUE(configuration.mistakes.empty()) << ToText(configuration.mistakes[0], "f");
  const auto& one = GetDestination<OrloAgent::RelpDestinationOptions>(configuration, 0);
  EXPECT_EQ(one.target.host, "h");
  EXPECT_EQ(one.target.port, 1);
  EXPECT_EQ(one.target.transport, OrloAgent::Transport::Tls);
  EXPECT_EQ(one.tls.ca, "c");
  EXPECT_EQ(one.tls.certificate, "d");
  EXPECT_EQ(one.tls.key, "k");
  EXPECT_EQ(one.tls.serverName, "n");
  EXPECT_EQ(one.window, 7u);
  EXPECT_EQ(one.sendTimeout, milliseconds(2'000));
  EXPECT_EQ(one.connectTimeout, milliseconds(3'000));
  EXPECT_EQ(one.ackTimeout, milliseconds(4'000));
  const auto& two = GetDestination<OrloAgent::RelpDestinationOptions>(configuration, 1);
  EXPECT_EQ(two.window, 1'000u);
  EXPECT_EQ(two.ackTimeout, milliseconds(0));
}

TEST(Configuration, EveryKeyOfAFallbackIsRead) {
  const Configuration configuration = ParseConfiguration(R"(
streams:
  - name: One
    source: { type: stdin }
    stages: [ { module: StoreAndForwardStage } ]
    destination: { type: syslog, target: "tcp://h:1" }
    fallback: { after: 2s, retry: 3m, destination: { type: file, path: x } }
  - name: Two
    source: { type: syslog, listen: "tcp://h:0" }
    stages: [ { module: StoreAndForwardStage } ]
    destination: { type: file, path: b }
    fallback: { destination: { type: stdout } }
)");
  ASSERT_TRUE(configuration.mistakes.empty()) << ToText(configuration.mistakes[0], "f");
  const auto& one = *configuration.options.streams[0].fallback;
  EXPECT_EQ(one.after, milliseconds(2'000));
  EXPECT_EQ(one.retry, milliseconds(180'000));
  EXPECT_EQ(std::get<OrloAgent::FileDestinationOptions>(one.destination).path, "x");
  const auto& two = *configuration.options.streams[1].fallback;
  EXPECT_EQ(two.after, milliseconds(60'000));
  EXPECT_EQ(two.retry, milliseconds(30'000));
  EXPECT_TRUE(std::holds_alternative<OrloAgent::StdoutDestinationOptions>(two.destination));
}

TEST(Configuration, EveryKeyOfRotationIsRead) {
  const Configuration configuration = ParseConfiguration(WithDestinations(
      R"({ type: file, path: a, rotate: { size: 1MiB, every: 1h, keep: 7, compress: none } })",
      R"({ type: file, path: b, rotate: { every: 24h } })"));
  ASSERT_TRUE(configuration.mistakes.empty()) << ToText(configuration.mistakes[0], "f");
  const auto& one = GetDestination<OrloAgent::FileDestinationOptions>(configuration, 0);
  EXPECT_EQ(one.rotation,
            (OrloAgent::RotationOptions{1024 * 1024, milliseconds(3'600'000), 7, false}));
  const auto& two = GetDestination<OrloAgent::FileDestinationOptions>(configuration, 1);
  EXPECT_EQ(two.rotation, (OrloAgent::RotationOptions{0, milliseconds(86'400'000), 0, false}));
}

// What tests may refer to.
OrloAgent::References TestReferences() {
  return {[](const std::string& name) -> std::optional<std::string> {
            static const std::map<std::string, std::string> variables{{"HOST", "log.example"},
                                                                      {"PORT", "70000"},
                                                                      {"EMPTY", ""},
                                                                      {"WORD", "SeCrEtWoRd"},
                                                                      {"ADDRESS", "[0:0::1]:9464"}};
            const auto found = variables.find(name);
            return found == variables.end() ? std::nullopt : std::optional(found->second);
          },
          [](const std::string& path, std::string& problem) -> std::optional<std::string> {
            problem = "there is none";
            return path == "word.txt" ? std::optional<std::string>("SeCrEtFiLe") : std::nullopt;
          }};
}

std::vector<std::string> MistakesWithReferences(const std::string& text) {
  std::vector<std::string> mistakes;
  for (const ConfigurationMistake& mistake : ParseConfiguration(text, TestReferences()).mistakes) {
    mistakes.push_back(ToText(mistake, "f"));
  }
  return mistakes;
}

TEST(ConfigurationReferences, AreReplacedInEveryKindOfValueAndRememberedAsSecrets) {
  const Configuration configuration = ParseConfiguration(R"(
data_directory: ${WORD}/data
streams:
  - name: One
    source:
      - { type: syslog, listen: "tcp://${HOST}:514" }
      - { type: file, path: "${WORD}/logs/*.log" }
    stages:
      - module: StoreAndForwardStage
        settings: { Schedule.Interval: [ "${file:word.txt}", "a$${b} $x" ] }
    destination:
      { type: kafka, brokers: b, topic: t, properties: { sasl.password: "x${WORD}y${EMPTY}" } }
)",
                                                         TestReferences());
  ASSERT_TRUE(configuration.mistakes.empty()) << ToText(configuration.mistakes[0], "f");
  const auto& options = configuration.options;
  EXPECT_EQ(options.dataDirectory, "SeCrEtWoRd/data");
  const auto& stream = options.streams[0];
  EXPECT_EQ(std::get<OrloAgent::SyslogSourceOptions>(stream.sources[0]).listen.host, "log.example");
  EXPECT_EQ(stream.stages[0].settings[0].second, "SeCrEtFiLe");
  EXPECT_EQ(stream.stages[0].settings[1].second, "a${b} $x");
  EXPECT_EQ(std::get<OrloAgent::KafkaDestinationOptions>(stream.destination).properties,
            (std::map<std::string, std::string>{{"sasl.password", "xSeCrEtWoRdy"}}));
  for (const char* secret :
       {"SeCrEtWoRd", "SeCrEtWoRd/data", "SeCrEtFiLe", "xSeCrEtWoRdy", "tcp://log.example:514"}) {
    EXPECT_TRUE(configuration.secrets.contains(secret)) << secret;
  }
  EXPECT_FALSE(configuration.secrets.contains("a${b} $x"));
  const std::string pattern = "SeCrEtWoRd/logs/*.log";
  for (const auto& forms :
       {OrloAgent::GetShownFormsOfPath(pattern), OrloAgent::GetShownFormsOfDirectory(pattern)}) {
    for (const std::string& form : forms) {
      EXPECT_TRUE(configuration.secrets.contains(form)) << form;
    }
  }
}

TEST(ConfigurationReferences, TheMonitorsAddressIsRememberedInEveryForm) {
  const Configuration configuration =
      ParseConfiguration("monitor: { listen: \"${ADDRESS}\" }\n" + kStream, TestReferences());
  ASSERT_TRUE(configuration.mistakes.empty()) << ToText(configuration.mistakes[0], "f");
  for (const char* secret : {"[0:0::1]:9464", "[::1]:9464", "::1"}) {
    EXPECT_TRUE(configuration.secrets.contains(secret)) << secret;
  }
}

TEST(ConfigurationReferences, ThatLeadNowhereAreNamed) {
  EXPECT_EQ(MistakesWithReferences("data_directory: ${NONE}\nlog:\n  file: ${file:no.txt}\n"
                                   "disk:\n  quota: ${file\n  keep_free: \"${1A}\"\n" +
                                   kStream),
            (std::vector<std::string>{
                "f:1: data_directory: refers to the environment variable NONE, which is not set",
                "f:3: log.file: refers to the file \"no.txt\", which can't be read: there is none",
                "f:5: disk.quota: has a ${ without its }; write $${ for a ${ that is meant so",
                "f:6: disk.keep_free: has \"${1A}\", which is neither ${NAME} of a variable nor "
                "${file:PATH}; write $${ for a ${ that is meant so"}));
}

TEST(ConfigurationReferences, WithoutASourceOfThemNothingIsLookedUp) {
  EXPECT_EQ(Mistakes("data_directory: ${PATH}\nlog:\n  file: ${file:/etc/hostname}\n" + kStream),
            (std::vector<std::string>{
                "f:1: data_directory: refers to the environment variable PATH, which is not set",
                "f:3: log.file: refers to the file \"/etc/hostname\", which can't be read: files "
                "are not read here"}));
}

// Every reader of a value gets one that it can't read.
TEST(ConfigurationReferences, AValueThatCannotBeReadIsNotShown) {
  const std::string text = R"(
data_directory: "${EMPTY}"
disk: { quota: "${WORD}" }
log: { level: "${WORD}", levels: { Code: "a${WORD}" } }
shutdown: { drain_timeout: "${PORT}h" }
watch: { stall_after: "${WORD}" }
streams:
  - name: ${WORD}
    source:
      - { type: "${WORD}" }
      - { type: syslog, listen: "${WORD}", max_event_size: "${PORT}GiB", max_connections: "${WORD}" }
      - { type: syslog, listen: "tcp://h:${PORT}", tls: { certificate: c, key: k } }
      - { type: syslog, listen: "tcp://${WORD}:1", tls: { certificate: c, key: k } }
      - { type: syslog, listen: "tcp://${WORD}:1" }
      - { type: file, path: x, start: "${WORD}" }
    stages: [ { module: "${WORD}" } ]
    destination: { type: syslog, target: "tls://h:1", framing: "${WORD}", tls: { verify: "${WORD}" } }
  - name: Two
    source: { type: stdin }
    stages: [ { module: M } ]
    destination: { type: file, path: "${WORD}" , rotate: { size: "${WORD}", compress: "${WORD}" } }
  - name: Three
    source: { type: file, path: y }
    stages: [ { module: M } ]
    destination: { type: file, path: "${WORD}", send_timeout: "${PORT}" }
)";
  const auto mistakes = MistakesWithReferences(text);
  EXPECT_EQ(mistakes.size(), 22u) << testing::PrintToString(mistakes);
  for (const std::string& mistake : mistakes) {
    EXPECT_EQ(mistake.find("SeCrEt"), mistake.npos) << mistake;
    EXPECT_EQ(mistake.find("70000"), mistake.npos) << mistake;
  }
}

struct Wrong {
  const char* name;
  std::string text;
  std::vector<std::string> mistakes;
};

void PrintTo(const Wrong& wrong, std::ostream* out) { *out << wrong.name; }

std::string WithSource(const std::string& source) {
  return "streams:\n- name: A\n  source: " + source +
         "\n  stages: [ { module: StoreAndForwardStage } ]\n  destination: { type: stdout }\n";
}

std::string WithStages(const std::string& stages) {
  return "streams:\n- name: A\n  source: { type: stdin }\n  stages: " + stages +
         "\n  destination: { type: stdout }\n";
}

std::string WithDestination(const std::string& destination) {
  return "streams:\n- name: A\n  source: { type: stdin }\n  stages: [ { module: M } ]\n"
         "  destination: " +
         destination + "\n";
}

std::string WithName(const std::string& name) {
  return "streams:\n- name: " + name +
         "\n  source: { type: stdin }\n  stages: [ { module: M } ]\n"
         "  destination: { type: stdout }\n";
}

// Two streams that share nothing but, if they are the same, their names.
std::string WithNames(const std::string& first, const std::string& second) {
  return "streams:\n- name: " + first +
         "\n  source: { type: stdin }\n  stages: [ { module: M } ]\n"
         "  destination: { type: stdout }\n- name: " +
         second +
         "\n  source: { type: syslog, listen: \"tcp://h:1\" }\n  stages: [ { module: M } ]\n"
         "  destination: { type: file, path: x }\n";
}

const char* const kNoName =
    "f:2: streams[0].name: holds a separator or control character, which the name of a directory "
    "can't have";

std::vector<Wrong> DocumentCases() {
  return {
      {"Empty", "", {"f:1: the file is empty; the agent needs a stream"}},
      {"OnlyComments", "# nothing\n\n", {"f:1: the file is empty; the agent needs a stream"}},
      {"OnlyNull", "~\n", {"f:1: the file is empty; the agent needs a stream"}},
      {"NotAMap", "hello\n", {"f:1: must be a map of keys to values"}},
      {"AList", "- a\n- b\n", {"f:1: must be a map of keys to values"}},
      {"NoStreams", "data_directory: x\n", {"f:1: streams: is missing"}},
      {"StreamsWithoutValue", "streams:\n", {"f:1: streams: has no value"}},
      {"StreamsEmpty",
       "\nstreams: []\n",
       {"f:2: streams: is an empty list; the agent needs a stream"}},
      {"StreamsNoList", "streams: { a: b }\n", {"f:1: streams: must be a list"}},
      {"StreamIsText", "streams: [ text ]\n", {"f:1: streams[0]: must be a map of keys to values"}},
      {"StreamIsNull", "streams:\n  -\n", {"f:1: streams[0]: has no value"}},
      {"BrokenFlow",
       "a: 1\nb: [1, 2\nc: 3\n",
       {"f:3: this is not valid YAML: end of sequence flow not found"}},
      {"BrokenQuote", "a: 1\nb: 'text", {"f:2: this is not valid YAML: illegal EOF in scalar"}},
      {"UnknownAnchor",
       "a: *x\n",
       {"f:1: this is not valid YAML: the referenced anchor is not defined"}},
      {"TwoDocuments",
       kStream + "---\nstreams: []\n",
       {"f:7: a second document begins; the file must hold one"}},
      {"NulByte", std::string("a: 1\nb: \0 2\n", 12), {"f:2: there is a NUL byte in the file"}},
      {"TooLarge", std::string(1024 * 1024 + 1, '#'), {"f:1: the file is larger than 1 MiB"}},
      {"UnknownKey",
       "data_dir: x\n" + kStream,
       {"f:1: data_dir: is not known here; known are: data_directory, disk, log, shutdown, "
        "watch, monitor, streams"}},
      {"KeyTwice",
       "data_directory: x\n\ndata_directory: y\n" + kStream,
       {"f:3: data_directory: stands here a second time; the first is in line 1"}},
      {"KeyIsAList", "? [a, b]\n: c\n" + kStream, {"f:1: has a key that is not plain text"}},
      {"LineEndInAKey",
       "\"a\\nb\": x\n" + kStream,
       {"f:1: a?b: is not known here; known are: data_directory, disk, log, shutdown, "
        "watch, monitor, streams"}},
      {"SizeWithoutSense",
       "disk:\n  quota: lots\n  keep_free: 1.5GiB\n" + kStream,
       {"f:2: disk.quota: \"lots\" is not a size such as 10GiB, 512KiB or 4096",
        "f:3: disk.keep_free: \"1.5GiB\" is not a size such as 10GiB, 512KiB or 4096"}},
      {"SizeIsAList",
       "disk: { quota: [1] }\n" + kStream,
       {"f:1: disk.quota: must be a single value"}},
      {"DiskIsText", "disk: 10GiB\n" + kStream, {"f:1: disk: must be a map of keys to values"}},
      {"DiskWithoutValue", "disk:\n" + kStream, {"f:1: disk: has no value"}},
      {"DiskUnknownKey",
       "disk: { qouta: 1 }\n" + kStream,
       {"f:1: disk.qouta: is not known here; known are: quota, keep_free"}},
      {"LevelUnknown",
       "log:\n  level: loud\n  levels:\n    Code.A: silent\n" + kStream,
       {"f:2: log.level: \"loud\" is no level; one of these is needed: debug, info, warn, error, "
        "off",
        "f:4: log.levels.Code.A: \"silent\" is no level; one of these is needed: debug, info, "
        "warn, error, off"}},
      {"DurationWithoutUnit",
       "shutdown: { drain_timeout: 30 }\n" + kStream,
       {"f:1: shutdown.drain_timeout: \"30\" is not a duration such as 30s, 500ms or 5m"}},
      {"EmptyPaths",
       "data_directory: ''\nlog: { file: '' }\n" + kStream,
       {"f:1: data_directory: is empty; a path is needed",
        "f:2: log.file: is empty; a path is needed"}},
      {"NulInPath",
       "data_directory: \"a\\0b\"\n" + kStream,
       {"f:1: data_directory: holds a control character"}},
  };
}

std::vector<Wrong> StreamCases() {
  return {
      {"EmptyStream",
       "streams:\n  - {}\n",
       {"f:2: streams[0].name: is missing", "f:2: streams[0].source: is missing",
        "f:2: streams[0].stages: is missing", "f:2: streams[0].destination: is missing"}},
      {"NameTwice",
       WithNames("A", "A"),
       {"f:6: streams[1].name: \"A\" is the name of the stream in line 2"}},
      {"NamesDifferByLetterCase",
       WithNames("Default", "DEFAULT"),
       {"f:6: streams[1].name: \"DEFAULT\" differs only by letter case from the name of the stream "
        "in line 2"}},
      {"NameEmpty",
       WithName("''"),
       {"f:2: streams[0].name: is empty; the stream's cache directory is named after it"}},
      {"NameDot",
       WithName("."),
       {"f:2: streams[0].name: \".\" can't be the name of the stream's cache directory"}},
      {"NameDots",
       WithName(".."),
       {"f:2: streams[0].name: \"..\" can't be the name of the stream's cache directory"}},
      {"NameWithSlash", WithName("a/b"), {kNoName}},
      {"NameWithBackslash", WithName("a\\b"), {kNoName}},
      {"NameWithNul", WithName("\"a\\0b\""), {kNoName}},
      {"NameWithTab", WithName("\"a\\tb\""), {kNoName}},
      {"NameTooLong",
       WithName(std::string(256, 'x')),
       {"f:2: streams[0].name: is longer than 255 bytes"}},
      {"NameNotUtf8", WithName("a\xff"), {"f:2: streams[0].name: is not valid UTF-8"}},
      {"NameIsAList", WithName("[a]"), {"f:2: streams[0].name: must be a single value"}},
      {"SourceListEmpty",
       WithSource("[]"),
       {"f:3: streams[0].source: is an empty list; a stream needs a source"}},
      {"SourceAndSources",
       WithSource("{ type: stdin }\n  sources: [ { type: file, path: x } ]"),
       {"f:3: streams[0].source: stands beside \"sources\"; one of the two is needed"}},
      {"SourcesIsAMap",
       WithSource("[ { type: file, path: x } ]\n  sources: { type: stdin }"),
       {"f:3: streams[0].source: stands beside \"sources\"; one of the two is needed",
        "f:4: streams[0].sources: must be a list"}},
      {"SameAddressTwice",
       WithSource("[ { type: syslog, listen: \"tcp://h:514\" }, { type: syslog, listen: "
                  "\"tcp://h:514\" }, { type: syslog, listen: \"udp://h:514\" } ]"),
       {"f:3: streams[0].source[1].listen: \"tcp://h:514\" is where the source in line 3 listens "
        "already"}},
      {"SameAddressOverTls",
       WithSource("\n  - { type: syslog, listen: \"tcp://h:1\" }\n  - { type: syslog, listen: "
                  "\"tls://h:1\", tls: { certificate: c, key: k } }"),
       {"f:5: streams[0].source[1].listen: \"tls://h:1\" is where the source in line 4 listens "
        "already"}},
      {"SourceIsText",
       WithSource("stdin"),
       {"f:3: streams[0].source: must be a map of keys to values"}},
      {"SourceTypeMissing", WithSource("{ }"), {"f:3: streams[0].source.type: is missing"}},
      {"SourceTypeUnknown",
       WithSource("{ type: udp, port: 1 }"),
       {"f:3: streams[0].source.type: \"udp\" is not known; known are: stdin, syslog, file"}},
      {"StdinWithListen",
       WithSource("{ type: stdin, listen: x }"),
       {"f:3: streams[0].source.listen: is not known here; known are: type, max_event_size"}},
      {"StdinTwice",
       WithSource("[ { type: stdin }, { type: stdin } ]"),
       {"f:3: streams[0].source[1]: reads the standard input, which another source reads already"}},
      {"ListenMissing",
       WithSource("{ type: syslog }"),
       {"f:3: streams[0].source.listen: is missing"}},
      {"ListenPortOutOfRange",
       WithSource("{ type: syslog, listen: \"tcp://h:65536\" }"),
       {"f:3: streams[0].source.listen: \"tcp://h:65536\" has a port out of range: 65536 is not 0 "
        "to 65535"}},
      {"ListenWithoutScheme",
       WithSource("{ type: syslog, listen: \"h:514\" }"),
       {"f:3: streams[0].source.listen: \"h:514\" is not SCHEME://HOST:PORT: it does not begin "
        "with tcp://, udp:// or tls://"}},
      {"FollowedFileWithoutPath",
       WithSource("{ type: file }"),
       {"f:3: streams[0].source.path: is missing"}},
      {"FollowedFilesInAnEmptyList",
       WithSource("{ type: file, path: [] }"),
       {"f:3: streams[0].source.path: is an empty list; a source of files needs a path"}},
      {"FollowedFileFromTheMiddle",
       WithSource("{ type: file, path: x, start: middle }"),
       {"f:3: streams[0].source.start: \"middle\" is not known; known are: beginning, end"}},
      {"TwoSourcesOfFiles",
       WithSource("[ { type: file, path: x }, { type: file, path: y } ]"),
       {"f:3: streams[0].source[1]: is the second source of files of its stream; one can have "
        "several paths"}},
      {"MonitorOfAName",
       "monitor: { listen: \"localhost:9464\" }\n" + WithSource("{ type: stdin }"),
       {"f:1: monitor.listen: \"localhost:9464\" is not ADDRESS:PORT, as 127.0.0.1:9464 or "
        "[::1]:9464"}},
      {"MonitorForOthersWithoutAToken",
       "monitor: { listen: \"0.0.0.0:9464\" }\n" + WithSource("{ type: stdin }"),
       {"f:1: monitor.listen: \"0.0.0.0:9464\" can be reached from other machines; it needs "
        "\"token\" beside it"}},
      {"MonitorWithAShortToken",
       "monitor: { token: secret, port: 1 }\n" + WithSource("{ type: stdin }"),
       {"f:1: monitor.token: is too short; a token has 16 characters or more",
        "f:1: monitor.listen: is missing",
        "f:1: monitor.port: is not known here; known are: token, listen, refused_after"}},
      {"KafkaWithoutATopic",
       WithDestination("{ type: kafka, brokers: [] }"),
       {"f:5: streams[0].destination.brokers: names no broker",
        "f:5: streams[0].destination.topic: is missing"}},
      {"KafkaPropertyOfTheAgent",
       WithDestination("{ type: kafka, brokers: b, topic: t, properties: { acks: 1 } }"),
       {"f:5: streams[0].destination.properties.acks: is set by the agent: its guarantees rest on "
        "it"}},
      {"RelpWithoutATarget",
       WithDestination("{ type: relp, window: 0, ack_timeout: 10ms, framing: newline }"),
       {"f:5: streams[0].destination.target: is missing",
        "f:5: streams[0].destination.window: \"0\" is not a whole number from 1 to "
        "1000000",
        "f:5: streams[0].destination.ack_timeout: is shorter than a second, and not 0",
        "f:5: streams[0].destination.framing: is not known here; known are: type, target, tls, "
        "window, connect_timeout, ack_timeout, send_timeout"}},
      {"RelpOverDatagrams",
       WithDestination("{ type: relp, target: \"udp://h:1\", tls: { ca: c } }"),
       {"f:5: streams[0].destination.target: is no address for RELP, which needs tcp:// or tls://",
        "f:5: streams[0].destination.tls: has no meaning for udp://h:1"}},
      {"TlsWithoutCertificate",
       WithSource("{ type: syslog, listen: \"tls://h:0\" }"),
       {"f:3: streams[0].source.listen: needs \"tls\" beside it, with the server's certificate and "
        "key"}},
      {"TlsWithAnEmptyMap",
       WithSource("{ type: syslog, listen: \"tls://h:0\", tls: {} }"),
       {"f:3: streams[0].source.tls: has no \"certificate\" and no \"key\", which a server needs"}},
      {"TlsCertificateWithoutItsKey",
       WithSource("{ type: syslog, listen: \"tls://h:0\", tls: { certificate: c } }"),
       {"f:3: streams[0].source.tls.certificate: needs \"key\" beside it, the file of its private "
        "key"}},
      {"TlsForPlainTcp",
       WithSource("{ type: syslog, listen: \"tcp://h:0\", tls: { certificate: c, key: k } }"),
       {"f:3: streams[0].source.tls: has no meaning for tcp://h:0"}},
      {"ConnectionsForDatagrams",
       WithSource("{ type: syslog, listen: \"udp://h:0\", max_connections: 3, idle_timeout: 3s }"),
       {"f:3: streams[0].source.max_connections: has no meaning for udp://h:0",
        "f:3: streams[0].source.idle_timeout: has no meaning for udp://h:0"}},
      {"ReceiveBufferForTcp",
       WithSource("{ type: syslog, listen: \"tcp://h:0\", receive_buffer: 1MiB }"),
       {"f:3: streams[0].source.receive_buffer: has no meaning for tcp://h:0"}},
      {"FramingForDatagrams",
       WithDestination("{ type: syslog, target: \"udp://h:1\", framing: newline }"),
       {"f:5: streams[0].destination.framing: has no meaning for udp://h:1"}},
      {"ClientKeyWithoutItsCertificate",
       WithDestination("{ type: syslog, target: \"tls://h:1\", tls: { key: k } }"),
       {"f:5: streams[0].destination.tls.key: needs \"certificate\" beside it, the certificate "
        "that "
        "it belongs to"}},
      {"VerifyIsNoFlag",
       WithDestination("{ type: syslog, target: \"tls://h:1\", tls: { verify: maybe } }"),
       {"f:5: streams[0].destination.tls.verify: \"maybe\" is neither true nor false"}},
      {"EventSizeTooSmall",
       WithSource("{ type: stdin, max_event_size: 63 }"),
       {"f:3: streams[0].source.max_event_size: is out of range: 63 bytes are not 64 to 16777216"}},
      {"EventSizeTooLarge",
       WithSource("{ type: stdin, max_event_size: 17MiB }"),
       {"f:3: streams[0].source.max_event_size: is out of range: 17825792 bytes are not 64 to "
        "16777216"}},
      {"NoConnections",
       WithSource("{ type: syslog, listen: \"tcp://h:1\", max_connections: 0 }"),
       {"f:3: streams[0].source.max_connections: \"0\" is not a whole number from 1 to 1000000"}},
      {"StagesEmpty",
       WithStages("[]"),
       {"f:4: streams[0].stages: is an empty list; a stream needs a stage"}},
      {"StagesNoList", WithStages("{ module: M }"), {"f:4: streams[0].stages: must be a list"}},
      {"ModuleMissing",
       WithStages("[ { settings: { } } ]"),
       {"f:4: streams[0].stages[0].module: is missing"}},
      {"ModuleIsAPath",
       WithStages("[ { module: ../x } ]"),
       {"f:4: streams[0].stages[0].module: must be a module's name: letters, digits and "
        "underscores only"}},
      {"ModuleTwice",
       WithStages("[ { module: M }, { module: M } ]"),
       {"f:4: streams[0].stages[1].module: \"M\" is a stage of this stream already"}},
      {"SettingUnknown",
       WithStages("\n  - module: StoreAndForwardStage\n    settings:\n      DataChunkPeriod: 5\n"
                  "      DataChunkingPeriod: 5"),
       {"f:8: streams[0].stages[0].settings.DataChunkingPeriod: is not a setting of "
        "StoreAndForwardStage; it has: DataChunkPeriod, DataProcessingPeriod, QueueHighWaterMark, "
        "QueueLowWaterMark, Schedule.Enable, Schedule.Interval, Schedule.Invert"}},
      {"SettingTwice",
       WithStages("[ { module: M, settings: { A: 1, A: 2 } } ]"),
       {"f:4: streams[0].stages[0].settings.A: stands here a second time; the first is in line "
        "4"}},
      {"SettingIsAMap",
       WithStages("[ { module: M, settings: { A: { b: c } } } ]"),
       {"f:4: streams[0].stages[0].settings.A: must be a single value"}},
      {"SettingInAListIsAList",
       WithStages("[ { module: M, settings: { A: [ 1, [ 2 ] ] } } ]"),
       {"f:4: streams[0].stages[0].settings.A[1]: must be a single value"}},
      {"SettingWithoutValue",
       WithStages("[ { module: M, settings: { A: } } ]"),
       {"f:4: streams[0].stages[0].settings.A: has no value"}},
      {"DestinationIsAList",
       WithDestination("[ { type: stdout } ]"),
       {"f:5: streams[0].destination: must be a map of keys to values"}},
      {"DestinationTypeUnknown",
       WithDestination("{ type: mail }"),
       {"f:5: streams[0].destination.type: \"mail\" is not known; known are: stdout, file, "
        "syslog, kafka, relp"}},
      {"TargetPortZero",
       WithDestination("{ type: syslog, target: \"tcp://h:0\" }"),
       {"f:5: streams[0].destination.target: \"tcp://h:0\" has a port out of range: 0 is not 1 to "
        "65535"}},
      {"TargetMissingAndFramingUnknown",
       WithDestination("{ type: syslog, framing: json }"),
       {"f:5: streams[0].destination.target: is missing",
        "f:5: streams[0].destination.framing: \"json\" is not known; known are: newline, "
        "octet-counted"}},
      {"SendTimeoutZero",
       WithDestination("{ type: stdout, send_timeout: 0s }"),
       {"f:5: streams[0].destination.send_timeout: is out of range: 0s is not 1ms to 1h"}},
      {"PathMissing",
       WithDestination("{ type: file }"),
       {"f:5: streams[0].destination.path: is missing"}},
      {"FallbackWithoutDestination",
       WithDestination("{ type: stdout }\n  fallback: { after: 0s, retry: soon }"),
       {"f:6: streams[0].fallback.after: is out of range: 0s is not 1s to 24h",
        "f:6: streams[0].fallback.retry: \"soon\" is not a duration such as 30s, 500ms or 5m",
        "f:6: streams[0].fallback.destination: is missing"}},
      {"FallbackToTheSameFile",
       WithDestination(
           "{ type: file, path: x }\n  fallback: { destination: { type: file, path: ./x } }"),
       {"f:6: streams[0].fallback.destination.path: \"./x\" is the file of another destination "
        "already"}},
      {"FallbackForDatagrams",
       WithDestination("{ type: syslog, target: \"udp://h:1\" }\n"
                       "  fallback: { destination: { type: stdout } }"),
       {"f:6: streams[0].fallback: can't be used beside a destination over UDP, which never knows "
        "whether anybody receives what it sends"}},
      {"RotationWithoutOccasion",
       WithDestination("{ type: file, path: x, rotate: { keep: 3 } }"),
       {"f:5: streams[0].destination.rotate: has neither \"size\" nor \"every\", and would never "
        "rotate"}},
      {"RotationOutOfRange",
       WithDestination("{ type: file, path: x, rotate: { size: 1023, every: 999ms, keep: many, "
                       "compress: zip } }"),
       {"f:5: streams[0].destination.rotate.size: is out of range: 1023 bytes are not 1024 to "
        "1125899906842624",
        "f:5: streams[0].destination.rotate.every: is out of range: 999ms is not 1s to 24h",
        "f:5: streams[0].destination.rotate.keep: \"many\" is not a whole number from 0 to 100000",
        "f:5: streams[0].destination.rotate.compress: \"zip\" is not known; known are: none, "
        "gzip"}},
      {"PathOnStdout",
       WithDestination("{ type: stdout, path: x }"),
       {"f:5: streams[0].destination.path: is not known here; known are: type, send_timeout"}},
  };
}

class WrongConfiguration : public testing::TestWithParam<Wrong> {};

TEST_P(WrongConfiguration, IsRefusedWithLineAndKey) {
  EXPECT_EQ(Mistakes(GetParam().text), GetParam().mistakes);
}

const auto kNameOfCase = [](const testing::TestParamInfo<Wrong>& one) {
  return std::string(one.param.name);
};
INSTANTIATE_TEST_SUITE_P(Document, WrongConfiguration, testing::ValuesIn(DocumentCases()),
                         kNameOfCase);
INSTANTIATE_TEST_SUITE_P(Stream, WrongConfiguration, testing::ValuesIn(StreamCases()), kNameOfCase);

TEST(Configuration, AllMistakesAreNamedInOneGoInTheOrderOfTheFile) {
  EXPECT_EQ(Mistakes("disk: { quota: x }\nnonsense: 1\nstreams:\n- name: A\n"
                     "  source: { type: stdin }\n  stages: [ { module: M } ]\n"
                     "  destination: { type: stdout }\n- name: a\n"
                     "  source: { type: stdin }\n  stages: [ { module: M } ]\n"
                     "  destination: { type: stdout }\n"),
            (std::vector<std::string>{
                "f:1: disk.quota: \"x\" is not a size such as 10GiB, 512KiB or 4096",
                "f:2: nonsense: is not known here; known are: data_directory, disk, log, shutdown, "
                "watch, monitor, streams",
                "f:8: streams[1].name: \"a\" differs only by letter case from the name of the "
                "stream in line 4",
                "f:9: streams[1].source: reads the standard input, which another source reads "
                "already",
                "f:11: streams[1].destination: writes to the standard output, which another "
                "destination uses already"}));
}

TEST(Configuration, TwoStreamsMustNotAppendToOneFile) {
  const auto mistakes = Mistakes(R"(streams:
- { name: A, source: { type: stdin }, stages: [ { module: M } ], destination: { type: file, path: a/b } }
- { name: B, source: { type: syslog, listen: "tcp://h:1" }, stages: [ { module: M } ], destination: { type: file, path: a/./b } }
)");
  EXPECT_EQ(mistakes, (std::vector<std::string>{"f:3: streams[1].destination.path: \"a/./b\" is "
                                                "the file of another destination already"}));
}

TEST(Configuration, HugeNestingIsAMistakeAndNothingWorse) {
  for (const char bracket : {'[', '{'}) {
    EXPECT_EQ(Mistakes(std::string(500'000, bracket)).size(), 1u);
  }
  std::string lists;
  for (int i = 0; i < 2'000; ++i) {
    lists += "- ";
  }
  EXPECT_EQ(Mistakes(lists + "x").size(), 1u);
}

TEST(Configuration, ValuesMayBeAliases) {
  EXPECT_EQ(Mistakes("disk: { quota: &size 1GiB, keep_free: *size }\n" + kStream),
            std::vector<std::string>());
  EXPECT_EQ(Mistakes("disk: &disk { quota: *disk }\n" + kStream),
            std::vector<std::string>{"f:1: a list or map contains itself"});
}

TEST(Configuration, FilesThatCannotBeReadAreAMistake) {
  const TestSupport::TemporaryDirectory directory;
  const auto missing = LoadConfiguration((directory.Path() / "none.yaml").string());
  ASSERT_EQ(missing.mistakes.size(), 1u);
  EXPECT_EQ(ToText(missing.mistakes[0], "none.yaml"),
            "none.yaml: the file can't be read: No such file or directory");
  const auto folder = LoadConfiguration(directory.Path().string());
  ASSERT_EQ(folder.mistakes.size(), 1u);
  EXPECT_EQ(ToText(folder.mistakes[0], "d"), "d: the file can't be read: it is a directory");
}

TEST(Configuration, AFileIsReadLikeItsText) {
  const TestSupport::TemporaryDirectory directory;
  const auto path = directory.Path() / "agent.yaml";
  std::ofstream(path) << "data_directory: somewhere\n" << kStream;
  const Configuration configuration = LoadConfiguration(path.string());
  EXPECT_TRUE(configuration.mistakes.empty());
  EXPECT_EQ(configuration.options.dataDirectory, "somewhere");
}

}  // namespace
