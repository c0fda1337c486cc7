"""A cache that an earlier run has left, emptied while new events come in.

The backlog is laid down as chunk files before the program starts; the destination is there from the
beginning. A sender keeps a light stream of new events going, because the program looks for a cached
chunk whenever an event comes, and twice a second without. The backlog comes first, in its order; its
time is that from its first byte to its last one at the destination.
"""

import multiprocessing
import os
import pathlib
import shutil
import socket
import struct
import tempfile
import time

from scenario import HOST, LIMIT, Failed, free_port, listens, make_events, wait_until

PAGE = os.sysconf("SC_PAGE_SIZE")
START = 1456831620  # 2016-03-01 11:27 UTC, and a second more for each chunk
LIVE_EVENTS_PER_S = 2000
STANDARD_INPUT_HEAD = b"\x88" + bytes(6)


def write_chunk(directory, number, lines):
    moment = time.gmtime(START + number)
    folder = directory / time.strftime("%Y-%m-%d-%H-%M", moment)
    folder.mkdir(parents=True, exist_ok=True)
    head = struct.pack("<I", len(STANDARD_INPUT_HEAD)) + STANDARD_INPUT_HEAD
    data = struct.pack("<I", len(lines)) + b"".join(
        head + struct.pack("<I", len(line)) + line for line in lines)
    (folder / time.strftime("%S", moment)).write_bytes(data + bytes(-len(data) % PAGE))


def send_live(port):
    """In a process of its own, until it is killed."""
    line = b"<134>Nov 21 12:00:00 host app: live\n"
    with socket.create_connection((HOST, port)) as connection:
        while True:
            connection.sendall(line * (LIVE_EVENTS_PER_S // 500))
            time.sleep(1 / 500)


def receive_backlog(listener, backlog):
    """Seconds from the first byte of the backlog to its last one."""
    listener.settimeout(LIMIT)
    connection, _ = listener.accept()
    received = []
    missing = len(backlog)
    first = None
    with connection:
        connection.settimeout(LIMIT)
        while missing > 0:
            data = connection.recv(1 << 18)
            if not data:
                raise Failed("the connection ended before the backlog did")
            first = first or time.monotonic()
            received.append(data)
            missing -= len(data)
    last = time.monotonic()
    if b"".join(received)[:len(backlog)] != backlog:
        raise Failed("the backlog arrived changed, or out of order")
    return last - first


def run_backlog(system, chunks, events, size):
    """Events per second at which a backlog of so many events in so many chunks is emptied."""
    directory = pathlib.Path(tempfile.mkdtemp(prefix="orlo-backlog-"))
    backlog = make_events(1, events, size)
    lines = backlog.split(b"\n")[:-1]
    for number in range(chunks):
        write_chunk(directory / "data" / "Events" / "Outage", number,
                    lines[events * number // chunks:events * (number + 1) // chunks])
    inward = free_port()
    sender = process = None
    try:
        with socket.create_server((HOST, 0)) as listener:
            process = system.start(directory, inward, listener.getsockname()[1])
            wait_until(lambda: listens(inward) or not process.alive(), f"{system.name} listens", 30)
            if not process.alive():
                raise Failed(f"{system.name} ended at once:\n{process.text()}")
            sender = multiprocessing.Process(target=send_live, args=(inward,))
            sender.start()
            return events / receive_backlog(listener, backlog)
    finally:
        if sender is not None:
            sender.kill()
            sender.join()
        if process is not None:
            process.stop()
        shutil.rmtree(directory, ignore_errors=True)
