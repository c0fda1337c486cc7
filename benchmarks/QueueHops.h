#pragma once

#include <chrono>
#include <cstddef>

// What the stage is measured by: the same events, made on one thread and released on another, with
// one queue between them that has the stage's water marks.
namespace Benchmark {

struct HopTimes {
  std::chrono::duration<double> wall{};
  std::chrono::duration<double> processor{};
};

// ACE's own queue and ACE's own blocks, a head and a payload, from the heap: what a program has
// that uses nothing of ours.
HopTimes MeasureHeapHop(std::size_t events, std::size_t payloadSize);

// ACE's own queue, and events as the agent makes them.
HopTimes MeasureBareHop(std::size_t events, std::size_t payloadSize);

// The least that a stage can do which keeps its events until a period is over and promises its
// callers what ours does: a reference when an event comes in, because the caller's own is released;
// one block from the queue at a time; all of them in one vector; then a reference for the next
// module and, when that has taken it, the release of the stage's. Without settings, statistics,
// clock, locks and a thread of its own for sending.
HopTimes MeasureHoldingHop(std::size_t events, std::size_t payloadSize);

}  // namespace Benchmark
