"""On Windows, Ctrl+C and what else asks a console program to end stop the agent in good order: the
newest events go to the disk first, and come out at the next start.

ORLO_CONTROL_EVENT is the program that lets another one have such an event."""

import os
import subprocess
import unittest

import support


class ControlledAgent(support.Agent):
    """An agent that gets its event from a program around it, which waits for a line."""

    def __init__(self, config, directory, event):
        super().__init__(config, directory, stdin=subprocess.PIPE, arguments=[
            *support.LAUNCHER, os.environ["ORLO_CONTROL_EVENT"], event, support.AGENT, "run",
            "--config", str(config), "--modules", str(support.MODULES)])

    def close(self):
        super().close()
        self.process.stdin.close()

    def signal(self, number=None):
        self.process.stdin.write(b"now\n")
        self.process.stdin.flush()


class ControlEvents(support.AgentTest):
    def expect_that_newest_events_go_to_the_disk(self, start, name):
        port = self.refusing_port()
        config = self.configure(
            self.stream(support.SYSLOG_SOURCE, support.syslog_target(port.number)), drain="20s")
        agent = start(config)
        # What follows is on its way to the disk at the stop.
        self.hold_one(agent)
        events = support.numbered(0, 2_000)
        support.send(agent.port(), support.as_lines(events))
        self.assertEqual(agent.stop(), 0)
        self.assertTrue(agent.find(rf"{name} received; stopping"), agent.lines)
        self.assertEqual(agent.summary(), (0, 2_000, 0, 1))

        receiver = self.receiver(port)
        agent = self.start(config)
        self.assertEqual(receiver.wait_for_lines(2_000), events)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (2_000, 0, 0, 0))

    def start_controlled(self, event):
        def start(config):
            agent = ControlledAgent(config, self.directory, event)
            self.addCleanup(agent.close)
            return agent
        return start

    def test_ctrl_c_waits_until_the_newest_events_are_on_the_disk(self):
        self.expect_that_newest_events_go_to_the_disk(self.start, r"Ctrl\+C")

    def test_so_does_ctrl_break(self):
        self.expect_that_newest_events_go_to_the_disk(self.start_controlled("break"),
                                                      r"Ctrl\+Break")

    def test_so_does_the_closing_of_the_console(self):
        self.expect_that_newest_events_go_to_the_disk(self.start_controlled("close"),
                                                      "The closing of the console")

    def test_so_does_the_end_of_the_session(self):
        self.expect_that_newest_events_go_to_the_disk(self.start_controlled("logoff"),
                                                      "The end of the session")


if __name__ == "__main__":
    unittest.main()
