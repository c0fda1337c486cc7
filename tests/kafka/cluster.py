"""The Kafka destination against a cluster of three brokers that go down, come back, change their
leader and answer with errors: nothing is missing, the order holds, nothing is twice beyond the
window."""

import os
import pathlib
import random
import signal
import subprocess
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "integration"))
import support  # noqa: E402

PRODUCE = 0
NOT_LEADER, REQUEST_TIMED_OUT, NOT_ENOUGH_REPLICAS, MESSAGE_TOO_LARGE = 6, 7, 19, 10


class Cluster:
    def __init__(self, directory, partitions=4):
        self.output = directory / "consumed"
        self.process = subprocess.Popen(
            [os.environ["ORLO_MOCK_CLUSTER"], "events", str(partitions), str(self.output)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1)
        self.brokers = self.process.stdout.readline().strip()

    def __call__(self, command):
        self.process.stdin.write(command + "\n")
        answer = self.process.stdout.readline().strip()
        if answer != "ok":
            raise AssertionError(f"{command}: {answer}")

    def messages(self):
        """Whole lines that were consumed: partition, key, message."""
        if not self.output.exists():
            return []
        lines = self.output.read_bytes().split(b"\n")[:-1]
        return [tuple(line.split(b"\t", 2)) for line in lines]

    def close(self):
        self.process.stdin.close()
        self.process.wait(support.LIMIT)
        self.process.stdout.close()


class Kafka(support.AgentTest):
    def setUp(self):
        super().setUp()
        self.cluster = Cluster(self.directory)
        self.addCleanup(self.cluster.close)

    def start_agent(self, extra="", drain="60s", properties="", **options):
        destination = (f'{{ type: kafka, brokers: "{self.cluster.brokers}", topic: events, '
                       f"properties: {{ reconnect.backoff.max.ms: 200{properties} }}{extra} }}")
        agent = self.start(self.configure(
            self.stream(support.SYSLOG_SOURCE, destination), drain=drain), **options)
        agent.wait_for("Sending to topic events of ")
        return agent

    def wait_for_messages(self, events):
        """Until all of them were consumed; each once or, right behind one another, again."""
        support.wait_until(lambda: len(self.cluster.messages()) >= len(events), "every message")
        messages = self.cluster.messages()
        self.assertEqual(len({(partition, key) for partition, key, _ in messages}), 1,
                         "one key, one partition")
        return [message for _, _, message in messages]

    def test_every_event_arrives_once_in_order_and_the_stop_waits_for_acknowledgements(self):
        agent = self.start_agent(properties=", compression.type: lz4")
        events = support.numbered(0, 20_000)
        support.send(agent.port(), support.as_lines(events))
        self.assertEqual(self.wait_for_messages(events), events)
        self.assertEqual(self.cluster.messages()[0][1], b"Default")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (20_000, 0, 0, 0))
        self.assertEqual(agent.messages("Warn"), [])

    def test_brokers_that_go_and_come_and_leaders_that_change_cost_nothing(self):
        seed = random.randrange(1 << 32)
        print(f"seed {seed}", file=sys.stderr)
        chance = random.Random(seed)
        agent = self.start_agent(", window: 500, send_timeout: 60s")
        events = support.numbered(0, 30_000)
        support.send(agent.port(), support.as_lines(events))
        agent.wait_for(r"\(near\)")
        for _ in range(15):
            broker = chance.randint(1, 3)
            action = chance.choice(["down", "leader", "error"])
            if action == "down":
                self.cluster(f"down {broker}")
                time.sleep(chance.uniform(0.05, 0.5))
                self.cluster(f"up {broker}")
            elif action == "leader":
                self.cluster(f"leader {broker}")
            else:
                error = chance.choice([NOT_LEADER, REQUEST_TIMED_OUT, NOT_ENOUGH_REPLICAS])
                self.cluster(f"error {PRODUCE} {error} {chance.randint(1, 4)}")
            time.sleep(chance.uniform(0.0, 0.2))
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (30_000, 0, 0, 0))
        received = self.wait_for_messages(events)
        self.assertEqual(list(dict.fromkeys(received)), events, "all of them, and in order")
        self.assertLessEqual(len(received) - len(events), 15 * 500, "doubles within the window")
        print(f"{len(received) - len(events)} doubles", file=sys.stderr)

    def test_a_reload_while_the_cluster_is_away_keeps_window_sender_and_cache(self):
        self.cluster("down -1")
        agent = self.start_agent(", window: 100, send_timeout: 100ms")
        config = self.directory / "agent.yaml"
        events = support.numbered(0, 3_000)
        self.fill_sender(agent, events[:1_000], window=100)
        support.send(agent.port(), support.as_lines(events[1_000:]))
        self.wait_for_rest_cached(agent, 3_000)
        config.write_text(config.read_text().replace("DataChunkPeriod: 5", "DataChunkPeriod: 6"))
        agent.signal(signal.SIGHUP)
        agent.wait_for("was read again: 0 streams go on untouched, 1 were changed")
        self.cluster("up -1")
        self.assertEqual(self.wait_for_messages(events), events)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(len([line for line in agent.lines if "Sending to topic" in line]), 1)

    def test_a_window_goes_to_the_destination_that_takes_the_clusters_place(self):
        self.cluster("down -1")
        agent = self.start_agent(", window: 100, send_timeout: 100ms")
        events = support.numbered(0, 500)
        support.send(agent.port(), support.as_lines(events))
        agent.wait_for(r"\(near\)")
        self.configure(self.stream(support.SYSLOG_SOURCE, "{ type: file, path: out.log }"))
        agent.signal(signal.SIGHUP)
        agent.wait_for("was read again: 0 streams go on untouched, 1 were changed")
        output = self.directory / "out.log"
        support.wait_until(lambda: output.read_bytes() == support.as_lines(events), "every event")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(output.read_bytes(), support.as_lines(events))
        self.assertEqual(self.cluster.messages(), [])

    def test_cluster_that_is_away_fills_the_window_and_then_the_cache(self):
        self.cluster("down -1")
        agent = self.start_agent(", window: 100, send_timeout: 100ms", drain="1s", abandons=True)
        first = support.numbered(0, 1_000)
        self.fill_sender(agent, first, window=100)
        agent.wait_for("can't be reached")
        second = support.numbered(1_000, 2_000)
        support.send(agent.port(), support.as_lines(second))
        self.wait_for_rest_cached(agent, 3_000)
        self.cluster("up -1")
        received = self.wait_for_messages(first + second)
        self.assertEqual(received, first + second)
        agent.wait_for("acknowledges events again")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (3_000, 0, 0, 0))
        self.assertEqual(len([line for line in agent.messages("Warn")
                              if "can't be reached" in line]), 1, agent.lines)

    def test_what_was_not_acknowledged_at_the_stop_is_said(self):
        self.cluster("down -1")
        agent = self.start_agent(drain="1s", abandons=True)
        support.send(agent.port(), support.as_lines(support.numbered(0, 10)))
        agent.wait_for(r"\(near\)")
        agent.wait_for("can't be reached")
        self.assertEqual(agent.stop(), 0)
        agent.wait_for("10 events were not acknowledged; the cluster may have some of them or none")
        self.assertEqual(agent.summary(), (0, 0, 0, 10))

    def test_an_event_that_is_too_large_is_lost_and_counted_and_holds_up_nothing(self):
        agent = self.start_agent(properties=", message.max.bytes: 2000")
        support.send(agent.port(), b"first\n" + b"x" * 3000 + b"\nlast\n")
        self.assertEqual(self.wait_for_messages([b"first", b"last"]), [b"first", b"last"])
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (2, 0, 1, 0))
        self.assertEqual(len(agent.messages("Error")), 1, agent.lines)
        self.assertRegex(agent.messages("Error")[0], r"An event of 3000 bytes is larger than the "
                                                     r"cluster takes \(message\.max\.bytes\)")

    def test_an_event_that_the_broker_finds_too_large_holds_up_nothing(self):
        self.cluster(f"error {PRODUCE} {MESSAGE_TOO_LARGE} 1")
        agent = self.start_agent(properties=", batch.num.messages: 1")
        events = support.numbered(0, 50)
        support.send(agent.port(), support.as_lines(events))
        self.assertEqual(list(dict.fromkeys(self.wait_for_messages(events[1:]))), events[1:])
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (49, 0, 1, 0))

    def test_properties_that_are_not_taken_are_named_without_their_value(self):
        agent = self.start(self.configure(self.stream(
            support.SYSLOG_SOURCE,
            f'{{ type: kafka, brokers: "{self.cluster.brokers}", topic: events, '
            "properties: { no.such.thing: SeCrEt } }")))
        self.assertEqual(agent.wait(), 1)
        self.assertRegex(agent.messages("Error")[0],
                         r'Can\'t send to Kafka: there is no property "no\.such\.thing"')
        self.assertNotIn("SeCrEt", "\n".join(agent.lines))

    def test_what_the_library_says_of_settings_that_do_not_fit_hides_references(self):
        os.environ["ORLO_TEST_SECRET"] = "SeCrEt of a variable"
        agent = self.start(self.configure(self.stream(
            support.SYSLOG_SOURCE,
            f'{{ type: kafka, brokers: "{self.cluster.brokers}", topic: events, properties: '
            '{ security.protocol: ssl, ssl.keystore.password: x, '
            'ssl.keystore.location: "${ORLO_TEST_SECRET}" } }')))
        self.assertEqual(agent.wait(), 1)
        self.assertRegex(agent.messages("Error")[0], r"the settings don't fit together \(.*\(hidden")
        self.assertNotIn("SeCrEt", "\n".join(agent.lines))


if __name__ == "__main__":
    unittest.main()
