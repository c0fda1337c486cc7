"""SIGHUP: the configuration is read again while events flow. Streams that did not change go on
untouched; those that did are brought to rest and made anew, and nothing is lost, doubled or out of
order, also for clients that keep their connections."""

import json
import signal
import subprocess
import time
import urllib.request

import support
from reload_support import Client, ReloadTest


class Reload(ReloadTest):
    def two_streams(self, second_period=5, first_source=support.SYSLOG_SOURCE, more="", extra="",
                    name="agent.yaml"):
        return self.configure(
            self.stream(first_source, support.syslog_target(self.steady.port), name="Steady")
            + self.stream(support.SYSLOG_SOURCE, support.syslog_target(self.changing.port),
                          name="Changing", settings={"DataChunkPeriod": second_period})
            + more, extra=extra, name=name)

    def setUp(self):
        super().setUp()
        self.steady = self.receiver()
        self.changing = self.receiver()

    def start(self, config, **options):
        """Until the file has been read and signals are looked at."""
        agent = super().start(config, **options)
        agent.wait_for(r"Outgoing\.\w+: Thread running" if "stdin" in options
                       else r"SyslogSource\.Changing: Listening on")
        return agent

    def test_no_event_is_lost_doubled_or_reordered_by_reloads_under_load(self):
        config = self.two_streams()
        agent = self.start(config)
        clients = [Client(agent.port("Steady"), b"steady"), Client(agent.port("Changing"), b"one"),
                   Client(agent.port("Changing"), b"two")]
        for period in (6, 5, 7):
            support.wait_until(lambda: all(len(client.sent) > 50 for client in clients), "load")
            self.two_streams(period)
            self.reload(agent, "1 streams go on untouched, 1 were changed, 0 added, 0 removed")
        sent = [client.end() for client in clients]
        for client in clients:
            self.assertIsNone(client.failure)
        self.assertEqual(self.steady.wait_for_lines(len(sent[0])), sent[0])
        lines = self.changing.wait_for_lines(len(sent[1]) + len(sent[2]))
        self.assertEqual(len(lines), len(sent[1]) + len(sent[2]))
        self.assertEqual([line for line in lines if line.startswith(b"one")], sent[1])
        self.assertEqual([line for line in lines if line.startswith(b"two")], sent[2])
        self.assertEqual(agent.stop(), 0)
        # The untouched stream saw nothing of it: one connection, one account over all the time.
        self.assertEqual(self.steady.connections, 1)
        # The destination of the other is the same as before, too, and keeps its connection.
        self.assertEqual(self.changing.connections, 1)
        self.assertEqual(agent.summary("Steady"), (len(sent[0]), 0, 0, 0))
        self.assertEqual(len([line for line in agent.lines if "Listening on tcp" in line]), 2)
        self.assertFalse([line for line in agent.lines if " Warn " in line or " Error " in line],
                         agent.lines)

    def test_streams_are_added_and_removed_and_a_removed_ones_cache_is_announced(self):
        config = self.two_streams()
        agent = self.start(config)
        more = self.stream("{ type: stdin }", "{ type: file, path: more.log }", name="More")
        self.two_streams(more=more)
        self.reload(agent, "2 streams go on untouched, 0 were changed, 1 added, 0 removed")
        support.send(agent.port("Changing"), b"before it goes\n")
        # Its destination goes away, so that what comes is cached.
        self.changing.close()
        support.send(agent.port("Changing"), support.as_lines(support.numbered(0, 100)))
        support.wait_until(lambda: agent.find(r"SyslogDestination\.Changing: .*can't be reached"),
                           "the outage")
        support.send(agent.port("Changing"), support.as_lines(support.numbered(100, 50)))
        support.wait_until(lambda: self.cached("Changing") > 0, "cached events")
        steady = self.stream(support.SYSLOG_SOURCE, support.syslog_target(self.steady.port),
                             name="Steady")
        self.configure(steady + more, drain="7s")
        self.reload(agent, "2 streams go on untouched, 0 were changed, 0 added, 1 removed")
        self.assertTrue(agent.find(r"Stream Changing: \d+ events stay in its cache until there is"))
        self.assertTrue(agent.find(r"SyslogSource\.Changing: .* events came over"))
        support.send(agent.port("Steady"), b"after all\n")
        self.assertEqual(self.steady.wait_for_lines(1), [b"after all"])
        self.assertEqual(agent.stop(), 0)

    def test_a_file_with_mistakes_is_refused_with_all_of_them(self):
        config = self.two_streams()
        agent = self.start(config)
        good = config.read_text()
        config.write_text(good.replace("DataChunkPeriod", "DataChunkingPeriod")
                          .replace("disk: { keep_free: 0 }", "disk: { keep_free: lots }"))
        self.reload(agent, "agent.yaml has 3 mistakes and is not taken")
        errors = agent.messages("Error")
        self.assertEqual(len(errors), 4, errors)
        self.assertIn('agent.yaml:2: disk.keep_free: "lots" is not a size', errors[0])
        self.assertIn("agent.yaml:11: streams[0].stages[0].settings.DataChunkingPeriod", errors[1])
        config.unlink()
        self.reload(agent, "agent.yaml has 1 mistake and is not taken")
        support.send(agent.port("Steady"), b"goes on\n")
        self.assertEqual(self.steady.wait_for_lines(1), [b"goes on"])
        self.assertEqual(agent.stop(), 0)

    def test_a_section_that_cannot_be_used_gives_way_to_the_one_before(self):
        config = self.two_streams()
        agent = self.start(config)
        port = agent.port("Changing")
        free = self.refusing_port()
        self.refusing_port(free.number)
        taken = self.receiver(free)
        text = config.read_text()
        # A second source, on a port that is in use.
        at = text.index("- name: Changing")
        config.write_text(text[:at] + text[at:].replace(
            f"source: {support.SYSLOG_SOURCE}",
            f'source: [ {support.SYSLOG_SOURCE}, '
            f'{{ type: syslog, listen: "tcp://127.0.0.1:{taken.port}" }} ]'))
        self.reload(agent)
        self.assertTrue(agent.find("The section of stream Changing can't be used: .*in use"), agent.lines)
        self.assertTrue(agent.find("Stream Changing goes on with its section as it was before"))
        ports = [int(support.re.search(r":(\d+)\.$", line).group(1)) for line in agent.lines
                 if "SyslogSource.Changing: Listening" in line]
        self.assertEqual(ports[0], port)
        support.send(ports[-1], b"goes on\n")
        self.assertEqual(self.changing.wait_for_lines(1), [b"goes on"])
        # The mistake is mended: a further reload takes the new section.
        taken.close()
        self.reload(agent, "1 streams go on untouched, 1 were changed")
        agent.wait_for(rf"Listening on tcp://127\.0\.0\.1:{taken.port}\.")
        self.assertEqual(agent.stop(), 0)

    def test_levels_watch_and_quota_change_at_once_and_the_data_directory_does_not(self):
        config = self.two_streams()
        agent = self.start(config)
        agent.port("Changing")
        text = config.read_text().replace("data_directory: ./data", "data_directory: ./other")
        config.write_text(text.replace("Code.StoreAndForward: debug", "Code.Agent: debug")
                          + "watch: { report: 200ms }\n")
        self.reload(agent, "2 streams go on untouched")
        self.assertTrue(agent.find("data_directory can't change while the agent runs; it stays "
                                   r".*/data until the agent is started again"))
        agent.wait_for(r"StreamWatch\.Steady: 0 events delivered")
        config.write_text(text.replace("log: {", "log: { level: error, "))
        agent.signal(signal.SIGHUP)
        support.wait_until(lambda: self.is_quiet(agent), "silence")
        self.assertEqual(agent.stop(), 0)
        self.assertFalse((self.directory / "other").exists())

    def is_quiet(self, agent):
        before = len(agent.lines)
        time.sleep(1)
        return len(agent.lines) == before

    def test_the_monitor_shows_the_streams_as_they_are(self):
        config = self.two_streams(extra='monitor: { listen: "127.0.0.1:0" }\n')
        agent = self.start(config)
        address = agent.wait_for(r"Code\.Monitor: Listening on (http://.*/)\.").group(1)

        def streams():
            with urllib.request.urlopen(address + "status", timeout=support.LIMIT) as answer:
                return sorted(one["name"] for one in json.load(answer)["streams"])

        support.wait_until(lambda: streams() == ["Changing", "Steady"], "both streams")
        text = config.read_text()
        config.write_text(text.replace("name: Changing", "name: Other")
                          .replace("127.0.0.1:0\" }\nstreams", "127.0.0.2:0\" }\nstreams"))
        self.reload(agent, "1 streams go on untouched, 0 were changed, 1 added, 1 removed")
        support.wait_until(lambda: streams() == ["Other", "Steady"], "the streams of the new file")
        self.assertTrue(agent.find("monitor can't change while the agent runs"))
        self.assertEqual(agent.stop(), 0)

    def test_a_stop_during_a_reload_delivers_what_the_sources_have_read(self):
        # The section that ends is the one that decides how long that takes: longer than to stop.
        agent = self.start(self.two_streams(20))
        client = Client(agent.port("Changing"), b"one")
        support.wait_until(lambda: len(client.sent) > 100, "load")
        self.two_streams(9)
        agent.signal(signal.SIGHUP)
        agent.wait_for("Stream Changing: its section has changed")
        sent = client.end()
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(self.changing.wait_for_lines(len(sent)), sent)
        self.assertEqual(agent.summary("Changing"), (len(sent), 0, 0, 0))
        self.assertFalse(agent.find("was read again"))

    def test_the_standard_input_goes_on_with_the_line_that_it_was_in(self):
        config = self.configure(self.stream("{ type: stdin }", "{ type: file, path: out.log }"))
        agent = self.start(config, stdin=subprocess.PIPE)
        agent.wait_for("StoreAndForwardIncoming.Default: Started")
        agent.process.stdin.write(b"first\nhalf of ")
        agent.process.stdin.flush()
        output = self.directory / "out.log"
        support.wait_until(lambda: output.exists() and output.read_bytes() == b"first\n", "a line")
        self.configure(self.stream("{ type: stdin }", "{ type: file, path: other.log }"))
        self.reload(agent, "0 streams go on untouched, 1 were changed")
        agent.process.stdin.write(b"the second\n")
        agent.process.stdin.close()
        self.assertEqual(agent.wait(), 0)
        self.assertEqual((self.directory / "other.log").read_bytes(), b"half of the second\n")


if __name__ == "__main__":
    support.unittest.main()
