"""Judges one life of an agent that ended with a kill: what it may have lost and doubled.

Known are the chunk files before and after, what was sent to the agent, what the receiver got, and
how large the chunks were that the agent says it handed over or wrote. The stage's order makes one
sequence of a life: the events of the chunk files that it found, then those sent to it. All rules
are about that sequence.
"""

import collections
import dataclasses

from chunks import read_back

# What the destination may hold in its own buffer, in bytes.
DESTINATION_BUFFER = 256 * 1024


class Violation(AssertionError):
    pass


@dataclasses.dataclass
class Life:
    before: list  # of Chunk
    after: list
    sent: list  # of payloads
    received: list
    handed: list  # numbers of events, in order: every hand-over to the sending side...
    handed_new: int  # ...and how many events of it came straight from the input
    pushed: list  # numbers of events, in order: every chunk that went to the disk


@dataclasses.dataclass
class Account:
    """Numbers of events, and which payloads they are."""
    sent: int = 0
    received: int = 0
    repeats: collections.Counter = dataclasses.field(default_factory=collections.Counter)
    lost_in_sender: list = dataclasses.field(default_factory=list)
    lost_in_memory: list = dataclasses.field(default_factory=list)
    lost_in_torn_file: list = dataclasses.field(default_factory=list)
    out_of_torn_file: int = 0


def require(condition, text):
    if not condition:
        raise Violation(text)


def show(payload):
    return repr(payload[:24])


class Judgement:
    def __init__(self, life):
        self.life = life
        self.found = read_back(life.before)
        self.bounds = [0]
        for events in self.found:
            self.bounds.append(self.bounds[-1] + len(events))
        self.old = self.bounds[-1]
        self.sequence = [event for events in self.found for event in events] + life.sent

    def account(self):
        life = self.life
        self._check_received()
        self._check_files()
        self._check_hand_overs()
        self._check_what_was_pushed()
        result = Account(sent=len(life.sent), received=len(life.received))
        self._count_repeats(result)
        self._count_lost(result)
        return result

    def _check_received(self):
        """No gap, no double, no other order within one life."""
        got = self.life.received
        for index, payload in enumerate(got):
            require(index < len(self.sequence),
                    f"event {index} received, {show(payload)}, was never to come")
            require(payload == self.sequence[index],
                    f"event {index} received is {show(payload)} where "
                    f"{show(self.sequence[index])} was next")

    def _check_files(self):
        """A beginning of the old chunks is gone, the others are untouched; the new ones follow and
        hold what was sent, without a gap, and only the last may be torn."""
        life = self.life
        names = {chunk.name for chunk in life.after}
        self.popped = next((index for index, chunk in enumerate(life.before)
                            if chunk.name in names), len(life.before))
        kept = life.before[self.popped:]
        require(life.after[:len(kept)] == kept,
                "chunk files that were on disk before have changed or gone out of turn: "
                f"{[chunk.name for chunk in life.before]} became "
                f"{[chunk.name for chunk in life.after]}")
        new = life.after[len(kept):]
        self.torn = None
        if new and not new[-1].is_complete():
            self.torn = new.pop()
        for chunk in new:
            require(chunk.is_complete(), f"{chunk.name} is torn, but others follow it")
        self.new = new
        events = [event for chunk in new for event in chunk.own_events()]
        torn = self.torn.own_events() if self.torn else []
        # Where the new files begin in what was sent.
        self.first = None
        if events or torn:
            first = (events + torn)[0]
            require(first in life.sent, f"{show(first)} in a chunk file was not sent in this life")
            self.first = life.sent.index(first)
            part = life.sent[self.first:self.first + len(events) + len(torn)]
            require(part == events + torn, "the new chunk files do not hold what was sent, in order")
            require(not kept or self.first == 0,
                    f"{self.first} events went missing before the first new chunk, although older "
                    "chunks were cached all the time")
        self.end = None if self.first is None else self.first + len(events)

    def _check_hand_overs(self):
        """Old chunks were handed over one by one, and each but the last has left the disk."""
        life = self.life
        for index, (size, events) in enumerate(zip(life.handed, self.found)):
            require(size == len(events), f"{size} events were read from {life.before[index].name}, "
                                         f"which gives {len(events)}")
        handed = min(len(life.handed), len(life.before))
        require(self.popped <= handed,
                f"{self.popped} chunks left the disk, but {handed} were handed over")
        least = handed - 1 if len(life.handed) <= len(life.before) else handed
        require(self.popped >= max(0, least),
                f"{handed} chunks were handed over, but only {self.popped} left the disk")
        require(len(life.received) <= sum(life.handed), "more was received than was handed over")
        # A chunk is handed over when all before it have been given to the destination, which
        # can hold them for a moment.
        given = sum(life.handed[:-1])
        waiting = self.sequence[len(life.received):given]
        require(sum(len(event) + 8 for event in waiting) <= DESTINATION_BUFFER,
                f"{len(waiting)} events are gone that the destination had taken")

    def _check_what_was_pushed(self):
        """Each push but the last has returned, so its chunk must be on disk or handed over."""
        life = self.life
        settled = life.handed_new + sum(life.pushed[:-1])
        if self.end is not None:
            kept = self.end
        elif self.popped < len(life.before):
            kept = 0
        else:
            kept = max(0, sum(life.handed) - self.old)
        require(kept >= settled,
                f"{settled} events were handed over or written to disk, but only {kept} are there")

    def _next_from_disk(self):
        """Where in the sequence the files left behind begin; nothing if there are none."""
        if self.popped < len(self.life.before):
            return self.bounds[self.popped]
        return None if self.first is None else self.old + self.first

    def _count_repeats(self, result):
        """Only the first chunk left behind may have been handed over already."""
        start = self._next_from_disk()
        received = len(self.life.received)
        if self.torn:
            result.out_of_torn_file += len(self.torn.own_events())
        if start is None or received <= start:
            return
        if self.popped < len(self.life.before):
            size = len(self.found[self.popped])
        else:
            size = len(self.new[0].own_events()) if self.new else 0
        again = self.sequence[start:received]
        require(len(again) <= size, f"{len(again)} events will come again, more than the oldest "
                                    f"chunk's {size}")
        result.repeats.update(again)

    def _count_lost(self, result):
        life = self.life
        received = len(life.received)
        start = self._next_from_disk()
        handed = sum(life.handed)
        if start is not None:
            require(start <= max(handed, received),
                    f"{start - handed} events that were never handed over are gone from the disk")
            result.lost_in_sender += self.sequence[received:start]
        else:
            result.lost_in_sender += self.sequence[received:handed]
        if self.end is not None:
            rest = self.end
        elif self.popped < len(life.before):
            rest = 0
        else:
            rest = max(received, handed) - self.old
        torn = 0
        if self.torn and life.pushed:
            rest += len(self.torn.own_events())
            torn = life.pushed[-1] - len(self.torn.own_events())
        result.lost_in_torn_file += life.sent[rest:rest + torn]
        result.lost_in_memory += life.sent[rest + torn:]


