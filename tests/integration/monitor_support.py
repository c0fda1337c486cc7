"""A running agent with a monitor, asked as its users ask it."""

import http.client
import json
import os
import re
import subprocess

import support

MONITOR = 'monitor: { listen: "127.0.0.1:0", refused_after: 1s }\n'


class MonitorTest(support.AgentTest):
    def start_monitored(self, stream, extra=MONITOR, **options):
        agent = self.start(self.configure(stream, drain="1s", extra=extra), **options)
        if extra == MONITOR:
            self.wait_for_look(agent)
        return agent

    def wait_for_look(self, agent):
        """Until the monitor has seen the stream: it looks once a second."""
        support.wait_until(lambda: self.status(agent)["streams"], "a look at the stream")

    def monitor_port(self, agent):
        return int(agent.wait_for(r"Code\.Monitor: Listening on http://.*:(\d+)/\.$").group(1))

    def ask(self, agent, path, headers=None):
        """The code and the body of the answer."""
        connection = http.client.HTTPConnection("127.0.0.1", self.monitor_port(agent),
                                                timeout=support.LIMIT)
        try:
            connection.request("GET", path, headers=headers or {})
            answer = connection.getresponse()
            return answer.status, answer.read().decode()
        finally:
            connection.close()

    def status(self, agent):
        return json.loads(self.ask(agent, "/status")[1])

    def stream_of(self, agent, name="Default"):
        return next(one for one in self.status(agent)["streams"] if one["name"] == name)

    def metrics(self, agent):
        """Samples by name and labels, as they are written."""
        samples = {}
        for line in self.ask(agent, "/metrics")[1].splitlines():
            if not line.startswith("#"):
                name, _, value = line.rpartition(" ")
                self.assertNotIn(name, samples)
                samples[name] = float(value)
        return samples

    def problems(self, agent):
        """What /healthz says is wrong; its code says the same."""
        code, body = self.ask(agent, "/healthz")
        health = json.loads(body)
        self.assertEqual(code, 200 if health["status"] == "ok" else 503)
        return [one["problem"] for one in health.get("problems", [])]

    def wait_for_problem(self, agent, pattern):
        support.wait_until(lambda: any(re.search(pattern, one) for one in self.problems(agent)),
                           f"the problem {pattern!r}")

    def wait_for_health(self, agent):
        support.wait_until(lambda: not self.problems(agent), "health")

    def run_status(self, agent, *arguments, token=None):
        """The finished command: returncode, stdout, stderr."""
        environment = dict(os.environ)
        if token:
            environment["ORLO_MONITOR_TOKEN"] = token
        return subprocess.run(
            [support.AGENT, "status", "--url", f"http://127.0.0.1:{self.monitor_port(agent)}",
             *arguments], capture_output=True, text=True, timeout=support.LIMIT, check=False,
            env=environment)
