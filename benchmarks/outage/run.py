#!/usr/bin/env python3
"""Plays an outage with the agent and with other programs, in turns, and writes the figures down."""

import argparse
import collections
import mmap
import pathlib
import re
import subprocess
import sys

sys.path.append(str(pathlib.Path(__file__).resolve().parents[1]))
import backlog  # noqa: E402
import document  # noqa: E402
import report  # noqa: E402
import scenario  # noqa: E402
import systems  # noqa: E402

SIZES = (50, 200, 1000, 4096, 16384, 65536)
CONNECTIONS = (1, 4, 16, 64)
CHUNKS = (1, 10, 100, 500, 2000)
BACKLOG_EVENTS = 200_000


def find_peers():
    """The programs that can be had, and what is to be said of the others."""
    found, missing = [], []
    for make in (systems.Rsyslog, systems.SyslogNg):
        try:
            found.append(make())
        except (subprocess.CalledProcessError, OSError) as error:
            missing.append(f"{make.name} is missing: {error}.")
    return found, missing


def play(programs, rounds, events, size, missing):
    """Rounds in turns, so that what else the machine does meets all alike."""
    figures = collections.OrderedDict((program.name, []) for program in programs)
    failed = collections.Counter()
    for number in range(rounds):
        for program in programs:
            if failed[program.name] >= 2:
                continue
            try:
                figures[program.name].append(scenario.run_round(program, events, size))
                print(f"round {number + 1} {program.name}: {figures[program.name][-1]}",
                      file=sys.stderr)
            except scenario.Failed as error:
                failed[program.name] += 1
                missing.append(f"Round {number + 1} with {program.name} gave no figures: {error}.")
                print(missing[-1], file=sys.stderr)
    return figures


def grow(ours, directory):
    """Take-in and drain over sizes and connections, and emptying backlogs: a plot each."""
    directory.mkdir(parents=True, exist_ok=True)

    def measure(events, size, connections=1):
        figures = scenario.run_round(ours, events, size, connections)
        return figures["take_in_events_per_s"], figures["drain_events_per_s"]

    for name, title, x_title, cases in (
            ("sizes", "Events per second over event sizes", "bytes of an event",
             [(size, (min(500_000, 100_000_000 // size), size, 1)) for size in SIZES]),
            ("connections", "Events per second over connections (200 bytes)", "connections",
             [(count, (500_000, 200, count)) for count in CONNECTIONS])):
        series = {"taken in": [], "drained": []}
        for x, arguments in cases:
            taken, drained = measure(*arguments)
            series["taken in"].append((x, taken))
            series["drained"].append((x, drained))
            print(f"{name} {x}: {taken:.0f} {drained:.0f}", file=sys.stderr)
        report.svg(title, x_title, "events/s", series, directory / f"{name}.svg")

    points = []
    for chunks in CHUNKS:
        points.append((chunks, backlog.run_backlog(ours, chunks, BACKLOG_EVENTS, 200)))
        print(f"backlogs {chunks}: {points[-1][1]:.0f}", file=sys.stderr)
    report.svg(f"Emptying {BACKLOG_EVENTS:,} events (200 bytes) over the chunks that they are in",
               "chunks", "events/s", {"drained": points}, directory / "backlogs.svg")


def touch_memory():
    """Uses most of the free memory once. On a virtual machine the host finds the memory for each page
    at its first use, which would be counted as the time of the program that comes first."""
    available = re.search(r"MemAvailable:\s*(\d+)", pathlib.Path("/proc/meminfo").read_text())
    size = int(available[1]) * 1024 * 3 // 5
    with mmap.mmap(-1, size) as memory:
        for page in range(0, size, mmap.PAGESIZE):
            memory[page] = 1


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--agent", required=True)
    parser.add_argument("--modules", required=True)
    parser.add_argument("--output", help="Markdown file whose marked tables are replaced")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--events", type=int, default=1_000_000)
    parser.add_argument("--size", type=int, default=200)
    parser.add_argument("--growth", action="store_true", help="the plots, in place of the rounds")
    parser.add_argument("--peer-command", action="append", default=[], metavar="NAME=COMMAND",
                        help="another program; {directory}, {in} and {out} are filled in")
    options = parser.parse_args()

    ours = systems.Orlo(*(str(pathlib.Path(path).resolve())
                          for path in (options.agent, options.modules)))
    output = pathlib.Path(options.output) if options.output else None
    touch_memory()
    if options.growth:
        grow(ours, (output.parent if output else pathlib.Path(".")) / "performance")
        if output:
            document.replace(output, "growth", f"{document.machine()}.")
        return
    peers, missing = find_peers()
    peers += [systems.Command(text) for text in options.peer_command]
    figures = play([ours, *peers], options.rounds, options.events, options.size, missing)
    text = "\n\n".join([
        f"{options.events:,} events of {options.size} bytes. {document.machine()}.",
        "; ".join(f"{program.name}: {program.version()}" for program in [ours, *peers]) + ".",
        report.table(figures), report.ratios(figures, ours.name), *missing])
    print(text)
    if output:
        document.replace(output, "outage", text)


if __name__ == "__main__":
    main()
