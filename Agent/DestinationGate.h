#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Agent/Destination.h"
#include "Agent/Leftover.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

// Stands between a stream's stages and its destination, so that the stream can be replaced and
// everything goes on where it was: events that the old stream was not rid of, and the destination
// itself with its connection and its window, if the new stream has the same one.
//
// A sender that is refused an event comes back in half a minute, and what it still holds when it is
// stopped is gone. So a stream that is about to be replaced ends in three steps, called by the
// control thread:
//
// - Hold: an event that the destination refuses is not given back. The sender waits in put, and the
//   event is offered again and again.
// - Keep: the destination gets nothing more, and runs on with what it has. The sender waits in put
//   until the stages before it hand over nothing any more, which is when they are being stopped;
//   then this event and all that the sender holds behind it are kept here, in order. While the
//   sender waits, the stage brings nothing from its cache: what is kept is older than the cache.
// - Stop, then TakeLeft: what is left goes to the gate of the stream that follows, which delivers
//   it before anything else. The destination is not stopped: whoever takes it decides about it.
//
// Until Stop, Pass takes all of that back.
//
// A gate begins as after Keep, so that a stream that fails to start leaves what its stages have
// taken from the cache, too.
//
// Threads as for every destination, and one of its own while there are events of an earlier stream.
class DestinationGate : public Destination {
 public:
  // Without a destination it gets the one that Open brings.
  DestinationGate(std::unique_ptr<Destination> destination, std::string streamName);
  ~DestinationGate() override;

  void Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) override;
  void Stop() override;
  int put(ACE_Message_Block* block, ACE_Time_Value* timeout = nullptr) override;
  void Refuse() override;
  std::uint64_t GetUnsentEvents() const override;
  // Since the destination was made, as its counters.
  std::uint64_t GetSentEvents() const override;
  // In the account of this stream.
  std::uint64_t GetLostEvents() const override;
  std::uint64_t GetInheritedEvents() const override { return m_inherited; }
  std::vector<EndCounter> GetCounters() const override;
  std::optional<Parts> GetParts() const override;

  // Once, when the stream's stages run; until then every put waits. Takes from `left` the
  // destination, unless the gate has its own, and the events, which come before all others.
  void Open(Leftover& left);

  void Hold();
  void Keep();
  // The stream goes on, as if there had been neither Hold nor Keep. Not after Stop.
  void Pass();

  // Since Keep, until Pass.
  bool IsKeeping() const { return m_mode == Mode::Keeping; }

  // Whether the sender waits in put because of Hold or Keep.
  bool IsSenderHeld() const {
    const Mode mode = m_mode;
    return mode != Mode::Passing && m_heldIn == mode;
  }

  // How often an event was refused that is offered again; one that waits without being offered
  // counts once a second.
  std::uint64_t GetRefusals() const { return m_refusals; }

  // After Keep and Stop: adds the events that the destination has not got, and their number with
  // that of those which it has not sent; gives the destination, which runs. What the gate says of
  // unsent and lost events does not change from Stop until then, though the destination goes on: it
  // is what the stream that follows takes over. A gate that was never open has stopped its own
  // destination, which has got nothing, and gives the events alone.
  void TakeLeft(Leftover& left);

 private:
  enum class Mode { Passing, Holding, Keeping };

  struct Counts {
    std::uint64_t unsent = 0;
    // By the destination, since it was made.
    std::uint64_t lost = 0;
  };
  Counts Count() const;
  int PutOneByOne(WindowsAgentCommon::MessageBlockPtr event);
  void WaitToBeKept();
  bool Offer(const ACE_Message_Block& event, int& result);
  bool DeliverOlder();
  void RunOlder();

  const std::string m_streamName;
  const WindowsAgentCommon::Log m_log;

  std::atomic<Mode> m_mode{Mode::Keeping};
  // Nothing of an earlier stream is left to be delivered.
  std::atomic<bool> m_clear{false};
  std::atomic<bool> m_refusing{false};
  // The mode because of which the sender waits.
  std::atomic<Mode> m_heldIn{Mode::Passing};
  std::atomic<std::uint64_t> m_refusals{0};
  std::atomic<std::uint64_t> m_olderCount{0};
  std::atomic<std::uint64_t> m_keptCount{0};

  // Written by the control thread before anybody else asks, and when nobody asks any more.
  std::unique_ptr<Destination> m_destination;
  std::uint64_t m_inherited = 0;
  std::uint64_t m_inheritedLost = 0;
  std::uint64_t m_lostBefore = 0;
  // At Stop, if the gate was keeping.
  std::optional<Counts> m_last;

  // Control thread.
  bool m_opened = false;
  bool m_ended = false;

  // Held while an event is offered, unless the mode is Passing and nothing older is left.
  std::mutex m_lock;
  std::condition_variable m_stopped;
  // Guarded by m_lock.
  bool m_stop = false;
  std::deque<WindowsAgentCommon::MessageBlockPtr> m_older;
  std::vector<WindowsAgentCommon::MessageBlockPtr> m_kept;

  std::thread m_thread;
};

}  // namespace OrloAgent
