#!/usr/bin/env python3
"""The receiver goes away again and again, in the middle of what it is sent, while events keep
coming.

relp    rsyslog with imrelp, killed by SIGKILL
tcp     rsyslog with imtcp, killed by SIGKILL
kafka   all brokers of a cluster of three close their connections and take none for a while; what
        they have taken they keep, as brokers with replicas do

With an acknowledging destination nothing may be missing, the order holds, and what comes twice is
no older than the window. With plain TCP the order holds and nothing comes twice; how much is lost
is printed.
"""

import argparse
import os
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "integration"), str(HERE.parent / "peers")]
import peers  # noqa: E402
import support  # noqa: E402

AHEAD = 20_000  # how many events may be on their way
BATCH = 1_000
EVENT = re.compile(rb"event (\d{10}) of a long sequence$")


def event(number):
    return b"<13>1 2026-11-21T12:00:00Z host soak - - - event %010d of a long sequence" % number


class Receiver:
    """What arrives is a line each in a file that only grows."""

    window = 0

    def __init__(self, directory):
        self.directory = directory
        self.output = directory / "received"
        self._read = 0
        self.lines = 0

    def count(self):
        """Lines so far."""
        if self.output.exists():
            with self.output.open("rb") as file:
                file.seek(self._read)
                while data := file.read(1 << 20):
                    self._read += len(data)
                    self.lines += data.count(b"\n")
        return self.lines

    def numbers(self):
        """The events in the order in which they arrived. A kill can tear a line; the next one then
        stands behind what was written of it."""
        numbers, torn = [], 0
        for line in self.output.read_bytes().split(b"\n")[:-1]:
            found = EVENT.search(line)
            torn += not found or line != event(int(found.group(1)))
            if found:
                numbers.append(int(found.group(1)))
        return numbers, torn


class Rsyslog(Receiver):
    def __init__(self, directory):
        super().__init__(directory)
        self._port = support.RefusingPort()
        self.port = self._port.number
        self._peer = peers.Peer("rsyslog", directory, self.config())
        self._peer.start()

    def go(self, chance):
        self._peer.kill()
        time.sleep(chance.uniform(0, 0.2))
        self._peer.start()

    def close(self):
        self._peer.stop()
        self._port.close()


class Relp(Rsyslog):
    window = 500

    def config(self):
        return peers.relp_receiver_config(self.directory, self.port)

    def destination(self):
        return (f'{{ type: relp, target: "tcp://127.0.0.1:{self.port}", window: {self.window}, '
                "send_timeout: 60s }")


class Tcp(Rsyslog):
    def config(self):
        return peers.tcp_receiver_config(self.directory, self.port)

    def destination(self):
        return (f'{{ type: syslog, target: "tcp://127.0.0.1:{self.port}", '
                "framing: octet-counted }")


