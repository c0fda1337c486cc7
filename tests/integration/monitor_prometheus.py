"""A real Prometheus, and its tool, take what the agent shows."""

import http.client
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import unittest
import urllib.parse

import support
from monitor_support import MonitorTest

PROMETHEUS = os.environ.get("ORLO_PROMETHEUS", "prometheus")
PROMTOOL = os.environ.get("ORLO_PROMTOOL", "promtool")
PAGE = pathlib.Path(__file__).resolve().parent.parent.parent / "docs" / "monitoring.md"


def free_port():
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


class Prometheus(MonitorTest):
    def start_one(self):
        return self.start_monitored(
            self.stream(support.SYSLOG_SOURCE, "{ type: file, path: ./out.log }"))

    def test_promtool_has_nothing_to_say_about_the_metrics(self):
        agent = self.start_one()
        support.send(agent.port(), b"one\ntwo\n")
        support.wait_until(lambda: self.stream_of(agent)["events"]["delivered"] == 2, "delivery")
        metrics = self.ask(agent, "/metrics")[1]
        checked = subprocess.run([PROMTOOL, "check", "metrics"], input=metrics, text=True,
                                 capture_output=True, timeout=support.LIMIT, check=False)
        self.assertEqual((checked.returncode, checked.stdout, checked.stderr), (0, "", ""))

    def test_alert_rules_of_the_documentation_are_rules(self):
        blocks = re.findall(r"```yaml\n(groups:.*?)```", PAGE.read_text(), re.DOTALL)
        self.assertEqual(len(blocks), 1)
        rules = self.directory / "rules.yaml"
        rules.write_text(blocks[0])
        checked = subprocess.run([PROMTOOL, "check", "rules", str(rules)], text=True,
                                 capture_output=True, timeout=support.LIMIT, check=False)
        self.assertEqual(checked.returncode, 0, checked.stdout + checked.stderr)
        # They ask for metrics that there are.
        agent = self.start_one()
        shown = {name.split("{")[0] for name in self.metrics(agent)}
        asked = set(re.findall(r"\borlo_\w+", blocks[0]))
        optional = {"orlo_stream_schedule_open", "orlo_stream_fallback_in_use"}
        self.assertLessEqual(asked - optional, shown)

    def test_metrics_that_are_documented_are_those_that_are_shown(self):
        agent = self.start_monitored(
            self.stream(support.SYSLOG_SOURCE, "{ type: file, path: ./out.log }",
                        settings={"Schedule.Enable": "true",
                                  "Schedule.Interval": '"0000-2359;01;UTC"'})
            + "    fallback: { destination: { type: file, path: ./other.log } }\n")
        shown = {name.split("{")[0] for name in self.metrics(agent)}
        documented = set(re.findall(r"^\| `(orlo_\w+)`", PAGE.read_text(), re.MULTILINE))
        # Those of sources and destinations differ by type.
        ends = re.compile(r"orlo_(source|destination)_")
        self.assertEqual({one for one in shown if not ends.match(one)},
                         {one for one in documented if not ends.match(one)})
        self.assertLessEqual({one for one in shown if ends.match(one)}, documented)

    def test_prometheus_scrapes_the_agent(self):
        agent = self.start_one()
        support.send(agent.port(), b"one\ntwo\nthree\n")
        (self.directory / "prometheus.yml").write_text(
            "scrape_configs:\n  - job_name: orlo\n    scrape_interval: 1s\n    static_configs:\n"
            f'      - targets: ["127.0.0.1:{self.monitor_port(agent)}"]\n')
        port = free_port()
        log = open(self.directory / "prometheus.log", "wb")
        self.addCleanup(log.close)
        process = subprocess.Popen(
            [PROMETHEUS, "--config.file=prometheus.yml", "--storage.tsdb.path=tsdb",
             f"--web.listen-address=127.0.0.1:{port}"], cwd=self.directory, stdout=log, stderr=log)
        self.addCleanup(process.wait)
        self.addCleanup(process.send_signal, signal.SIGKILL)

        def query(expression):
            connection = http.client.HTTPConnection("127.0.0.1", port, timeout=support.LIMIT)
            try:
                connection.request("GET", "/api/v1/query?"
                                   + urllib.parse.urlencode({"query": expression}))
                found = json.loads(connection.getresponse().read())["data"]["result"]
                return [float(one["value"][1]) for one in found]
            except (OSError, http.client.HTTPException, ValueError):
                return []
            finally:
                connection.close()
        support.wait_until(lambda: query('up{job="orlo"}') == [1.0], "a scrape")
        support.wait_until(
            lambda: query('orlo_stage_events_outgoing_total{stream="Default"}') == [3.0],
            "the count of events")


if __name__ == "__main__":
    unittest.main()
