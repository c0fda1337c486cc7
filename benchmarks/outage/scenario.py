"""An outage of the destination, played with any program that forwards syslog messages over TCP.

One round: the program is started while nobody listens at its destination; one event is sent, which
makes it find that out; then all events are sent over one connection, as fast as they are taken;
when the program has come to rest, the destination appears, and everything is received.

What is measured:

  taken in    from the first byte sent until no byte waits in a socket's buffer on either side
  drained     from the arrival of the first byte at the destination to that of the last one
  processor   user and system time of the program, for each of the two; for the first until it has
              come to rest, so that writing to the disk is counted wherever it is done
  disk        bytes of the program's files when it has come to rest
  memory      the largest resident size, until the program has come to rest and of the whole round

Every round checks that everything arrived, nothing twice, and whether the order was kept; the agent's
round fails if it was not.
"""

import os
import multiprocessing
import pathlib
import selectors
import shutil
import signal
import socket
import subprocess
import tempfile
import time

LIMIT = 300  # seconds; longer than anything takes
SILENCE = 45  # seconds without a byte after which nothing more is expected
TICKS = os.sysconf("SC_CLK_TCK")
HOST = "127.0.0.1"


class Failed(Exception):
    """The round gave no figures; the text says why."""


def wait_until(condition, what, limit=LIMIT):
    end = time.monotonic() + limit
    while not condition():
        if time.monotonic() > end:
            raise Failed(f"{what}: not within {limit} s")
        time.sleep(0.005)


def free_port():
    with socket.socket() as probe:
        probe.bind((HOST, 0))
        return probe.getsockname()[1]


