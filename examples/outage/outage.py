"""An outage in a minute: outage.py AGENT MODULES [--svg FILE]

Starts an agent between a sender and a receiver, takes the receiver away, brings it back, and shows
meanwhile where the events are. At the end it compares what arrived with what was sent. --svg leaves a
recording of what was printed. Needs nothing but the agent and Python's library.
"""

import argparse
import html
import http.client
import json
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

EVENTS_PER_SECOND = 200
FLOW_SECONDS = 11
OUTAGE_SECONDS = 20
LIMIT = 300

CONFIGURATION = """\
data_directory: ./data
disk: {{ keep_free: 0 }}
monitor: {{ listen: "127.0.0.1:0", refused_after: 1s }}
streams:
  - name: Demo
    source: {{ type: syslog, listen: "tcp://127.0.0.1:0" }}
    stages: [ {{ module: StoreAndForwardStage, settings: {{ DataChunkPeriod: 5 }} }} ]
    destination: {{ type: syslog, target: "tcp://127.0.0.1:{port}", connect_timeout: 1s }}
"""


class Receiver:
    """Takes lines, unless it is away: then its port is taken and nobody listens on it."""

    def __init__(self):
        self.received = bytearray()
        self.port = 0
        self._connections = []
        self._socket = self._take_port()
        self.port = self._socket.getsockname()[1]

    def _take_port(self):
        taken = socket.socket()
        taken.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        taken.bind(("127.0.0.1", self.port))
        return taken

    def open(self):
        # The next one keeps the port when this one is closed. It has to be there before this listens.
        self._listener, self._socket = self._socket, self._take_port()
        self._listener.listen()
        threading.Thread(target=self._accept, args=(self._listener,), daemon=True).start()

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        # The agent sees that and sends no more; what is on its way is still taken.
        for connection in self._connections:
            connection.shutdown(socket.SHUT_WR)
        self._connections = []

    def _accept(self, listener):
        while True:
            try:
                connection, _ = listener.accept()
            except OSError:
                return
            self._connections.append(connection)
            threading.Thread(target=self._read, args=(connection,), daemon=True).start()

    def _read(self, connection):
        while True:
            try:
                data = connection.recv(1 << 16)
            except OSError:
                return
            if not data:
                return
            self.received += data


class Sender:
    """Sends numbered events at an even pace until it is stopped."""

    def __init__(self, port):
        self.sent = 0
        self._stop = threading.Event()
        self._connection = socket.create_connection(("127.0.0.1", port))
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        part = EVENTS_PER_SECOND // 10
        while not self._stop.wait(0.1):
            lines = b"".join(b"event %d\n" % number
                             for number in range(self.sent, self.sent + part))
            self._connection.sendall(lines)
            self.sent += part

    def stop(self):
        self._stop.set()
        self._thread.join()
        self._connection.close()


class Agent:
    def __init__(self, program, modules, directory, target):
        config = pathlib.Path(directory) / "agent.yaml"
        config.write_text(CONFIGURATION.format(port=target))
        self._lines = []
        self._process = subprocess.Popen(
            [program, "run", "--config", str(config), "--modules", modules], cwd=directory,
            stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        threading.Thread(target=self._read, daemon=True).start()
        self.source = self._find(r"Listening on tcp://127\.0\.0\.1:(\d+)\.")
        self._monitor = self._find(r"Listening on http://127\.0\.0\.1:(\d+)/")

    def _read(self):
        for line in self._process.stderr:
            self._lines.append(line)

    def _find(self, pattern):
        end = time.monotonic() + LIMIT
        while time.monotonic() < end and self._process.poll() is None:
            for line in list(self._lines):
                found = re.search(pattern, line)
                if found:
                    return int(found.group(1))
            time.sleep(0.05)
        sys.exit("The agent did not start:\n" + "".join(self._lines))

    def look(self):
        connection = http.client.HTTPConnection("127.0.0.1", self._monitor, timeout=30)
        connection.request("GET", "/status")
        state = json.loads(connection.getresponse().read())["streams"][0]
        connection.close()
        return state

    def stop(self):
        self._process.send_signal(signal.SIGTERM)
        self._process.wait(LIMIT)


class Show:
    """Prints, and remembers what it printed."""

    def __init__(self):
        self.lines = []
        self._start = time.monotonic()

    def say(self, text=""):
        self.lines.append(text)
        print(text, flush=True)

    def state(self, state, sent, arrived, full):
        memory = sum(state["memory"][key] for key in
                     ("queue_events", "chunk_events", "pending_events", "unsent_events"))
        disk = state["cache"]["events"]
        bar = "█" * round(30 * disk / full)
        self.say(f"{time.monotonic() - self._start:5.0f} s {sent:7d} sent {arrived:7d} arrived "
                 f"{memory:6d} in memory {disk:6d} on disk  {bar}".rstrip())


def write_svg(lines, path):
    """The lines as they stand on a terminal."""
    width, height, step = 16 + 8 * 102, 24 + 18 * len(lines), 18
    text = "".join(
        f'<text x="16" y="{26 + step * number}"'
        f'{"" if re.match(r" *[0-9]+ s ", line) else " font-weight=" + chr(34) + "700" + chr(34)}'
        f' xml:space="preserve">{html.escape(line)}</text>\n'
        for number, line in enumerate(lines))
    path.write_text(
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" '
        f'height="{height}" font-family="DejaVu Sans Mono, Consolas, Menlo, monospace" '
        f'font-size="13" fill="#d6deeb">\n<rect width="{width}" height="{height}" rx="8" '
        f'fill="#12161c"/>\n{text}</svg>\n')


def run(agent, receiver, show):
    sender = Sender(agent.source)
    full = EVENTS_PER_SECOND * 45

    def watch(seconds=None, until=None):
        end = time.monotonic() + (seconds or LIMIT)
        while time.monotonic() < end:
            time.sleep(3)
            show.state(agent.look(), sender.sent, receiver.received.count(b"\n"), full)
            if until and until():
                return
    show.say(f"{EVENTS_PER_SECOND} events a second come in, and go on every five seconds.")
    watch(FLOW_SECONDS)
    show.say("The destination goes away.")
    receiver.close()
    watch(OUTAGE_SECONDS)
    show.say("The destination is back; the agent tries again within half a minute.")
    receiver.open()
    watch(until=lambda: agent.look()["far"]["events"] > 0)
    show.say("The sender stops.")
    sender.stop()
    watch(until=lambda: receiver.received.count(b"\n") >= sender.sent)
    return sender.sent


def sum_up(received, sent, show):
    numbers = [int(line.split()[1]) for line in bytes(received).splitlines()]
    missing = sent - len(set(numbers))
    doubled = len(numbers) - len(set(numbers))
    disorder = sum(1 for left, right in zip(numbers, numbers[1:]) if right < left)
    show.say()
    show.say(f"Sent {sent}, arrived {len(numbers)}: {missing} missing, {doubled} twice, "
             f"{disorder} out of order.")
    return missing == doubled == disorder == 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("agent")
    parser.add_argument("modules")
    parser.add_argument("--svg", type=pathlib.Path)
    options = parser.parse_args()
    show = Show()
    receiver = Receiver()
    receiver.open()
    with tempfile.TemporaryDirectory(prefix="orlo-outage-") as directory:
        agent = Agent(options.agent, options.modules, directory, receiver.port)
        sent = run(agent, receiver, show)
        agent.stop()
    good = sum_up(receiver.received, sent, show)
    if options.svg:
        write_svg(show.lines, options.svg)
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
