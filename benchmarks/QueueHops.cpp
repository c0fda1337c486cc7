#include "benchmarks/QueueHops.h"

#include <ace/Message_Queue.h>
#include <ace/Synch.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "WindowsAgentCommon/EventQueue.h"
#include "benchmarks/Events.h"
#include "benchmarks/StageRun.h"

namespace Benchmark {

namespace {

using Clock = std::chrono::steady_clock;
using Queue = ACE_Message_Queue<ACE_MT_SYNCH>;

constexpr std::size_t kHighWaterMark = 1'000'000;
constexpr std::size_t kLowWaterMark = 975'000;

ACE_Message_Block* Take(Queue& queue) {
  ACE_Message_Block* event = nullptr;
  queue.dequeue_head(event);
  return event;
}

// Runs both threads to their ends; `produce` on this one.
template <typename Produce, typename Consume>
HopTimes Measure(Queue& queue, const Produce& produce, const Consume& consume) {
  queue.high_water_mark(kHighWaterMark);
  queue.low_water_mark(kLowWaterMark);
  const auto processorStart = GetProcessorTime();
  const auto start = Clock::now();
  std::thread consumer(consume);
  produce();
  consumer.join();
  return {Clock::now() - start, GetProcessorTime() - processorStart};
}

template <typename Make>
HopTimes MeasureHop(std::size_t events, const Make& make) {
  Queue queue;
  return Measure(
      queue,
      [&] {
        for (std::size_t number = 0; number < events; ++number) {
          queue.enqueue_tail(make(number));
        }
      },
      [&] {
        for (std::size_t taken = 0; taken < events; ++taken) {
          Take(queue)->release();
        }
      });
}

std::unique_ptr<ACE_Message_Block> MakeHeapBlock(std::size_t size) {
  auto block = std::make_unique<ACE_Message_Block>(size);
  std::memset(block->wr_ptr(), 'x', size);
  block->wr_ptr(size);
  return block;
}

ACE_Message_Block* MakeHeapEvent(std::uint64_t number, std::size_t payloadSize) {
  auto event = MakeHeapBlock(kHeadSize);
  std::memcpy(event->rd_ptr(), &number, sizeof number);
  event->cont(MakeHeapBlock(payloadSize).release());
  return event.release();
}

}  // namespace

HopTimes MeasureHeapHop(std::size_t events, std::size_t payloadSize) {
  return MeasureHop(events,
                    [=](std::uint64_t number) { return MakeHeapEvent(number, payloadSize); });
}

HopTimes MeasureBareHop(std::size_t events, std::size_t payloadSize) {
  return MeasureHop(events,
                    [=](std::uint64_t number) { return MakeEvent(number, payloadSize).release(); });
}

HopTimes MeasureHoldingHop(std::size_t events, std::size_t payloadSize) {
  WindowsAgentCommon::EventQueue queue;
  return Measure(
      queue,
      [&] {
        for (std::size_t number = 0; number < events; ++number) {
          queue.enqueue_tail(MakeEvent(number, payloadSize)->duplicate());
        }
      },
      [&] {
        std::vector<ACE_Message_Block*> held;
        while (held.size() < events) {
          held.push_back(Take(queue));
        }
        for (ACE_Message_Block* event : held) {
          event->duplicate()->release();
          event->release();
        }
      });
}

}  // namespace Benchmark
