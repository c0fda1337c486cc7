#include "OrloStream/StreamManager.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "OrloStream/StageModule.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "WindowsAgentCommon/Logging.h"
#include "WindowsAgentCommon/Services.h"
#include "WindowsAgentCommon/Statistics.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloStream {

using WindowsAgentCommon::InitializationException;
using WindowsAgentCommon::IStatisticsServer;
using WindowsAgentCommon::LogFacade;
using WindowsAgentCommon::OrloException;
using WindowsAgentCommon::OrloTask;
using WindowsAgentCommon::StatisticsServer;

namespace {

[[noreturn]] void Fail(const char* function, const std::string& message) {
  throw InitializationException("OrloStream/StreamManager", function, __LINE__, message);
}

// Calls `step`. Whatever it throws goes on as an InitializationException with `where` before its
// message, and, if it is one of the system's own, the place where it arose.
template <typename Step>
void RunStep(const char* function, const std::string& where, Step step) {
  try {
    step();
  } catch (const OrloException& error) {
    throw InitializationException(error.GetFile(), error.GetFunction(), error.GetLine(),
                                  where + ": " + error.GetText());
  } catch (const std::exception& error) {
    Fail(function, where + ": " + error.what());
  } catch (...) {
    Fail(function, where + ": unknown exception");
  }
}

constexpr const char* kPrepare = "OrloStream::StreamManager::Prepare";
constexpr const char* kStartStages = "OrloStream::StreamManager::StartStages";
constexpr const char* kStartSources = "OrloStream::StreamManager::StartSources";

std::string DescribeStream(const std::wstring& name) {
  return "Stream \"" + WindowsAgentCommon::ToUtf8(name) + "\"";
}

std::string DescribeStage(const std::wstring& streamName, const StageDefinition& stage) {
  return DescribeStream(streamName) + ", module " + stage.moduleName;
}

// A failing Stop must not keep the others from being stopped.
template <typename Task>
void StopTask(Task& task, const std::string& where) {
  try {
    task.Stop();
  } catch (const std::exception& error) {
    LogFacade::Error(WindowsAgentCommon::LoggerFactory::GetLog("Code.StreamManager"),
                     "%s could not be stopped: %s", where, error.what());
  }
}

void InitializeProfile(StreamStageBase& stage) {
  std::shared_ptr<StreamStageBaseStatisticsProfile> profile;
  stage.CreateStatisticsProfile(profile);
  if (!profile) {
    return;
  }
  if (profile->GetStatisticsServer() == nullptr) {
    Fail(kPrepare, "there is no statistics service");
  }
  profile->Initialize();
}

void ForgetStatistics(const std::string& instance) {
  auto* const server = dynamic_cast<StatisticsServer*>(
      WindowsAgentCommon::_getService(IStatisticsServer::GetServiceName()));
  if (server != nullptr) {
    server->RemoveInstance(instance);
  }
}

}  // namespace

StreamManager::StreamManager(std::string moduleDirectory)
    : m_moduleDirectory(std::move(moduleDirectory)) {}

StreamManager::~StreamManager() {
  while (!m_streams.empty()) {
    Remove(*m_streams.back());
  }
}

Stream& StreamManager::Create(StreamDefinition definition) {
  Stream& stream = Prepare(std::move(definition));
  try {
    StartStages(stream);
  } catch (...) {
    Remove(stream);
    throw;
  }
  return stream;
}

Stream& StreamManager::Prepare(StreamDefinition definition) {
  const std::string where = DescribeStream(definition.name);
  const bool isTaken = std::any_of(m_streams.begin(), m_streams.end(), [&](const auto& stream) {
    return stream->GetName() == definition.name;
  });
  if (isTaken) {
    Fail(kPrepare, where + ": there is a stream of this name already");
  }
  if (!definition.destination) {
    Fail(kPrepare, where + ": it has no destination");
  }
  const std::string instance = WindowsAgentCommon::ToUtf8(definition.name);
  std::unique_ptr<Stream> stream(new Stream(definition.name));
  m_streams.reserve(m_streams.size() + 1);
  try {
    const WindowsAgentCommon::StatisticsInstanceScope scope(instance);
    BuildChain(*stream, definition);
    stream->m_definitions = std::move(definition.stages);
    InitializeProfiles(*stream);
    InitializeDestination(*stream);
  } catch (...) {
    StopStages(*stream);
    stream.reset();
    ForgetStatistics(instance);
    throw;
  }
  stream->m_sources = std::move(definition.sources);
  m_streams.push_back(std::move(stream));
  return *m_streams.back();
}

