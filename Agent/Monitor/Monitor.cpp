#include "Agent/Monitor/Monitor.h"

#include "Agent/Monitor/Answers.h"
#include "Agent/Monitor/HttpServer.h"
#include "Agent/Monitor/Sampler.h"
#include "Agent/Units.h"

namespace OrloAgent {

namespace {

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
  void SetTroubles(const std::vector<std::string>& file,
                   const std::vector<StreamTrouble>& streams) override {
    m_sampler.SetTroubles(file, streams);
  }

 private:
  HttpAnswer Answer(const std::string& path, const std::string& query) const {
    return AnswerRequest(path, query,
                         *JudgeAge(m_sampler.GetState(), std::chrono::steady_clock::now()),
                         [this](std::int64_t since) { return m_sampler.GetHistory(since); });
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
