"""Two streams side by side: one may not send now and keeps its events on disk, the other one sends."""

import support

# An interval on no day of the week is never open, and inverted always.
NEVER = {"Schedule.Enable": "true", "Schedule.Interval": '"0000-2359;00;UTC"',
         "Schedule.Invert": "false"}
ALWAYS = {"Schedule.Enable": "true", "Schedule.Interval": '["0000-1200;7F;UTC", "1200-2400;7F;UTC"]'}


class TwoStreams(support.AgentTest):
    def test_a_closed_schedule_holds_up_its_own_stream_only(self):
        open_receiver = self.receiver()
        closed_receiver = self.receiver()
        config = self.configure(
            self.stream(support.SYSLOG_SOURCE, support.syslog_target(open_receiver.port),
                        name="Open", settings=ALWAYS)
            + self.stream(support.SYSLOG_SOURCE, support.syslog_target(closed_receiver.port),
                          name="Closed", settings=NEVER))
        agent = self.start(config)
        events = support.numbered(0, 1000)
        support.send(agent.port("Closed"), support.as_lines(events))
        self.wait_for_cached(1000, "Closed")
        support.send(agent.port("Open"), support.as_lines(events))
        self.assertEqual(open_receiver.wait_for_lines(1000), events)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary("Open"), (1000, 0, 0, 0))
        self.assertEqual(agent.summary("Closed"), (0, 1000, 0, 0))
        self.assertEqual(closed_receiver.connections, 0)
        self.assertEqual(self.chunks("Open"), [])
        # With its schedule open it sends what it has kept.
        config.write_text(config.read_text().replace("Schedule.Invert: false",
                                                     "Schedule.Invert: true"))
        agent = self.start(config)
        agent.wait_for("1000 events in 1 chunks are cached|1000 events in 2 chunks are cached")
        self.assertEqual(closed_receiver.wait_for_lines(1000), events)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary("Closed"), (1000, 0, 0, 0))


if __name__ == "__main__":
    support.unittest.main()
