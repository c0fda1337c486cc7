#include "Agent/DestinationGate.h"

#include <gtest/gtest.h>

#include <future>

#include "WindowsAgentCommon/Gauges.h"
#include "tests/support/Events.h"

namespace {

using OrloAgent::Destination;
using OrloAgent::DestinationGate;
using OrloAgent::Leftover;
using TestSupport::MakeEvent;
using TestSupport::PayloadOf;
using TestSupport::WaitUntil;
using WindowsAgentCommon::MessageBlockPtr;

constexpr int kBackpressure = 0x40000000;
constexpr int kError = -1;

// Takes what it is told to; what it takes stays unsent until the test sends it.
struct Record {
  std::atomic<int> answer{0};
  std::atomic<int> offers{0};
  std::atomic<bool> initialized{false};
  std::atomic<bool> refused{false};
  std::atomic<bool> stopped{false};
  std::atomic<std::uint64_t> lost{0};
  std::mutex lock;
  std::vector<std::string> taken;  // guarded by lock

  std::vector<MessageBlockPtr> unsent;  // guarded by lock

  std::vector<std::string> Taken() {
    const std::lock_guard guard(lock);
    return taken;
  }

  void SendOldest() {
    const std::lock_guard guard(lock);
    unsent.erase(unsent.begin());
  }
};

class RecordingDestination : public Destination {
 public:
  explicit RecordingDestination(Record& record) : m_record(record) {}
  void Initialize(const WindowsAgentCommon::EnvironmentBlock&) override {
    m_record.initialized = true;
  }
  void Stop() override { m_record.stopped = true; }
  int put(ACE_Message_Block* block, ACE_Time_Value*) override {
    MessageBlockPtr event(block);
    ++m_record.offers;
    const int answer = m_record.answer;
    if (answer == 0) {
      const std::lock_guard guard(m_record.lock);
      m_record.taken.push_back(PayloadOf(event.get()));
      m_record.unsent.push_back(std::move(event));
    }
    return answer;
  }
  void Refuse() override { m_record.refused = true; }
  std::uint64_t GetUnsentEvents() const override {
    const std::lock_guard guard(m_record.lock);
    return m_record.unsent.size();
  }
  std::uint64_t GetSentEvents() const override { return 0; }
  std::uint64_t GetLostEvents() const override { return m_record.lost; }

 private:
  Record& m_record;
};

std::vector<MessageBlockPtr> Events(std::initializer_list<const char*> payloads) {
  std::vector<MessageBlockPtr> events;
  for (const char* payload : payloads) {
    events.emplace_back(MakeEvent("", payload));
  }
  return events;
}

std::vector<std::string> Payloads(const std::vector<MessageBlockPtr>& events) {
  std::vector<std::string> payloads;
  for (const auto& event : events) {
    payloads.push_back(PayloadOf(event.get()));
  }
  return payloads;
}

using Texts = std::vector<std::string>;

class DestinationGateTest : public testing::Test {
 protected:
  DestinationGateTest() : m_gate(std::make_unique<RecordingDestination>(m_record), "S") {
    m_gate.Initialize({});
  }

  void Open(std::initializer_list<const char*> older = {}) {
    Leftover left;
    left.events = Events(older);
    left.count = older.size();
    m_gate.Open(left);
  }

  // A put on another thread. A gate that does not let it go is a failure, not a test without an
  // end.
  class PendingPut {
   public:
    PendingPut(DestinationGate& gate, const char* payload)
        : m_gate(gate), m_answer(std::async(std::launch::async, [&gate, payload] {
            return gate.put(MakeEvent("", payload));
          })) {}
    PendingPut(const PendingPut&) = delete;
    PendingPut& operator=(const PendingPut&) = delete;
    ~PendingPut() {
      if (m_answer.valid()) {
        LetGo();
      }
    }

    bool IsWaiting() const {
      return m_answer.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout;
    }

    int Answer() {
      if (m_answer.wait_for(std::chrono::seconds(60)) == std::future_status::timeout) {
        ADD_FAILURE() << "the gate does not let the event go";
        LetGo();
      }
      return m_answer.get();
    }

