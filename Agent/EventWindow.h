#pragma once

#include <ace/Message_Block.h>

#include <cstdint>
#include <deque>
#include <string_view>
#include <vector>

#include "WindowsAgentCommon/MessageBlockPtr.h"

namespace OrloAgent {

// Makes the event's payload one block, as a message in one piece needs it. False when there is no
// memory; the event is then as it was.
bool JoinPayload(ACE_Message_Block& event);

// Events that a receiver has not all acknowledged, oldest first. Their numbers are consecutive. An
// event's bytes stay where they are until it leaves the window. No locking.
class EventWindow {
 public:
  // The event's number.
  std::uint64_t Add(WindowsAgentCommon::MessageBlockPtr event);

  // Gives back the event that was added last, which was not sent.
  WindowsAgentCommon::MessageBlockPtr TakeBackLast();

  // The event with this number was acknowledged. Those that are acknowledged up to the oldest one
  // that is not leave the window.
  void Acknowledge(std::uint64_t number);

  // The receiver will never take the event with this number. It leaves the window as an
  // acknowledged one does, but is not sent again, whatever comes. False if that was known, or the
  // event has left already.
  bool GiveUp(std::uint64_t number);

  // Whether the event with this number, which is in the window, is still to be acknowledged.
  bool IsUnacknowledged(std::uint64_t number) const {
    return m_entries[static_cast<std::size_t>(number - m_first)].state == State::Unacknowledged;
  }

  std::size_t GetUnacknowledged() const { return m_unacknowledged; }

  // Events that have left it because they were acknowledged.
  std::uint64_t GetTaken() const { return m_taken; }

  // How many events it holds: the unacknowledged ones, and others that stand behind one of them.
  std::size_t GetSize() const { return m_entries.size(); }
  std::uint64_t GetFirst() const { return m_first; }
  std::string_view GetMessage(std::uint64_t number) const;

  // Gives back all that are not acknowledged, oldest first, and is empty.
  std::vector<WindowsAgentCommon::MessageBlockPtr> TakeUnacknowledged();

  // The acknowledged ones count as unacknowledged again: all are to be sent once more, in order,
  // but for those that were given up.
  void Rewind();

 private:
  enum class State : std::uint8_t { Unacknowledged, Acknowledged, GivenUp };
  struct Entry {
    WindowsAgentCommon::MessageBlockPtr event;
    State state = State::Unacknowledged;
  };

  bool Settle(std::uint64_t number, State state);

  std::deque<Entry> m_entries;
  std::uint64_t m_first = 0;
  std::uint64_t m_taken = 0;
  std::size_t m_unacknowledged = 0;
};

}  // namespace OrloAgent
