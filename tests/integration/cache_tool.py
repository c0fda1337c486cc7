"""orlo-cache on the caches of a real agent, running and stopped."""

import json
import os
import pathlib
import shutil
import subprocess
import unittest

import support

PROGRAM = pathlib.Path(support.AGENT)
TOOL = [*support.LAUNCHER, str(PROGRAM.with_name(PROGRAM.name.replace("agent", "cache")))]


class CacheTool(support.AgentTest):
    def tool(self, *arguments, expect=0):
        run = subprocess.run([*TOOL, *map(str, arguments)], cwd=self.directory, capture_output=True,
                             timeout=support.LIMIT)
        self.assertEqual(run.returncode, expect, run.stdout + run.stderr)
        return run

    def listed(self):
        return json.loads(self.tool("list", "data", "--json").stdout)["chunks"]

    def verdict(self):
        return json.loads(self.tool("verify", "data", "--json").stdout)

    def raw(self):
        return self.tool("export", "data", "--format", "raw").stdout

    def start_without_receiver(self):
        """The agent's first chunk waits in memory; whatever follows is cached."""
        self.port = self.refusing_port()
        self.config = self.configure(
            self.stream(support.SYSLOG_SOURCE, support.syslog_target(self.port.number)), drain="1s")
        agent = self.start(self.config)
        self.hold_one(agent)
        return agent

    def cache_events(self, agent, first, count):
        events = support.numbered(first, count)
        before = self.cached()
        support.send(agent.port(), support.as_lines(events))
        self.wait_for_cached(before + count)
        return events

    def deliver(self):
        """Everything that an agent then finds in the cache."""
        receiver = self.receiver(self.port)
        agent = self.start(self.config)
        support.wait_until(lambda: not self.listed(), "an empty cache")
        self.assertEqual(agent.stop(), 0)
        return receiver.lines(), agent

    def test_a_running_agent_is_only_looked_at(self):
        agent = self.start_without_receiver()
        events = self.cache_events(agent, 0, 500)
        events += self.cache_events(agent, 500, 500)
        chunks = self.listed()
        self.assertEqual(sum(chunk["events"] for chunk in chunks), 1000)
        self.assertEqual({chunk["state"] for chunk in chunks}, {"plausible"})
        self.assertEqual([chunk["chunk"] for chunk in chunks],
                         ["/".join(path.parts[-2:]) for path in self.chunks()])
        verdict = self.verdict()
        self.assertEqual((verdict["damaged"], verdict["events"]), (0, 1000))
        self.assertEqual(self.raw(), support.as_lines(events))
        shown = json.loads(self.tool("show", "data", "oldest", "--json").stdout)
        self.assertEqual(shown["events"][0]["text"].encode(), events[0])
        self.assertRegex(shown["events"][0]["source"], r"^tcp:127\.0\.0\.1$")

        before = {path: path.read_bytes() for path in self.chunks()}
        (self.directory / "events.json").write_bytes(self.tool("export", "data").stdout)
        for refused in (("requeue", "data", "events.json"), ("quarantine", "data", "--damaged"),
                        ("quarantine", "data", "oldest", "--force")):
            run = self.tool(*refused, expect=3)
            self.assertIn(b"only while no agent runs", run.stderr)
        self.assertEqual({path: path.read_bytes() for path in self.chunks()}, before)

        # None of it has disturbed the agent.
        agent.stop()
        delivered, _ = self.deliver()
        self.assertEqual(delivered, events)

    def test_a_look_at_a_cache_that_moves_finds_no_damage(self):
        agent = self.start_without_receiver()
        events = []
        for first in range(0, 3000, 1000):
            events += self.cache_events(agent, first, 1000)
        receiver = self.receiver(self.port)

        def look():
            self.tool("list", "data")
            self.verdict()
            return not self.chunks()
        support.wait_until(look, "an empty cache")
        self.assertEqual(receiver.wait_for_lines(3001)[1:], events)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (3001, 0, 0, 0))

    def test_exported_and_requeued_events_come_last_and_whole(self):
        agent = self.start_without_receiver()
        first = self.cache_events(agent, 0, 300)
        second = self.cache_events(agent, 300, 300)
        agent.stop()
        oldest = self.chunks()[0]
        name = "/".join(oldest.parts[-2:])
        self.tool("export", "data", name, "-o", "first.json")
        before = oldest.read_bytes()
        refused = self.tool("export", "data", name, "-o", oldest, expect=3)
        self.assertIn(b"exists already", refused.stderr)
        self.assertEqual(oldest.read_bytes(), before)
        self.tool("quarantine", "data", "oldest", "--force")
        run = self.tool("requeue", "data", "first.json", "--remove")
        self.assertIn(b"300 events", run.stdout)
        self.assertFalse((self.directory / "first.json").exists())
        if support.LAUNCHER:
            # Wine lists names with a dot for the stage, which Windows does not.
            shutil.rmtree(self.directory / "data" / "Events" / "Default" / "quarantine.d")
        delivered, agent = self.deliver()
        self.assertEqual(delivered, second + first)
        self.assertTrue(agent.find(r"600 events in 2 chunks are cached"))
        self.assertEqual(agent.summary(), (600, 0, 0, 0))

    def test_a_chunk_that_stops_delivery_is_moved_out_of_the_way(self):
        agent = self.start_without_receiver()
        events = self.cache_events(agent, 0, 300)
        agent.stop()
        # What an agent can't open stays the oldest for ever.
        minute = self.directory / "data" / "Events" / "Default" / "2016-03-07-14-05"
        (minute / "07").mkdir(parents=True)
        torn = minute / "08"
        torn.write_bytes(self.chunks()[-1].read_bytes()[:1000])
        os.utime(torn, (1, 1))
        run = self.tool("verify", "data", expect=1)
        self.assertIn(b"nor anything behind it", run.stdout)
        run = self.tool("quarantine", "data", "--damaged")
        self.assertIn(b"2 chunks moved away", run.stdout)
        self.tool("verify", "data")
        quarantine = self.directory / "data" / "Events" / "Default" / "quarantine.d"
        self.assertIn("its bytes end within event",
                      (quarantine / "2016-03-07-14-05_08.txt").read_text())
        self.tool("requeue", "data", quarantine / "2016-03-07-14-05_08", expect=1)
        self.tool("requeue", "data", quarantine / "2016-03-07-14-05_08", "--salvage",
                  expect=1)
        shutil.rmtree(quarantine)
        delivered, _ = self.deliver()
        readable = len(delivered) - 300
        self.assertGreater(readable, 0)
        self.assertEqual(delivered, events + events[:readable])

    def test_an_export_that_fails_leaves_no_file_in_the_way_of_the_next(self):
        (self.directory / "data" / "Events" / "Default" / "2016-03-07-14-05").mkdir(parents=True)
        self.tool("export", "date", "--output", "events.json", expect=3)
        self.assertFalse((self.directory / "events.json").exists())
        self.tool("export", "data", "--output", "events.json")
        self.assertEqual((self.directory / "events.json").read_bytes(), b"")
        self.tool("export", "data", "--output", "events.json", expect=3)
        self.assertTrue((self.directory / "events.json").exists())

    def test_wrong_usage_ends_with_2_and_what_is_not_there_with_3(self):
        self.tool(expect=2)
        self.tool("list", expect=2)
        self.tool("list", "absent", expect=3)
        (self.directory / "data" / "Events" / "Default").mkdir(parents=True)
        self.tool("list", "data")
        self.tool("list", "data", "--stream", "Other", expect=3)
        (self.directory / "data" / "Events" / "Other").mkdir(parents=True)
        self.assertIn(b"Default, Other", self.tool("list", "data", expect=2).stderr)
        self.tool("list", "data", "-s", "Other")
        self.tool("quarantine", "data", "-s", "Other", expect=2)
        self.tool("show", "data", "oldest", "-s", "Other", expect=3)
        self.assertIn(b"orlo-cache ", self.tool("--version").stdout)


if __name__ == "__main__":
    unittest.main()
