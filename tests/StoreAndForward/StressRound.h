#pragma once

#include <ace/Stream.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "StoreAndForward/StoreAndForwardStage.h"
#include "tests/support/LogCapture.h"

namespace OrloStoreAndForward {

// Results of exactly 32 bits, where std::mt19937's may be wider.
using StressRandom =
    std::mersenne_twister_engine<std::uint32_t, 32, 624, 397, 31, 0x9908b0df, 11, 0xffffffff, 7,
                                 0x9d2c5680, 15, 0xefc60000, 18, 1812433253>;

// One event of a stress test: of which round, which poster, and the how-manieth of it.
struct StressEvent {
  std::size_t round;
  std::size_t poster;
  std::size_t number;
  auto operator<=>(const StressEvent&) const = default;

  std::string ToPayload() const;
  static StressEvent FromPayload(const std::string& payload);
};

// How often each kind of thing happened, by its name.
using StressCounts = std::map<std::string, std::int64_t>;

// Answers mostly 0, now and then an error, seldom backpressure, which costs the stage half a
// minute. On the sending thread, but for the results, which any thread may ask for.
class StressDestination : public ACE_Task<ACE_MT_SYNCH> {
 public:
  // `patient`: refuses its tenth offer for certain, and otherwise less often.
  StressDestination(std::uint32_t seed, bool patient) : m_random(seed), m_patient(patient) {}

  int put(ACE_Message_Block* block, ACE_Time_Value*) override;

  // Everything that the stage is rid of, in order: delivered, or dropped for an error.
  std::vector<StressEvent> Taken() const;
  // "backpressure", "error", and "resumed": taken after a refusal.
  StressCounts Counts() const;

 private:
  StressRandom m_random;
  const bool m_patient;
  std::int64_t m_offers = 0;
  mutable std::mutex m_lock;
  std::vector<StressEvent> m_taken;
  StressCounts m_counts;
};

// One stage with its posters, from start to stop. All but the stop of a round is done on the
// test's thread.
class StressRound {
 public:
  static constexpr std::size_t kPosters = 8;

  struct Options {
    // Lives long enough for the stage to try again after backpressure, and has no schedule.
    bool bLong = false;
    // Has a small high-water mark and posters that go on until they are refused.
    bool bFull = false;
    // Has a schedule that never opens, and lives long enough to cache something.
    bool bClosed = false;
  };

  StressRound(std::size_t number, std::uint32_t seed, const Options& options,
              const std::filesystem::path& data);
  ~StressRound();

  void Start();
  std::chrono::milliseconds Life() const { return m_life; }
  void Stop();

  // What the round has come to. `alive` are the events of all rounds whose payload is still in
  // memory: each accepted event must be with the destination, in a chunk file, there, or lost, and
  // nowhere twice.
  void Check(const std::set<StressEvent>& alive,
             const WindowsAgentCommon::StatisticsServer& statistics,
             const std::vector<TestSupport::LogLine>& log);

  // What was met, among it what the checks found: "posted", "held", "lost", "failed".
  const StressCounts& Counts() const { return m_counts; }

 private:
  struct Poster {
    std::thread thread;
    std::vector<StressEvent> accepted;
    std::int64_t failed = 0;
  };

  WindowsAgentCommon::EnvironmentBlock ChooseSettings();
  void Post(std::size_t poster, std::uint32_t seed);
  void JoinPosters();
  void CheckOrder(const std::vector<StressEvent>& cached);
  void CheckLog(const std::vector<TestSupport::LogLine>& log);
  std::vector<StressEvent> ReadCache() const;

  const std::size_t m_number;
  const std::string m_name;
  const Options m_options;
  const std::filesystem::path m_cache;
  StressRandom m_random;
  ACE_Stream<ACE_MT_SYNCH> m_stream;
  StoreAndForwardStage* m_stage = nullptr;
  StressDestination* m_destination = nullptr;
  std::vector<Poster> m_posters;
  std::atomic<bool> m_enough{false};
  bool m_schedule = false;
  bool m_stopDuringPosts = false;
  std::chrono::milliseconds m_life{0};
  StressCounts m_counts;
};

}  // namespace OrloStoreAndForward
