// What the complete stage costs per event, set against the least that any queue between two threads
// costs.
//
// The yardsticks are three hops between two threads (QueueHops.h): a bare ACE queue with the
// agent's events, the same with events of the heap, and a hop that does the least of what any stage
// does that keeps its events for a while. The stage gets the events through Stream::Post and hands
// them to a destination that releases them. So all pay for making and releasing an event; what the
// stage adds is its queue, its chunk, its pending queue, its references and its statistics.
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
// rounds. A ratio is the yardstick's time per event divided by the line's: 1.00 would be as fast.
// The last lines are those of four threads that post at once.

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "WindowsAgentCommon/Logging.h"
#include "benchmarks/Events.h"
#include "benchmarks/QueueHops.h"
#include "benchmarks/StageRun.h"

namespace Benchmark {

namespace {

// Posters of the last lines.
constexpr unsigned kCrowd = 4;

struct Options {
  std::size_t events = 100'000;
  std::size_t payloadSize = 200;
  unsigned rounds = 9;
};

struct Round {
  HopTimes bareHop;
  HopTimes heapHop;
  HopTimes holdingHop;
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
  Round round;
  round.bareHop = MeasureBareHop(options.events, options.payloadSize);
  round.heapHop = MeasureHeapHop(options.events, options.payloadSize);
  round.holdingHop = MeasureHoldingHop(options.events, options.payloadSize);
  round.stage = MeasureStage(run, options, 1);
  round.crowd = MeasureStage(run, options, kCrowd);
  return round;
}

struct Spread {
  double median;
  double least;
  double most;
};

Spread GetSpread(const std::vector<Round>& rounds,
                 const std::function<double(const Round&)>& seconds) {
  std::vector<double> values;
  values.reserve(rounds.size());
  for (const Round& round : rounds) {
    values.push_back(seconds(round));
  }
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  const double median =
      values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
  return {median, values.front(), values.back()};
}

// The yardsticks of a table, in seconds for all events.
struct Yardsticks {
  Spread bare;
  Spread heap;
  Spread holding;
};

void PrintHead(const char* what) {
  std::printf(
      "| %s | thousand events/s | ns/event | by the bare hop | by the heap's | by the holding one "
      "|\n"
      "|---|---|---|---|---|---|\n",
      what);
}

void PrintLine(const char* name, const Spread& seconds, const Yardsticks& hops,
               const Options& options) {
  const auto events = static_cast<double>(options.events);
  const auto perEvent = [&](double all) { return all / events * 1e9; };
  std::printf("| %s | %.0f | %.0f (%.0f to %.0f) | %.2f | %.2f | %.2f |\n", name,
              events / seconds.median / 1e3, perEvent(seconds.median), perEvent(seconds.least),
              perEvent(seconds.most), hops.bare.median / seconds.median,
              hops.heap.median / seconds.median, hops.holding.median / seconds.median);
}

Yardsticks PrintHops(const std::vector<Round>& rounds, const Options& options,
                     std::chrono::duration<double> HopTimes::*time) {
  const auto spread = [&](HopTimes Round::*hop) {
    return GetSpread(rounds, [&](const Round& round) { return (round.*hop.*time).count(); });
  };
  const Yardsticks hops{spread(&Round::bareHop), spread(&Round::heapHop),
                        spread(&Round::holdingHop)};
  PrintLine("bare queue hop", hops.bare, hops, options);
  PrintLine("bare queue hop, events of the heap", hops.heap, hops, options);
  PrintLine("hop that holds its events", hops.holding, hops, options);
  return hops;
}

void PrintWall(const std::vector<Round>& rounds, const Options& options) {
  PrintHead("wall time");
  const Yardsticks hops = PrintHops(rounds, options, &HopTimes::wall);
  const auto print = [&](const char* name, StageTimes Round::*times) {
    const auto line = [&](const char* what, auto seconds) {
      PrintLine(
          (std::string(name) + what).c_str(),
          GetSpread(rounds, [&](const Round& round) { return seconds(round.*times).count(); }),
          hops, options);
    };
    line(", posting", [](const StageTimes& stage) { return stage.posting; });
    line(", delivery", [](const StageTimes& stage) { return stage.delivery; });
    line(", both", [](const StageTimes& stage) { return stage.posting + stage.delivery; });
  };
  print("stage, one poster", &Round::stage);
  print("stage, four posters", &Round::crowd);
}

void PrintProcessor(const std::vector<Round>& rounds, const Options& options) {
  PrintHead("processor time of all threads");
  const Yardsticks hops = PrintHops(rounds, options, &HopTimes::processor);
  const auto print = [&](const char* name, StageTimes Round::*times) {
    PrintLine(
        name,
        GetSpread(rounds, [&](const Round& round) { return (round.*times).processor.count(); }),
        hops, options);
  };
  print("stage, one poster", &Round::stage);
  print("stage, four posters", &Round::crowd);
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
  PrintWall(rounds, options);
  std::printf("\n");
  PrintProcessor(rounds, options);
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