   private:
    // Each of them ends a wait.
    void LetGo() {
      m_gate.Pass();
      m_gate.Refuse();
      m_gate.Stop();
    }

    DestinationGate& m_gate;
    std::future<int> m_answer;
  };

  PendingPut PutOnAnotherThread(const char* payload) { return PendingPut(m_gate, payload); }

  Record m_record;
  DestinationGate m_gate;
};

TEST_F(DestinationGateTest, EventsAndAnswersPassAsTheyAre) {
  EXPECT_TRUE(m_record.initialized);
  Open();
  EXPECT_EQ(m_gate.put(MakeEvent("", "a")), 0);
  m_record.answer = kBackpressure;
  EXPECT_EQ(m_gate.put(MakeEvent("", "b")), kBackpressure);
  m_record.answer = kError;
  EXPECT_EQ(m_gate.put(MakeEvent("", "c")), kError);
  EXPECT_EQ(m_record.Taken(), Texts{"a"});
  EXPECT_FALSE(m_gate.IsSenderHeld());
  EXPECT_EQ(m_gate.GetUnsentEvents(), 1u);
}

TEST_F(DestinationGateTest, BeforeItIsOpenNothingPasses) {
  const WindowsAgentCommon::Gauge gauge("S", "IncomingRunning", [] { return 1; });
  auto result = PutOnAnotherThread("a");
  EXPECT_FALSE(WaitUntil([&] { return m_record.offers > 0; }, std::chrono::milliseconds(300)));
  Open();
  EXPECT_EQ(result.Answer(), 0);
  EXPECT_EQ(m_record.Taken(), Texts{"a"});
}

TEST_F(DestinationGateTest, EventsOfAnEarlierStreamLeaveFirstAndWithoutAnyOther) {
  m_record.answer = kBackpressure;
  Open({"1", "2"});
  EXPECT_EQ(m_gate.GetInheritedEvents(), 2u);
  EXPECT_EQ(m_gate.GetUnsentEvents(), 2u);
  ASSERT_TRUE(WaitUntil([&] { return m_record.offers > 0; }));
  m_record.answer = 0;
  ASSERT_TRUE(WaitUntil([&] { return m_record.Taken().size() == 2; }));
  EXPECT_EQ(m_gate.put(MakeEvent("", "3")), 0);
  EXPECT_EQ(m_record.Taken(), (Texts{"1", "2", "3"}));
}

TEST_F(DestinationGateTest, AnEventWaitsForOlderOnesAndIsRefusedIfThatTakesLong) {
  m_record.answer = kBackpressure;
  Open({"1"});
  EXPECT_EQ(m_gate.put(MakeEvent("", "2")), kBackpressure);
  const std::uint64_t refusals = m_gate.GetRefusals();
  auto result = PutOnAnotherThread("2");
  ASSERT_TRUE(WaitUntil([&] { return m_gate.GetRefusals() >= refusals + 2; }));
  m_record.answer = 0;
  EXPECT_EQ(result.Answer(), 0);
  EXPECT_EQ(m_record.Taken(), (Texts{"1", "2"}));
}

TEST_F(DestinationGateTest, OnHoldARefusedEventIsOfferedAgainAndNotGivenBack) {
  Open();
  m_gate.Hold();
  EXPECT_EQ(m_gate.put(MakeEvent("", "a")), 0);
  m_record.answer = kBackpressure;
  auto result = PutOnAnotherThread("b");
  ASSERT_TRUE(WaitUntil([&] { return m_gate.IsSenderHeld() && m_record.offers >= 4; }));
  EXPECT_GE(m_gate.GetRefusals(), 2u);
  m_record.answer = 0;
  EXPECT_EQ(result.Answer(), 0);
  EXPECT_FALSE(m_gate.IsSenderHeld());
  EXPECT_EQ(m_record.Taken(), (Texts{"a", "b"}));
}

TEST_F(DestinationGateTest, PassedOnAgainTheSenderIsRefusedAsUsual) {
  Open();
  m_record.answer = kBackpressure;
  m_gate.Hold();
  auto result = PutOnAnotherThread("a");
  ASSERT_TRUE(WaitUntil([&] { return m_gate.IsSenderHeld(); }));
  m_gate.Pass();
  EXPECT_EQ(result.Answer(), kBackpressure);
}

TEST_F(DestinationGateTest, WhatIsKeptWaitsUntilTheStagesHandOverNothing) {
  std::atomic<std::int64_t> running{1};
  const WindowsAgentCommon::Gauge gauge("S", "IncomingRunning", [&] { return running.load(); });
  Open();
  EXPECT_EQ(m_gate.put(MakeEvent("", "taken")), 0);
  m_gate.Keep();
  auto result = PutOnAnotherThread("1");
  ASSERT_TRUE(WaitUntil([&] { return m_gate.IsSenderHeld(); }));
  EXPECT_TRUE(result.IsWaiting());
  running = 0;
  EXPECT_EQ(result.Answer(), 0);
  EXPECT_EQ(m_gate.put(MakeEvent("", "2")), 0);
  EXPECT_EQ(m_record.offers, 1);
  EXPECT_EQ(m_gate.GetUnsentEvents(), 3u);
  m_gate.Stop();
  Leftover left;
  m_gate.TakeLeft(left);
  ASSERT_NE(left.destination, nullptr);
  EXPECT_EQ(left.destination->GetUnsentEvents(), 1u);
  EXPECT_EQ(Payloads(left.events), (Texts{"1", "2"}));
  EXPECT_EQ(left.count, 3u);
  EXPECT_EQ(m_gate.GetUnsentEvents(), 0u);
}

TEST_F(DestinationGateTest, ADestinationThatIsLeftRunsOnWithWhatItHasTaken) {
  m_record.answer = kBackpressure;
  Open({"older"});
  ASSERT_TRUE(WaitUntil([&] { return m_record.offers > 0; }));
  m_gate.Keep();
  EXPECT_EQ(m_gate.put(MakeEvent("", "younger")), 0);
  m_gate.Stop();
  EXPECT_FALSE(m_record.refused);
  EXPECT_FALSE(m_record.stopped);
  Leftover left;
  m_gate.TakeLeft(left);
  ASSERT_NE(left.destination, nullptr);
  EXPECT_EQ(Payloads(left.events), (Texts{"older", "younger"}));

  m_record.answer = 0;
  m_record.initialized = false;
  DestinationGate next(nullptr, "S");
  next.Initialize({});
  next.Open(left);
  EXPECT_EQ(left.destination, nullptr);
  EXPECT_FALSE(m_record.initialized);
  EXPECT_EQ(next.GetInheritedEvents(), 2u);
  ASSERT_TRUE(WaitUntil([&] { return m_record.Taken().size() == 2; }));
  EXPECT_EQ(m_record.Taken(), (Texts{"older", "younger"}));
  next.Stop();
  EXPECT_TRUE(m_record.stopped);
}

TEST_F(DestinationGateTest, WhatADestinationDoesBetweenTwoStreamsIsInTheAccountOfTheSecond) {
  Open();
  for (const char* payload : {"sent later", "lost later", "unsent"}) {
    EXPECT_EQ(m_gate.put(MakeEvent("", payload)), 0);
  }
  m_record.lost = 4;
  m_gate.Keep();
  m_gate.Stop();
  EXPECT_EQ(m_gate.GetUnsentEvents(), 3u);
  EXPECT_EQ(m_gate.GetLostEvents(), 4u);
  m_record.SendOldest();
  m_record.SendOldest();
  m_record.lost = 5;
  EXPECT_EQ(m_gate.GetUnsentEvents(), 3u) << "what the closing line says and what is left agree";
  EXPECT_EQ(m_gate.GetLostEvents(), 4u);
  Leftover left;
  m_gate.TakeLeft(left);
  DestinationGate next(nullptr, "S");
  next.Open(left);
  EXPECT_EQ(next.GetInheritedEvents(), 3u);
  EXPECT_EQ(next.GetUnsentEvents(), 1u);
  EXPECT_EQ(next.GetLostEvents(), 1u) << "those before belong to the account of the other stream";
}

TEST_F(DestinationGateTest, AGateThatIsNeverOpenedLeavesWhatTheStagesHaveHandedOver) {
  std::atomic<std::int64_t> running{1};
  const WindowsAgentCommon::Gauge gauge("S", "IncomingRunning", [&] { return running.load(); });
  auto result = PutOnAnotherThread("1");
  ASSERT_TRUE(WaitUntil([&] { return m_gate.IsSenderHeld(); }));
  running = 0;
  EXPECT_EQ(result.Answer(), 0);
  m_gate.Stop();
  EXPECT_TRUE(m_record.stopped);
  Leftover left;
  left.events = Events({"0"});
  left.count = 1;
  m_gate.TakeLeft(left);
  EXPECT_EQ(left.destination, nullptr);
  EXPECT_EQ(Payloads(left.events), (Texts{"0", "1"}));
  EXPECT_EQ(left.count, 2u);
  EXPECT_EQ(m_record.offers, 0);
}

TEST_F(DestinationGateTest, WhatAStageWithoutAGaugeHandsOverTooEarlyComesBehindWhatIsOlder) {
  EXPECT_EQ(m_gate.put(MakeEvent("", "2")), 0);
  EXPECT_EQ(m_gate.GetUnsentEvents(), 1u);
  Open({"1"});
  EXPECT_EQ(m_gate.GetInheritedEvents(), 1u);
  EXPECT_TRUE(WaitUntil([&] { return m_record.Taken() == (Texts{"1", "2"}); }));
}

TEST_F(DestinationGateTest, AnEventThatWaitsToBeKeptIsNotCountedAsRefusedAtEachLook) {
  const WindowsAgentCommon::Gauge gauge("S", "IncomingRunning", [] { return 1; });
  Open();
  m_gate.Keep();
  const auto begin = std::chrono::steady_clock::now();
  auto result = PutOnAnotherThread("1");
  ASSERT_TRUE(WaitUntil([&] { return m_gate.GetRefusals() > 1; })) << "its sender does not hang";
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1'500));
  m_gate.Pass();
  EXPECT_EQ(result.Answer(), 0);
}

TEST_F(DestinationGateTest, TakenBackInTheMiddleTheStreamGoesOnToItsOwnEnd) {
  const WindowsAgentCommon::Gauge gauge("S", "IncomingRunning", [] { return 1; });
  Open();
  EXPECT_EQ(m_gate.put(MakeEvent("", "taken")), 0);
  m_gate.Hold();
  m_gate.Keep();
  auto result = PutOnAnotherThread("held");
  ASSERT_TRUE(WaitUntil([&] { return m_gate.IsSenderHeld(); }));
  m_gate.Pass();
  EXPECT_EQ(result.Answer(), 0);
  EXPECT_EQ(m_gate.put(MakeEvent("", "next")), 0);
  EXPECT_EQ(m_record.Taken(), (Texts{"taken", "held", "next"}));
  EXPECT_FALSE(m_record.refused);
  m_gate.Stop();
  EXPECT_TRUE(m_record.stopped);
}

TEST_F(DestinationGateTest, TakenBackOlderEventsLeaveThoughNoOtherComes) {
  m_record.answer = kBackpressure;
  Open({"older"});
  ASSERT_TRUE(WaitUntil([&] { return m_record.offers > 0; }));
  m_gate.Keep();
  // One offer may have been under way.
  const int offers = m_record.offers;
  EXPECT_FALSE(
      WaitUntil([&] { return m_record.offers > offers + 1; }, std::chrono::milliseconds(3'500)));
  m_record.answer = 0;
  m_gate.Pass();
  EXPECT_TRUE(WaitUntil([&] { return m_record.Taken() == Texts{"older"}; }));
}

TEST_F(DestinationGateTest, ARefusingGateLetsNobodyWait) {
  m_record.answer = kBackpressure;
  Open();
  m_gate.Hold();
  auto result = PutOnAnotherThread("a");
  ASSERT_TRUE(WaitUntil([&] { return m_gate.IsSenderHeld(); }));
  m_gate.Refuse();
  EXPECT_EQ(result.Answer(), kBackpressure);
  EXPECT_TRUE(m_record.refused);
}

}  // namespace
