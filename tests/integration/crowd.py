"""A thousand slow and hostile clients at once; a good client is served all the same."""

import os
import resource
import socket
import threading
import time
import unittest

import support

CROWD = 1000

# What the agent may take in memory, in KiB: far less than an event buffer, or what they announce,
# for each of the crowd.
MEMORY = (600 if os.environ.get("ORLO_SANITIZE") else 200) * 1024
EVENTS = 100_000


class CrowdTest(support.AgentTest):
    SOURCE = support.SYSLOG_SOURCE

    def setUp(self):
        super().setUp()
        limits = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(4096, limits[1]), limits[1]))
        self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, limits)
        self.output = self.directory / "out.log"
        self.agent = self.start(self.configure(self.stream(
            self.SOURCE, "{ type: file, path: ./out.log }")))
        self.port = self.agent.port()
        self.crowd = []
        self.addCleanup(self.leave)

    def leave(self):
        for connection in self.crowd:
            connection.close()

    def join(self, first):
        """Connects the crowd; each has sent its first bytes."""
        for number in range(CROWD):
            connection = socket.create_connection(("127.0.0.1", self.port), timeout=support.LIMIT)
            self.crowd.append(connection)
            connection.sendall(first(number))

    def status(self, key):
        with open(f"/proc/{self.agent.process.pid}/status", encoding="utf-8") as status:
            for line in status:
                if line.startswith(key + ":"):
                    return int(line.split()[1])
        self.fail(f"the system does not tell {key} of the agent")

    def good_client_is_served(self):
        events = support.numbered(0, EVENTS)
        support.send(self.port, support.as_lines(events))
        wanted = set(events)
        def arrived():
            # Cheap to ask often: the file is read only once it is large enough.
            if not self.output.exists() or self.output.stat().st_size < EVENTS * len(events[0]):
                return None
            lines = [line for line in self.output.read_bytes().split(b"\n") if line in wanted]
            return lines if len(lines) >= EVENTS else None
        lines = support.wait_until(arrived, "all events of the good client")
        self.assertEqual(lines, events)


class Crowd(CrowdTest):
    def test_clients_that_send_a_byte_a_second(self):
        self.join(lambda number: b"<")
        stop = threading.Event()
        def send_a_byte():
            for connection in self.crowd:
                connection.send(b"x")
        send_a_byte()
        def trickle():
            while not stop.wait(1):
                send_a_byte()
        trickler = threading.Thread(target=trickle)
        trickler.start()
        try:
            self.good_client_is_served()
            # A thousand connections take no thousand threads and no thousand event buffers.
            self.assertLess(self.status("Threads"), 20)
            self.assertLess(self.status("VmRSS"), MEMORY)
            size = self.output.stat().st_size
        finally:
            stop.set()
            trickler.join()
        self.leave()

        def unfinished():
            return len([line for line in self.output.read_bytes().split(b"\n")
                        if line.startswith(b"<x")])

        support.wait_until(lambda: self.output.stat().st_size > size and unfinished() >= CROWD,
                           "what the crowd has left unfinished")
        self.assertEqual(self.agent.stop(), 0)
        self.assertEqual(unfinished(), CROWD)

    def test_clients_that_announce_gigabytes_and_send_garbage(self):
        kinds = [b"2147483648 ", b"4294967295 x", b"\0\0\0\0", b"\xff\xfe\xfd", b"<34>", b"7 half"]
        self.join(lambda number: kinds[number % len(kinds)])
        self.good_client_is_served()
        self.assertLess(self.status("VmRSS"), MEMORY)
        self.leave()
        self.assertEqual(self.agent.stop(), 0)

    def test_clients_that_vanish_without_a_word(self):
        # Reset instead of closed: what a crashed or unplugged peer leaves once the network tells.
        self.join(lambda number: b"<34>unfinished")
        linger = b"\1\0\0\0\0\0\0\0"
        for connection in self.crowd:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger)
        self.leave()
        self.good_client_is_served()
        self.assertEqual(self.agent.stop(), 0)


class HalfOpenCrowd(CrowdTest):
    """Clients that are heard of no more in the middle of a frame."""

    SOURCE = '{ type: syslog, listen: "tcp://127.0.0.1:0", idle_timeout: 2s }'

    def test_half_a_frame_and_then_nothing(self):
        self.join(lambda number: b"100 half a frame")
        self.good_client_is_served()
        # Not by the end of the agent: by the idle timeout.
        for connection in self.crowd:
            try:
                self.assertEqual(connection.recv(1), b"")
            except ConnectionResetError:
                pass
        self.assertIsNone(self.agent.process.poll())
        self.assertLess(self.status("VmRSS"), MEMORY)
        self.assertEqual(self.agent.stop(), 0)


class IdleClients(support.AgentTest):
    def test_a_client_that_stays_silent_is_closed_where_that_is_configured(self):
        agent = self.start(self.configure(self.stream(
            '{ type: syslog, listen: "tcp://127.0.0.1:0", idle_timeout: 1s }',
            "{ type: file, path: ./out.log }")))
        with socket.create_connection(("127.0.0.1", agent.port()), timeout=support.LIMIT) as silent:
            started = time.monotonic()
            self.assertEqual(silent.recv(1), b"")
            self.assertGreater(time.monotonic() - started, 0.9)
        self.assertEqual(agent.stop(), 0)


if __name__ == "__main__":
    unittest.main()
