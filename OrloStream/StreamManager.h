#pragma once

#include <memory>
#include <string>
#include <vector>

#include "OrloStream/Stream.h"

namespace OrloStream {

// Builds streams, starts them, and takes them down. All calls are made on one control thread.
//
// A module that was loaded stays loaded until the process ends: blocks, profiles and statistics
// groups that its code made may outlive the stream.
class StreamManager {
 public:
  // Stage modules are loaded from this directory (UTF-8 path).
  explicit StreamManager(std::string moduleDirectory);

  // Takes down what is left, newest stream first.
  ~StreamManager();
  StreamManager(const StreamManager&) = delete;
  StreamManager& operator=(const StreamManager&) = delete;

  // Loads the modules, builds the chain, creates and initialises each stage's statistics profile
  // (its groups carry the stream's name as instance), then initialises the destination. No stage
  // and no source runs yet. Throws InitializationException that names stream, module and reason (a
  // module file that is missing or can't be loaded, one without its factory, a factory that gives
  // nothing, a stage that is no StreamStageBase, a destination that throws, a name that a stream
  // has already); then everything that was started has been stopped again.
  Stream& Prepare(StreamDefinition definition);

  // Initialises the stages, downstream first. Throws InitializationException as Prepare, if a stage
  // throws; those downstream of it run then, and the destination, until StopStages or Remove.
  void StartStages(Stream& stream);

  // Both of them; if it throws, nothing of the stream is left.
  Stream& Create(StreamDefinition definition);

  // Starts the sources in order. If one throws, those already started are stopped, and the
  // exception, with the stream's name put before its message, goes on to the caller.
  void StartSources(Stream& stream);

  void StopSources(Stream& stream);

  // Takes the sources away from the stream as they are, running or not; they are the caller's, who
  // sees to it that they post nothing to the stream when it goes.
  std::vector<std::unique_ptr<IStreamSource>> TakeSources(Stream& stream);

  // Gives the stream its sources in place of those it has, none of which runs.
  void SetSources(Stream& stream, std::vector<std::unique_ptr<IStreamSource>> sources);

  // Stops the stages in stream order, then the destination. The sources must be stopped.
  void StopStages(Stream& stream);

  // Stops whatever still runs and closes the stream; `stream` is gone afterwards.
  void Remove(Stream& stream);

  const std::vector<std::unique_ptr<Stream>>& GetStreams() const { return m_streams; }

 private:
  // The steps of Prepare: from files to a linked chain, and what of it runs before the stages.
  void BuildChain(Stream& stream, StreamDefinition& definition);
  void InitializeProfiles(Stream& stream);
  void InitializeDestination(Stream& stream);

  std::string m_moduleDirectory;
  std::vector<std::unique_ptr<Stream>> m_streams;
};

}  // namespace OrloStream
