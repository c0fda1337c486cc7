#include "Agent/Monitor/Monitor.h"

#include "Agent/Monitor/HttpServer.h"
#include "Agent/Monitor/Metrics.h"
#include "Agent/Monitor/Page.h"
#include "Agent/Monitor/Sampler.h"
#include "Agent/Monitor/StateJson.h"
#include "Agent/Units.h"

namespace OrloAgent {

namespace {

constexpr char kJson[] = "application/json";

// A state that is older than that is none: the disk hangs, most likely.
constexpr std::chrono::seconds kStateLasts{60};

class HttpMonitor : public Monitor {
 public:
  HttpMonitor(const MonitorOptions& options, const MonitorSurroundings& surroundings)
      : m_sampler({surroundings.statistics, surroundings.disk, surroundings.dataDirectory,
                   ORLO_VERSION, options.refusedAfter}) {
    m_sampler.Start();
    m_server = std::make_unique<HttpServer>(
        options,
        [this](const std::string& path, const std::string& query) { return Answer(path, query); });
    Endpoint shown{options.host, m_server->GetPort(), Transport::Tcp};
    WindowsAgentCommon::LogFacade::Info(WindowsAgentCommon::LoggerFactory::GetLog("Code.Monitor"),
                                        "Listening on http%s/.",
                                        ToText(shown).substr(std::string("tcp").size()));
  }

  void AddStream(const StreamOptions& options, std::vector<const Source*> sources,
                 const Destination& destination, std::uint64_t notMadeBefore) override {
    m_sampler.AddStream(options, std::move(sources), destination, notMadeBefore);
  }
  void RemoveStream(const std::string& name) override { m_sampler.RemoveStream(name); }
  void SetTroubles(const std::string& file, const std::vector<StreamTrouble>& streams) override {
    m_sampler.SetTroubles(file, streams);
  }

 private:
  HttpAnswer Answer(const std::string& path, const std::string& query) const {
    const auto state = m_sampler.GetState();
    if (path == "/") {
      return {200, "text/html; charset=utf-8", std::string(GetPage())};
    }
    if (path == "/metrics") {
      return {200, "text/plain; version=0.0.4; charset=utf-8", MakeMetricsText(*state)};
    }
    if (path == "/statistics") {
      return {200, kJson, MakeStatisticsJson(*state)};
    }
    if (path == "/status") {
      return {200, kJson, MakeStatusJson(*state)};
    }
    if (path == "/history") {
      return {200, kJson, MakeHistoryJson(m_sampler.GetHistory(GetSince(query)))};
    }
    if (path == "/healthz") {
      return AnswerHealth(*state);
    }
    return {404, "text/plain; charset=utf-8",
            "There are: / /metrics /statistics /status /history /healthz\n"};
  }

  static HttpAnswer AnswerHealth(const AgentState& state) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto age = now - std::chrono::milliseconds(state.sampled);
    if (age > kStateLasts) {
      AgentState late;
      late.problems.push_back("the agent has not been able to look at itself for " +
                              std::to_string(age / std::chrono::seconds(1)) + " s");
      return {503, kJson, MakeHealthJson(late)};
    }
    return {state.IsHealthy() ? 200U : 503U, kJson, MakeHealthJson(state)};
  }

  static std::int64_t GetSince(const std::string& query) {
    constexpr std::string_view kSince = "since=";
    const auto since = query.starts_with(kSince)
                           ? ParseWholeNumber(std::string_view(query).substr(kSince.size()))
                           : std::nullopt;
    return static_cast<std::int64_t>(since.value_or(0));
  }

  Sampler m_sampler;
  std::unique_ptr<HttpServer> m_server;
};

}  // namespace

bool IsMonitorAvailable() { return true; }

std::unique_ptr<Monitor> MakeMonitor(const MonitorOptions& options,
                                     const MonitorSurroundings& surroundings) {
  if (options.host.empty()) {
    return nullptr;
  }
  return std::make_unique<HttpMonitor>(options, surroundings);
}

}  // namespace OrloAgent
