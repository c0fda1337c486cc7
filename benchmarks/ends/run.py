#!/usr/bin/env python3
"""How fast each source takes events in and each destination gets rid of them, beside plain TCP.

Sources: the destination is a file that nothing is written to yet, because the stage still gathers
its chunk. The time runs from the first byte that is offered until the agent has read everything.

Destinations: the events come over TCP and wait in one chunk. The time runs from the moment at which
the stage hands the chunk over until the agent, which has been asked to stop and waits for it, says
that all are delivered: to the system for files, pipes, TCP and UDP, acknowledged for RELP and
Kafka. It looks ten times a second. The other end does nothing but read, or acknowledge, in a
process of its own; for UDP nobody reads.

Processor time is the agent's alone. Sources and destinations take turns, round after round.
"""

import argparse
import collections
import multiprocessing
import os
import pathlib
import re
import shutil
import socket
import ssl
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "benchmarks"), str(ROOT / "benchmarks/outage"),
                str(ROOT / "tests/integration")]
import document  # noqa: E402
import scenario  # noqa: E402
from certificates import Authority  # noqa: E402

PERIOD = 10  # seconds in which a chunk is gathered; everything must have been taken in by then
PLAIN = "syslog over TCP"


def stamp(text, pattern):
    """Seconds since midnight of the message that matches."""
    found = re.search(rf"T(\d+):(\d+):(\d+\.\d+)Z [^\n]*{pattern}", text)
    if not found:
        raise scenario.Failed(f"no message {pattern!r} in\n{text[-2000:]}")
    return int(found[1]) * 3600 + int(found[2]) * 60 + float(found[3])


class Run:
    """An agent with a source and a destination, and its directory."""

    def __init__(self, options, source, destination, directory, **pipes):
        self.directory = directory
        config = directory / "agent.yaml"
        config.write_text(
            "data_directory: ./data\ndisk: { keep_free: 0 }\nshutdown: { drain_timeout: 10m }\n"
            "log: { levels: { Code.StoreAndForwardIncoming: debug } }\n"
            f"streams:\n  - name: Ends\n    source: {source}\n    stages:\n"
            f"      - module: StoreAndForwardStage\n"
            f"        settings: {{ DataChunkPeriod: {PERIOD} }}\n"
            f"    destination: {destination}\n")
        self.messages = open(directory / "messages", "w+b")
        self.process = subprocess.Popen(
            [options.agent, "run", "--config", config, "--modules", options.modules],
            cwd=directory, stderr=self.messages, **{"stdin": subprocess.DEVNULL, **pipes})

    def text(self):
        return (self.directory / "messages").read_text(errors="replace")

    def wait_for(self, pattern):
        scenario.wait_until(lambda: re.search(pattern, self.text()) or
                            self.process.poll() is not None, pattern)
        found = re.search(pattern, self.text())
        if not found:
            raise scenario.Failed(self.text())
        return found

    def port(self):
        return int(self.wait_for(r"Listening on \w+://127\.0\.0\.1:(\d+)\.")[1])

    def cpu(self):
        return scenario.processor_time(self.process.pid)

    def end(self, is_stopping=False):
        """Asks it to stop, if it does not do so already; its processor time when it has ended."""
        if not is_stopping:
            self.process.send_signal(scenario.signal.SIGTERM)
        _, status, usage = os.wait4(self.process.pid, 0)
        self.process.returncode = os.waitstatus_to_exitcode(status)
        return usage.ru_utime + usage.ru_stime

    def close(self):
        if self.process.returncode is None:
            self.process.kill()
            self.process.wait()
        self.messages.close()


def offer_tcp(port, events, started, tls):
    with socket.create_connection((scenario.HOST, port)) as connection:
        if tls:
            connection = tls.wrap_socket(connection, server_hostname="localhost")
        started.value = time.monotonic()
        view = memoryview(events)
        for first in range(0, len(view), 1 << 16):
            connection.sendall(view[first:first + (1 << 16)])
        if tls:
            connection.unwrap().close()


