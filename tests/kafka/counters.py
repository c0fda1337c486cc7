"""What the monitor shows of a Kafka destination."""

import unittest

from cluster import MESSAGE_TOO_LARGE, PRODUCE, Cluster
from security import Broker  # both make the folder of the integration tests known
import support  # noqa: E402
from certificates import Authority  # noqa: E402
from monitor_support import MonitorTest  # noqa: E402


class KafkaCounters(MonitorTest):
    def start_to(self, brokers, properties, extra="", **options):
        self.name = f"{brokers} events"
        return self.start_monitored(self.stream(
            support.SYSLOG_SOURCE,
            f'{{ type: kafka, brokers: "{brokers}", topic: events, properties: '
            f"{{ reconnect.backoff.max.ms: 200, {properties} }}{extra} }}"), **options)

    def of(self, agent, metric):
        return self.metrics(agent)[f'orlo_destination_{metric}{{stream="Default",type="kafka",'
                                   f'name="{self.name}"}}']

    def wait_for(self, agent, metric, value):
        support.wait_until(lambda: self.of(agent, metric) >= value, f"{value} of {metric}")

    def test_events_that_are_acknowledged_and_lost_are_counted(self):
        cluster = Cluster(self.directory)
        self.addCleanup(cluster.close)
        cluster(f"error {PRODUCE} {MESSAGE_TOO_LARGE} 1")
        agent = self.start_to(cluster.brokers, "batch.num.messages: 1")
        support.send(agent.port(), support.as_lines(support.numbered(0, 50)))
        self.wait_for(agent, "events_total", 49)
        self.wait_for(agent, "events_lost_total", 1)
        support.wait_until(lambda: self.of(agent, "unsent_events") == 0, "nothing unsent")
        self.assertEqual(self.of(agent, "events_total"), 49)
        self.assertEqual(self.of(agent, "events_lost_total"), 1)
        self.assertEqual(agent.stop(), 0)

    def test_a_cluster_that_is_away_is_an_outage_and_events_are_unsent(self):
        cluster = Cluster(self.directory)
        self.addCleanup(cluster.close)
        cluster("down -1")
        agent = self.start_to(cluster.brokers, "linger.ms: 1", abandons=True)
        support.send(agent.port(), support.as_lines(support.numbered(0, 50)))
        self.wait_for(agent, "unsent_events", 50)
        self.wait_for(agent, "outages_total", 1)
        cluster("up -1")
        self.wait_for(agent, "events_total", 50)
        self.assertEqual(self.of(agent, "outages_total"), 1)
        self.assertEqual(agent.stop(), 0)

    def test_handshakes_and_log_ins_that_fail_are_counted(self):
        authority = Authority(self.directory)
        stranger = Authority(self.directory, "other")
        for issuer, metric in ((authority, "logins_failed_total"),
                               (stranger, "handshakes_failed_total")):
            with self.subTest(metric):
                broker = Broker(*issuer.issue("broker"))
                self.addCleanup(broker.close)
                agent = self.start_to(
                    f"localhost:{broker.port}", f"security.protocol: SASL_SSL, ssl.ca.location: "
                    f'"{authority.certificate}", sasl.mechanisms: PLAIN, sasl.username: orlo, '
                    "sasl.password: SeCrEt")
                self.wait_for(agent, metric, 1)
                self.assertEqual(agent.stop(), 0)


if __name__ == "__main__":
    unittest.main()
