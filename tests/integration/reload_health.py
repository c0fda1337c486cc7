"""What a reload could not take is shown where users look: the health check, the metrics and
`orlo-agent status`, until a reload succeeds; and counts go on over reloads."""

import threading
import unittest

import support
from monitor_support import MONITOR, MonitorTest
from reload_support import Client, ReloadTest

TAKEN = "orlo_agent_configuration_taken"
NOT_RUNNING = "orlo_agent_streams_not_running"


class ReloadHealth(MonitorTest, ReloadTest):
    def configure_stream(self, source=support.SYSLOG_SOURCE, period=5, more=""):
        return self.configure(
            self.stream(source, "{ type: file, path: out.log }",
                        settings={"DataChunkPeriod": period}) + more, extra=MONITOR)

    def start_good(self):
        agent = self.start(self.configure_stream())
        self.wait_for_look(agent)
        self.wait_for_health(agent)
        return agent

    def wait_for_metric(self, agent, name, value):
        support.wait_until(lambda: self.metrics(agent).get(name) == value, f"{name} {value}")

    def test_a_file_with_mistakes_is_a_problem_until_it_is_mended(self):
        agent = self.start_good()
        self.assertEqual(self.metrics(agent)[TAKEN], 1)
        self.configure_stream("{ type: stdout }")
        self.reload(agent, "has 1 mistakes and is not taken")
        self.wait_for_problem(agent, "agent.yaml has 1 mistakes and is not taken")
        self.assertEqual(self.metrics(agent)[TAKEN], 0)
        shown = self.run_status(agent)
        self.assertEqual(shown.returncode, 1)
        self.assertIn("! ", shown.stdout)
        self.assertIn("agent.yaml has 1 mistakes and is not taken", shown.stdout)
        self.configure_stream()
        self.reload(agent, "1 streams go on untouched")
        self.wait_for_health(agent)
        self.assertEqual(self.metrics(agent)[TAKEN], 1)
        self.assertEqual(agent.stop(), 0)

    def test_a_section_that_cannot_be_used_is_a_problem_of_its_stream(self):
        taken = self.receiver()
        agent = self.start_good()
        two = (f'[ {support.SYSLOG_SOURCE}, '
               f'{{ type: syslog, listen: "tcp://127.0.0.1:{taken.port}" }} ]')
        self.configure_stream(two, more=self.stream(
            f'{{ type: syslog, listen: "tcp://127.0.0.1:{taken.port}", max_connections: 9 }}'
            .replace("127.0.0.1", "127.0.0.2"), "{ type: file, path: more.log/impossible }",
            name="More"))
        (self.directory / "more.log").write_bytes(b"")
        self.reload(agent, "0 streams go on untouched, 1 were changed, 1 added")
        self.wait_for_problem(agent, "its new section can't be used, and it goes on as before: ")
        self.wait_for_problem(agent, "stream More: it does not run: ")
        self.wait_for_metric(agent, NOT_RUNNING, 1)
        self.wait_for_metric(agent, 'orlo_stream_healthy{stream="Default"}', 0)
        shown = self.run_status(agent)
        self.assertEqual(shown.returncode, 1)
        self.assertIn("stream More: it does not run: ", shown.stdout)
        taken.close()
        (self.directory / "more.log").unlink()
        self.reload(agent, "0 streams go on untouched, 1 were changed, 1 added")
        self.wait_for_health(agent)
        self.wait_for_metric(agent, NOT_RUNNING, 0)
        self.assertEqual(agent.stop(), 0)

    def test_the_counts_of_what_goes_on_go_on(self):
        agent = self.start_good()
        support.send(agent.port(), support.as_lines(support.numbered(0, 100)))
        delivered = 'orlo_stream_events_delivered_total{stream="Default"}'
        self.wait_for_metric(agent, delivered, 100)
        name = next(one for one in self.metrics(agent)
                    if one.startswith("orlo_source_events_posted_total"))
        self.configure_stream(period=6)
        self.reload(agent, "0 streams go on untouched, 1 were changed")
        support.wait_until(lambda: name in self.metrics(agent), "the new stream")
        self.wait_for_metric(agent, delivered, 0)
        # At the first look, not at the agent's next one ten seconds later.
        self.assertEqual(self.metrics(agent)[name], 100)
        self.assertEqual(self.metrics(agent)[next(
            one for one in self.metrics(agent) if one.startswith("orlo_destination_events_total"))],
            100)
        self.assertEqual(agent.stop(), 0)

    def test_the_monitor_is_asked_without_rest_while_streams_are_exchanged_under_load(self):
        agent = self.start_good()
        stop = threading.Event()
        failures = []

        def scrape():
            while not stop.is_set():
                try:
                    for path in ("/metrics", "/status", "/statistics", "/history", "/healthz"):
                        self.ask(agent, path)
                except OSError as error:
                    failures.append(error)
                    return

        scraper = threading.Thread(target=scrape, daemon=True)
        scraper.start()
        client = Client(agent.port(), b"one")
        for period in (6, 5, 7):
            self.configure_stream(period=period)
            self.reload(agent, "0 streams go on untouched, 1 were changed")
        sent = client.end()
        output = self.directory / "out.log"
        support.wait_until(lambda: output.read_bytes().count(b"\n") >= len(sent), "every event")
        stop.set()
        scraper.join(support.LIMIT)
        self.assertEqual(failures, [])
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(output.read_bytes(), support.as_lines(sent))


if __name__ == "__main__":
    unittest.main()
