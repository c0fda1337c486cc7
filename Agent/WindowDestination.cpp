#include "Agent/WindowDestination.h"

#include <ace/Message_Block.h>

#include <algorithm>
#include <system_error>

#include "OrloStream/Status.h"
#include "WindowsAgentCommon/Exceptions.h"

namespace OrloAgent {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using WindowsAgentCommon::MessageBlockPtr;

namespace {

// A wait for room is cut into slices so that Refuse is seen.
constexpr milliseconds kSlice{100};

}  // namespace

WindowDestination::WindowDestination(std::string component, milliseconds sendTimeout)
    : m_component(std::move(component)), m_sendTimeout(sendTimeout) {}

void WindowDestination::Initialize(const WindowsAgentCommon::EnvironmentBlock&) {
  try {
    m_thread = std::thread([this] { Run(); });
  } catch (const std::system_error& error) {
    throw WindowsAgentCommon::InitializationException(
        m_component, "OrloAgent::" + m_component + "::Initialize", __LINE__,
        std::string("The destination can't start its thread (") + error.what() + ")");
  }
}

int WindowDestination::put(ACE_Message_Block* block, ACE_Time_Value*) {
  MessageBlockPtr event(block);
  const int backpressure = OrloStream::Status(OrloStream::Status::kBackpressure).ToInt();
  if (!JoinPayload(*event)) {
    return backpressure;
  }
  const auto deadline = steady_clock::now() + m_sendTimeout;
  std::unique_lock lock(m_lock);
  while (!m_refusing) {
    if (TakeEvent(event)) {
      return 0;
    }
    const auto left = deadline - steady_clock::now();
    if (left <= steady_clock::duration::zero()) {
      break;
    }
    m_room.wait_for(lock, std::min<steady_clock::duration>(left, kSlice));
  }
  return backpressure;
}

std::vector<MessageBlockPtr> WindowDestination::TakeUnsent() {
  const std::lock_guard lock(m_lock);
  auto events = m_window.TakeUnacknowledged();
  CountEvents();
  return events;
}

void WindowDestination::CountEvents() {
  m_unacknowledged = m_window.GetUnacknowledged();
  // Not what is acknowledged behind one that is not: it can be sent again.
  m_acknowledged = m_window.GetTaken();
}

}  // namespace OrloAgent
