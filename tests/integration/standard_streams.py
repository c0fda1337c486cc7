"""Standard input to standard output: every byte comes out as it went in."""

import os
import subprocess
import time
import unittest

import support


class StandardStreams(support.AgentTest):
    def run_through(self, data, source="{ type: stdin }"):
        config = self.configure(self.stream(source, "{ type: stdout }"))
        (self.directory / "in").write_bytes(data)
        with open(self.directory / "in", "rb") as given, \
                open(self.directory / "out", "wb") as taken:
            agent = self.start(config, stdin=given, stdout=taken)
            self.assertEqual(agent.wait(), 0, agent.lines)
        return (self.directory / "out").read_bytes(), agent

    def test_any_bytes_come_out_as_they_went_in(self):
        everything = bytes(range(256)) * 64
        data = (b"first\n\n\nafter two empty lines\n" + b"nul \0 nul\n" + everything + b"\n" +
                b"x" * 1_000_000 + b"\nlast line without its end")
        out, agent = self.run_through(data)
        self.assertEqual(out, data)
        delivered, cached, lost, held = agent.summary()
        self.assertGreater(delivered, data.count(b"\n"), "the long line is several events")
        self.assertEqual((cached, lost, held), (0, 0, 0))

    def test_each_line_is_an_event(self):
        events = support.numbered(0, 1000)
        out, agent = self.run_through(support.as_lines(events))
        self.assertEqual(out, support.as_lines(events))
        self.assertEqual(agent.summary(), (1000, 0, 0, 0))
        self.assertRegex(agent.lines[-1],
                         r"Stream Default: 1000 events delivered, 0 cached, 0 lost, 0 held\.$")

    def test_no_input_is_no_event(self):
        out, agent = self.run_through(b"")
        self.assertEqual(out, b"")
        self.assertEqual(agent.summary(), (0, 0, 0, 0))

    def test_small_pieces_join_again(self):
        data = b"0123456789" * 100 + b"\n" + b"y" * 128 + b"\n" + b"z" * 64
        out, agent = self.run_through(data, "{ type: stdin, max_event_size: 64 }")
        self.assertEqual(out, data)
        self.assertEqual(agent.summary(), (16 + 2 + 1, 0, 0, 0))

    def test_a_slow_reader_of_a_pipe_gets_everything(self):
        config = self.configure(self.stream("{ type: stdin }", "{ type: stdout }"))
        events = support.as_lines(support.numbered(0, 20_000))
        (self.directory / "in").write_bytes(events)
        with open(self.directory / "in", "rb") as given:
            agent = self.start(config, stdin=given, stdout=subprocess.PIPE)
        with agent.process.stdout as output:
            agent.wait_for("The input has ended")
            taken = output.read(1000)
            time.sleep(0.5)  # what is slow is this reader
            taken += output.read()
        self.assertEqual(agent.wait(), 0)
        self.assertEqual(taken, events)
        self.assertEqual(agent.summary(), (20_000, 0, 0, 0))

    def test_a_reader_that_has_gone_is_reported_once_and_events_are_held(self):
        config = self.configure(self.stream("{ type: stdin }", "{ type: stdout }"), drain="10m")
        read_end, write_end = os.pipe()
        agent = self.start(config, stdin=subprocess.PIPE, stdout=write_end, abandons=True)
        os.close(write_end)
        os.close(read_end)
        with agent.process.stdin as given:
            given.write(b"one\ntwo\n")
        agent.wait_for("standard output is closed")
        agent.signal()
        self.assertEqual(agent.wait(), 0)
        self.assertEqual(len(agent.messages("Error")), 1, agent.lines)
        self.assertRegex(agent.messages("Error")[0], "standard output is closed")
        self.assertEqual(agent.summary(), (0, 0, 0, 2))

    def test_sigterm_ends_an_agent_whose_input_is_open_and_silent(self):
        config = self.configure(self.stream("{ type: stdin }", "{ type: stdout }"), drain="10m")
        agent = self.start(config, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        with agent.process.stdin as given, agent.process.stdout as taken:
            given.write(b"said before it fell silent\nhalf a li")
            given.flush()
            self.assertEqual(taken.read(27), b"said before it fell silent\n")
            agent.signal()
            self.assertEqual(taken.read(), b"half a li")
            self.assertEqual(agent.wait(), 0)
        self.assertIsNone(agent.find("did not come to rest"))
        self.assertEqual(agent.summary(), (2, 0, 0, 0))

    def test_a_second_signal_ends_the_wait_for_events(self):
        port = self.refusing_port()
        config = self.configure(self.stream("{ type: stdin }", support.syslog_target(port.number)),
                                drain="10m")
        agent = self.start(config, stdin=subprocess.PIPE, abandons=True)
        with agent.process.stdin as given:
            given.write(b"nobody wants it\n")
            given.flush()
            agent.wait_for(r"\(near\)")
            agent.signal()
            agent.wait_for("stopping")
            agent.signal()
            self.assertEqual(agent.wait(), 0)
        self.assertEqual(agent.summary(), (0, 0, 0, 1))


if __name__ == "__main__":
    unittest.main()