void StreamManager::BuildChain(Stream& stream, StreamDefinition& definition) {
  const std::string where = DescribeStream(stream.m_name);
  std::vector<std::unique_ptr<Module>> modules;
  for (const StageDefinition& stage : definition.stages) {
    RunStep(kPrepare, DescribeStage(stream.m_name, stage),
            [&] { modules.push_back(LoadStageModule(m_moduleDirectory, stage.moduleName)); });
    stream.m_stages.push_back(GetStage(*modules.back()));
    stream.m_stages.back()->SetParentStreamName(stream.m_name);
  }

  auto destination =
      std::make_unique<Module>(ACE_TEXT("Destination"), definition.destination.get());
  if (destination->writer() != definition.destination.get()) {
    Fail(kPrepare, where + ", destination: out of memory");
  }
  stream.m_destination = definition.destination.release();
  // A module belongs to the stream even when it could not be opened.
  if (stream.m_stream->push(destination.release()) == -1) {
    Fail(kPrepare, where + ", destination: can't be opened");
  }
  for (std::size_t i = modules.size(); i-- > 0;) {
    if (stream.m_stream->push(modules[i].release()) == -1) {
      Fail(kPrepare, DescribeStage(stream.m_name, definition.stages[i]) + ": can't be opened");
    }
  }
}

void StreamManager::InitializeProfiles(Stream& stream) {
  for (std::size_t i = 0; i < stream.m_stages.size(); ++i) {
    RunStep(kPrepare, DescribeStage(stream.m_name, stream.m_definitions[i]),
            [&] { InitializeProfile(*stream.m_stages[i]); });
  }
}

void StreamManager::InitializeDestination(Stream& stream) {
  // One that failed half-way may have threads running.
  stream.m_destinationRunning = true;
  RunStep(kPrepare, DescribeStream(stream.m_name) + ", destination",
          [&] { stream.m_destination->Initialize({}); });
}

void StreamManager::StartStages(Stream& stream) {
  const WindowsAgentCommon::StatisticsInstanceScope scope(
      WindowsAgentCommon::ToUtf8(stream.m_name));
  for (std::size_t i = stream.m_stages.size(); i-- > 0;) {
    ++stream.m_startedStages;
    RunStep(kStartStages, DescribeStage(stream.m_name, stream.m_definitions[i]),
            [&] { stream.m_stages[i]->Initialize(stream.m_definitions[i].settings); });
  }
}

void StreamManager::StartSources(Stream& stream) {
  if (stream.m_sourcesRunning) {
    return;
  }
  const std::string where = DescribeStream(stream.m_name);
  for (std::size_t i = 0; i < stream.m_sources.size(); ++i) {
    try {
      RunStep(kStartSources, where, [&] { stream.m_sources[i]->Start(stream); });
    } catch (...) {
      for (std::size_t started = 0; started < i; ++started) {
        StopTask(*stream.m_sources[started], where + ", source");
      }
      throw;
    }
  }
  stream.m_sourcesRunning = true;
}

void StreamManager::StopSources(Stream& stream) {
  if (!stream.m_sourcesRunning) {
    return;
  }
  const std::string where = DescribeStream(stream.m_name) + ", source";
  for (const auto& source : stream.m_sources) {
    StopTask(*source, where);
  }
  stream.m_sourcesRunning = false;
}

std::vector<std::unique_ptr<IStreamSource>> StreamManager::TakeSources(Stream& stream) {
  stream.m_sourcesRunning = false;
  return std::exchange(stream.m_sources, {});
}

void StreamManager::SetSources(Stream& stream,
                               std::vector<std::unique_ptr<IStreamSource>> sources) {
  stream.m_sources = std::move(sources);
}

void StreamManager::StopStages(Stream& stream) {
  const std::size_t count = stream.m_stages.size();
  for (std::size_t i = count - std::exchange(stream.m_startedStages, 0); i < count; ++i) {
    StopTask(*stream.m_stages[i], DescribeStage(stream.m_name, stream.m_definitions[i]));
  }
  if (std::exchange(stream.m_destinationRunning, false)) {
    StopTask(*stream.m_destination, DescribeStream(stream.m_name) + ", destination");
  }
}

void StreamManager::Remove(Stream& stream) {
  StopSources(stream);
  StopStages(stream);
  const std::string instance = WindowsAgentCommon::ToUtf8(stream.m_name);
  std::erase_if(m_streams, [&](const auto& candidate) { return candidate.get() == &stream; });
  ForgetStatistics(instance);
}

}  // namespace OrloStream
