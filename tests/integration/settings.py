"""Stage settings that can't be used: the agent runs on their defaults and says so."""

import unittest

import support


class Settings(support.AgentTest):
    def run_with(self, settings):
        config = self.configure(self.stream("{ type: stdin }", "{ type: file, path: ./out.log }",
                                            settings=settings))
        (self.directory / "in").write_bytes(b"one\ntwo\n")
        with open(self.directory / "in", "rb") as given:
            agent = self.start(config, stdin=given)
        self.assertEqual(agent.wait(), 0, agent.lines)
        self.assertEqual((self.directory / "out.log").read_bytes(), b"one\ntwo\n")
        self.assertEqual(agent.summary(), (2, 0, 0, 0))
        return agent

    def test_values_that_are_no_numbers_or_do_not_fit_give_one_error_line_each(self):
        agent = self.run_with({
            "DataChunkPeriod": "soon",
            "QueueLowWaterMark": "4294967296",
            "QueueHighWaterMark": "1e6",
            "DataProcessingPeriod": "-99999999999",
        })
        errors = agent.messages("Error")
        self.assertEqual(len(errors), 4, errors)
        for key, value, default in (("DataChunkPeriod", "soon", "10"),
                                    ("QueueLowWaterMark", "4294967296", "975000"),
                                    ("QueueHighWaterMark", "1e6", "1000000"),
                                    ("DataProcessingPeriod", "-99999999999", "500000")):
            found = [line for line in errors if key in line]
            self.assertEqual(len(found), 1, errors)
            self.assertIn(value, found[0])
            self.assertIn(default, found[0])

    def test_negative_and_small_periods_are_raised(self):
        agent = self.run_with({"DataChunkPeriod": "-1", "DataProcessingPeriod": "0"})
        self.assertEqual(agent.messages("Error"), [])
        self.assertTrue(agent.find(
            r"Data chunking period too small\.  Reverting to minimum \(5\)\."))
        self.assertTrue(agent.find(
            r"Data processing period too small\.  Reverting to minimum \(500000\)\."))

    def test_a_low_mark_above_the_high_mark_is_accepted(self):
        agent = self.run_with({"QueueLowWaterMark": "2000000", "QueueHighWaterMark": "1000"})
        self.assertEqual(agent.messages("Error"), [])

    def test_an_invalid_interval_turns_the_schedule_off(self):
        agent = self.run_with({
            "Schedule.Enable": "true",
            "Schedule.Interval": '["0000-0001;01;UTC", "nonsense"]',
        })
        self.assertEqual(len(agent.messages("Error")), 1, agent.lines)
        self.assertTrue(agent.find(
            r"Invalid schedule interval detected \(nonsense\)\. Disabling Schedule\."))


if __name__ == "__main__":
    unittest.main()
