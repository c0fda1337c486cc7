// What single operations on an event's way cost. Run with --help for Google Benchmark's options.

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "Platform/Windows.h"
#include "StoreAndForward/EventCache.h"
#include "StoreAndForward/Schedule.h"
#include "WindowsAgentCommon/DiskManager.h"
#include "WindowsAgentCommon/Statistics.h"
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

// A chunk written to disk, read back and removed; per event. Making the events is not measured.
void ChunkThroughTheCache(benchmark::State& state) {
  const ScratchDirectory scratch;
  const WindowsAgentCommon::ServiceRegistration registration(
      WindowsAgentCommon::IDiskManager::GetServiceName(),
      std::make_shared<WindowsAgentCommon::DiskManager>(
          WindowsAgentCommon::DiskManagerOptions{scratch.WidePath(), 0, 0}));
  std::shared_ptr<EventCache> cache;
  if (OrloStoreAndForward::CreateEventCache(L"Benchmark", cache) != 0) {
    state.SkipWithError("the cache directory can't be made");
    return;
  }
  const auto events = static_cast<std::size_t>(state.range(0));
  std::vector<ACE_Message_Block*> chunk;
  for (std::size_t number = 0; number < events; ++number) {
    chunk.push_back(MakeEvent(number, kPayloadSize).release());
  }
  // What comes back is what was pushed, so each chunk serves for the next round.
  for (auto _ : state) {
    if (!cache->Push(chunk) || !cache->Front(chunk)) {
      state.SkipWithError("the cache refused a chunk");
      break;
    }
    cache->Pop();
  }
  for (ACE_Message_Block* event : chunk) {
    event->release();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ChunkThroughTheCache)->Arg(100)->Arg(10'000)->Unit(benchmark::kMillisecond);

// With a clock that moves on by the evaluation period at every call, so that none is answered from
// the last evaluation.
void EvaluateSchedule(benchmark::State& state) {
  Schedule::Interval interval{};
  TIME_ZONE_INFORMATION zone{};
  if (!Schedule::ParseInterval("0800-1700;3E;Europe/Berlin", interval, &zone)) {
    state.SkipWithError("the time zone is not known");
    return;
  }
  Schedule schedule({interval}, zone, false);
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
