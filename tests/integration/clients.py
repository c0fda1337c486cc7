"""Syslog clients of every kind; whatever they do, a good one is not disturbed."""

import socket
import unittest

import support


class Clients(support.AgentTest):
    def setUp(self):
        super().setUp()
        self.output = self.directory / "out.log"
        config = self.configure(self.stream(
            '{ type: syslog, listen: "tcp://127.0.0.1:0", max_event_size: 4KiB }',
            "{ type: file, path: ./out.log }"))
        self.agent = self.start(config)
        self.port = self.agent.port()

    def connect(self):
        connection = socket.create_connection(("127.0.0.1", self.port), timeout=support.LIMIT)
        self.addCleanup(connection.close)
        return connection

    def is_closed(self, connection):
        try:
            return connection.recv(1) == b""
        except ConnectionResetError:
            return True

    def delivered(self):
        """Stops the agent; what has come out."""
        self.assertEqual(self.agent.stop(), 0)
        return self.output.read_bytes()

    def resident_bytes(self):
        with open(f"/proc/{self.agent.process.pid}/status", encoding="utf-8") as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1]) * 1024
        self.fail("the system does not tell how much memory the agent uses")

    def test_a_silent_client_and_a_thousand_that_come_and_go(self):
        silent = self.connect()
        good = self.connect()
        good.sendall(b"before\n")
        for _ in range(1000):
            socket.create_connection(("127.0.0.1", self.port), timeout=support.LIMIT).close()
        good.sendall(b"after\n")
        silent.sendall(b"not dead\n")
        # A stop listens for a second only. Connections are taken one after the other: when this one's
        # event is there, so are all before it.
        support.send(self.port, b"last\n")
        support.wait_until(lambda: self.output.exists()
                           and self.output.read_bytes().count(b"\n") >= 4, "every event")
        lines = self.delivered().split(b"\n")
        self.assertEqual(sorted(lines), [b"", b"after", b"before", b"last", b"not dead"])
        self.assertTrue(self.agent.find(r"4 events came over 1003 connections"), self.agent.lines)

    def test_an_endless_line_is_cut_and_takes_no_memory(self):
        before = self.resident_bytes()
        endless = self.connect()
        for _ in range(64):
            endless.sendall(b"x" * (1 << 20))
        good = self.connect()
        good.sendall(b"good\n")
        self.assertLess(self.resident_bytes() - before, 32 << 20)
        endless.sendall(b"\nnext\n")
        lines = self.delivered().split(b"\n")
        self.assertEqual(sorted(lines), sorted([b"x" * 4096, b"good", b"next", b""]))
        self.assertEqual(len(self.agent.messages("Warn")), 1, self.agent.lines)
        self.assertTrue(self.agent.find("1 were cut"))

    def test_a_length_of_gigabytes_takes_no_memory(self):
        before = self.resident_bytes()
        huge = self.connect()
        huge.sendall(b"2147483653 ")
        for _ in range(64):
            huge.sendall(b"y" * (1 << 20))
        self.assertLess(self.resident_bytes() - before, 32 << 20)
        huge.close()
        self.assertEqual(self.delivered(), b"y" * 4096 + b"\n")

    def test_lengths_that_cannot_be_read_end_their_connection_only(self):
        good = self.connect()
        good.sendall(b"one\n")
        for garbage in (b"5x", b"12345678901 x", b"3 abcdef", b"1\n2\n", b"9" * 4096):
            bad = self.connect()
            bad.sendall(garbage)
            self.assertTrue(self.is_closed(bad), garbage)
        good.sendall(b"two\n")
        lines = self.delivered().split(b"\n")
        self.assertEqual(sorted(lines), [b"", b"abc", b"one", b"two"])
        self.assertEqual(len(self.agent.messages("Warn")), 5, self.agent.lines)
        self.assertTrue(self.agent.find("5 connections had an unreadable length"))

    def test_any_bytes_and_both_framings_come_through(self):
        lines = [b"nul \0", b"\xff\xfe not utf-8 \xc3(", b"", b"\r", bytes(range(11, 256))]
        support.send(self.port, support.as_lines(lines))
        counted = [b"two\nlines", b"", b"\0"]
        support.send(self.port, b"".join(b"%d %s" % (len(each), each) for each in counted))
        taken = self.delivered()
        first, second = support.as_lines(lines), support.as_lines(counted)
        self.assertIn(taken, (first + second, second + first))

    def test_what_a_connection_leaves_unfinished(self):
        support.send(self.port, b"whole\nunfinished line")
        support.send(self.port, b"5 whole9 unfin")
        lines = self.delivered().split(b"\n")
        self.assertEqual(sorted(lines), [b"", b"unfinished line", b"whole", b"whole"])
        self.assertTrue(self.agent.find("1 were truncated"))

    def test_a_stalled_stage_holds_its_clients_back_and_loses_nothing(self):
        # More than the queue's high-water mark at once, on several connections.
        events = [support.numbered(first, 20_000) for first in (0, 20_000, 40_000)]
        for part in events:
            support.send(self.port, support.as_lines(part))
        # A stop listens to senders for a second only; what was sent is let arrive first.
        support.wait_until(lambda: self.output.exists()
                           and self.output.read_bytes().count(b"\n") >= 60_000, "every event")
        lines = self.delivered().split(b"\n")[:-1]
        self.assertEqual(sorted(lines), events[0] + events[1] + events[2])
        for part in events:
            wanted = set(part)
            self.assertEqual([line for line in lines if line in wanted], part, "order")


if __name__ == "__main__":
    unittest.main()
