"""What the integration tests share: a running agent, receivers, senders, a look into the cache.

The tests run the real program as its users do: with a configuration file, over pipes and sockets,
with signals. Each test has a directory of its own and lets the system choose ports, so that all of
them can run at the same time.

The program and its modules are named by the environment variables ORLO_AGENT and ORLO_MODULES.
ORLO_AGENT_LAUNCHER is what starts the program, if that is one for another system: wine.
"""

import os
import pathlib
import re
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "soak"))
from chunks import take_inventory  # noqa: E402


def whole_path(variable):
    """What the variable names, from whichever directory a test starts its agent."""
    path = os.environ.get(variable)
    return os.path.abspath(path) if path else ""


AGENT = whole_path("ORLO_AGENT")
MODULES = whole_path("ORLO_MODULES")
LAUNCHER = shlex.split(os.environ.get("ORLO_AGENT_LAUNCHER", ""))

# What the program is called by, as the beginning of a command.
COMMAND = [*LAUNCHER, AGENT]

# What asks the agent to stop. Wine turns an interrupt into Ctrl+C; it ends at once at SIGTERM.
STOP = signal.SIGINT if LAUNCHER else signal.SIGTERM

# How the system calls what keeps a port from being listened on. Wine has no text for that number.
ADDRESS_IN_USE = r"Unknown error \(10048\)" if LAUNCHER else "Address already in use"

# Longer than anything takes on a busy machine; a test that is good never waits for it.
LIMIT = 120

# The shortest period in which the stage decides about events, in seconds.
CHUNK_PERIOD = 5


def wait_until(condition, what, limit=LIMIT):
    """Returns the first true value of the condition."""
    end = time.monotonic() + limit
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"{what}: not within {limit} s")
        time.sleep(0.02)


def as_named(path):
    """The path as the agent names it: of a program for Windows, this machine's root is drive Z."""
    if not LAUNCHER:
        return str(path)
    return ("Z:" if os.path.isabs(path) else "") + str(path).replace("/", "\\")


class RefusingPort:
    """A port that is taken and on which nobody listens: connections to it are refused, until a
    receiver opens it. A port that was merely free could become another test's in the meantime. A
    program that takes its port with SO_REUSEADDR can listen there as well.

    A second one on the number of a first keeps the port when the first one's receiver is gone. It
    has to be made before that listens."""

    def __init__(self, number=0):
        self._socket = socket.socket()
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._socket.bind(("127.0.0.1", number))
        self.number = self._socket.getsockname()[1]

    def take(self):
        """The socket, which is the caller's from then on."""
        taken, self._socket = self._socket, None
        return taken

    def close(self):
        if self._socket:
            self._socket.close()


class Agent:
    """A running orlo-agent. Its messages are collected while it runs.

    An agent that abandons events is one that is stopped while its stage holds some: they are left
    to the end of the process, which LeakSanitizer need not report.
    """

    def __init__(self, config, directory, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                 modules=None, arguments=None, abandons=False):
        command = arguments or [*COMMAND, "run", "--config", str(config),
                                "--modules", str(modules or MODULES)]
        environment = dict(os.environ)
        if abandons:
            environment["ASAN_OPTIONS"] = ":".join(
                filter(None, [environment.get("ASAN_OPTIONS"), "detect_leaks=0"]))
        self.process = subprocess.Popen(command, cwd=directory, stdin=stdin, stdout=stdout,
                                        stderr=subprocess.PIPE, env=environment)
        self.lines = []
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self.process.stderr:
            self.lines.append(line.decode("utf-8", "replace").rstrip("\r\n"))

    def messages(self, level=None):
        return [line for line in list(self.lines) if level is None or f" {level} " in line]

    def find(self, pattern):
        for line in list(self.lines):
            found = re.search(pattern, line)
            if found:
                return found
        return None

    def wait_for(self, pattern, limit=LIMIT):
        def look():
            found = self.find(pattern)
            if not found and self.process.poll() is not None and not self._reader.is_alive():
                raise AssertionError(f"the agent ended without {pattern!r}")
            return found
        try:
            return wait_until(look, f"message {pattern!r}", limit)
        except AssertionError as error:
            said = "\n".join(self.lines[-50:])
            raise AssertionError(f"{error}; the last that it said:\n{said}") from None

    def port(self, stream="Default"):
        found = self.wait_for(rf"SyslogSource\.{stream}: Listening on tcp://.*:(\d+)\.")
        return int(found.group(1))

    def near(self):
        """How many events have gone to the sender without the cache, so far."""
        return sum(int(count) for line in list(self.lines)
                   for count in re.findall(r"\(near\)\. \((\d+) records\)", line))

    def signal(self, number=None):
        """What asks it to stop, unless another signal is given."""
        self.process.send_signal(number or STOP)

    def wait(self, limit=LIMIT):
        """Waits for the end; returns the exit code."""
        code = self.process.wait(limit)
        self._reader.join(limit)
        return code

    def stop(self, limit=LIMIT):
        self.signal()
        return self.wait(limit)

    def summary(self, stream="Default"):
        """The numbers of the last message: delivered, cached, lost, held."""
        found = self.find(rf"Code\.Agent: Stream {stream}: (\d+) events delivered, (\d+) cached, "
                          r"(\d+) lost, (\d+) held\.$")
        if not found:
            raise AssertionError("no summary:\n" + "\n".join(self.lines))
        return tuple(int(number) for number in found.groups())

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self._reader.join(LIMIT)
        self.process.stderr.close()


