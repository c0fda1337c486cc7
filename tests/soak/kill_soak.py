#!/usr/bin/env python3
"""Kills the agent many times in a row on one data directory, at random moments and at random
places inside its event cache, with and without load, with and without a receiver. Every kill is
judged by oracle.py. At the end everything comes out, and the sum is checked once more.

Prints the seed, with which the choices (though not the timing) can be repeated, and the figures.
Ends with 1 and the story of the life in question when an event is missing, doubled or out of order
in a way that docs/reliability.md does not allow.
"""

import argparse
import collections
import concurrent.futures
import random
import sys
import time
import traceback

from lane import Lane, Plan

TORN = "push.WriteFile (torn)"
PUSH = ["push.GetFileAttributes", "push.CreateDirectory", "push.CreateFile", "push.WriteFile",
        TORN, "push.CloseHandle"]
FRONT_AND_POP = ["front.CreateFile", "front.ReadFile", "front.CloseHandle", "pop.Unlink",
                 "pop.FindFirstFile", "pop.FindNextFile", "pop.RemoveDirectory"]

# With more chunks than this on disk, a life is for delivery.
MANY_CHUNKS = 12


class Soak:
    """The rounds of one lane."""

    def __init__(self, seed, rounds):
        self.random = random.Random(seed)
        self.lane = Lane(rate=400)
        self.rounds = rounds
        self.reached = collections.Counter()
        self.tried = collections.Counter()
        self.destinations = collections.Counter()

    def run(self):
        try:
            for number in range(1, self.rounds + 1):
                plan = self.choose()
                try:
                    _, inside = self.lane.live(plan)
                except AssertionError as error:
                    raise AssertionError(f"round {number}: {error}") from error
                self.destinations[plan.destination + (", load" if plan.load else "")] += 1
                self.reached[self.name(plan) if inside else "random moment"] += 1
                if number % 20 == 0:
                    print(f"round {number}", flush=True)
            self.lane.finish()
        finally:
            self.lane.close()

    @staticmethod
    def name(plan):
        how = plan.how.split("=")[0]
        return plan.at.split(":")[0] + (f" ({how})" if how else "")

    def choose(self):
        chunks = self.lane.chunks()
        kinds = ["closed"] * 6 + ["away"] * 3 + ["there, load"] * 4 + ["there"] * 6
        kind = self.random.choice(kinds)
        if len(chunks) > MANY_CHUNKS:
            kind = "there"
        # What a torn file gives can be foretold only where nothing is written before it is read.
        if kind == "there, load" and not all(chunk.is_complete() for chunk in chunks):
            kind = "there"
        if kind == "there" and not chunks:
            kind = "closed"
        load = kind != "there"
        longest = 11 if load else 4
        plan = Plan(kind.split(",")[0], load, self.random.uniform(0, longest))
        if self.random.random() < 0.1:
            plan.seconds = self.random.uniform(0, 0.3)  # while it starts
        elif self.random.random() < 0.65:
            self.choose_place(plan, len(chunks))
        return plan

    def choose_place(self, plan, chunks):
        places = list(PUSH) if plan.load else []
        if chunks and plan.destination == "there":
            places += FRONT_AND_POP
        elif chunks and plan.destination == "away":
            places += FRONT_AND_POP[:4]
        place = min(places, key=lambda each: (self.tried[each], self.random.random()))
        self.tried[place] += 1
        if place in PUSH:
            number = self.random.choice([1, 1, 2])
        elif plan.destination == "away":
            number = 1  # the chunk that it holds
        else:
            number = self.random.randint(1, max(1, min(chunks, 4)))
        plan.at = f"{place.split()[0]}:{number}"
        plan.seconds = 13 if plan.load else 4 + number
        if place == TORN:
            plan.how = f"torn={self.random.choice([0, 2, 4, 11, 500, 4096, 20000])}"
        elif self.random.random() < 0.2:
            plan.how = "after"
        plan.delay_ms = self.random.choice([0, 0, self.random.randint(1, 200)])


def run(soak):
    try:
        soak.run()
        return True
    except Exception:  # the others' rounds go on
        traceback.print_exc()
        return False


def report(soaks, seconds):
    figures = collections.Counter()
    reached = collections.Counter()
    destinations = collections.Counter()
    for soak in soaks:
        figures.update(soak.lane.ledger.figures())
        reached.update(soak.reached)
        destinations.update(soak.destinations)
    print(f"{sum(reached.values())} kills in {seconds:.0f} s")
    for name, count in sorted(destinations.items()):
        print(f"  {count:6} with the destination {name}")
    for name, count in sorted(reached.items()):
        print(f"  {count:6} at {name}")
    print("events")
    for name, count in figures.items():
        print(f"  {count:8} {name}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--rounds", type=int, default=200, help="kills in each data directory")
    parser.add_argument("--lanes", type=int, default=1, help="data directories at the same time")
    parser.add_argument("--seed", type=int, default=None)
    options = parser.parse_args()
    seed = random.randrange(1 << 32) if options.seed is None else options.seed
    print(f"seed {seed}", flush=True)

    begin = time.monotonic()
    soaks = [Soak(seed + lane, options.rounds) for lane in range(options.lanes)]
    with concurrent.futures.ThreadPoolExecutor(options.lanes) as pool:
        good = all(list(pool.map(run, soaks)))
    report(soaks, time.monotonic() - begin)
    if good and options.rounds >= 200:
        reached = {name.removesuffix(" (after)") for soak in soaks for name in soak.reached}
        missing = [place for place in PUSH + FRONT_AND_POP if place not in reached]
        if missing:
            print(f"never reached: {', '.join(missing)}")
            good = False
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
