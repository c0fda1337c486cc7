#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Agent/Destination.h"
#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

// Two destinations in one: events go to the first, and to the second while the first takes nothing.
//
// Every event goes to one of the two, and is forgotten by the other: none is sent twice because of
// this class, and none is lost. Each gets its events in their order. What the first has taken and
// not sent stays with it, and is sent there when it can be; so those events, which are older, can
// arrive there after younger ones have arrived at the second.
//
// The first is given up for now when events have waited for it as long as the options say and it
// has sent nothing in that time, neither the event that it is offered nor one that it had taken.
// It gets events again as soon as it sends: what it had taken leaves it, or, when it has nothing
// left, an event that it is offered once in each `retry`. To have taken an event is not enough, nor
// is a connection: an event has left a destination when GetSentEvents says so.
//
// Threads as for every destination.
class FallbackDestination : public Destination {
 public:
  FallbackDestination(std::unique_ptr<Destination> first, std::unique_ptr<Destination> second,
                      const FallbackOptions& options, const std::string& streamName);
  ~FallbackDestination() override;

  void Initialize(const WindowsAgentCommon::EnvironmentBlock& environment) override;
  void Stop() override;
  int put(ACE_Message_Block* block, ACE_Time_Value* timeout = nullptr) override;
  void Refuse() override;
  std::uint64_t GetUnsentEvents() const override;
  std::uint64_t GetLostEvents() const override;
  std::uint64_t GetSentEvents() const override;

  // Those of the first, then those of the second.
  std::vector<WindowsAgentCommon::MessageBlockPtr> TakeUnsent() override;

  // What it counts itself; its parts have their own.
  std::vector<EndCounter> GetCounters() const override;
  std::optional<Parts> GetParts() const override;

 private:
  using Clock = std::chrono::steady_clock;

  bool PutToFirst(const ACE_Message_Block& event);
  bool PutWhileGivenUp(const ACE_Message_Block& event);
  bool OfferToFirst(const ACE_Message_Block& event);
  bool OfferToSecond(const ACE_Message_Block& event);
  // True if the first has sent something since the last look.
  bool LookAtFirst();
  bool WaitForFirst();
  bool IsGivenUp() const;
  void TakeOver();
  void HandBack();

  const FallbackOptions m_options;
  const WindowsAgentCommon::Log m_log;
  const std::unique_ptr<Destination> m_first;
  const std::unique_ptr<Destination> m_second;
  std::atomic<bool> m_refusing{false};
  // Since the start.
  std::atomic<std::uint64_t> m_takenBySecond{0};
  // Since when the second is used, in the clock's own unit; 0: it is not.
  std::atomic<std::chrono::system_clock::rep> m_usedSince{0};

  // The rest belongs to the thread that calls put.
  // Events that had left the first at the last look.
  std::uint64_t m_left = 0;
  // Whether it has refused what it was offered last.
  bool m_refused = false;
  // Since when it has sent nothing although something waits for it.
  std::optional<Clock::time_point> m_waiting;
  bool m_secondIsUsed = false;
  Clock::time_point m_takenOver{};
  Clock::time_point m_nextTry{};
  std::uint64_t m_sentToSecond = 0;
};

}  // namespace OrloAgent
