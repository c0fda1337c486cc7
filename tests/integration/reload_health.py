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
        self.reload(agent, "has 1 mistake and is not taken")
        self.wait_for_problem(agent, "agent.yaml has 1 mistake and is not taken")
        self.wait_for_metric(agent, TAKEN, 0)
        shown = self.run_status(agent)
        self.assertEqual(shown.returncode, 1)
        self.assertIn("! ", shown.stdout)
        self.assertIn("agent.yaml has 1 mistake and is not taken", shown.stdout)
        self.configure_stream()
        self.reload(agent, "1 streams go on untouched")
        self.wait_for_health(agent)
        self.wait_for_metric(agent, TAKEN, 1)
        self.assertEqual(agent.stop(), 0)

    def test_a_section_that_cannot_be_used_is_a_problem_of_its_stream(self):
        free = self.refusing_port()
        # So that it is nobody else's until the agent can listen there.
        self.refusing_port(free.number)
        taken = self.receiver(free)
        agent = self.start_good()
        two = (f'[ {support.SYSLOG_SOURCE}, '
               f'{{ type: syslog, listen: "tcp://127.0.0.1:{taken.port}" }} ]')
        self.configure_stream(two, more=self.stream(
            support.SYSLOG_SOURCE, "{ type: file, path: more.log/impossible }", name="More"))
        (self.directory / "more.log").write_bytes(b"")
        self.reload(agent, r"0 streams go on untouched, 0 were changed, 0 added, 0 removed, 2 can't "
                           r"be used\.$")
        self.wait_for_problem(agent, "its new section can't be used, and it goes on as before: ")
        self.wait_for_problem(agent, "stream More: it does not run: ")
        self.wait_for_metric(agent, NOT_RUNNING, 1)
        self.wait_for_metric(agent, 'orlo_stream_healthy{stream="Default"}', 0)
        shown = self.run_status(agent)
        self.assertEqual(shown.returncode, 1)
        self.assertIn("stream More: it does not run: ", shown.stdout)
        taken.close()
        (self.directory / "more.log").unlink()
        self.reload(agent, r"0 streams go on untouched, 1 were changed, 1 added, 0 removed\.$")
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
        sent = next(one for one in self.metrics(agent)
                    if one.startswith("orlo_destination_events_total"))

        def is_the_new_stream_with_the_counts_of_before():
            metrics = self.metrics(agent)
            return [metrics.get(one) for one in (delivered, name, sent)] == [0, 100, 100]
        support.wait_until(is_the_new_stream_with_the_counts_of_before, "the counts")
        self.assertEqual(agent.stop(), 0)

    def test_what_cannot_change_while_the_agent_runs_is_a_problem_until_it_is_as_before(self):
        agent = self.start_good()
        config = self.configure_stream()
        good = config.read_text()
        config.write_text(good.replace("data_directory: ./data", "data_directory: ./other")
                          .replace("refused_after: 1s", "refused_after: 2s"))
        self.reload(agent, "1 streams go on untouched")
        self.wait_for_problem(agent, "^data_directory can't change while the agent runs; it stays "
                                     r".*/data until the agent is started again$")
        self.wait_for_problem(agent, "^monitor can't change while the agent runs")
        self.wait_for_metric(agent, TAKEN, 0)
        config.write_text(good)
        self.reload(agent, "1 streams go on untouched")
        self.wait_for_health(agent)
        self.wait_for_metric(agent, TAKEN, 1)
        self.assertEqual(agent.stop(), 0)

    def test_the_monitor_is_asked_without_rest_while_streams_are_exchanged_under_load(self):
        agent = self.start_good()
        stop = threading.Event()
        failures = []
        rounds = [0]

        def scrape():
            while not stop.is_set():
                try:
                    for path in ("/metrics", "/status", "/statistics", "/history", "/healthz"):
                        code, _ = self.ask(agent, path)
                        if code != 200 and (path, code) != ("/healthz", 503):
                            failures.append((path, code))
                except Exception as error:
                    failures.append(error)
                    return
                rounds[0] += 1

        scraper = threading.Thread(target=scrape, daemon=True)
        scraper.start()
        client = Client(agent.port(), b"one")
        for period in (6, 5, 7):
            self.configure_stream(period=period)
            before = rounds[0]
            self.reload(agent, "0 streams go on untouched, 1 were changed")
            # One of them may have begun before the reload.
            support.wait_until(lambda: failures or rounds[0] >= before + 2, "whole rounds")
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
