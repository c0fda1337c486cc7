"""A receiver that resets its connection loses what is under way: syslog has no acknowledgement. What
is lost is one contiguous piece, and the order stays."""

import pathlib
import socket
import struct
import sys
import threading
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "integration"))
import support  # noqa: E402


class BreakingReceiver:
    """Reads some lines of its first connection and resets it; reads the second one to its end."""

    def __init__(self, lines_before_reset):
        self.before, self.after = bytearray(), bytearray()
        self.may_reset, self.was_reset = threading.Event(), threading.Event()
        self._wanted = lines_before_reset
        self._listener = socket.socket()
        # Small, so that what it has not read stays with the sender's system.
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        self._listener.bind(("127.0.0.1", 0))
        self._listener.listen()
        self._listener.settimeout(support.LIMIT)
        self.port = self._listener.getsockname()[1]
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        connection, _ = self._listener.accept()
        while self.before.count(b"\n") < self._wanted:
            self.before += connection.recv(512)
        self.may_reset.wait(support.LIMIT)
        # Closing without waiting for anything is a reset.
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        connection.close()
        self.was_reset.set()
        connection, _ = self._listener.accept()
        with connection:
            while data := connection.recv(1 << 16):
                self.after += data

    def close(self):
        self.may_reset.set()
        self._thread.join(support.LIMIT)
        self._listener.close()


class ConnectionBreak(support.AgentTest):
    def test_a_reset_loses_one_piece_of_what_was_under_way_and_keeps_the_order(self):
        receiver = BreakingReceiver(lines_before_reset=100)
        agent = self.start(self.configure(
            self.stream(support.SYSLOG_SOURCE, support.syslog_target(receiver.port))))
        events = support.numbered(0, 2_500)
        support.send(agent.port(), support.as_lines(events[:2_000]))
        agent.wait_for(r"\(near\)")
        support.wait_until(lambda: receiver.before.count(b"\n") >= 100, "the first lines")
        receiver.may_reset.set()
        self.assertTrue(receiver.was_reset.wait(support.LIMIT))
        support.send(agent.port(), support.as_lines(events[2_000:]))
        support.wait_until(lambda: receiver.after.endswith(events[-1] + b"\n"), "the last event")
        self.assertEqual(agent.stop(), 0)
        # Now: while the agent runs, its messages may be read later than the events they precede.
        self.assertTrue(agent.find("can't be reached"), agent.lines)
        receiver.close()

        before = bytes(receiver.before).split(b"\n")[:-1]
        after = bytes(receiver.after).split(b"\n")[:-1]
        self.assertEqual(before, events[:len(before)])
        self.assertEqual(after, events[len(events) - len(after):])
        gone = len(events) - len(before) - len(after)
        print(f"{gone} events were under way", file=sys.stderr)
        self.assertGreater(gone, 0)
        self.assertEqual(agent.summary(), (2_500, 0, 0, 0), "the system took them all")


if __name__ == "__main__":
    unittest.main()
