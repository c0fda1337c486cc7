#!/usr/bin/env python3
"""Runs PartBenchmarks and prints what matters of it as ratios of two lines of one run.

Usage: ratios.py PROGRAM [OUTPUT]. OUTPUT is a Markdown file whose table between the marks
"<!-- parts -->" is replaced.
"""

import json
import pathlib
import re
import subprocess
import sys


def measure(program):
    text = subprocess.run([program, "--benchmark_format=json", "--benchmark_min_time=0.1",
                           "--benchmark_repetitions=3"],
                          check=True, stdout=subprocess.PIPE).stdout
    times = {}
    counters = {}
    for run in json.loads(text)["benchmarks"]:
        once = run["run_name"].startswith("ScanEmptyAndPop")
        if run.get("aggregate_name") != (None if once else "median"):
            continue
        name = run["run_name"].replace("/manual_time", "").replace("/iterations:1", "").replace("/repeats:1", "")
        # Wall time where the benchmark times itself, else processor time, which a busy machine
        # leaves alone.
        times[name] = run["real_time"] if "manual_time" in run["run_name"] else run["cpu_time"]
        counters[name] = run
    return times, counters


def rows(times, counters):
    def ratio(name, what, line, base, goal):
        return (what, f"{times[line] / times[base]:.2f}", goal)

    for size in (200, 2000):
        goal = "at least 0.5" if size == 200 else "at least 0.8"
        yield (f"Push at {size} bytes, speed by that of copying and one write",
               f"{times[f'CopyAndWrite/{size}'] / times[f'PushChunk/{size}']:.2f}", goal)
        yield (f"Front at {size} bytes, speed by that of one read and copying",
               f"{times[f'ReadAndCopy/{size}'] / times[f'FrontOfCache/{size}']:.2f}", goal)
    yield ratio("", "schedule's answer from its cache, time by that of reading the clock",
                "AskScheduleAgain", "ReadClock", "at most 2")
    yield ratio("", "counting an event, time by that of a std::map look-up",
                "CountEvent/threads:1", "LookUpStatisticInMap", "at most 2")
    yield ratio("", "the same from 8 threads with a profile each, by one thread (processor time)",
                "CountEvent/threads:8", "CountEvent/threads:1", "at most 1")
    yield ratio("", "the same from 8 threads with one profile, by one thread (processor time)",
                "CountEventTogether/threads:8", "CountEventTogether/threads:1", "at most 1")
    for chunks in (10, 100, 1000, 10000, 100000):
        run = counters[f"ScanEmptyAndPop/{chunks}"]
        yield (f"start with {chunks} chunks: scan, Empty, Pop per chunk",
               f"{run['scan_ns'] / 1000:.1f} µs, {run['empty_ns']:.1f} ns, "
               f"{run['pop_ns'] / 1000:.1f} µs",
               "scan below 20 µs")


def main():
    table = ["| what | measured | goal |", "|---|---|---|"]
    table += [f"| {what} | {value} | {goal} |"
              for what, value, goal in rows(*measure(sys.argv[1]))]
    text = "\n".join(table)
    print(text)
    if len(sys.argv) > 2:
        path = pathlib.Path(sys.argv[2])
        path.write_text(re.sub(r"(<!-- parts -->\n).*?(<!-- end of parts -->)",
                               lambda found: found[1] + text + "\n" + found[2],
                               path.read_text(), flags=re.DOTALL))


if __name__ == "__main__":
    main()
