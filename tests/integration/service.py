"""The agent as a service of systemd: what it says on the socket of its manager."""

import os
import socket
import threading
import unittest

import support


class Manager:
    """Reads what a service says."""

    def __init__(self, address):
        self.messages = []
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(address)
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        while True:
            message = self._socket.recv(4096).decode().split("\n")
            self.messages.append(message)
            if message == ["END"]:
                return

    def said(self, line):
        return sum(line in message for message in list(self.messages))

    def said_until_now(self, line, address):
        """The same, of all that has been said already, however late it is read."""
        marks = self.said("MARK")
        self._say(b"MARK", address)
        support.wait_until(lambda: self.said("MARK") > marks, "what was said")
        return self.said(line)

    def _say(self, line, address):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as another:
            another.sendto(line, address)

    def close(self, address):
        self._say(b"END", address)
        self._thread.join(support.LIMIT)
        self._socket.close()


class Service(support.AgentTest):
    def run_as_service(self, address, settings=None, **environment):
        """An agent for that socket, whose environment is set for its start alone."""
        manager = Manager(address)
        self.addCleanup(manager.close, address)
        name = address.replace("\0", "@")
        names = {"NOTIFY_SOCKET": name, **environment}
        os.environ.update(names)
        try:
            config = self.configure(self.stream(
                support.SYSLOG_SOURCE, "{ type: file, path: events.log }", settings=settings))
            agent = self.start(config)
        finally:
            for key in names:
                del os.environ[key]
        agent.port()
        return manager, agent

    def test_readiness_and_the_stop_are_told(self):
        manager, agent = self.run_as_service(str(self.directory / "notify"))
        support.wait_until(lambda: manager.said("READY=1"), "readiness")
        self.assertEqual(manager.said("STATUS=1 stream"), 1)
        self.assertEqual(manager.said("STOPPING=1"), 0)
        self.assertEqual(agent.stop(), 0)
        support.wait_until(lambda: manager.said("STOPPING=1"), "the stop")
        self.assertEqual(manager.said("WATCHDOG=1"), 0, "nobody has asked for it")

    def test_a_watchdog_is_told_again_and_again_also_while_the_agent_stops(self):
        address = str(self.directory / "notify")
        manager, agent = self.run_as_service(address, {"DataChunkPeriod": 15},
                                             WATCHDOG_USEC="1000000")
        support.wait_until(lambda: manager.said("WATCHDOG=1") >= 5, "five signs of life")
        # An event makes the stop last for the rest of its chunking period.
        support.send(agent.port(), b"one\n")
        agent.signal()
        support.wait_until(lambda: manager.said("STOPPING=1"), "the stop")
        before = manager.said_until_now("WATCHDOG=1", address)
        self.assertEqual(agent.wait(), 0)
        self.assertGreater(manager.said_until_now("WATCHDOG=1", address), before)
        self.assertEqual((self.directory / "events.log").read_bytes(), b"one\n")

    def test_a_watchdog_is_not_told_while_a_sender_hangs(self):
        address = str(self.directory / "notify")
        manager, agent = self.run_as_service(address, WATCHDOG_USEC="1000000")
        # The file is made anew, and opening what is there now waits for somebody who reads.
        pipe = self.directory / "events.log"
        pipe.unlink()
        os.mkfifo(pipe)
        events = support.numbered(0, 10)
        support.send(agent.port(), support.as_lines(events))
        support.wait_until(lambda: manager.said("WATCHDOG=1"), "signs of life before")
        # Longer than any thread that works takes, on the busiest machine: minutes.
        agent.wait_for("Stream Default hangs: its sender neither sends nor is refused", limit=400)
        before = manager.said_until_now("WATCHDOG=1", address)
        hung = len(agent.messages("Error"))
        support.wait_until(lambda: len(agent.messages("Error")) >= hung + 4, "it is said again")
        self.assertEqual(manager.said_until_now("WATCHDOG=1", address), before)
        with pipe.open("rb") as reader:
            self.assertEqual([reader.readline().rstrip() for _ in events], events)
            support.wait_until(lambda: manager.said("WATCHDOG=1") > before, "it works again")
            self.assertEqual(agent.stop(), 0)

    def test_a_watchdog_of_another_process_is_not_told(self):
        manager, agent = self.run_as_service(str(self.directory / "notify"),
                                             WATCHDOG_USEC="100000", WATCHDOG_PID="1")
        support.wait_until(lambda: manager.said("READY=1"), "readiness")
        self.assertEqual(agent.stop(), 0)
        support.wait_until(lambda: manager.said("STOPPING=1"), "the stop")
        self.assertEqual(manager.said("WATCHDOG=1"), 0)

    def test_a_socket_may_have_an_abstract_name(self):
        manager, agent = self.run_as_service(f"\0orlo-test-{self.directory.name}")
        support.wait_until(lambda: manager.said("READY=1"), "readiness")
        self.assertEqual(agent.stop(), 0)

    def test_a_manager_that_is_not_there_does_not_matter(self):
        for address in (str(self.directory / "absent"), "no-path", "/" + 200 * "x"):
            os.environ["NOTIFY_SOCKET"] = address
            try:
                agent = self.start(self.configure(self.stream(
                    support.SYSLOG_SOURCE, "{ type: file, path: events.log }")))
            finally:
                del os.environ["NOTIFY_SOCKET"]
            agent.port()
            self.assertEqual(agent.stop(), 0)


if __name__ == "__main__":
    unittest.main()