def make_events(first, count, size):
    """So many numbered syslog messages of `size` bytes, each with a line feed behind it."""
    head = b"<134>Nov 21 12:00:00 host app: %010d "
    rest = size - len(head % 0)
    filler = (b"the quick brown fox jumps over the lazy dog; " * (max(rest, 0) // 45 + 1))[:rest]
    return b"".join((head % number)[:size] + filler + b"\n"
                    for number in range(first, first + count))


def processor_time(pid):
    """Seconds that a process has used, with those of its children that have ended."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return sum(int(field) for field in fields[11:15]) / TICKS


class Process:
    """A running program, and what the system knows of it."""

    def __init__(self, command, directory, environment=None):
        self.messages = open(pathlib.Path(directory) / "messages", "wb")
        self.process = subprocess.Popen(command, cwd=directory, stdin=subprocess.DEVNULL,
                                        stdout=self.messages, stderr=self.messages,
                                        env={**os.environ, **(environment or {})})
        self.directory = pathlib.Path(directory)

    def text(self):
        return (self.directory / "messages").read_text(errors="replace")

    def alive(self):
        return self.process.poll() is None

    def cpu(self):
        return processor_time(self.process.pid)

    def peak_memory(self):
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            for line in status:
                if line.startswith("VmHWM:"):
                    return int(line.split()[1]) * 1024
        raise Failed("the program has ended")

    def wait_for_rest(self):
        """Until it has used next to no processor time for two seconds."""
        end = time.monotonic() + LIMIT
        before = self.cpu()
        while True:
            time.sleep(2)
            now = self.cpu()
            if now - before <= 0.03:
                return
            before = now
            if time.monotonic() > end:
                raise Failed("the program does not come to rest")

    def stop(self):
        if self.alive():
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(60)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.messages.close()


def listens(port):
    with socket.socket() as probe:
        return probe.connect_ex((HOST, port)) == 0


def waiting_bytes(port):
    """Bytes in the buffers of every connection to or from the port on this machine."""
    total = 0
    for name in ("/proc/net/tcp", "/proc/net/tcp6"):
        try:
            with open(name, encoding="ascii") as table:
                next(table)
                for line in table:
                    fields = line.split()
                    ports = {int(field.rsplit(":", 1)[1], 16) for field in fields[1:3]}
                    if port in ports and fields[3] != "0A":
                        total += sum(int(part, 16) for part in fields[4].split(":"))
        except FileNotFoundError:
            continue
    return total


def send_parts(port, parts, started):
    """In a process of its own: one connection for each part, all at once."""
    connections = [socket.create_connection((HOST, port)) for _ in parts]
    started.value = time.monotonic()
    if len(parts) == 1:
        connections[0].sendall(parts[0])
    else:
        views = [memoryview(part) for part in parts]
        piece = 64 * 1024
        while any(views):
            for index, view in enumerate(views):
                if view:
                    connections[index].sendall(view[:piece])
                    views[index] = view[piece:]
    for connection in connections:
        connection.shutdown(socket.SHUT_WR)
        connection.close()


def receive(port, expected, pipe):
    """In a process of its own: what comes over all connections, until so many bytes have come
    and no more follow."""
    taken = 0
    first = last = None
    received = {}
    with socket.socket() as listener, selectors.DefaultSelector() as selector:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind((HOST, port))
        listener.listen()
        selector.register(listener, selectors.EVENT_READ)
        pipe.send(time.monotonic())
        while True:
            # A little longer than until all is there: something may come twice.
            ready = selector.select(SILENCE if taken < expected else 1)
            if not ready:
                break  # what has come is looked at all the same
            for key, _ in ready:
                if key.fileobj is listener:
                    connection, _ = listener.accept()
                    selector.register(connection, selectors.EVENT_READ)
                    received[connection] = []
                    continue
                data = key.fileobj.recv(1 << 18)
                if data:
                    last = time.monotonic()
                    first = first or last
                    taken += len(data)
                    received[key.fileobj].append(data)
                else:
                    selector.unregister(key.fileobj)
    pipe.send((first, last, taken))
    pipe.send_bytes(b"".join(b"".join(parts) for parts in received.values()))


def run_round(system, events, size, connections=1, burst=None):
    """One round with one program; its figures by name."""
    directory = pathlib.Path(tempfile.mkdtemp(prefix="orlo-outage-"))
    (directory / "data").mkdir()
    inward, outward = free_port(), free_port()
    process = system.start(directory, inward, outward)
    receiver = None
    try:
        wait_until(lambda: listens(inward) or not process.alive(), f"{system.name} listens", 30)
        if not process.alive():
            raise Failed(f"{system.name} ended at once:\n{process.text()}")
        # On a connection of its own: the events' order counts within one only.
        prime = make_events(0, 1, size)
        with socket.create_connection((HOST, inward)) as connection:
            connection.sendall(prime)
        system.wait_for_outage(process)
        parts = [make_events(1 + events * index // connections,
                             events * (index + 1) // connections - events * index // connections,
                             size) for index in range(connections)]
        figures = take_in(system, process, directory, inward, parts)

        expected = len(prime) + sum(len(part) for part in parts)
        pipe, other = multiprocessing.Pipe()
        receiver = multiprocessing.Process(target=receive, args=(outward, expected, other))
        cpu = process.cpu()
        receiver.start()
        listening = pipe.recv()
        if not pipe.poll(LIMIT):
            raise Failed(f"{system.name}: events are missing")
        first, last, _ = pipe.recv()
        received = pipe.recv_bytes()
        if not received:
            raise Failed(f"nothing arrived from {system.name}")
        figures["drain_events_per_s"] = events / (last - first)
        figures["drain_wait_s"] = first - listening
        figures["drain_cpu_s"] = process.cpu() - cpu
        figures["peak_memory"] = process.peak_memory()
        figures["in_order"], figures["twice"] = check(received, prime, parts)
        if system.is_exact and not (figures["in_order"] and figures["twice"] == 0):
            raise Failed("events arrived twice or out of order")
        return figures
    finally:
        process.stop()
        if receiver is not None:
            receiver.kill()
            receiver.join()
        shutil.rmtree(directory, ignore_errors=True)


def take_in(system, process, directory, inward, parts):
    size = sum(len(part) for part in parts)
    events = sum(part.count(b"\n") for part in parts)
    cpu = process.cpu()
    started = multiprocessing.Value("d", 0.0)
    sender = multiprocessing.Process(target=send_parts, args=(inward, parts, started))
    sender.start()
    sender.join()
    wait_until(lambda: waiting_bytes(inward) == 0, "the events are taken in")
    taken = time.monotonic() - started.value
    system.wait_until_stored(process, directory, events)
    process.wait_for_rest()
    stored = sum(path.stat().st_size for path in (directory / "data").rglob("*")
                 if path.is_file())
    return {"take_in_events_per_s": events / taken, "take_in_cpu_s": process.cpu() - cpu,
            "disk_bytes_per_byte": stored / size, "events_bytes": size,
            "take_in_memory": process.peak_memory()}


def check(received, prime, parts):
    """Fails if something is missing; whether the order was kept, and how many came twice."""
    sent = prime + b"".join(parts)
    if received == sent:
        return True, 0
    arrived = received.split(b"\n")[:-1]
    expected = sent.split(b"\n")[:-1]
    unique = set(arrived)
    missing = len(set(expected) - unique)
    if missing or len(unique) != len(expected):
        raise Failed(f"of {len(expected)} events {missing} are missing, and "
                     f"{len(unique) + missing - len(expected)} were never sent")
    owner = {}
    for index, part in enumerate(parts):
        owner.update((line, index) for line in part.split(b"\n")[:-1])
    by_part = [[] for _ in parts]
    for line in arrived:
        if line in owner:
            by_part[owner[line]].append(line)
    in_order = all(lines == part.split(b"\n")[:-1] for lines, part in zip(by_part, parts))
    return in_order, len(arrived) - len(unique)