def offer_udp(port, events, started, size):
    """As many datagrams with one call as the system allows; it cuts them apart itself."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        sender.setsockopt(socket.IPPROTO_UDP, 103, size)  # UDP_SEGMENT
        sender.connect((scenario.HOST, port))
        started.value = time.monotonic()
        view = memoryview(events)
        for first in range(0, len(view), 64 * size):
            sender.send(view[first:first + 64 * size])


def offer_pipe(descriptor, events, started):
    started.value = time.monotonic()
    view = memoryview(events)
    while view:
        view = view[os.write(descriptor, view[:1 << 16]):]
    os.close(descriptor)


def udp_waiting(port):
    with open("/proc/net/udp", encoding="ascii") as table:
        for line in list(table)[1:]:
            fields = line.split()
            if int(fields[1].rsplit(":", 1)[1], 16) == port:
                return int(fields[4].rsplit(":", 1)[1], 16)
    return 0


def measure_source(options, kind, directory, events):
    authority = Authority(directory) if kind == "syslog over TLS" else None
    pair = authority.issue("server") if authority else None
    source = {
        PLAIN: '{ type: syslog, listen: "tcp://127.0.0.1:0" }',
        "syslog over TLS": '{ type: syslog, listen: "tls://127.0.0.1:0", tls: { certificate: "%s", '
                           'key: "%s" } }' % (pair or ("", "")),
        "syslog over UDP": '{ type: syslog, listen: "udp://127.0.0.1:0" }',
        "standard input": "{ type: stdin }",
        "file": "{ type: file, path: ./in.log }",
    }[kind]
    started = multiprocessing.Value("d", 0.0)
    offered, inlet = os.pipe()
    followed = directory / "in.log"
    if kind == "file":
        followed.touch()
    run = Run(options, source, "{ type: file, path: ./out.log }", directory,
              stdin=offered if kind == "standard input" else subprocess.DEVNULL)
    os.close(offered)
    try:
        if kind.startswith("syslog"):
            port = run.port()
        else:
            run.wait_for("Started")
        before = run.cpu()
        if kind == "syslog over UDP":
            sender = multiprocessing.Process(target=offer_udp,
                                             args=(port, events, started, options.size))
            has_all = lambda: udp_waiting(port) == 0  # noqa: E731
        elif kind == "standard input":
            sender = multiprocessing.Process(target=offer_pipe, args=(inlet, events, started))
            has_all = lambda: "The input has ended" in run.text()  # noqa: E731
        elif kind == "file":
            started.value = time.monotonic()
            followed.write_bytes(events)
            has_all = lambda: any(  # noqa: E731
                struct.pack("<Q", len(events)) in position.read_bytes()
                for position in (directory / "data" / "Positions").rglob("*") if position.is_file())
            sender = None
        else:
            tls = ssl.create_default_context(cafile=str(authority.certificate)) if authority else None
            sender = multiprocessing.Process(target=offer_tcp, args=(port, events, started, tls))
            has_all = lambda: scenario.waiting_bytes(port) == 0  # noqa: E731
        if sender:
            sender.start()
        os.close(inlet)
        if sender:
            sender.join()
        scenario.wait_until(has_all, "everything is read")
        taken = time.monotonic() - started.value
        cpu = run.cpu() - before
        run.end(is_stopping=kind == "standard input")
        delivered = int(run.wait_for(r"Stream Ends: (\d+) events delivered, 0 cached, 0 lost, "
                                     r"0 held\.")[1])
        if kind != "syslog over UDP" and delivered != options.events:
            raise scenario.Failed(f"{delivered} events came out")
        return delivered / taken, cpu / delivered, 1 - delivered / options.events
    finally:
        run.close()


def sink(listener, context):
    """Reads whatever comes."""
    buffer = bytearray(1 << 18)
    while True:
        connection, _ = listener.accept()
        if context:
            connection = context.wrap_socket(connection, server_side=True)
        with connection:
            while connection.recv_into(buffer):
                pass


def relp_sink(listener):
    """Acknowledges whatever comes, and looks at no more of it than that takes."""
    offers = b"200 OK\nrelp_version=0\ncommands=syslog"
    connection, _ = listener.accept()
    pending, last, opened = b"", 0, False
    while data := connection.recv(1 << 18):
        pending += data
        frames = list(re.finditer(rb"(?:\A|\n)(\d+) (open|syslog|close) \d+", pending))
        # The last one may not be there to its end.
        done = frames if pending.endswith(b"\n") else frames[:-1]
        answers = []
        for frame in done:
            number = int(frame[1])
            if number == last + 1:
                last = number
                answers.append(b"%d rsp 6 200 OK\n" % number if opened else
                               b"1 rsp %d %s\n" % (len(offers), offers))
                opened = True
        connection.sendall(b"".join(answers))
        pending = b"" if len(done) == len(frames) else pending[frames[-1].start():]


class Cluster:
    def __init__(self, program):
        self.process = subprocess.Popen([program, "events", "1", "/dev/null"],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.brokers = self.process.stdout.readline().strip()

    def kill(self):
        self.process.kill()
        self.process.wait()


def measure_destination(options, kind, directory, events):
    pipes, helpers = {}, []
    listener = socket.create_server((scenario.HOST, 0))
    port = listener.getsockname()[1]
    unread = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    unread.bind((scenario.HOST, 0))
    context = None
    if kind == "file":
        destination = "{ type: file, path: ./out.log }"
    elif kind == "standard output":
        destination = "{ type: stdout }"
        reader = subprocess.Popen(["cat"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
        pipes["stdout"] = reader.stdin
        helpers.append(reader)
    elif kind == "syslog over UDP":
        destination = f'{{ type: syslog, target: "udp://127.0.0.1:{unread.getsockname()[1]}" }}'
    elif kind == "Kafka":
        helpers.append(Cluster(options.cluster))
        destination = f'{{ type: kafka, brokers: "{helpers[-1].brokers}", topic: events }}'
    elif kind == "RELP":
        destination = f'{{ type: relp, target: "tcp://127.0.0.1:{port}" }}'
        helpers.append(multiprocessing.Process(target=relp_sink, args=(listener,), daemon=True))
        helpers[-1].start()
    else:
        destination = f'{{ type: syslog, target: "tcp://127.0.0.1:{port}" }}'
        if kind == "syslog over TLS":
            authority = Authority(directory)
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(*authority.issue("server"))
            destination = (f'{{ type: syslog, target: "tls://127.0.0.1:{port}", tls: {{ ca: '
                           f'"{authority.certificate}" }} }}')
        helpers.append(multiprocessing.Process(target=sink, args=(listener, context), daemon=True))
        helpers[-1].start()
    run = Run(options, '{ type: syslog, listen: "tcp://127.0.0.1:0" }', destination, directory,
              **pipes)
    if "stdout" in pipes:
        pipes["stdout"].close()
    try:
        inward = run.port()
        sender = threading.Thread(target=offer_tcp, args=(
            inward, events, multiprocessing.Value("d", 0.0), None))
        sender.start()
        sender.join()
        scenario.wait_until(lambda: scenario.waiting_bytes(inward) == 0, "the events are taken in")
        run.wait_for(r"\(near\)")
        before = run.cpu()
        cpu = run.end() - before
        near = rf"\(near\)\. \({options.events} records\)"
        took = (stamp(run.text(), rf"Stream Ends: {options.events} events delivered, 0 cached, 0 "
                      r"lost, 0 held") - stamp(run.text(), near)) % 86_400
        return options.events / took, cpu / options.events, 0.0
    finally:
        run.close()
        listener.close()
        unread.close()
        for helper in helpers:
            helper.kill()


SOURCES = (PLAIN, "syslog over TLS", "syslog over UDP", "standard input", "file")
DESTINATIONS = (PLAIN, "syslog over TLS", "syslog over UDP", "RELP", "Kafka", "file",
                "standard output")


def table(title, kinds, rounds):
    """Medians, and ratios of medians."""
    lines = [f"| {title} | thousand events/s | by plain TCP | processor time, µs an event | by "
             "plain TCP |", "|---|---|---|---|---|"]

    def median(kind, index):
        return statistics.median(figures[index] for figures in rounds[kind])

    for kind in kinds:
        if not rounds[kind]:
            lines.append(f"| {kind} | no figures | | | |")
            continue
        lost = median(kind, 2)
        rates = [figures[0] / 1e3 for figures in rounds[kind]]
        note = f", {lost * 100:.0f} % were dropped by the system" if lost > 0.005 else ""
        lines.append(
            f"| {kind}{note} | **{median(kind, 0) / 1e3:.0f}** ({min(rates):.0f} to "
            f"{max(rates):.0f}) | {median(kind, 0) / median(PLAIN, 0):.2f} | "
            f"{median(kind, 1) * 1e6:.2f} | {median(kind, 1) / median(PLAIN, 1):.2f} |")
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--agent", required=True)
    parser.add_argument("--modules", required=True)
    parser.add_argument("--cluster", required=True, help="the program MockCluster")
    parser.add_argument("--output", help="Markdown file whose marked table is replaced")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--events", type=int, default=1_000_000)
    parser.add_argument("--size", type=int, default=200)
    options = parser.parse_args()
    for name in ("agent", "modules", "cluster"):
        setattr(options, name, str(pathlib.Path(getattr(options, name)).resolve()))

    # With its line feed each is of that size; as a datagram the line feed belongs to it.
    events = scenario.make_events(0, options.events, options.size - 1)
    tables = []
    for title, kinds, measure in (("source", SOURCES, measure_source),
                                  ("destination", DESTINATIONS, measure_destination)):
        rounds = collections.defaultdict(list)
        for number in range(options.rounds):
            for kind in kinds:
                directory = pathlib.Path(tempfile.mkdtemp(prefix="orlo-ends-"))
                try:
                    rounds[kind].append(measure(options, kind, directory, events))
                    print(f"round {number + 1}, {title} {kind}: {rounds[kind][-1]}",
                          file=sys.stderr)
                except scenario.Failed as error:
                    print(f"round {number + 1}, {title} {kind} gave no figures: {error}",
                          file=sys.stderr)
                finally:
                    shutil.rmtree(directory, ignore_errors=True)
        tables.append(table(title, kinds, rounds))
    text = "\n\n".join([f"{options.events:,} events of {options.size} bytes, {options.rounds} "
                        f"rounds, medians. {document.machine()}.", *tables])
    print(text)
    if options.output:
        document.replace(pathlib.Path(options.output), "ends", text)


if __name__ == "__main__":
    main()
