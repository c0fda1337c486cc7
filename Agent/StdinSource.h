#pragma once

#include <memory>
#include <thread>

#include "Agent/EventPoster.h"
#include "Agent/Options.h"
#include "Agent/Source.h"
#include "Agent/StandardInput.h"

namespace OrloAgent {

// Posts each line of the standard input as an event, on a thread of its own. While the stream does
// not take events, it does not read.
class StdinSource : public Source {
 public:
  StdinSource(const StdinSourceOptions& options, EndOfInput endOfInput);
  ~StdinSource() override;

  std::vector<EndCounter> GetCounters() const override;

 protected:
  void Begin(const std::string& streamName) override;

  // Ends a read that waits. What was read before is posted first.
  void End() override;

 private:
  void Run();

  const StdinSourceOptions m_options;
  const EndOfInput m_endOfInput;
  WindowsAgentCommon::Log m_log;
  std::unique_ptr<StandardInput> m_input;
  std::unique_ptr<EventPoster> m_poster;
  std::thread m_thread;
};

}  // namespace OrloAgent
