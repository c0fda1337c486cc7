#include "Agent/StreamExchange.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace OrloAgent {

using WindowsAgentCommon::LogFacade;

namespace {

constexpr std::chrono::milliseconds kBetweenLooks{100};

bool Contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

StreamExchange::StreamExchange(Surroundings surroundings)
    : m_surroundings(std::move(surroundings)),
      m_log(WindowsAgentCommon::LoggerFactory::GetLog("Code.Agent")) {}

StreamExchange::~StreamExchange() {
  for (auto& [name, left] : m_left) {
    left.StopSources(nullptr);
    left.StopDestination(nullptr);
    if (!left.events.empty()) {
      LogFacade::Warn(m_log, "Stream %s, which does not run: %d events held.", name,
                      left.events.size());
    }
  }
}

void StreamExchange::Start(Streams& streams, const std::vector<StreamOptions>& wanted,
                           const AgentOptions& common) {
  for (const StreamOptions& one : wanted) {
    streams.push_back(
        std::make_unique<RunningStream>(one, common, m_surroundings.streams, m_left[one.name]));
  }
  for (const auto& made : streams) {
    made->BeginSources();
  }
  // Since no stage took anything from its cache, a start that failed until now has cost nothing.
  for (auto next = streams.begin(); next != streams.end(); ++next) {
    try {
      (*next)->StartStages(m_left[(*next)->GetName()]);
    } catch (...) {
      std::for_each(streams.begin(), next,
                    [this](const auto& one) { one->GiveUp(m_left[one->GetName()]); });
      throw;
    }
  }
  for (const auto& made : streams) {
    made->Open(m_left[made->GetName()]);
  }
  m_left.clear();
}

bool StreamExchange::Exchange(Streams& streams, const std::vector<StreamOptions>& wanted,
                              const ReloadPlan& plan, const AgentOptions& common) {
  std::vector<StreamOptions> before;
  for (const auto& running : streams) {
    before.push_back(running->GetOptions());
  }
  if (!Leave(streams, wanted, plan, common.shutdown)) {
    return false;
  }
  m_troubles.clear();
  // A source that is no longer wanted may have what a new one needs: an address, a file.
  for (auto& [name, left] : m_left) {
    const StreamOptions* const successor = FindStream(wanted, name);
    left.StopSources(successor);
    left.StopDestination(successor);
    if (Contains(plan.removed, name) && !left.events.empty()) {
      LogFacade::Warn(m_log,
                      "Stream %s: %d events that could not be sent stay in memory until there is a "
                      "stream of that name again; they are lost if the agent ends before.",
                      name, left.events.size());
    }
  }
  std::map<std::string, std::unique_ptr<RunningStream>> made;
  for (const StreamOptions& one : wanted) {
    if (!Contains(plan.same, one.name)) {
      made[one.name] = Make(one, FindStream(before, one.name), common);
    }
  }
  Streams ordered;
  for (const StreamOptions& one : wanted) {
    const auto same = std::find_if(streams.begin(), streams.end(), [&](const auto& running) {
      return running && running->GetName() == one.name;
    });
    std::unique_ptr<RunningStream> next =
        same != streams.end() ? std::move(*same) : std::move(made[one.name]);
    if (next) {
      ordered.push_back(std::move(next));
    }
  }
  streams = std::move(ordered);
  std::erase_if(m_left, [](const auto& one) {
    return one.second.sources.empty() && one.second.events.empty() && !one.second.destination;
  });
  return true;
}

bool StreamExchange::Leave(Streams& streams, const std::vector<StreamOptions>& wanted,
                           const ReloadPlan& plan, const ShutdownOptions& shutdown) {
  std::vector<RunningStream*> leaving;
  for (const auto& running : streams) {
    const std::string& name = running->GetName();
    const bool isRemoved = Contains(plan.removed, name);
    if (isRemoved || Contains(plan.changed, name)) {
      LogFacade::Info(m_log, "Stream %s: %s.", name,
                      isRemoved ? "removed from the configuration; it is brought to rest"
                                : "its section has changed; it is brought to rest");
      leaving.push_back(running.get());
    }
  }
  for (RunningStream* const running : leaving) {
    running->HoldSender();
  }
  for (RunningStream* const running : leaving) {
    running->BeginToLeave(FindStream(wanted, running->GetName()), shutdown);
  }
  if (!BringToRest(leaving)) {
    for (RunningStream* const running : leaving) {
      running->StayAndStopSources();
    }
    return false;
  }
  for (RunningStream* const running : leaving) {
    Close(*running, Contains(plan.removed, running->GetName()));
    std::erase_if(streams, [&](const auto& one) { return one.get() == running; });
  }
  return true;
}

bool StreamExchange::BringToRest(std::vector<RunningStream*> leaving) {
  for (;;) {
    const auto now = Departure::Clock::now();
    // All of them are looked at, even those that could leave: their senders may come to wait.
    bool mayLeave = true;
    for (RunningStream* const running : leaving) {
      mayLeave = running->Depart(now) && mayLeave;
    }
    if (mayLeave || m_surroundings.isStopRequested()) {
      return mayLeave;
    }
    m_surroundings.serve(kBetweenLooks);
  }
}

void StreamExchange::Close(RunningStream& stream, bool isRemoved) {
  const std::string& name = stream.GetName();
  const StreamReport report = stream.Close();
  m_left[name] = stream.TakeLeftover();
  if (isRemoved && report.cached > 0) {
    LogFacade::Warn(m_log,
                    "Stream %s: %d events stay in its cache until there is a stream of that name "
                    "again.",
                    name, report.cached);
  }
}

std::unique_ptr<RunningStream> StreamExchange::Make(const StreamOptions& wanted,
                                                    const StreamOptions* before,
                                                    const AgentOptions& common) {
  std::string problem;
  auto made = TryMake(wanted, common, problem);
  if (made) {
    return made;
  }
  LogFacade::Error(m_log, "The section of stream %s can't be used: %s.", wanted.name, problem);
  if (before != nullptr) {
    LogFacade::Warn(m_log, "Stream %s goes on with its section as it was before.", wanted.name);
    std::string nextProblem;
    made = TryMake(*before, common, nextProblem);
    if (made) {
      m_troubles.push_back({wanted.name, true,
                            "its new section can't be used, and it goes on as before: " + problem});
      return made;
    }
    LogFacade::Error(m_log, "The section of stream %s can't be used: %s.", wanted.name,
                     nextProblem);
  }
  LogFacade::Error(m_log,
                   "Stream %s does not run until the configuration is read again with success.",
                   wanted.name);
  m_troubles.push_back({wanted.name, false, "it does not run: " + problem});
  return nullptr;
}

std::unique_ptr<RunningStream> StreamExchange::TryMake(const StreamOptions& options,
                                                       const AgentOptions& common,
                                                       std::string& problem) {
  Leftover& left = m_left[options.name];
  left.StopDestination(&options);
  try {
    auto made = std::make_unique<RunningStream>(options, common, m_surroundings.streams, left);
    made->BeginSources();
    made->StartStages(left);
    made->Open(left);
    left.StopSources(nullptr);
    m_left.erase(options.name);
    return made;
  } catch (const std::exception& error) {
    problem = error.what();
  }
  return nullptr;
}

}  // namespace OrloAgent
