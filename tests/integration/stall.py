"""A cache that could be emptied and is not: the agent says so, and says it of nothing else."""

import re
import unittest

import support

# A look every half second, and one that is reported every second.
WATCH = "watch: { stall_after: 1s, repeat: 2s, report: 1s }\n"
# Where what is cached does move, which may take a while on a busy machine.
PATIENT = "watch: { stall_after: 60s, report: 1s }\n"
REPORT = r"Info Code\.StreamWatch\.Default: \d+ events delivered, \d+ cached in \d+ chunks, "
WARNING = r"Warn Code\.StreamWatch\.Default: The event cache has not moved for \d+ s"
NEVER = {"Schedule.Enable": "true", "Schedule.Interval": '"0000-2359;00;UTC"'}


def chunk(*payloads):
    data = len(payloads).to_bytes(4, "little")
    for payload in payloads:
        data += (0).to_bytes(4, "little") + len(payload).to_bytes(4, "little") + payload
    return data


class Stall(support.AgentTest):
    def leave(self, name, data):
        path = self.directory / "data" / "Events" / "Default" / "2016-03-07-14-05" / name
        path.parent.mkdir(parents=True, exist_ok=True)
        if data is None:
            path.mkdir()
        else:
            path.write_bytes(data)
        return path

    def start_with(self, destination="{ type: file, path: ./out.log }", settings=None, watch=WATCH):
        config = self.configure(
            self.stream(support.SYSLOG_SOURCE, destination, settings=settings),
            drain="1s", extra=watch)
        return self.start(config)

    def warnings(self, agent):
        return [line for line in agent.messages("Warn") if "StreamWatch" in line]

    def reports(self, agent):
        return [line for line in agent.messages("Info") if re.search(REPORT, line)]

    def wait_for_reports(self, agent, count):
        """That the watch has looked for so many seconds from now on."""
        before = len(self.reports(agent))
        support.wait_until(lambda: len(self.reports(agent)) >= before + count, "more reports")

    def test_oldest_chunk_that_cannot_be_read_is_named_and_named_again(self):
        stuck = self.leave("07", None)
        self.leave("08", chunk(b"behind it"))
        agent = self.start_with()
        agent.wait_for(WARNING)
        support.wait_until(lambda: len(self.warnings(agent)) >= 3, "the warning is repeated")
        for line in self.warnings(agent):
            self.assertIn(support.as_named(stuck), line)
            self.assertIn("it is a directory", line)
        support.wait_until(lambda: re.search(r"0 events delivered, \d+ cached in \d+ chunks, 0 "
                                             r"lost, 0 held; stalled for [1-9]\d* s\.",
                                             self.reports(agent)[-1]), "a report of the stall")
        self.assertEqual(agent.stop(), 0)
        self.assertFalse((self.directory / "out.log").exists()
                         and (self.directory / "out.log").read_bytes())

        # As the warning says: moved away and restarted, what was behind it comes out.
        stuck.rmdir()
        agent = self.start_with(watch=PATIENT)
        output = self.directory / "out.log"
        support.wait_until(lambda: output.exists() and output.read_bytes() == b"behind it\n",
                           "the chunk that was behind")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(self.warnings(agent), [])

    def test_closed_schedule_is_no_stall_and_a_restart_skips_what_vanished(self):
        first = self.leave("07", chunk(b"first"))
        self.leave("08", chunk(b"second"))
        agent = self.start_with(settings={**NEVER})
        first.unlink()
        self.wait_for_reports(agent, 4)
        self.assertEqual(self.warnings(agent), [], "a closed schedule is no stall")
        self.assertEqual(agent.stop(), 0)
        agent = self.start_with(watch=PATIENT)
        output = self.directory / "out.log"
        support.wait_until(lambda: output.exists() and output.read_bytes() == b"second\n",
                           "the chunk that is left")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(self.warnings(agent), [])

    def test_destination_that_is_away_is_no_stall(self):
        self.leave("07", chunk(b"first"))
        self.leave("08", chunk(b"second"))
        agent = self.start_with(support.syslog_target(self.refusing_port().number))
        agent.wait_for("can't be reached")
        self.wait_for_reports(agent, 5)
        self.assertEqual(self.warnings(agent), [])
        agent.stop()


if __name__ == "__main__":
    unittest.main()
