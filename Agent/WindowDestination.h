#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Agent/Destination.h"
#include "Agent/EventWindow.h"

namespace OrloAgent {

// What destinations have in common whose receivers acknowledge: a window of events that are kept
// until they are, and a thread of their own that looks after them.
//
// put takes an event as long as there is room for it. It waits for room up to `sendTimeout` and
// then answers with backpressure. Who derives from it ends the thread in its own destructor at the
// latest: the thread runs what it defines.
class WindowDestination : public Destination {
 public:
  // Starts the thread.
  void Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) override;
  int put(ACE_Message_Block* block, ACE_Time_Value* timeout = nullptr) override;
  void Refuse() override { m_refusing = true; }
  std::uint64_t GetUnsentEvents() const override { return m_unacknowledged; }
  std::uint64_t GetSentEvents() const override { return m_acknowledged; }
  std::vector<WindowsAgentCommon::MessageBlockPtr> TakeUnsent() override;

 protected:
  // `component` names it to whoever could not start it.
  WindowDestination(std::string component, std::chrono::milliseconds sendTimeout);

  // The thread.
  virtual void Run() = 0;

  // Puts the event into the window, or says false, and the event is as it was: there is no room
  // now. Called under the lock.
  virtual bool TakeEvent(WindowsAgentCommon::MessageBlockPtr& event) = 0;

  // Called under the lock whenever the window has changed.
  void CountEvents();

  std::mutex m_lock;
  // An event has left the window.
  std::condition_variable m_room;
  EventWindow m_window;  // guarded by m_lock
  std::atomic<bool> m_refusing{false};
  std::atomic<bool> m_stop{false};
  std::thread m_thread;

 private:
  const std::string m_component;
  const std::chrono::milliseconds m_sendTimeout;
  std::atomic<std::uint64_t> m_unacknowledged{0};
  std::atomic<std::uint64_t> m_acknowledged{0};
};

}  // namespace OrloAgent
