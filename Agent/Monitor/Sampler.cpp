#include "Agent/Monitor/Sampler.h"

#include <algorithm>
#include <utility>

#include "Agent/PathText.h"
#include "Agent/Units.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloAgent {

using WindowsAgentCommon::Format;
using WindowsAgentCommon::LoggerFactory;

namespace {

constexpr std::chrono::seconds kPeriod{1};
constexpr std::size_t kMessages = 50;

// Chunks are written in whole pages, so a little less than a page is as good as nothing.
constexpr std::uint64_t kPage = 4096;

std::int64_t GetMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

struct DescribeSource {
  EndState operator()(const StdinSourceOptions&) const { return {"stdin", "stdin", {}}; }
  EndState operator()(const SyslogSourceOptions& options) const {
    return {"syslog", ToText(options.listen), {}};
  }
  EndState operator()(const FileSourceOptions& options) const {
    std::string paths;
    for (const std::string& path : options.paths) {
      paths += (paths.empty() ? "" : ", ") + path;
    }
    return {"file", paths, {}};
  }
};

struct DescribeDestination {
  EndState operator()(const StdoutDestinationOptions&) const { return {"stdout", "stdout", {}}; }
  EndState operator()(const FileDestinationOptions& options) const {
    return {"file", options.path, {}};
  }
  EndState operator()(const SyslogDestinationOptions& options) const {
    return {"syslog", ToText(options.target), {}};
  }
  EndState operator()(const RelpDestinationOptions& options) const {
    return {"relp", ToText(options.target), {}};
  }
  EndState operator()(const KafkaDestinationOptions& options) const {
    return {"kafka", options.brokers + " " + options.topic, {}};
  }
};

// What the configuration only refers to is shown here no more than in messages.
template <typename Describe, typename Options>
EndState DescribeShown(const Options& options) {
  EndState end = std::visit(Describe{}, options);
  end.name = LoggerFactory::WithoutSecrets(end.name);
  return end;
}

bool AreAlike(const EndState& one, const EndState& other) {
  return one.type == other.type && one.name == other.name;
}

}  // namespace

struct Sampler::Watched {
  StreamSampler sampler;
  // Asked under m_streamsLock, and only while the stream is one of m_streams.
  std::vector<const Source*> sources;
  const Destination* destination;
  EndsReading described;
  // What the sources had counted before they came to the stream.
  std::uint64_t notMadeBefore = 0;

  EndsReading Ask() const {
    EndsReading reading = described;
    for (std::size_t i = 0; i < sources.size(); ++i) {
      reading.sources[i].counters = sources[i]->GetCounters();
      reading.notMade += sources[i]->GetNotMade();
    }
    reading.notMade -= notMadeBefore;
    reading.inherited = destination->GetInheritedEvents();
    AskDestination(reading);
    reading.unsent = destination->GetUnsentEvents();
    reading.refused = destination->GetLostEvents();
    return reading;
  }

  void AskDestination(EndsReading& reading) const {
    const auto parts = destination->GetParts();
    Ask(parts ? parts->first : *destination, reading.destination);
    if (!parts || !reading.fallback) {
      return;
    }
    for (const EndCounter& counter : destination->GetCounters()) {
      reading.destination.counters.push_back(counter);
    }
    Ask(parts->fallback, *reading.fallback);
    if (parts->usedSince) {
      reading.fallbackSince = std::chrono::system_clock::to_time_t(*parts->usedSince);
    }
  }

  static void Ask(const Destination& asked, EndState& end) {
    end.counters = asked.GetCounters();
    end.unsent = asked.GetUnsentEvents();
  }
};

Sampler::Sampler(Surroundings surroundings)
    : m_surroundings(std::move(surroundings)),
      m_log(LoggerFactory::GetLog("Code.Monitor")),
      m_started(GetMilliseconds()),
      m_messages(kMessages) {}

Sampler::~Sampler() {
  {
    const std::lock_guard guard(m_lock);
    m_stop = true;
  }
  m_stopped.notify_all();
  if (m_thread.joinable()) {
    m_thread.join();
  }
}

void Sampler::AddStream(const StreamOptions& options, std::vector<const Source*> sources,
                        const Destination& destination, std::uint64_t notMadeBefore) {
  EndsReading described;
  for (const SourceOptions& source : options.sources) {
    described.sources.push_back(DescribeShown<DescribeSource>(source));
    const EndState& added = described.sources.back();
    const auto alike = std::count_if(described.sources.begin(), described.sources.end(),
                                     [&](const EndState& one) { return AreAlike(one, added); });
    if (alike > 1) {
      described.sources.back().name += Format(" (%d)", alike);
    }
  }
  described.destination = DescribeShown<DescribeDestination>(options.destination);
  if (options.fallback) {
    described.fallback = DescribeShown<DescribeDestination>(options.fallback->destination);
    if (AreAlike(*described.fallback, described.destination)) {
      described.fallback->name += " (fallback)";
    }
  }
  auto watched = std::make_shared<Watched>(
      Watched{StreamSampler(options, m_surroundings.dataDirectory, m_surroundings.refusedAfter),
              std::move(sources), &destination, std::move(described), notMadeBefore});
  const std::lock_guard guard(m_streamsLock);
  m_streams.push_back(std::move(watched));
}

