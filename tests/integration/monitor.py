"""What the agent shows of itself: over HTTP, and with the command status."""

import json
import re
import select
import socket
import subprocess
import threading
import unittest

import support
from monitor_support import MONITOR, MonitorTest

NEVER = {"Schedule.Enable": "true", "Schedule.Interval": '"0000-2359;00;Europe/Berlin"'}
TOKEN = "a token that is long enough"


class Monitor(MonitorTest):
    def test_outage_is_seen_from_its_beginning_to_its_end(self):
        port = self.refusing_port()
        agent = self.start_monitored(
            self.stream(support.SYSLOG_SOURCE, support.syslog_target(port.number)))
        self.assertEqual(self.problems(agent), [])
        self.assertEqual(self.run_status(agent).returncode, 0)

        events = support.numbered(0, 300)
        self.hold_one(agent)
        support.wait_until(lambda: self.stream_of(agent)["memory"]["pending_events"] == 1,
                           "the first event is with the sender")
        support.send(agent.port(), support.as_lines(events))
        support.wait_until(lambda: self.stream_of(agent)["cache"]["events"] == 300,
                           "the others are in the cache")
        self.wait_for_problem(agent, r"^the destination has refused events for \d+ s$")
        self.assert_backlog(agent)

        receiver = self.receiver(port)
        self.assertEqual(receiver.wait_for_lines(301), [b"held"] + events)
        self.wait_for_health(agent)
        support.wait_until(lambda: self.stream_of(agent)["cache"]["events"] == 0, "the drain")
        metrics = self.metrics(agent)
        self.assertEqual(
            [metrics[f'orlo_stream_chunk_events_total{{stream="Default",way="{way}"}}']
             for way in ("near", "spill", "far")], [1, 300, 300])
        self.assertEqual(metrics['orlo_stage_events_outgoing_total{stream="Default",'
                                 'stage="StoreAndForwardStage"}'], 301)
        self.assertEqual(self.run_status(agent).returncode, 0)
        agent.stop()
        gone = self.run_status(agent)
        self.assertEqual((gone.returncode, gone.stdout), (2, ""))
        self.assertIn("no agent answers at 127.0.0.1", gone.stderr)

    def assert_backlog(self, agent):
        metrics = self.metrics(agent)
        self.assertEqual(metrics['orlo_stream_cache_events{stream="Default"}'], 300)
        self.assertEqual(metrics['orlo_stream_cache_chunks{stream="Default"}'],
                         len(self.chunks()))
        self.assertEqual(metrics['orlo_stream_cache_bytes{stream="Default"}'],
                         sum(chunk.stat().st_size for chunk in self.chunks()))
        self.assertEqual(metrics["orlo_disk_used_bytes"],
                         metrics['orlo_stream_cache_bytes{stream="Default"}'])
        self.assertGreater(metrics['orlo_stream_refusing_seconds{stream="Default"}'], 0)
        self.assertEqual(metrics["orlo_agent_healthy"], 0)
        self.assertGreaterEqual(metrics['orlo_log_messages_total{level="warn"}'], 1)
        self.assertTrue(any("can't be reached" in one["text"]
                            for one in self.status(agent)["messages"]))
        shown = self.run_status(agent)
        self.assertEqual(shown.returncode, 1)
        self.assertIn("! the destination has refused events for", shown.stdout)
        self.assertRegex(shown.stdout, r"cache +300 events in \d+ chunk")
        answered = self.run_status(agent, "--json")
        self.assertEqual(answered.returncode, 1)
        self.assertEqual(json.loads(answered.stdout)["streams"][0]["cache"]["events"], 300)

    def test_every_published_statistic_is_a_metric_with_its_description(self):
        agent = self.start_monitored(
            self.stream(support.SYSLOG_SOURCE, "{ type: file, path: ./out.log }"))
        statistics = json.loads(self.ask(agent, "/statistics")[1])
        helps = [line.split(" ", 3)[3] for line in self.ask(agent, "/metrics")[1].splitlines()
                 if line.startswith("# HELP ")]
        found = 0
        for path, streams in statistics.items():
            if path == "AgentCore/Monitor":
                continue
            for groups in streams.values():
                for group in groups.values():
                    for name, statistic in group.items():
                        found += 1
                        # The description speaks of microseconds; metrics have seconds.
                        if name != "DataProcessingPeriod":
                            self.assertIn(statistic["description"], helps)
        self.assertGreaterEqual(found, 25)
        self.assertIn("AgentCore/Monitor", statistics)

    def test_history_goes_on_from_where_it_was_asked_last(self):
        agent = self.start_monitored(
            self.stream(support.SYSLOG_SOURCE, "{ type: file, path: ./out.log }"))

        def times(since):
            history = json.loads(self.ask(agent, f"/history?since={since}")[1])
            return history.get("Default", {}).get("time", [])
        support.wait_until(lambda: len(times(0)) >= 2, "two points")
        known = times(0)
        self.assertEqual(known, sorted(known))
        later = times(known[0])
        self.assertNotIn(known[0], later)
        self.assertIn(known[1], later)

    def test_closed_schedule_is_shown_and_is_no_problem(self):
        agent = self.start_monitored(
            self.stream(support.SYSLOG_SOURCE, "{ type: file, path: ./out.log }", settings=NEVER))
        support.send(agent.port(), b"waits\n")
        support.wait_until(lambda: self.stream_of(agent)["cache"]["events"] == 1, "the cache")
        schedule = self.stream_of(agent)["schedule"]
        self.assertFalse(schedule["open"])
        self.assertIsNone(schedule["next_change"])
        self.assertEqual(schedule["zone"], "Europe/Berlin")
        self.assertEqual(self.metrics(agent)['orlo_stream_schedule_open{stream="Default"}'], 0)
        self.assertEqual(self.problems(agent), [])

    def test_loss_to_a_full_disk_is_a_problem(self):
        config = self.configure(
            self.stream(support.SYSLOG_SOURCE, "{ type: file, path: ./out.log }", settings=NEVER),
            drain="1s", extra=MONITOR)
        config.write_text(config.read_text().replace("keep_free: 0", "keep_free: 0, quota: 100"))
        agent = self.start(config, abandons=True)
        support.send(agent.port(), b"lost\n")
        self.wait_for_problem(agent, r"^the cache has refused chunks .*; 1 events are lost$")
        self.wait_for_problem(agent, r"^disk full: the quota of 100 bytes is used up$")
        self.assertEqual(self.metrics(agent)['orlo_stream_events_lost_total{stream="Default"}'], 1)

    def test_stall_is_a_problem(self):
        # The oldest chunk can't be read; nothing gets past it.
        minute = self.directory / "data" / "Events" / "Default" / "2016-03-07-14-05"
        (minute / "07").mkdir(parents=True)
        (minute / "08").write_bytes(b"\1\0\0\0" + b"\0\0\0\0\1\0\0\0x")
        agent = self.start_monitored(
            self.stream(support.SYSLOG_SOURCE, "{ type: file, path: ./out.log }"),
            extra=MONITOR + "watch: { stall_after: 1s }\n")
        self.wait_for_problem(agent, r"^stalled: the cache has not moved for \d+ s")
        self.assertEqual(self.metrics(agent)['orlo_stream_stalled{stream="Default"}'], 1)

    def test_without_the_token_nothing_is_shown(self):
        agent = self.start_monitored(
            self.stream(support.SYSLOG_SOURCE, "{ type: file, path: ./out.log }"),
            extra=f'monitor: {{ listen: "0.0.0.0:0", token: "{TOKEN}" }}\n')
        for path in ("/", "/metrics", "/statistics", "/status", "/history", "/healthz"):
            self.assertEqual(self.ask(agent, path)[0], 401)
            self.assertEqual(self.ask(agent, path, {"Authorization": f"Bearer {TOKEN}"})[0], 200)
        none = self.run_status(agent)
        self.assertEqual(none.returncode, 2)
        self.assertRegex(none.stderr, r"the agent at 127\.0\.0\.1 port \d+ wants its token")
        wrong = self.run_status(agent, token="another one that is long enough")
        self.assertEqual(wrong.returncode, 2)
        self.assertIn("has another token", wrong.stderr)
        self.assertEqual(self.run_status(agent, token=TOKEN).returncode, 0)
        self.assertFalse([line for line in agent.lines if TOKEN in line])

    def test_clients_that_hang_do_not_touch_the_streams(self):
        agent = self.start_monitored(
            self.stream(support.SYSLOG_SOURCE, "{ type: file, path: ./out.log }"))
        port = self.monitor_port(agent)
        clients = []
        for number in range(200):
            client = socket.create_connection(("127.0.0.1", port))
            self.addCleanup(client.close)
            # Some never finish their request, some never read the answer.
            client.sendall(b"GET /metrics HTTP/1.1\r\nHost: localhost\r\n"
                           + (b"" if number % 2 else b"\r\n" * 50))
            clients.append(client)
        events = support.numbered(0, 1000)
        support.send(agent.port(), support.as_lines(events))
        out = self.directory / "out.log"
        support.wait_until(lambda: out.exists() and out.read_bytes() == support.as_lines(events),
                           "the events")
        self.assertEqual(self.problems(agent), [])

    def test_page_is_one_file_that_loads_nothing_from_elsewhere(self):
        agent = self.start_monitored(
            self.stream(support.SYSLOG_SOURCE, "{ type: file, path: ./out.log }"))
        code, page = self.ask(agent, "/")
        self.assertEqual(code, 200)
        self.assertIn("<title>Orlo agent</title>", page)
        self.assertEqual(re.findall(r"""(?:src|href)=["'](?!data:|#)(\w*:|//)""", page), [])

    def test_address_that_is_taken_ends_the_start(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            port = taken.getsockname()[1]
            agent = self.start(self.configure(
                self.stream(support.SYSLOG_SOURCE, "{ type: file, path: ./out.log }"),
                extra=f'monitor: {{ listen: "127.0.0.1:{port}" }}\n'))
            self.assertEqual(agent.wait(), 1)
            self.assertTrue(agent.find(rf"The monitor can't listen on 127\.0\.0\.1 port {port}"))


class StatusCommand(MonitorTest):
    def run_with(self, *arguments):
        return subprocess.run([support.AGENT, "status", *arguments], capture_output=True,
                              text=True, timeout=support.LIMIT, check=False)

    def test_address_comes_from_the_configuration(self):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
            config = self.configure(
                self.stream(support.SYSLOG_SOURCE, "{ type: file, path: ./out.log }"),
                extra=f'monitor: {{ listen: "127.0.0.1:{port}" }}\n')
            asked = self.run_with("--config", str(config))
        self.assertEqual(asked.returncode, 2)
        self.assertIn(f"no agent answers at 127.0.0.1 port {port}", asked.stderr)

    def test_mistakes_elsewhere_in_the_configuration_do_not_matter(self):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
            broken = self.directory / "broken.yaml"
            broken.write_text(f'monitor: {{ listen: "127.0.0.1:{port}" }}\nsurprise: 1\n'
                              "streams: [ { name: Default, destination: { type: nowhere } } ]\n")
            asked = self.run_with("--config", str(broken))
        self.assertEqual(asked.returncode, 2)
        self.assertIn(f"no agent answers at 127.0.0.1 port {port}", asked.stderr)
        broken.write_text("monitor: { listen: [\n")
        refused = self.run_with("--config", str(broken))
        self.assertEqual(refused.returncode, 2)
        self.assertIn("broken.yaml:", refused.stderr)

    def test_what_answers_and_is_no_agent_is_said(self):
        another = "is no agent's monitor, or one of another version"
        for body in (b"", b"nothing like it", b"{}", b'{"healthy":true}',
                     b'{"healthy":true,"problems":[],"version":"1","sampled":1,"started":1}'):
            with self.subTest(body), socket.create_server(("127.0.0.1", 0)) as other:
                def answer():
                    client, _ = other.accept()
                    with client:
                        client.recv(4096)
                        client.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s"
                                       % (len(body), body))
                other.settimeout(support.LIMIT)
                thread = threading.Thread(target=answer, daemon=True)
                thread.start()
                asked = self.run_with("--url", f"http://127.0.0.1:{other.getsockname()[1]}")
                thread.join(support.LIMIT)
                self.assertEqual(asked.returncode, 2)
                self.assertIn(another, asked.stderr)

    def test_answer_that_refuses_is_shown(self):
        agent = self.start_monitored(
            self.stream(support.SYSLOG_SOURCE, "{ type: file, path: ./out.log }"))
        port = self.monitor_port(agent)
        # That leads to the agent like a name, which needs a name service, and is none of those that
        # it answers to.
        refused = self.run_with("--url", f"http://127.1:{port}")
        self.assertEqual(refused.returncode, 2)
        self.assertEqual(refused.stderr,
                         f"orlo-agent status: the answer at 127.1 port {port} is 421: "
                         "Ask for an address or for localhost, not for another name.\n")

    def test_configuration_that_names_no_address_is_said(self):
        stream = self.stream(support.SYSLOG_SOURCE, "{ type: file, path: ./out.log }")
        none = self.run_with("--config", str(self.configure(stream)))
        self.assertEqual(none.returncode, 2)
        self.assertIn('has no section "monitor"', none.stderr)
        chosen = self.run_with("--config", str(self.configure(stream, extra=MONITOR)))
        self.assertEqual(chosen.returncode, 2)
        self.assertIn("is chosen by the system", chosen.stderr)
        broken = self.directory / "broken.yaml"
        broken.write_text("monitor: 7\n")
        refused = self.run_with("--config", str(broken))
        self.assertEqual(refused.returncode, 2)
        self.assertIn("monitor:", refused.stderr)

    def test_agent_has_to_be_named_and_only_once(self):
        self.assertIn("which agent?", self.run_with().stderr)
        self.assertEqual(self.run_with().returncode, 2)
        both = self.run_with("--config", "agent.yaml", "--url", "http://127.0.0.1:1")
        self.assertEqual(both.returncode, 2)
        self.assertIn("--config", both.stderr)

    def test_address_that_is_none_is_said(self):
        wrong = self.run_with("--url", "127.0.0.1:9464")
        self.assertEqual(wrong.returncode, 2)
        self.assertIn("is not http://HOST:PORT", wrong.stderr)

    def test_watch_prints_again_also_when_the_agent_has_been_away(self):
        port = self.refusing_port()

        def start():
            return self.start_monitored(
                self.stream(support.SYSLOG_SOURCE, "{ type: file, path: ./out.log }"),
                extra=f'monitor: {{ listen: "127.0.0.1:{port.number}" }}\n')
        agent = start()
        self.monitor_port(agent)
        watching = subprocess.Popen(
            [support.AGENT, "status", "--watch", "--url", f"http://127.0.0.1:{port.number}"],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.addCleanup(watching.stdout.close)
        self.addCleanup(watching.wait)
        self.addCleanup(watching.kill)

        def wait_for(text, times):
            shown = bytearray()

            def look():
                # Not read1 alone, which could wait for ever.
                if select.select([watching.stdout], [], [], 0)[0]:
                    read = watching.stdout.read1(1 << 16)
                    self.assertTrue(read, "it ended by itself")
                    shown.extend(read)
                return shown.count(text) >= times

            support.wait_until(look, f"{text!r}")
        wait_for(b"\x1b[H\x1b[Jorlo-agent ", 2)
        self.assertEqual(agent.stop(), 0)
        wait_for(b"no agent answers at 127.0.0.1", 1)
        self.monitor_port(start())
        wait_for(b"\x1b[H\x1b[Jorlo-agent ", 1)


if __name__ == "__main__":
    unittest.main()
