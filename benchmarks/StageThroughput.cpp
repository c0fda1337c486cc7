// What the complete stage costs per event, set against the least that any queue between two threads
// costs.
//
// The yardstick is one bare ACE message queue with the stage's water marks: one thread makes events
// (a head and a payload block) and enqueues them, another dequeues and releases them. The stage
// gets the same events through Stream::Post and hands them to a destination that releases them. So
// both sides pay for making and releasing an event; what the stage adds is its queue, its chunk,
// its pending queue, its references and its statistics.
//
// The stage delivers once per chunking period, which is five seconds at least: events per second
// over the whole time would say how long the period is and nothing about the work. So each batch is
// posted right after a period has begun, waits in the stage as one chunk, and is delivered in one
// go; the two bursts of work are timed, and the wait between them is left out:
//
//   posting    first post to the return of the last. The stage's receiving thread works at the same
//              time, and the poster is held up whenever the queue is above its high-water mark
//   delivery   first event's arrival at the destination to the last one's
//   both       the sum: what the stage needs per event when it does nothing else
//
// Processor time is that of all threads, the wait included, in which next to nothing is used. A
// batch that straddles the end of a period is measured again. Each figure is the median of the
// rounds. The ratio is the hop's time per event divided by the line's: 1.00 would be as fast as the
// bare queue. The last lines are those of four threads that post at once.

#include <ace/Message_Queue.h>
#include <ace/Synch.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "WindowsAgentCommon/Logging.h"
#include "benchmarks/Events.h"
#include "benchmarks/StageRun.h"

namespace Benchmark {

namespace {

using Clock = std::chrono::steady_clock;

// Posters of the last lines.
constexpr unsigned kCrowd = 4;

struct Options {
  std::size_t events = 100'000;
  std::size_t payloadSize = 200;
  unsigned rounds = 5;
};

struct HopTimes {
  std::chrono::duration<double> wall{};
  std::chrono::duration<double> processor{};
};

HopTimes MeasureQueueHop(const Options& options) {
  constexpr std::size_t kHighWaterMark = 1'000'000;
  constexpr std::size_t kLowWaterMark = 975'000;
  ACE_Message_Queue<ACE_MT_SYNCH> queue(kHighWaterMark, kLowWaterMark);

  const auto processorStart = GetProcessorTime();
  const auto start = Clock::now();
  std::thread consumer([&queue, &options] {
    for (std::size_t taken = 0; taken < options.events; ++taken) {
      ACE_Message_Block* event = nullptr;
      queue.dequeue_head(event);
      event->release();
    }
  });
  for (std::size_t number = 0; number < options.events; ++number) {
    queue.enqueue_tail(MakeEvent(number, options.payloadSize).release());
  }
  consumer.join();
  return {Clock::now() - start, GetProcessorTime() - processorStart};
}

struct Round {
  HopTimes hop;
  StageTimes stage;
  StageTimes crowd;  // with several posters
};

StageTimes MeasureStage(StageRun& run, const Options& options, unsigned posters) {
  constexpr int kAttempts = 3;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    run.WaitForPeriod();
    const StageTimes stage = run.Post(options.events, options.payloadSize, posters);
    if (!stage.cut) {
      return stage;
    }
  }
  throw std::runtime_error("a batch takes longer than a chunking period; give fewer --events");
}

Round Measure(StageRun& run, const Options& options) {
  const HopTimes hop = MeasureQueueHop(options);
  const StageTimes stage = MeasureStage(run, options, 1);
  return {hop, stage, MeasureStage(run, options, kCrowd)};
}

double Median(const std::vector<Round>& rounds,
              const std::function<double(const Round&)>& seconds) {
  std::vector<double> values;
  values.reserve(rounds.size());
  for (const Round& round : rounds) {
    values.push_back(seconds(round));
  }
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

void PrintLine(const char* name, double seconds, double hopSeconds, const Options& options) {
  const auto events = static_cast<double>(options.events);
  std::printf("| %s | %.0f | %.0f | %.2f |\n", name, events / seconds / 1e3, seconds / events * 1e9,
              hopSeconds / seconds);
}

void PrintHead(const char* what) {
  std::printf("| %s | thousand events/s | ns/event | ratio |\n|---|---|---|---|\n", what);
}

void Print(const std::vector<Round>& rounds, const Options& options) {
  const double hop = Median(rounds, [](const Round& round) { return round.hop.wall.count(); });
  const auto wall = [&](const char* name, StageTimes Round::*times) {
    const auto print = [&](const char* what, auto seconds) {
      PrintLine((std::string(name) + what).c_str(),
                Median(rounds, [&](const Round& round) { return seconds(round.*times).count(); }),
                hop, options);
    };
    print(", posting", [](const StageTimes& stage) { return stage.posting; });
    print(", delivery", [](const StageTimes& stage) { return stage.delivery; });
    print(", both", [](const StageTimes& stage) { return stage.posting + stage.delivery; });
  };
  PrintHead("wall time");
  PrintLine("bare queue hop", hop, hop, options);
  wall("stage, one poster", &Round::stage);
  wall("stage, four posters", &Round::crowd);

  const double hopProcessor =
      Median(rounds, [](const Round& round) { return round.hop.processor.count(); });
  const auto processor = [&](const char* name, StageTimes Round::*times) {
    PrintLine(name,
              Median(rounds, [&](const Round& round) { return (round.*times).processor.count(); }),
              hopProcessor, options);
  };
  std::printf("\n");
  PrintHead("processor time of all threads");
  PrintLine("bare queue hop", hopProcessor, hopProcessor, options);
  processor("stage, one poster", &Round::stage);
  processor("stage, four posters", &Round::crowd);
}

}  // namespace

int Run(int argc, char** argv) {
  Options options;
  CLI::App app("Measures the store-and-forward stage against a bare queue hop");
  app.add_option("--events", options.events, "events per batch")
      ->capture_default_str()
      ->check(CLI::Range(1, 1'000'000));
  app.add_option("--payload", options.payloadSize, "bytes of each event's payload")
      ->capture_default_str()
      ->check(CLI::Range(1, 65'536));
  app.add_option("--rounds", options.rounds, "batches, of which the medians are printed")
      ->capture_default_str()
      ->check(CLI::Range(1, 1'000));
  CLI11_PARSE(app, argc, argv);

  WindowsAgentCommon::LoggingOptions logging;
  logging.level = WindowsAgentCommon::LogLevel::Warn;
  WindowsAgentCommon::LoggerFactory::Configure(logging);

  std::printf("%zu events of %zu + %zu bytes, median of %u rounds\n\n", options.events, kHeadSize,
              options.payloadSize, options.rounds);
  StageRun run;
  std::vector<Round> rounds;
  for (unsigned number = 0; number < options.rounds; ++number) {
    rounds.push_back(Measure(run, options));
  }
  Print(rounds, options);
  return 0;
}

}  // namespace Benchmark

int main(int argc, char** argv) {
  try {
    return Benchmark::Run(argc, argv);
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "StageThroughput: %s\n", exception.what());
    return 1;
  }
}
