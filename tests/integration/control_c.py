"""On Windows, Ctrl+C stops the agent in good order: the newest events go to the disk first, and come
out at the next start."""

import unittest

import support


class ControlC(support.AgentTest):
    def test_ctrl_c_waits_until_the_newest_events_are_on_the_disk(self):
        port = self.refusing_port()
        config = self.configure(
            self.stream(support.SYSLOG_SOURCE, support.syslog_target(port.number)), drain="20s")
        agent = self.start(config)
        # Goes to the sender, which holds it: what follows is on its way to the disk at the stop.
        support.send(agent.port(), b"held\n")
        agent.wait_for(r"\(near\)")
        agent.wait_for("can't be reached")
        events = support.numbered(0, 2_000)
        support.send(agent.port(), support.as_lines(events))
        self.assertEqual(agent.stop(), 0)
        self.assertTrue(agent.find(r"Ctrl\+C received; stopping"), agent.lines)
        self.assertEqual(agent.summary(), (0, 2_000, 0, 1))

        receiver = self.receiver(port)
        agent = self.start(config)
        self.assertEqual(receiver.wait_for_lines(2_000), events)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (2_000, 0, 0, 0))


if __name__ == "__main__":
    unittest.main()