class Kafka(Receiver):
    window = 500

    def __init__(self, directory):
        super().__init__(directory)
        self._cluster = subprocess.Popen(
            [os.environ["ORLO_MOCK_CLUSTER"], "events", "1", str(self.output)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1)
        self._brokers = self._cluster.stdout.readline().strip()

    def destination(self):
        return (f'{{ type: kafka, brokers: "{self._brokers}", topic: events, key: k, '
                f"window: {self.window}, send_timeout: 60s, "
                "properties: { reconnect.backoff.max.ms: 200, linger.ms: 0 } }")

    def numbers(self):
        head = b"0\tk\t"
        numbers = []
        for line in self.output.read_bytes().split(b"\n")[:-1]:
            found = EVENT.search(line)
            if not found or line != head + event(int(found.group(1))):
                raise AssertionError(f"this was never sent: {line!r}")
            numbers.append(int(found.group(1)))
        return numbers, 0

    def _tell(self, command):
        self._cluster.stdin.write(command + "\n")
        if self._cluster.stdout.readline().strip() != "ok":
            raise AssertionError(command)

    def go(self, chance):
        self._tell("down -1")
        time.sleep(chance.uniform(0, 0.5))
        self._tell("up -1")

    def close(self):
        self._cluster.stdin.close()
        self._cluster.wait(support.LIMIT)
        self._cluster.stdout.close()


class Feeder:
    """Sends so that there are always some events under way, until it is stopped."""

    def __init__(self, port, receiver, ahead):
        self.sent = 0
        self._receiver, self._ahead, self._lost = receiver, ahead, 0
        self._done = threading.Event()
        self._connection = support.socket.create_connection(("127.0.0.1", port))
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._done.is_set():
            if self.sent - self._receiver.lines - self._lost > self._ahead:
                self._done.wait(0.02)
                continue
            batch = range(self.sent, self.sent + BATCH)
            self._connection.sendall(b"".join(event(number) + b"\n" for number in batch))
            self.sent += BATCH

    def forget(self):
        """What has not arrived counts as lost, and does not hold back what follows."""
        self._lost = self.sent - self._receiver.lines

    def stop(self):
        """One more event tells that those before it have arrived or are lost."""
        self._done.set()
        self._thread.join(support.LIMIT)
        self._connection.sendall(event(self.sent) + b"\n")
        self._connection.close()
        return self.sent + 1


def configure(directory, receiver):
    path = directory / "agent.yaml"
    path.write_text(
        "data_directory: ./data\ndisk: { keep_free: 0 }\n"
        "shutdown: { drain_timeout: 60s }\n"
        "streams:\n  - name: Default\n"
        f"    source: {support.SYSLOG_SOURCE}\n"
        "    stages:\n      - module: StoreAndForwardStage\n"
        f"        settings: {{ DataChunkPeriod: {support.CHUNK_PERIOD} }}\n"
        f"    destination: {receiver.destination()}\n")
    return path


def judge(receiver, sent, rounds):
    """Raises if more is wrong than may be; returns a line of figures."""
    numbers, torn = receiver.numbers()
    missing = sent - len(set(numbers))
    highest, oldest, doubles = -1, 0, 0
    for number in numbers:
        if number > highest:
            highest = number
        else:
            doubles += 1
            oldest = max(oldest, highest - number + 1)
    first = list(dict.fromkeys(numbers))
    problems = []
    if first != sorted(first):
        problems.append("the order is broken")
    if oldest > receiver.window:
        problems.append(f"an event came again {oldest} behind the newest")
    if receiver.window and missing:
        gone = sorted(set(range(sent)) - set(numbers))
        problems.append(f"{missing} events are missing, from {gone[0]} to {gone[-1]}")
    if torn > rounds:
        problems.append(f"{torn} lines are torn")
    figures = (f"{rounds} rounds, {sent} events: {missing} missing, {doubles} doubles, "
               f"oldest {oldest} behind the newest, {torn} torn lines in the receiver's file")
    if problems:
        raise AssertionError("; ".join(problems) + ": " + figures)
    return figures


def wait_for_last(receiver, sent):
    last = event(sent - 1) + b"\n"

    def has_come():
        if receiver.count() == 0:
            return False
        with receiver.output.open("rb") as file:
            file.seek(-min(receiver.output.stat().st_size, len(last)), os.SEEK_END)
            return file.read() == last
    support.wait_until(has_come, "the last event", 300)


def play(kind, rounds, seed, directory):
    chance = random.Random(seed)
    receiver = {"relp": Relp, "tcp": Tcp, "kafka": Kafka}[kind](directory)
    agent = support.Agent(configure(directory, receiver), directory)
    try:
        feeder = Feeder(agent.port(), receiver, AHEAD)
        for _ in range(rounds):
            goal = receiver.count() + chance.randint(1, 4_000)
            support.wait_until(lambda goal=goal: receiver.count() >= goal, "progress", 300)
            receiver.go(chance)
            if not receiver.window:
                feeder.forget()
        sent = feeder.stop()
        wait_for_last(receiver, sent)
        if agent.stop() != 0:
            raise AssertionError("the agent failed")
        figures = judge(receiver, sent, rounds)
        delivered, cached, lost, held = agent.summary()
        if (delivered, cached, lost, held) != (sent, 0, 0, 0):
            raise AssertionError(f"the account is {agent.summary()}: {figures}")
        return figures
    except AssertionError as error:
        raise AssertionError(f"{error}\n" + "\n".join(agent.lines[-60:])) from error
    finally:
        agent.close()
        receiver.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("kind", choices=("relp", "tcp", "kafka"))
    parser.add_argument("--rounds", type=int, default=50)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 32))
    options = parser.parse_args()
    directory = pathlib.Path(tempfile.mkdtemp(prefix="orlo-receiver-kills-"))
    print(f"{options.kind}: seed {options.seed}", flush=True)
    started = time.monotonic()
    try:
        figures = play(options.kind, options.rounds, options.seed, directory)
    finally:
        shutil.rmtree(directory, ignore_errors=True)
    print(f"{figures}; {time.monotonic() - started:.0f} s")


if __name__ == "__main__":
    main()
