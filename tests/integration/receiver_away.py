"""With nobody listening, events wait on the disk, across a restart, and come out in order."""

import signal
import unittest

import support


class ReceiverAway(support.AgentTest):
    def test_a_hundred_thousand_events_survive_a_restart_in_order(self):
        port = self.refusing_port()
        config = self.configure(
            self.stream(support.SYSLOG_SOURCE, support.syslog_target(port.number)), drain="1s")

        agent = self.start(config, abandons=True)
        self.hold_one(agent)
        events = support.numbered(0, 100_000)
        support.send(agent.port(), support.as_lines(events))
        self.wait_for_cached(100_000)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (0, 100_000, 0, 1))
        self.assertEqual(len([line for line in agent.messages("Warn") if "reached" in line]), 1)

        receiver = self.receiver(port)
        agent = self.start(config)
        agent.wait_for(r"Stream Default: 100000 events in \d+ chunks are cached")
        receiver.wait_for_lines(100_000)
        new = support.numbered(100_000, 500)
        support.send(agent.port(), support.as_lines(new))
        received = receiver.wait_for_lines(100_500)
        self.assertEqual(received, events + new)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (100_500, 0, 0, 0))
        self.assertEqual(self.chunks(), [])

    def test_what_is_cached_survives_a_kill(self):
        port = self.refusing_port()
        config = self.configure(
            self.stream(support.SYSLOG_SOURCE, support.syslog_target(port.number)), drain="1s")
        agent = self.start(config)
        self.hold_one(agent)
        events = support.numbered(0, 5_000)
        support.send(agent.port(), support.as_lines(events))
        self.wait_for_cached(5_000)
        agent.signal(signal.SIGKILL)
        self.assertEqual(agent.wait(), -signal.SIGKILL)

        receiver = self.receiver(port)
        agent = self.start(config)
        agent.wait_for("5000 events in . chunks are cached")
        self.assertEqual(receiver.wait_for_lines(5_000), events)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (5_000, 0, 0, 0))

    def test_a_receiver_that_returns_gets_everything_without_a_restart(self):
        port = self.refusing_port()
        config = self.configure(
            self.stream(support.SYSLOG_SOURCE, support.syslog_target(port.number)))
        agent = self.start(config)
        self.hold_one(agent)
        events = support.numbered(0, 2_000)
        support.send(agent.port(), support.as_lines(events))
        self.wait_for_cached(2_000)
        receiver = self.receiver(port)
        self.assertEqual(receiver.wait_for_lines(2_001), [b"held"] + events)
        agent.wait_for(r"Connected to tcp://127\.0\.0\.1:\d+ again after")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (2_001, 0, 0, 0))

    def test_two_streams_do_not_disturb_each_other(self):
        good = self.receiver()
        config = self.configure(
            self.stream(support.SYSLOG_SOURCE, support.syslog_target(self.refusing_port().number),
                        name="Away") +
            self.stream(support.SYSLOG_SOURCE, support.syslog_target(good.port), name="There"),
            drain="1s")
        agent = self.start(config, abandons=True)
        self.hold_one(agent, "Away")
        events = support.numbered(0, 3_000)
        support.send(agent.port("Away"), support.as_lines(events))
        support.send(agent.port("There"), support.as_lines(events))
        self.assertEqual(good.wait_for_lines(3_000), events)
        self.wait_for_cached(3_000, "Away")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary("There"), (3_000, 0, 0, 0))
        self.assertEqual(agent.summary("Away"), (0, 3_000, 0, 1))
        self.assertEqual(self.chunks("There"), [])


if __name__ == "__main__":
    unittest.main()
