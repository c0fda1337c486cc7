#!/usr/bin/env python3
"""Runs StageThroughput and PartBenchmarks and prints what matters of them as ratios of two lines of
one run.

Usage: ratios.py FOLDER OUTPUT [ARGUMENT...]. FOLDER has the programs; OUTPUT is a Markdown file whose
tables between the marks "<!-- stage -->" and "<!-- parts -->" are replaced; the arguments are
StageThroughput's.
"""

import collections
import json
import pathlib
import re
import statistics
import subprocess
import sys

import document


def run(program, *options):
    """Every run, in turns with those of the others, by name."""
    text = subprocess.run([program, "--benchmark_format=json", "--benchmark_repetitions=9",
                           "--benchmark_enable_random_interleaving=true", *options],
                          check=True, stdout=subprocess.PIPE).stdout
    runs = collections.defaultdict(list)
    for figures in json.loads(text)["benchmarks"]:
        if figures["run_type"] != "iteration":
            continue
        if figures.get("error_occurred"):
            raise SystemExit(f"{figures['run_name']}: {figures['error_message']}")
        name = re.sub("/manual_time|/iterations:1|/repeats:1", "", figures["run_name"])
        # Wall time where the benchmark times itself, else processor time, which a busy machine
        # leaves alone.
        figures["time"] = figures["real_time" if "manual_time" in figures["run_name"]
                                  else "cpu_time"]
        runs[name].append(figures)
    return runs


def measure(program):
    """The best of several repetitions: what else the machine does only adds. But what threads that
    count cost each other is seen in long runs, and in the usual one, not in the one in which they
    did not meet: of these the median."""
    runs = run(program, "--benchmark_min_time=0.05", "--benchmark_filter=-Count")
    times = {name: min(each["time"] for each in all_of) for name, all_of in runs.items()}
    counts = run(program, "--benchmark_min_time=0.5", "--benchmark_filter=Count")
    times |= {name: statistics.median(each["time"] for each in all_of)
              for name, all_of in counts.items()}
    return times, {name: all_of[0] for name, all_of in runs.items()}


def rows(times, counters):
    def ratio(what, line, base, goal):
        return (what, f"{times[line] / times[base]:.2f}", goal)

    for size in (200, 2000):
        goal = "at least 0.5" if size == 200 else "at least 0.8"
        yield (f"Push at {size} bytes, speed by that of copying and one write",
               f"{times[f'CopyAndWrite/{size}'] / times[f'PushChunk/{size}']:.2f}", goal)
        yield (f"Front at {size} bytes, speed by that of one read and copying",
               f"{times[f'ReadAndCopy/{size}'] / times[f'FrontOfCache/{size}']:.2f}", goal)
        yield ("the same by that of one read and making two blocks for each event",
               f"{times[f'ReadAndMakeBlocks/{size}'] / times[f'FrontOfCache/{size}']:.2f}", "")
    yield ratio("schedule's answer from its cache, time by that of reading the clock",
                "AskScheduleAgain", "ReadClock", "at most 2")
    yield ratio("the same by that of the C++ library's system clock, without a calendar",
                "AskScheduleAgain", "ReadSystemClock", "")
    yield ratio("counting an event, time by that of a std::map look-up",
                "CountEvent/threads:1", "LookUpStatisticInMap", "at most 2")
    yield ratio("counting a posted event, which several threads may do at once, by a look-up",
                "CountEventTogether/threads:1", "LookUpStatisticInMap", "at most 2")
    yield ratio("counting events from 8 threads with a profile each, by one thread (processor time)",
                "CountEvent/threads:8", "CountEvent/threads:1", "at most 1")
    yield ratio("counting posted events from 8 threads, by one thread (processor time)",
                "CountEventTogether/threads:8", "CountEventTogether/threads:1", "at most 1")
    for chunks in (10, 100, 1000, 10000, 100000):
        counted = counters[f"ScanEmptyAndPop/{chunks}"]
        yield (f"start with {chunks} chunks: scan, Empty, Pop per chunk",
               f"{counted['scan_ns'] / 1000:.1f} µs, {counted['empty_ns']:.1f} ns, "
               f"{counted['pop_ns'] / 1000:.1f} µs",
               "scan below 20 µs")


def main():
    folder, output = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    stage = subprocess.run([folder / "StageThroughput", *sys.argv[3:]], check=True,
                           stdout=subprocess.PIPE, text=True).stdout.strip()
    print(stage + "\n")
    document.replace(output, "stage", stage)
    table = ["| what | measured | goal |", "|---|---|---|"]
    table += [f"| {what} | {value} | {goal} |"
              for what, value, goal in rows(*measure(folder / "PartBenchmarks"))]
    text = "\n".join(table)
    print(text)
    document.replace(output, "parts", text)


if __name__ == "__main__":
    main()
