// Many stages at once, each with eight posters, a destination that answers at random, a disk
// manager that refuses at random, a schedule that flaps, and a stop at a random moment. At the end
// of every round each event is accounted for, and none is there twice or out of order.
//
// ORLO_STRESS_ROUNDS sets the number of rounds, ORLO_STRESS_SEED repeats a run's choices (the
// threads' timing is their own).

#include <ace/Stream.h>
#include <gtest/gtest.h>

#include <atomic>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <set>
#include <thread>

#include "Platform/Windows.h"
#include "Platform/testing/TestClock.h"
#include "StoreAndForward/ChunkFormat.h"
#include "StoreAndForward/StoreAndForwardStage.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"
#include "tests/StoreAndForward/StageHarness.h"

namespace OrloStoreAndForward {
namespace {

using std::chrono::milliseconds;
using WindowsAgentCommon::StatisticsServer;

// Results of exactly 32 bits, where std::mt19937's may be wider.
using Random =
    std::mersenne_twister_engine<std::uint32_t, 32, 624, 397, 31, 0x9908b0df, 11, 0xffffffff, 7,
                                 0x9d2c5680, 15, 0xefc60000, 18, 1812433253>;

constexpr std::size_t kPosters = 8;
constexpr std::size_t kRoundsAtOnce = 50;

std::uint64_t FromEnvironment(const char* name, std::uint64_t standard) {
  const char* const text = std::getenv(name);
  return text == nullptr ? standard : std::strtoull(text, nullptr, 10);
}

// One event of a round: which poster, and the how-manieth of it.
struct EventId {
  std::size_t poster;
  std::size_t number;
  bool operator<(const EventId& other) const {
    return std::pair(poster, number) < std::pair(other.poster, other.number);
  }
};

std::string ToPayload(const EventId& id) {
  return std::to_string(id.poster) + ":" + std::to_string(id.number);
}

EventId FromPayload(const std::string& payload) {
  EventId id{};
  const char* const end = payload.data() + payload.size();
  const auto poster = std::from_chars(payload.data(), end, id.poster);
  std::from_chars(poster.ptr + 1, end, id.number);
  return id;
}

// Answers mostly 0, now and then an error, seldom backpressure, which costs the stage half a
// minute.
class RandomDestination : public ACE_Task<ACE_MT_SYNCH> {
 public:
  explicit RandomDestination(std::uint32_t seed) : m_random(seed) {}

  int put(ACE_Message_Block* block, ACE_Time_Value*) override {
    const WindowsAgentCommon::MessageBlockPtr event(block);
    const std::uint32_t roll = m_random() % 4000;
    if (roll == 0) {
      return kBackpressure;
    }
    const std::lock_guard guard(m_lock);
    m_taken.push_back(FromPayload(TestSupport::PayloadOf(block)));
    return roll < 100 ? -1 : 0;
  }

  // Everything that the stage is rid of: delivered, or dropped for an error.
  std::vector<EventId> Taken() const {
    const std::lock_guard guard(m_lock);
    return m_taken;
  }

 private:
  Random m_random;  // sending thread only
  mutable std::mutex m_lock;
  std::vector<EventId> m_taken;
};

class Round {
 public:
  Round(std::size_t number, std::uint32_t seed, const std::filesystem::path& data,
        const StatisticsServer& server)
      : m_name("Round" + std::to_string(number)),
        m_cache(data / "Events" / m_name),
        m_server(server),
        m_random(seed) {
    using Module = ACE_Module<ACE_MT_SYNCH>;
    Module* const module = CreateStoreAndForwardModule();
    m_stage = dynamic_cast<StoreAndForwardStage*>(module->writer());
    m_stage->SetParentStreamName(std::wstring(m_name.begin(), m_name.end()));
    m_destination = new RandomDestination(m_random());
    m_stream.push(
        new Module(ACE_TEXT("Destination"), m_destination, nullptr, nullptr, Module::M_DELETE));
    m_stream.push(module);
  }

  ~Round() { m_stream.close(); }

  void Start() {
    const WindowsAgentCommon::StatisticsInstanceScope scope(m_name);
    std::shared_ptr<OrloStream::StreamStageBaseStatisticsProfile> profile;
    m_stage->CreateStatisticsProfile(profile);
    profile->Initialize();
    WindowsAgentCommon::EnvironmentBlock settings{{"DataChunkPeriod", "5"}};
    if (m_random() % 2 == 0) {
      settings.emplace("Schedule.Enable", "true");
      for (int hour = 0; hour < 24; hour += 2) {
        const std::string digits = (hour < 10 ? "0" : "") + std::to_string(hour);
        settings.emplace("Schedule.Interval", digits + "00-" + digits + "59;7F;UTC");
      }
      settings.emplace("Schedule.Invert", m_random() % 2 == 0 ? "true" : "false");
    }
    m_stage->Initialize(settings);
    for (std::size_t poster = 0; poster < kPosters; ++poster) {
      m_posters.emplace_back([this, poster, seed = m_random()] { Post(poster, seed); });
    }
    // Every other round is stopped while the posters are still at it.
    m_stopDuringPosts = m_random() % 2 == 0;
    m_life = milliseconds(m_random() % 13000);
  }

  milliseconds Life() const { return m_life; }

  void Stop() {
    if (m_stopDuringPosts) {
      m_stage->Stop();
      JoinPosters();
    } else {
      JoinPosters();
      m_stage->Stop();
    }
  }

