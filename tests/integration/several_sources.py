"""Several sources in one stream: each has its events, its counters and its own end."""

import socket
import subprocess

import support


class SeveralSources(support.AgentTest):
    def test_each_source_keeps_its_order_and_counts_for_itself(self):
        (self.directory / "followed.log").write_bytes(
            support.as_lines([b"file %d" % number for number in range(300)]))
        sources = ('\n      - { type: syslog, listen: "tcp://127.0.0.1:0" }'
                   '\n      - { type: syslog, listen: "udp://127.0.0.1:0" }'
                   "\n      - { type: file, path: followed.log }"
                   "\n      - { type: stdin }")
        config = self.configure(self.stream(sources, "{ type: file, path: out.log }").replace(
            "source:", "sources:", 1))
        agent = self.start(config, stdin=subprocess.PIPE)
        datagrams = int(agent.wait_for(r"Listening on udp://.*:(\d+)\.").group(1))
        support.send(agent.port(), support.as_lines([b"tcp %d" % n for n in range(500)]))
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for number in range(200):
                sender.sendto(b"udp %d" % number, ("127.0.0.1", datagrams))
        agent.process.stdin.write(support.as_lines([b"in %d" % number for number in range(400)]))
        agent.process.stdin.close()
        output = self.directory / "out.log"
        support.wait_until(lambda: output.exists() and output.read_bytes().count(b"\n") == 1400,
                           "every event")
        # The end of the standard input is not the end: three other sources go on.
        self.assertIsNone(agent.process.poll())
        support.send(agent.port(), b"tcp 500\n")
        support.wait_until(lambda: output.read_bytes().count(b"\n") == 1401, "one more event")
        self.assertEqual(agent.stop(), 0)
        lines = output.read_bytes().split(b"\n")[:-1]
        for name, count in ((b"tcp", 501), (b"udp", 200), (b"file", 300), (b"in", 400)):
            self.assertEqual([line for line in lines if line.startswith(name)],
                             [name + b" %d" % number for number in range(count)])
        self.assertTrue(agent.find(r"tcp://127\.0\.0\.1:\d+: 501 events came over 2 connections"))
        self.assertTrue(agent.find(rf"udp://127\.0\.0\.1:{datagrams}: 200 events came as datagrams"))
        self.assertTrue(agent.find(r"300 events came from files"))
        self.assertTrue(agent.find(r"The standard input gave 400 events"))
        self.assertEqual(agent.summary(), (1401, 0, 0, 0))

    def test_the_agent_ends_with_its_only_source_and_not_before(self):
        config = self.configure(
            self.stream("{ type: stdin }", "{ type: file, path: a.log }", name="A")
            + self.stream(support.SYSLOG_SOURCE, "{ type: file, path: b.log }", name="B"))
        agent = self.start(config, stdin=subprocess.PIPE)
        agent.process.stdin.write(b"the last one\n")
        agent.process.stdin.close()
        output = self.directory / "a.log"
        support.wait_until(lambda: output.exists() and output.read_bytes() == b"the last one\n",
                           "the event")
        support.send(agent.port("B"), b"still here\n")
        output = self.directory / "b.log"
        support.wait_until(lambda: output.exists() and output.read_bytes() == b"still here\n",
                           "the other stream's event")
        self.assertIsNone(agent.process.poll())
        self.assertEqual(agent.stop(), 0)


if __name__ == "__main__":
    support.unittest.main()