class Receiver:
    """Listens and keeps every byte that arrives, in the order of connections."""

    def __init__(self, port=None):
        self.received = bytearray()
        self.connections = 0
        self._sockets = []
        self._listener = (port or RefusingPort()).take()
        self._listener.listen()
        self.port = self._listener.getsockname()[1]
        self._thread = threading.Thread(target=self._accept, daemon=True)
        self._thread.start()

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            self.connections += 1
            self._sockets.append(connection)
            with connection:
                self.read(connection)

    def read(self, connection):
        """Everything up to the connection's end."""
        while True:
            try:
                data = connection.recv(1 << 16)
            except OSError:
                return
            if not data:
                return
            self.received += data

    def lines(self):
        return bytes(self.received).split(b"\n")[:-1]

    def wait_for_lines(self, count, limit=LIMIT):
        wait_until(lambda: self.received.count(b"\n") >= count, f"{count} lines", limit)
        return self.lines()

    def close(self):
        # Wakes the accept as well.
        try:
            self._listener.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._listener.close()
        for connection in self._sockets:
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
        self._thread.join(LIMIT)


def send(port, data):
    """Sends on a connection of its own and closes it."""
    with socket.create_connection(("127.0.0.1", port)) as connection:
        connection.sendall(data)


def numbered(first, count):
    return [b"event %08d of a numbered sequence" % number
            for number in range(first, first + count)]


def as_lines(events):
    return b"".join(event + b"\n" for event in events)


class AgentTest(unittest.TestCase):
    """A test with a directory of its own, in which its agents run."""

    longMessage = True

    def setUp(self):
        if not AGENT or not MODULES:
            self.fail("ORLO_AGENT and ORLO_MODULES must name the program and its modules")
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="orlo-integration-"))
        self.addCleanup(shutil.rmtree, self.directory, ignore_errors=True)

    def configure(self, streams, drain="30s", extra="", name="agent.yaml"):
        """Writes a configuration file; the streams are YAML with an indent of two."""
        path = self.directory / name
        path.write_text(
            "data_directory: ./data\n"
            "disk: { keep_free: 0 }\n"
            "log: { levels: { Code.StoreAndForward: debug } }\n"
            f"shutdown: {{ drain_timeout: {drain} }}\n"
            f"{extra}streams:\n{streams}")
        return path

    def stream(self, source, destination, name="Default", settings=None):
        text = (f"  - name: {name}\n    source: {source}\n    stages:\n"
                f"      - module: StoreAndForwardStage\n        settings:\n")
        for key, value in {"DataChunkPeriod": CHUNK_PERIOD, **(settings or {})}.items():
            text += f"          {key}: {value}\n"
        return text + f"    destination: {destination}\n"

    def start(self, config, **options):
        agent = Agent(config, self.directory, **options)
        self.addCleanup(agent.close)
        return agent

    def refusing_port(self, number=0):
        port = RefusingPort(number)
        self.addCleanup(port.close)
        return port

    def receiver(self, port=None):
        """Listens on the refusing port, which it takes, or on one of its own."""
        receiver = Receiver(port)
        self.addCleanup(receiver.close)
        return receiver

    def chunks(self, stream="Default"):
        """Chunk files of the stream's cache, oldest first."""
        while True:
            try:
                return sorted((self.directory / "data" / "Events" / stream).glob("*/*"))
            except FileNotFoundError:
                pass  # a directory went away meanwhile

    def cached(self, stream="Default"):
        """How many events the chunk files say they hold."""
        total = 0
        for chunk in self.chunks(stream):
            try:
                with chunk.open("rb") as file:
                    head = file.read(4)
            except FileNotFoundError:
                continue  # delivered in the meantime
            if len(head) == 4:
                total += struct.unpack("<I", head)[0]
        return total

    def hold_one(self, agent, stream="Default"):
        """The sender of a stream whose destination is away holds one event, b"held": all that follow
        go to the cache."""
        send(agent.port(stream), b"held\n")
        agent.wait_for(rf"Incoming\.{re.escape(stream)}: .*\(near\)")
        agent.wait_for(rf"Code\.\w+\.{re.escape(stream)}: .*can't be reached")

    def fill_sender(self, agent, events, window):
        """Sends the events, more than a window that acknowledges nothing has room for: afterwards the
        sender holds some, and all that follow go to the cache. A chunk can end within them, and one
        that fits into the window leaves the sender idle."""
        send(agent.port(), as_lines(events))
        wait_until(lambda: agent.near() > window, "more events than the window takes")

    def wait_for_rest_cached(self, agent, count):
        """Until those of so many events that did not go to the sender are in the cache, as
        wait_for_cached has it."""
        self.wait_for_cached(count - agent.near())

    def wait_for_cached(self, count, stream="Default"):
        """Until so many events are in the cache, and all of them are written."""
        cache = self.directory / "data" / "Events" / stream
        wait_until(lambda: self.cached(stream) == count
                   and all(chunk.is_complete() for chunk in take_inventory(cache)),
                   f"{count} events in the cache")


SYSLOG_SOURCE = '{ type: syslog, listen: "tcp://127.0.0.1:0" }'


def syslog_target(port):
    return f'{{ type: syslog, target: "tcp://127.0.0.1:{port}", connect_timeout: 1s }}'
