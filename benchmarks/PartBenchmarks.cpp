// What single operations on an event's way cost. Run with --help for Google Benchmark's options.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <new>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "Platform/Windows.h"
#include "StoreAndForward/EventCache.h"
#include "StoreAndForward/Schedule.h"
#include "StoreAndForward/StoreAndForwardStatisticsProfile.h"
#include "WindowsAgentCommon/DiskManager.h"
#include "WindowsAgentCommon/MessageBlocks.h"
#include "WindowsAgentCommon/Statistics.h"
#include "WindowsAgentCommon/Text.h"
#include "benchmarks/Events.h"
#include "benchmarks/ScratchDirectory.h"

namespace Benchmark {

namespace {

using OrloStoreAndForward::EventCache;
using OrloStoreAndForward::Schedule;

constexpr std::size_t kPayloadSize = 200;

// Both blocks of an event.
void MakeAndReleaseEvent(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(MakeEvent(1, kPayloadSize));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(MakeAndReleaseEvent);

// A further reference, as the stage takes at its entrance and at its exit.
void DuplicateAndReleaseEvent(benchmark::State& state) {
  const auto event = MakeEvent(1, kPayloadSize);
  for (auto _ : state) {
    event->duplicate()->release();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(DuplicateAndReleaseEvent);

// The look-up by which an update is measured: a statistic's name among those of its profile.
void LookUpStatisticInMap(benchmark::State& state) {
  static const std::map<std::string, std::int64_t> declared{
      {"EventsIncoming", 7}, {"EventsOutgoing", 7}, {"NumberOfRequeues", 7}};
  static const std::string name = "EventsOutgoing";
  for (auto _ : state) {
    benchmark::DoNotOptimize(declared.find(name));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(LookUpStatisticInMap);

// A counter as the Outgoing thread counts with every event; each thread with a profile of its own.
void CountEvent(benchmark::State& state) {
  static const WindowsAgentCommon::ServiceRegistration registration(
      WindowsAgentCommon::IStatisticsServer::GetServiceName(),
      std::make_shared<WindowsAgentCommon::StatisticsServer>());
  OrloStoreAndForward::StoreAndForwardOutgoingStatisticsProfile profile;
  profile.Initialize();
  for (auto _ : state) {
    profile.UpdateEventsOutgoing(1, false);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(CountEvent)->Threads(1)->Threads(8);

// One profile for all threads, as when several sources post to one stage.
void CountEventTogether(benchmark::State& state) {
  static const WindowsAgentCommon::ServiceRegistration registration(
      WindowsAgentCommon::IStatisticsServer::GetServiceName(),
      std::make_shared<WindowsAgentCommon::StatisticsServer>());
  static OrloStoreAndForward::StoreAndForwardStatisticsProfile& profile = [&]() -> auto& {
    auto* const made = new OrloStoreAndForward::StoreAndForwardStatisticsProfile;
    made->Initialize();
    return *made;
  }
  ();
  for (auto _ : state) {
    profile.UpdateTotalEventsPosted(1, false);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(CountEventTogether)->Threads(1)->Threads(8);

// With several threads: groups of their own, as the profiles of different streams have.
void UpdateStatistic(benchmark::State& state) {
  static WindowsAgentCommon::StatisticsServer server;
  std::shared_ptr<WindowsAgentCommon::IStatisticsGroup> group;
  server.CreateGroup("Benchmark", "Benchmark", group);
  group->DeclareStatistic("Counter", "", {7, std::int64_t{0}});
  group->Publish();
  std::int64_t value = 0;
  for (auto _ : state) {
    group->UpdateStatistic("Counter", {7, ++value}, false);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(UpdateStatistic)->Threads(1)->Threads(2);

// A cache on a directory of its own.
class CacheBench {
 public:
  CacheBench()
      : m_registration(WindowsAgentCommon::IDiskManager::GetServiceName(),
                       std::make_shared<WindowsAgentCommon::DiskManager>(
                           WindowsAgentCommon::DiskManagerOptions{m_scratch.WidePath(), 0, 0})) {
    if (OrloStoreAndForward::CreateEventCache(L"Benchmark", m_cache) != 0) {
      throw std::runtime_error("the cache directory can't be made");
    }
  }

  EventCache& Cache() { return *m_cache; }
  const ScratchDirectory& Scratch() const { return m_scratch; }

 private:
  ScratchDirectory m_scratch;
  WindowsAgentCommon::ServiceRegistration m_registration;
  std::shared_ptr<EventCache> m_cache;
};

std::vector<ACE_Message_Block*> MakeChunk(std::size_t events, std::size_t payloadSize) {
  std::vector<ACE_Message_Block*> chunk;
  for (std::size_t number = 0; number < events; ++number) {
    chunk.push_back(MakeEvent(number, payloadSize).release());
  }
  return chunk;
}

void ReleaseChunk(std::vector<ACE_Message_Block*>& chunk) {
  for (ACE_Message_Block* event : chunk) {
    event->release();
  }
  chunk.clear();
}

// About ten megabytes.
std::size_t EventsOf(const benchmark::State& state) {
  return 10'000'000 / static_cast<std::size_t>(state.range(0));
}

// A benchmark that does not do its work would look fast.
void Require(bool holds, const char* otherwise) {
  if (!holds) {
    throw std::runtime_error(otherwise);
  }
}

using ManualTimer = std::chrono::steady_clock;

void SetTime(benchmark::State& state, ManualTimer::time_point start) {
  state.SetIterationTime(std::chrono::duration<double>(ManualTimer::now() - start).count());
}

void PushChunk(benchmark::State& state) {
  CacheBench bench;
  for (auto _ : state) {
    auto chunk = MakeChunk(EventsOf(state), static_cast<std::size_t>(state.range(0)));
    const auto start = ManualTimer::now();
    const bool pushed = bench.Cache().Push(chunk);
    SetTime(state, start);
    Require(pushed, "the chunk can't be pushed");
    bench.Cache().Pop();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(EventsOf(state)));
}
BENCHMARK(PushChunk)->Arg(200)->Arg(2000)->UseManualTime()->Unit(benchmark::kMillisecond);

void FrontOfCache(benchmark::State& state) {
  CacheBench bench;
  auto chunk = MakeChunk(EventsOf(state), static_cast<std::size_t>(state.range(0)));
  Require(bench.Cache().Push(chunk), "the chunk can't be pushed");
  for (auto _ : state) {
    const auto start = ManualTimer::now();
    const bool read = bench.Cache().Front(chunk);
    SetTime(state, start);
    Require(read && chunk.size() == EventsOf(state), "the chunk can't be read");
    ReleaseChunk(chunk);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(EventsOf(state)));
}
BENCHMARK(FrontOfCache)->Arg(200)->Arg(2000)->UseManualTime()->Unit(benchmark::kMillisecond);

// What Push and Front are measured by: one file of a chunk's bytes, written and read at once.
class PlainFile {
 public:
  explicit PlainFile(std::size_t size)
      : m_path((m_scratch.Path() / "file").string()), m_buffer(size) {}

  char* Buffer() { return m_buffer.data(); }

  void Write() {
    std::FILE* const file = Open("wb");
    Require(std::fwrite(m_buffer.data(), m_buffer.size(), 1, file) == 1,
            "the file can't be written");
    std::fclose(file);
  }

  void Read() {
    std::FILE* const file = Open("rb");
    Require(std::fread(m_buffer.data(), m_buffer.size(), 1, file) == 1, "the file can't be read");
    std::fclose(file);
  }

  void Remove() { std::filesystem::remove(m_path); }

 private:
  std::FILE* Open(const char* mode) {
    std::FILE* const file = std::fopen(m_path.c_str(), mode);
    Require(file != nullptr, "the file can't be opened");
    std::setvbuf(file, nullptr, _IONBF, 0);
    return file;
  }

  ScratchDirectory m_scratch;
  std::string m_path;
  std::vector<char> m_buffer;
};

std::size_t BytesOf(const benchmark::State& state) {
  return EventsOf(state) * (kHeadSize + static_cast<std::size_t>(state.range(0)));
}

// The events of a chunk as pieces of memory, in the order in which a chunk file has them. The chunk
// is as new as the one that Push gets, and as the memory that Front fills.
class Pieces {
 public:
  explicit Pieces(const benchmark::State& state)
      : m_chunk(MakeChunk(EventsOf(state), static_cast<std::size_t>(state.range(0)))) {
    for (const ACE_Message_Block* event : m_chunk) {
      for (const ACE_Message_Block* block = event; block != nullptr; block = block->cont()) {
        m_pieces.emplace_back(block->base(), block->length());
      }
    }
  }
  ~Pieces() { ReleaseChunk(m_chunk); }
  Pieces(const Pieces&) = delete;
  Pieces& operator=(const Pieces&) = delete;

  void CopyTo(char* at) const {
    for (const std::span<char> piece : m_pieces) {
      std::memcpy(at, piece.data(), piece.size());
      at += piece.size();
    }
  }

  void FillFrom(const char* at) const {
    for (const std::span<char> piece : m_pieces) {
      std::memcpy(piece.data(), at, piece.size());
      at += piece.size();
    }
  }

 private:
  std::vector<ACE_Message_Block*> m_chunk;
  std::vector<std::span<char>> m_pieces;
};

// The events' bytes copied one event after the other, and one write.
void CopyAndWrite(benchmark::State& state) {
  PlainFile file(BytesOf(state));
  for (auto _ : state) {
    const Pieces pieces(state);
    const auto start = ManualTimer::now();
    pieces.CopyTo(file.Buffer());
    file.Write();
    SetTime(state, start);
    file.Remove();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(EventsOf(state)));
}
BENCHMARK(CopyAndWrite)->Arg(200)->Arg(2000)->UseManualTime()->Unit(benchmark::kMillisecond);

// One read, and the bytes copied into memory that is there already.
void ReadAndCopy(benchmark::State& state) {
  PlainFile file(BytesOf(state));
  file.Write();
  for (auto _ : state) {
    const Pieces pieces(state);
    const auto start = ManualTimer::now();
    file.Read();
    pieces.FillFrom(file.Buffer());
    SetTime(state, start);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(EventsOf(state)));
}
BENCHMARK(ReadAndCopy)->Arg(200)->Arg(2000)->UseManualTime()->Unit(benchmark::kMillisecond);

// The least that gives events: one read, and the bytes copied into two new blocks for each event.
void ReadAndMakeBlocks(benchmark::State& state) {
  PlainFile file(BytesOf(state));
  file.Write();
  std::vector<ACE_Message_Block*> chunk;
  chunk.reserve(EventsOf(state));
  const auto makeBlock = [](std::size_t size, const char* bytes) {
    ACE_Message_Block* block = nullptr;
    if (WindowsAgentCommon::CreateDataMessageBlock(size, block) != 0) {
      throw std::bad_alloc();
    }
    block->copy(bytes, size);
    return block;
  };
  for (auto _ : state) {
    const auto start = ManualTimer::now();
    file.Read();
    const char* at = file.Buffer();
    for (std::size_t number = 0; number < EventsOf(state); ++number) {
      const auto payloadSize = static_cast<std::size_t>(state.range(0));
      ACE_Message_Block* const event = makeBlock(kHeadSize, at);
      event->cont(makeBlock(payloadSize, at + kHeadSize));
      chunk.push_back(event);
      at += kHeadSize + payloadSize;
    }
    SetTime(state, start);
    ReleaseChunk(chunk);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(EventsOf(state)));
}
BENCHMARK(ReadAndMakeBlocks)->Arg(200)->Arg(2000)->UseManualTime()->Unit(benchmark::kMillisecond);

// So many chunk files of one page, as an earlier run leaves them: sixty to a minute directory.
void LeaveChunks(const std::filesystem::path& directory, std::int64_t count) {
  const std::string page(4096, '\0');
  for (std::int64_t number = 0; number < count; ++number) {
    const std::int64_t minute = number / 60;
    const auto folder = directory / WindowsAgentCommon::Format(
                                        "2016-%02d-%02d-%02d-%02d", minute / 40320 + 1,
                                        minute / 1440 % 28 + 1, minute / 60 % 24, minute % 60);
    if (number % 60 == 0) {
      std::filesystem::create_directories(folder);
    }
    std::ofstream chunk(folder / WindowsAgentCommon::Format("%02d", number % 60));
    Require((chunk << page).flush().good(), "a chunk file can't be written");
  }
}

// Per chunk: finding it at start, asking whether there is any, and removing it.
void ScanEmptyAndPop(benchmark::State& state) {
  CacheBench bench;
  const auto directory = bench.Scratch().Path() / "Events" / "Benchmark";
  const auto chunks = static_cast<std::uint64_t>(state.range(0));
  double scan = 0;
  double empty = 0;
  double pop = 0;
  const auto since = [](ManualTimer::time_point start) {
    return std::chrono::duration<double>(ManualTimer::now() - start).count();
  };
  for (auto _ : state) {
    LeaveChunks(directory, state.range(0));
    std::shared_ptr<EventCache> cache;
    auto start = ManualTimer::now();
    OrloStoreAndForward::CreateEventCache(L"Benchmark", cache);
    const double scanned = since(start);
    scan += scanned;
    start = ManualTimer::now();
    for (std::uint64_t asked = 0; asked < chunks; ++asked) {
      benchmark::DoNotOptimize(cache->Empty());
    }
    empty += since(start);
    start = ManualTimer::now();
    std::uint64_t popped = 0;
    for (; !cache->Empty(); ++popped) {
      cache->Pop();
    }
    pop += since(start);
    Require(popped == chunks, "the scan has not found all chunks");
    state.SetIterationTime(scanned);
  }
  const double perChunk =
      1e9 / static_cast<double>(chunks) / static_cast<double>(state.iterations());
  state.counters["scan_ns"] = scan * perChunk;
  state.counters["empty_ns"] = empty * perChunk;
  state.counters["pop_ns"] = pop * perChunk;
}
BENCHMARK(ScanEmptyAndPop)
    ->RangeMultiplier(10)
    ->Range(10, 100'000)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(1)  // to leave so many files takes far longer than to find them
    ->Unit(benchmark::kMillisecond);

// What a schedule's answer is measured by.
void ReadClock(benchmark::State& state) {
  for (auto _ : state) {
    SYSTEMTIME now{};
    GetSystemTime(&now);
    benchmark::DoNotOptimize(now);
  }
}
BENCHMARK(ReadClock);

Schedule MakeSchedule() {
  Schedule::Interval interval{};
  TIME_ZONE_INFORMATION zone{};
  if (!Schedule::ParseInterval("0800-1700;3E;Europe/Berlin", interval, &zone)) {
    throw std::runtime_error("the time zone is not known");
  }
  return Schedule({interval}, zone, false);
}

void ReadSystemClock(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(std::chrono::system_clock::now());
  }
}
BENCHMARK(ReadSystemClock);

void AskScheduleAgain(benchmark::State& state) {
  Schedule schedule = MakeSchedule();
  for (auto _ : state) {
    benchmark::DoNotOptimize(schedule.IsSendingAllowed());
  }
}
BENCHMARK(AskScheduleAgain);

// With a clock that moves on by the evaluation period at every call, so that none is answered from
// the last evaluation.
void EvaluateSchedule(benchmark::State& state) {
  Schedule schedule = MakeSchedule();
  SYSTEMTIME now{};
  GetSystemTime(&now);
  bool later = false;
  for (auto _ : state) {
    later = !later;
    now.wMinute = later ? 30 : 0;
    benchmark::DoNotOptimize(schedule.IsSendingAllowed(now));
  }
}
BENCHMARK(EvaluateSchedule);

}  // namespace

}  // namespace Benchmark
