// Many stages at once, each with eight posters, a destination that answers at random, a disk
// manager that refuses at random, a schedule that flaps, and a stop at a random moment.
// At the end of every round each event is accounted for, and none is there twice or out of order.
//
// ORLO_STRESS_ROUNDS sets the number of rounds, ORLO_STRESS_SEED repeats a run's choices (the
// threads' timing is their own).

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <optional>

#include "Platform/Windows.h"
#include "Platform/testing/TestClock.h"
#include "tests/StoreAndForward/StageHarness.h"
#include "tests/StoreAndForward/StressRound.h"

namespace OrloStoreAndForward {
namespace {

using std::chrono::milliseconds;
using WindowsAgentCommon::StatisticsServer;

constexpr std::size_t kRoundsAtOnce = 50;

// Every so many batches have rounds that outlive the stage's half-minute of backpressure.
constexpr std::size_t kBatchesToALongOne = 4;

std::uint64_t FromEnvironment(const char* name, std::uint64_t standard) {
  const char* const text = std::getenv(name);
  return text == nullptr ? standard : std::strtoull(text, nullptr, 10);
}

// Moves the clock between this hour and the next, so that the schedules open and close. Not
// together with long rounds: the stage counts the half-minute after backpressure by this clock, and
// would wait for an hour.
class FlappingClock {
 public:
  FlappingClock() : m_thread([this] { Run(); }) {}
  ~FlappingClock() {
    m_stop = true;
    m_thread.join();
    Platform::TestClock::Reset();
  }

 private:
  void Run() {
    constexpr std::uint64_t kSecond = 10'000'000;
    const auto start = std::chrono::steady_clock::now();
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    const std::uint64_t base =
        static_cast<std::uint64_t>(now.dwHighDateTime) << 32 | now.dwLowDateTime;
    while (!m_stop) {
      const auto passed =
          std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
      const bool nextHour = passed.count() / 1700 % 2 != 0;
      Platform::TestClock::Set(base + static_cast<std::uint64_t>(passed.count()) * kSecond / 1000 +
                               (nextHour ? 3600 * kSecond : 0));
      std::this_thread::sleep_for(milliseconds(50));
    }
  }

  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

// Whether the batch has rounds that outlive the half-minute after backpressure.
bool IsLongBatch(std::uint64_t first) { return first / kRoundsAtOnce % kBatchesToALongOne == 0; }

StressRound::Options ChooseOptions(std::uint64_t number) {
  constexpr std::uint64_t kKinds = 5;
  StressRound::Options options;
  options.bLong = IsLongBatch(number) && number % kKinds == 0;
  options.bFull = number % kKinds == 1;
  options.bClosed = number % kKinds == 2;
  return options;
}

// The events whose payload is still in memory.
std::set<StressEvent> FindAlive(const TestSupport::CountingAllocator& buffers) {
  std::set<StressEvent> alive;
  for (const std::string& bytes : buffers.Contents()) {
    if (std::count(bytes.begin(), bytes.end(), ':') == 2) {
      EXPECT_TRUE(alive.insert(StressEvent::FromPayload(bytes)).second) << "twice: " << bytes;
    }
  }
  return alive;
}

// Runs the rounds from `first` on and gives what they met, "held" among it.
StressCounts RunBatch(std::uint64_t first, std::uint64_t rounds, StressRandom& random) {
  const TestSupport::LogCapture log;
  const TestSupport::TemporaryDirectory directory;
  TestSupport::CountingAllocators allocators;
  const auto disk = std::make_shared<TestSupport::TestDiskManager>(directory.WidePath());
  disk->SetAnswer([refusals = std::make_shared<StressRandom>(random()),
                   lock = std::make_shared<std::mutex>()](std::uint64_t) {
    const std::lock_guard guard(*lock);
    return (*refusals)() % 4 != 0;
  });
  const auto server = std::make_shared<StatisticsServer>();
  const WindowsAgentCommon::ServiceRegistration diskRegistration(
      WindowsAgentCommon::IDiskManager::GetServiceName(), disk);
  const WindowsAgentCommon::ServiceRegistration serverRegistration(
      WindowsAgentCommon::IStatisticsServer::GetServiceName(), server);

  std::vector<std::unique_ptr<StressRound>> batch;
  {
    std::optional<FlappingClock> clock;
    if (!IsLongBatch(first)) {
      clock.emplace();
    }
    for (std::uint64_t i = 0; i < kRoundsAtOnce && first + i < rounds; ++i) {
      batch.push_back(
          std::make_unique<StressRound>(i, random(), ChooseOptions(first + i), directory.Path()));
      batch.back()->Start();
    }
    std::vector<std::thread> stoppers;
    for (const auto& round : batch) {
      stoppers.emplace_back([&round] {
        std::this_thread::sleep_for(round->Life());
        round->Stop();
      });
    }
    for (std::thread& stopper : stoppers) {
      stopper.join();
    }
  }
  // Each event that is still there is held once: no block was released twice, none too few times.
  const std::set<StressEvent> alive = FindAlive(allocators.Buffers());
  EXPECT_EQ(allocators.BlocksAlive(), 2 * alive.size());
  EXPECT_EQ(allocators.DataBlocksAlive(), 2 * alive.size());
  const std::vector<TestSupport::LogLine> lines = log.Lines();
  StressCounts met;
  for (const auto& round : batch) {
    round->Check(alive, *server, lines);
    for (const auto& [what, times] : round->Counts()) {
      met[what] += times;
    }
  }
  EXPECT_EQ(met["held"], static_cast<std::int64_t>(alive.size()));
  EXPECT_EQ(met["refusal"], static_cast<std::int64_t>(disk->Refused().size()));
  return met;
}

TEST(Stress, EveryEventOfEveryRoundIsAccountedForOnceAndInOrder) {
  const std::uint64_t rounds = FromEnvironment("ORLO_STRESS_ROUNDS", 100);
  const std::uint64_t seed = FromEnvironment("ORLO_STRESS_SEED", std::random_device()());
  std::cout << "ORLO_STRESS_SEED=" << seed << " ORLO_STRESS_ROUNDS=" << rounds << "\n";
  StressRandom random(static_cast<std::uint32_t>(seed));
  StressCounts met;
  for (std::uint64_t done = 0; done < rounds; done += kRoundsAtOnce) {
    for (const auto& [what, times] : RunBatch(done, rounds, random)) {
      met[what] += times;
    }
  }
  for (const auto& [what, times] : met) {
    std::cout << "  " << what << ": " << times << "\n";
  }
  // Fewer rounds may by chance not meet everything.
  if (rounds >= kRoundsAtOnce) {
    for (const char* const what : {"near", "far", "spill", "schedule closed", "refusal",
                                   "backpressure", "resumed", "error", "held", "failed"}) {
      EXPECT_GT(met[what], 0) << what;
    }
  }
}

}  // namespace
}  // namespace OrloStoreAndForward