  // Checks the round's sum and gives what is held, in events.
  std::int64_t Check() {
    const std::vector<EventId> taken = m_destination->Taken();
    const std::vector<EventId> cached = ReadCache();
    std::set<EventId> seen;
    std::vector<std::size_t> next(kPosters, 0);
    for (const EventId& id : taken) {
      EXPECT_TRUE(seen.insert(id).second) << m_name << " has twice " << ToPayload(id);
      EXPECT_GE(id.number, next[id.poster]) << m_name << " out of order: " << ToPayload(id);
      next[id.poster] = id.number + 1;
    }
    // Behind all that was taken. Among themselves the files have the order of a clock that steps.
    for (const EventId& id : cached) {
      EXPECT_TRUE(seen.insert(id).second) << m_name << " has twice " << ToPayload(id);
      EXPECT_GE(id.number, next[id.poster]) << m_name << " out of order: " << ToPayload(id);
    }
    EXPECT_EQ(Statistic("TotalEventsPosted"), m_posted.load()) << m_name;
    EXPECT_EQ(Statistic("EventsOutgoing"), static_cast<std::int64_t>(taken.size())) << m_name;
    const std::int64_t held = m_posted - Statistic("TotalEventsFailedToQueue") -
                              Statistic("MessagesLost") - Statistic("EventsOutgoing") -
                              static_cast<std::int64_t>(cached.size());
    EXPECT_GE(held, 0) << m_name;
    return held;
  }

  std::int64_t Statistic(const std::string& name) const {
    for (const auto& group : m_server.GetSnapshot()) {
      if (group.instance == m_name && group.Find(name) != nullptr) {
        return group.GetInteger(name);
      }
    }
    ADD_FAILURE() << "no statistic " << name << " of " << m_name;
    return 0;
  }

 private:
  void Post(std::size_t poster, std::uint32_t seed) {
    Random random(seed);
    // Small enough for the queue to take them all when nobody empties it any more.
    for (std::size_t number = 0; number < 500 && !m_enough; ++number) {
      m_stage->put(TestSupport::MakeEvent("head", ToPayload({poster, number})));
      ++m_posted;
      if (random() % 8 == 0) {
        std::this_thread::sleep_for(milliseconds(random() % 100));
      }
    }
  }

  void JoinPosters() {
    m_enough = true;
    for (std::thread& poster : m_posters) {
      poster.join();
    }
  }

  // What the chunk files hold.
  std::vector<EventId> ReadCache() const {
    std::set<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_cache)) {
      if (entry.is_regular_file()) {
        files.insert(entry.path());
      }
    }
    std::vector<EventId> ids;
    for (const auto& path : files) {
      std::ifstream file(path, std::ios::binary);
      const std::string bytes(std::istreambuf_iterator<char>(file), {});
      std::vector<ACE_Message_Block*> events;
      EXPECT_TRUE(
          ReadChunk(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), events));
      for (const std::string& payload : TestSupport::PayloadsOf(events)) {
        ids.push_back(FromPayload(payload));
      }
      TestSupport::ReleaseAll(events);
    }
    return ids;
  }

  const std::string m_name;
  const std::filesystem::path m_cache;
  const StatisticsServer& m_server;
  Random m_random;
  ACE_Stream<ACE_MT_SYNCH> m_stream;
  StoreAndForwardStage* m_stage = nullptr;
  RandomDestination* m_destination = nullptr;
  std::vector<std::thread> m_posters;
  std::atomic<std::int64_t> m_posted{0};
  std::atomic<bool> m_enough{false};
  bool m_stopDuringPosts = false;
  milliseconds m_life{0};
};

// Moves the clock between this hour and the next, so that the schedules open and close.
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

TEST(Stress, EveryEventOfEveryRoundIsAccountedForOnceAndInOrder) {
  const std::uint64_t rounds = FromEnvironment("ORLO_STRESS_ROUNDS", 100);
  const std::uint64_t seed = FromEnvironment("ORLO_STRESS_SEED", std::random_device()());
  std::cout << "ORLO_STRESS_SEED=" << seed << " ORLO_STRESS_ROUNDS=" << rounds << "\n";
  Random random(static_cast<std::uint32_t>(seed));
  const TestSupport::LogCapture log;

  std::int64_t posted = 0;
  std::int64_t heldInAll = 0;
  for (std::uint64_t done = 0; done < rounds; done += kRoundsAtOnce) {
    const TestSupport::TemporaryDirectory directory;
    const TestSupport::CountingAllocators allocators;
    const auto disk = std::make_shared<TestSupport::TestDiskManager>(directory.WidePath());
    Random refusals(random());
    disk->SetAnswer([&refusals, lock = std::make_shared<std::mutex>()](std::uint64_t) {
      const std::lock_guard guard(*lock);
      return refusals() % 10 != 0;
    });
    const auto server = std::make_shared<StatisticsServer>();
    const WindowsAgentCommon::ServiceRegistration diskRegistration(
        WindowsAgentCommon::IDiskManager::GetServiceName(), disk);
    const WindowsAgentCommon::ServiceRegistration serverRegistration(
        WindowsAgentCommon::IStatisticsServer::GetServiceName(), server);

    std::vector<std::unique_ptr<Round>> batch;
    {
      const FlappingClock clock;
      for (std::size_t i = 0; i < kRoundsAtOnce && done + i < rounds; ++i) {
        batch.push_back(std::make_unique<Round>(i, random(), directory.Path(), *server));
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
    std::int64_t held = 0;
    for (const auto& round : batch) {
      held += round->Check();
      posted += round->Statistic("TotalEventsPosted");
    }
    // What is held is what still lives: no block was released twice, none too few times.
    EXPECT_EQ(allocators.BlocksAlive(), static_cast<std::size_t>(2 * held));
    heldInAll += held;
    batch.clear();
  }
  std::cout << posted << " events posted, " << heldInAll << " held at the stops\n";
}

}  // namespace
}  // namespace OrloStoreAndForward
