#pragma once

#include <ace/Stream.h>

#include <memory>
#include <string>
#include <vector>

#include "OrloStream/Status.h"
#include "OrloStream/StreamStageBase.h"

namespace OrloStream {

class Stream;

// Where a stream's events come from. Start and Stop are called on the control thread.
class IStreamSource {
 public:
  virtual ~IStreamSource();

  // Begins to post events to the stream, from threads of the source's own. The stream outlives the
  // source. Throws InitializationException; then nothing is running.
  virtual void Start(Stream& stream) = 0;

  // Returns after the source's last post has returned. Does nothing if it is not running.
  virtual void Stop() = 0;
};

// One loaded stage module and what it is configured with.
struct StageDefinition {
  // "StoreAndForwardStage" is loaded from libStoreAndForwardStage.so or StoreAndForwardStage.dll
  // and made by its function make_StoreAndForwardStage.
  std::string moduleName;
  WindowsAgentCommon::EnvironmentBlock settings;
};

struct StreamDefinition {
  std::wstring name;
  // Upstream first.
  std::vector<StageDefinition> stages;
  // The last module's writer task: its put() is offered every event. Initialised first, with an
  // empty block, and stopped last.
  std::unique_ptr<WindowsAgentCommon::OrloTask> destination;
  std::vector<std::unique_ptr<IStreamSource>> sources;
};

// A named chain of sources, stages and a destination. Made and taken down by the StreamManager.
// Post may be called from any thread; everything else belongs to the control thread.
class Stream {
 public:
  ~Stream();
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  const std::wstring& GetName() const { return m_name; }

  // Offers an event to the first stage. The block belongs to the stream from here on, whatever the
  // result. Blocks while the first stage is above its high-water mark.
  Status Post(ACE_Message_Block* block);

  // The stages in stream order; owned by the stream.
  const std::vector<StreamStageBase*>& GetStages() const { return m_stages; }
  WindowsAgentCommon::OrloTask& GetDestination() { return *m_destination; }

 private:
  friend class StreamManager;
  explicit Stream(std::wstring name);

  std::wstring m_name;
  // Closing it deletes the modules with their tasks.
  std::unique_ptr<ACE_Stream<ACE_MT_SYNCH>> m_stream;
  std::vector<StageDefinition> m_definitions;             // of the stages, in the same order
  std::vector<StreamStageBase*> m_stages;                 // owned by m_stream
  WindowsAgentCommon::OrloTask* m_destination = nullptr;  // owned by m_stream
  std::vector<std::unique_ptr<IStreamSource>> m_sources;
  bool m_sourcesRunning = false;
  // So many of the last stages were initialised, with or without success, and have to be stopped.
  std::size_t m_startedStages = 0;
  bool m_destinationRunning = false;
};

}  // namespace OrloStream