void Sampler::RemoveStream(const std::string& name) {
  const std::lock_guard guard(m_streamsLock);
  std::erase_if(m_streams, [&](const auto& one) { return one->sampler.GetName() == name; });
}

void Sampler::SetTroubles(const std::vector<std::string>& file,
                          const std::vector<StreamTrouble>& streams) {
  std::vector<std::string> shownFile = file;
  std::vector<StreamTrouble> shownStreams = streams;
  for (std::string& trouble : shownFile) {
    trouble = LoggerFactory::WithoutSecrets(trouble);
  }
  for (StreamTrouble& trouble : shownStreams) {
    trouble.problem = LoggerFactory::WithoutSecrets(trouble.problem);
  }
  const std::lock_guard guard(m_streamsLock);
  m_fileTroubles = std::move(shownFile);
  m_streamTroubles = std::move(shownStreams);
}

void Sampler::Start() {
  Sample();
  m_thread = std::thread(&Sampler::Run, this);
}

void Sampler::Run() {
  bool isFailing = false;
  std::unique_lock lock(m_lock);
  while (!m_stopped.wait_for(lock, kPeriod, [this] { return m_stop; })) {
    lock.unlock();
    try {
      Sample();
      isFailing = false;
    } catch (const std::exception& exception) {
      // For want of memory, as a rule. The last state stays; when it grows old, that is seen.
      if (!std::exchange(isFailing, true)) {
        WindowsAgentCommon::LogFacade::Error(m_log, "The agent can't look at itself: %s.",
                                             std::string(exception.what()));
      }
    }
    lock.lock();
  }
}

void Sampler::Sample() {
  auto state = std::make_shared<AgentState>();
  state->version = m_surroundings.version;
  state->started = m_started;
  const auto now = StreamSampler::Clock::now();
  std::vector<std::pair<std::shared_ptr<Watched>, EndsReading>> asked;
  {
    // The statistics are those of the streams that are asked, not of earlier ones of their names.
    const std::lock_guard guard(m_streamsLock);
    // Before the destinations are asked: what they have taken and the stages have not counted yet
    // is not taken for delivered then.
    state->statistics = m_surroundings.statistics->GetSnapshot();
    for (const auto& watched : m_streams) {
      asked.emplace_back(watched, watched->Ask());
    }
  }
  for (auto& [watched, ends] : asked) {
    state->streams.push_back(watched->sampler.Look(state->statistics, std::move(ends), now));
  }
  AddTroubles(*state);
  state->disk = LookAtDisk(state->problems);
  m_messages.AddTo(*state);
  state->sampled = GetMilliseconds();
  state->looked = std::chrono::steady_clock::now();
  const std::lock_guard guard(m_lock);
  m_history.Add(*state);
  m_state = std::move(state);
}

void Sampler::AddTroubles(AgentState& state) {
  const std::lock_guard guard(m_streamsLock);
  state.isConfigurationTaken = m_fileTroubles.empty() && m_streamTroubles.empty();
  state.problems.insert(state.problems.end(), m_fileTroubles.begin(), m_fileTroubles.end());
  for (const StreamTrouble& trouble : m_streamTroubles) {
    const auto stream = std::find_if(state.streams.begin(), state.streams.end(),
                                     [&](const auto& one) { return one.name == trouble.stream; });
    if (!trouble.runs) {
      ++state.streamsNotRunning;
    }
    if (stream != state.streams.end()) {
      stream->problems.push_back(trouble.problem);
    } else {
      state.problems.push_back("stream " + trouble.stream + ": " + trouble.problem);
    }
  }
}

DiskState Sampler::LookAtDisk(std::vector<std::string>& problems) const {
  DiskState disk;
  disk.used = m_surroundings.disk->GetUsedSpace();
  disk.quota = m_surroundings.disk->GetQuota();
  disk.keepFree = m_surroundings.disk->GetKeepFree();
  std::error_code error;
  const auto space = std::filesystem::space(m_surroundings.dataDirectory, error);
  if (!error) {
    disk.available = space.available;
  }
  if (disk.quota != 0 && disk.used + kPage > disk.quota) {
    problems.push_back(Format("disk full: the quota of %d bytes is used up", disk.quota));
  }
  if (disk.keepFree != 0 && disk.available && *disk.available < disk.keepFree + kPage) {
    problems.push_back(Format("disk full: %d bytes are free, and %d must stay free",
                              *disk.available, disk.keepFree));
  }
  return disk;
}

std::shared_ptr<const AgentState> Sampler::GetState() const {
  const std::lock_guard guard(m_lock);
  return m_state;
}

History Sampler::GetHistory(std::int64_t since) const {
  const std::lock_guard guard(m_lock);
  return m_history.Get(since);
}

}  // namespace OrloAgent
