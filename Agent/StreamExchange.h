#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Agent/Leftover.h"
#include "Agent/Monitor/Monitor.h"
#include "Agent/Options.h"
#include "Agent/ReloadPlan.h"
#include "Agent/RunningStream.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

// Makes the running streams into those of another configuration, without the loss of an event:
// what the sender and the destination of a stream still hold when it is closed is sent by the
// stream of its name that follows, before anything else. Until there is one it is kept in memory.
//
// Owned by the agent; lives as long as streams can be exchanged. Control thread only.
class StreamExchange {
 public:
  using Streams = std::vector<std::unique_ptr<RunningStream>>;

  struct Surroundings {
    // Outlive the exchange.
    const StreamSurroundings& streams;
    std::function<bool()> isStopRequested;
    // Does what else the control thread has to do, for so long at most.
    std::function<void(std::chrono::milliseconds)> serve;
  };

  explicit StreamExchange(Surroundings surroundings);

  // Ends what is still kept, and says how many events are given up.
  ~StreamExchange();
  StreamExchange(const StreamExchange&) = delete;
  StreamExchange& operator=(const StreamExchange&) = delete;

  // Makes the first streams, all or none. Throws InitializationException; then none of `streams`
  // runs, and they are only to be destroyed.
  void Start(Streams& streams, const std::vector<StreamOptions>& wanted,
             const AgentOptions& common);

  // `streams` holds only streams that run, in the order of `wanted` at the end. False when the
  // agent is to stop instead; then they are as before, without sources. `common`: everything but
  // the streams.
  bool Exchange(Streams& streams, const std::vector<StreamOptions>& wanted, const ReloadPlan& plan,
                const AgentOptions& common);

  // Which streams are not as the last configuration wanted them, and why.
  const std::vector<StreamTrouble>& GetTroubles() const { return m_troubles; }

 private:
  bool Leave(Streams& streams, const std::vector<StreamOptions>& wanted, const ReloadPlan& plan,
             const ShutdownOptions& shutdown);
  // False when the agent is to stop.
  bool BringToRest(std::vector<RunningStream*> leaving);
  void Close(RunningStream& stream, bool isRemoved);
  std::unique_ptr<RunningStream> Make(const StreamOptions& wanted, const StreamOptions* before,
                                      const AgentOptions& common);
  // Null if it can't be made; `problem` says why.
  std::unique_ptr<RunningStream> TryMake(const StreamOptions& options, const AgentOptions& common,
                                         std::string& problem);

  const Surroundings m_surroundings;
  const WindowsAgentCommon::Log m_log;
  // By the stream's name.
  std::map<std::string, Leftover> m_left;
  std::vector<StreamTrouble> m_troubles;
};

}  // namespace OrloAgent