class Ledger:
    """The whole story of one data directory: adds the lives up, and checks the sum again with
    nothing but what was sent and what was received."""

    def __init__(self):
        self.sent = []
        self.received = collections.Counter()
        self.allowed = collections.Counter()
        self.lost = {"sender": [], "memory": [], "torn file": []}
        self.lives = 0

    def add(self, life):
        account = Judgement(life).account()
        self.lives += 1
        self.sent += life.sent
        self.received.update(life.received)
        self.allowed.update(account.repeats)
        self.lost["sender"] += account.lost_in_sender
        self.lost["memory"] += account.lost_in_memory
        self.lost["torn file"] += account.lost_in_torn_file
        # What a torn file gives beyond its own whole events is somebody else's, or nobody's.
        for chunk, events in zip(life.before, read_back(life.before)):
            if not chunk.is_complete():
                self.allowed.update(events[len(chunk.own_events()):])
        return account

    def close(self):
        """After the last life, which has emptied the cache."""
        known = set(self.sent)
        lost = {event for events in self.lost.values() for event in events}
        for event in self.sent:
            count = self.received[event]
            require(count > 0 or event in lost, f"{show(event)} is missing")
            require(count <= 1 + self.allowed[event], f"{show(event)} came {count} times")
        for event in self.received:
            require(event in known or self.allowed[event] > 0, f"{show(event)} was never sent")

    def figures(self):
        """Numbers of events. Sent is the sum of received, less the two kinds of surplus, and of
        the three kinds of lost."""
        known = set(self.sent)
        figures = {
            "sent": len(self.sent),
            "received": sum(self.received.values()),
            "of these again, though received before": sum(
                self.received[event] - 1 for event in known if self.received[event] > 1),
            "of these never sent, but made by a torn file": sum(
                count for event, count in self.received.items() if event not in known),
        }
        counted = set(self.received)
        for where, name in (("torn file", "lost in a torn file"),
                            ("memory", "lost in queue and chunk"),
                            ("sender", "lost with the sending side")):
            lost = (set(self.lost[where]) & known) - counted
            counted |= lost
            figures[name] = len(lost)
        return figures
