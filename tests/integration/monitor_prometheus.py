"""A real Prometheus, and its tool, take what the agent shows."""

import http.client
import json
import os
import pathlib
import re
import signal
import subprocess
import unittest
import urllib.parse

import support
from certificates import Authority
from monitor_support import MonitorTest

PROMETHEUS = os.environ.get("ORLO_PROMETHEUS", "prometheus")
PROMTOOL = os.environ.get("ORLO_PROMTOOL", "promtool")
PAGE = pathlib.Path(__file__).resolve().parent.parent.parent / "docs" / "monitoring.md"


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
        # Those of sources and destinations differ by type.
        authority = Authority(self.directory)
        certificate, key = authority.issue("server")
        away = f"127.0.0.1:{self.refusing_port().number}"
        sources = (f'[ {support.SYSLOG_SOURCE}, {{ type: syslog, listen: "udp://127.0.0.1:0" }}, '
                   f'{{ type: syslog, listen: "tls://127.0.0.1:0", tls: {{ certificate: '
                   f'"{certificate}", key: "{key}" }} }} ]')
        destinations = [
            "{ type: file, path: ./out.log, rotate: { size: 1MiB } }",
            f'{{ type: syslog, target: "tls://{away}", tls: {{ ca: "{authority.certificate}" }} }}',
            f'{{ type: syslog, target: "udp://{away}" }}',
            f'{{ type: relp, target: "tcp://{away}" }}']
        # ThreadSanitizer does not know librdkafka's threads and ends the process.
        has_kafka = "thread" not in os.environ.get("ORLO_SANITIZE", "")
        if has_kafka:
            destinations.append(f'{{ type: kafka, brokers: [ "{away}" ], topic: events }}')
        streams = "".join(
            self.stream(sources, destination, name=f"Stream{number}",
                        settings={"Schedule.Enable": "true",
                                  "Schedule.Interval": '"0000-1200;7F;UTC"'})
            for number, destination in enumerate(destinations))
        agent = self.start_monitored(
            streams + "    fallback: { destination: { type: file, path: ./other.log } }\n")
        documented = set(re.findall(r"^\| `(orlo_\w+)`", PAGE.read_text(), re.MULTILINE))

        def shown():
            return {name.split("{")[0] for name in self.metrics(agent)}
        support.wait_until(lambda: len(self.status(agent)["streams"]) == len(destinations),
                           "a look at every stream")
        self.assertLessEqual(shown(), documented)
        if has_kafka:
            self.assertEqual(shown(), documented)

    def test_prometheus_scrapes_the_agent(self):
        agent = self.start_one()
        support.send(agent.port(), b"one\ntwo\nthree\n")
        (self.directory / "prometheus.yml").write_text(
            "scrape_configs:\n  - job_name: orlo\n    scrape_interval: 1s\n    static_configs:\n"
            f'      - targets: ["127.0.0.1:{self.monitor_port(agent)}"]\n')
        port = self.refusing_port().number
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
