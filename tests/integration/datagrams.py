"""Syslog over UDP, in and out: a message is a datagram."""

import pathlib
import socket
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import support  # noqa: E402

UDP_SOURCE = '{ type: syslog, listen: "udp://127.0.0.1:0" }'


class DatagramSource(support.AgentTest):
    def start_source(self, source=UDP_SOURCE, settings=None):
        agent = self.start(self.configure(
            self.stream(source, "{ type: file, path: ./out.log }", settings=settings)))
        self.port = int(agent.wait_for(r"Listening on udp://127\.0\.0\.1:(\d+)\.").group(1))
        self.output = self.directory / "out.log"
        return agent

    def sender(self):
        sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(sender.close)
        sender.connect(("127.0.0.1", self.port))
        return sender

    def wait_for_output(self, end):
        support.wait_until(lambda: self.output.exists() and self.output.read_bytes().endswith(end),
                           "the last event")
        return self.output.read_bytes()

    def test_each_datagram_is_a_message_byte_for_byte(self):
        agent = self.start_source()
        sender = self.sender()
        messages = [b"<13>plain", b"", b"with\nline\nfeeds", b"nul \0 and \xff", b"x" * 60_000, b"end"]
        for message in messages:
            sender.send(message)
        self.assertEqual(self.wait_for_output(b"end\n"), b"\n".join(messages) + b"\n")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.messages("Warn"), [])
        self.assertTrue(agent.find(r"6 events came as datagrams; 0 were cut, 0 were dropped"))

    def test_a_message_beyond_the_limit_is_cut_and_counted(self):
        agent = self.start_source(
            '{ type: syslog, listen: "udp://127.0.0.1:0", max_event_size: 100 }')
        sender = self.sender()
        sender.send(b"a" * 100)
        sender.send(b"b" * 101)
        sender.send(b"end")
        self.assertEqual(self.wait_for_output(b"end\n"),
                         b"a" * 100 + b"\n" + b"b" * 100 + b"\nend\n")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(len(agent.messages("Warn")), 1, agent.lines)
        self.assertTrue(agent.find(r"3 events came as datagrams; 1 were cut"))

    def test_what_the_system_drops_is_counted_and_the_sum_agrees(self):
        # The queue is full with two events, so that the rest waits in a buffer that is too small.
        agent = self.start_source(
            '{ type: syslog, listen: "udp://127.0.0.1:0", receive_buffer: 4KiB }',
            settings={"QueueHighWaterMark": 1000, "QueueLowWaterMark": 500})
        sender = self.sender()
        sent = 3000
        for number in range(sent):
            sender.send(b"%08d " % number + b"x" * 1000)
        found = agent.wait_for(r"Warn .*dropped (\d+) datagrams that came faster than they were "
                               r"taken; \d+ since the start")
        self.assertGreater(int(found.group(1)), 0)
        sender.send(b"end")
        received = self.wait_for_output(b"end\n").split(b"\n")[:-1]
        self.assertEqual(agent.stop(), 0)
        summary = agent.find(r"(\d+) events came as datagrams; 0 were cut, (\d+) were dropped")
        self.assertEqual(int(summary.group(1)), len(received))
        self.assertEqual(int(summary.group(1)) + int(summary.group(2)), sent + 1)
        self.assertEqual(received, sorted(received))

    def test_logger_is_heard_in_both_formats(self):
        agent = self.start_source()
        for name in ("--rfc3164", "--rfc5424"):
            subprocess.run(["logger", "--udp", "--server", "127.0.0.1", "--port", str(self.port),
                            name, "--tag", "orlo", "hello " + name], check=True)
        lines = self.wait_for_output(b"hello --rfc5424\n").split(b"\n")[:-1]
        self.assertRegex(lines[0], rb"^<13>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d \S+ orlo: hello --rfc3164$")
        self.assertRegex(lines[1], rb"^<13>1 \d{4}-\d\d-\d\dT\S+ \S+ orlo - - .*hello --rfc5424$")
        self.assertEqual(agent.stop(), 0)

    def test_port_in_use_is_refused_at_the_start(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
            taken.bind(("127.0.0.1", 0))
            port = taken.getsockname()[1]
            agent = self.start(self.configure(self.stream(
                f'{{ type: syslog, listen: "udp://127.0.0.1:{port}" }}',
                "{ type: file, path: ./out.log }")))
            self.assertEqual(agent.wait(), 1)
        self.assertRegex(agent.messages("Error")[0],
                         rf"Can't listen on udp://127\.0\.0\.1:{port} \({support.ADDRESS_IN_USE}\)")


class DatagramDestination(support.AgentTest):
    def start_to(self, port):
        return self.start(self.configure(self.stream(
            support.SYSLOG_SOURCE, f'{{ type: syslog, target: "udp://127.0.0.1:{port}" }}'),
            drain="2s"), abandons=True)

    def receiver_socket(self):
        receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(receiver.close)
        receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        receiver.bind(("127.0.0.1", 0))
        receiver.settimeout(support.LIMIT)
        return receiver

    def test_each_event_is_a_datagram_and_one_that_is_too_long_is_cut(self):
        receiver = self.receiver_socket()
        agent = self.start_to(receiver.getsockname()[1])
        messages = [b"one", b"", b"x" * 65_536, b"last"]
        support.send(agent.port(), support.as_lines(messages))
        received = [receiver.recv(70_000) for _ in messages]
        self.assertEqual(received, [b"one", b"", b"x" * 65_507, b"last"])
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (4, 0, 0, 0))
        self.assertTrue(agent.find(r"4 events were sent as datagrams; 1 were cut, 0 came back"))

    def test_what_a_receiver_answers_is_looked_at_and_dropped(self):
        receiver = self.receiver_socket()
        agent = self.start_to(receiver.getsockname()[1])
        support.send(agent.port(), b"one\n")
        _, sender = receiver.recvfrom(100)

        def unread():
            for line in pathlib.Path("/proc/net/udp").read_text().splitlines()[1:]:
                fields = line.split()
                if int(fields[1].split(":")[1], 16) == sender[1]:
                    return int(fields[4].split(":")[1], 16)
            return self.fail("the agent has no such socket")

        for _ in range(10):
            receiver.sendto(b"x" * 1000, sender)
        support.wait_until(lambda: unread() > 10_000, "the answers")
        support.send(agent.port(), b"two\n")
        self.assertEqual(receiver.recv(100), b"two")
        support.wait_until(lambda: unread() == 0, "a look at the answers")
        self.assertEqual(agent.stop(), 0)

    def test_nobody_at_the_port_costs_one_event_and_holds_the_others(self):
        # A port that is taken, by one who listens to nobody but itself.
        refusal = self.receiver_socket()
        refusal.connect(refusal.getsockname())
        agent = self.start_to(refusal.getsockname()[1])
        support.send(agent.port(), b"lost\nheld\nheld\n")
        agent.wait_for("nobody listens there, so an event that was sent is lost")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (1, 0, 0, 2))
        self.assertTrue(agent.find("1 events were sent as datagrams; 0 were cut, 1 came back"))


if __name__ == "__main__":
    unittest.main()
