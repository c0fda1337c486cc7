"""SIGHUP with each kind of end: sources that stay the same keep what they have while the rest of their
stream changes, sections that change take effect, and nothing is lost, doubled or out of order."""

import os
import signal
import socket
import ssl
import subprocess
import unittest

import support
from certificates import Authority
from reload_support import Client, ReloadTest
from relp import RelpReceiver, take
from tls import TlsReceiver

UDP_SOURCE = '{ type: syslog, listen: "udp://127.0.0.1:0" }'


class ReloadEnds(ReloadTest):
    def setUp(self):
        super().setUp()
        self.output = self.directory / "out.log"

    def configure_stream(self, source=support.SYSLOG_SOURCE, period=5,
                         destination="{ type: file, path: out.log }", more="", extra=""):
        return self.configure(self.stream(source, destination, settings={"DataChunkPeriod": period})
                              + more, extra=extra)

    def reload_changed(self, agent):
        self.reload(agent, "0 streams go on untouched, 1 were changed, 0 added, 0 removed")

    def reload_in_vain(self, agent):
        self.reload(agent, "0 streams go on untouched, 0 were changed, 0 added, 0 removed, "
                           r"1 can't be used\.$")

    def wait_for_output(self, events, path=None):
        path = path or self.output
        support.wait_until(lambda: path.exists() and path.read_bytes().count(b"\n") >= len(events),
                           "every event")
        self.assertEqual(path.read_bytes(), support.as_lines(events))

    def test_datagrams_that_come_meanwhile_wait_in_the_systems_buffer(self):
        agent = self.start(self.configure_stream(UDP_SOURCE))
        port = int(agent.wait_for(r"Listening on udp://127\.0\.0\.1:(\d+)\.").group(1))
        sent = []
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.connect(("127.0.0.1", port))

            def send(count):
                for event in support.numbered(len(sent), count):
                    sender.send(event)
                    sent.append(event)

            send(50)
            self.configure_stream(UDP_SOURCE, 6)
            agent.signal(signal.SIGHUP)
            agent.wait_for("its section has changed")
            send(200)
            agent.wait_for("was read again")
            send(50)
            self.wait_for_output(sent)
        self.assertEqual(agent.stop(), 0)

    def test_tls_connections_live_on(self):
        authority = Authority(self.directory)
        certificate, key = authority.issue("server")
        source = (f'{{ type: syslog, listen: "tls://127.0.0.1:0", '
                  f"tls: {{ certificate: {certificate}, key: {key} }} }}")
        receiver = TlsReceiver(certificate, key)
        self.addCleanup(receiver.close)
        target = (f'{{ type: syslog, target: "tls://127.0.0.1:{receiver.port}", '
                  f"tls: {{ ca: {authority.certificate} }} }}")
        agent = self.start(self.configure_stream(source, destination=target))
        port = int(agent.wait_for(r"Listening on tls://127\.0\.0\.1:(\d+)\.").group(1))
        context = ssl.create_default_context(cafile=str(authority.certificate))
        events = support.numbered(0, 300)
        with context.wrap_socket(socket.create_connection(("127.0.0.1", port)),
                                 server_hostname="127.0.0.1") as client:
            for period, part in ((6, events[:100]), (7, events[100:200])):
                client.sendall(support.as_lines(part))
                self.configure_stream(source, period, destination=target)
                self.reload_changed(agent)
            client.sendall(support.as_lines(events[200:]))
            self.assertEqual(receiver.wait_for_lines(len(events)), events)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(receiver.lines(), events)
        self.assertEqual(receiver.connections, 1)

    def test_a_followed_file_goes_on_at_its_place_whether_its_section_changed_or_not(self):
        log = self.directory / "app.log"
        source = "{ type: file, path: app.log, poll_interval: 20ms }"
        events = support.numbered(0, 400)
        log.write_bytes(support.as_lines(events[:100]) + events[100][:5])
        agent = self.start(self.configure_stream(source))
        agent.wait_for("Following ")
        self.wait_for_output(events[:100])
        with log.open("ab") as file:
            file.write(events[100][5:] + b"\n" + support.as_lines(events[101:200]))
        self.configure_stream(source, 6)
        self.reload_changed(agent)
        with log.open("ab") as file:
            file.write(support.as_lines(events[200:300]))
        self.configure_stream("{ type: file, path: app.log, poll_interval: 30ms }", 6)
        self.reload_changed(agent)
        with log.open("ab") as file:
            file.write(support.as_lines(events[300:]))
        self.wait_for_output(events)
        self.assertEqual(agent.stop(), 0)
        self.wait_for_output(events)

    def test_rotation_and_path_of_a_destination_file_change(self):
        agent = self.start(self.configure_stream())
        client = Client(agent.port(), b"one")
        support.wait_until(lambda: len(client.sent) > 100, "load")
        other = self.directory / "other.log"
        self.configure_stream(destination="{ type: file, path: out.log, rotate: { size: 2KiB } }")
        self.reload_changed(agent)
        support.wait_until(lambda: len(list(self.directory.glob("out*"))) > 1, "a closed file")
        self.configure_stream(destination="{ type: file, path: other.log }")
        self.reload_changed(agent)
        support.wait_until(other.exists, "the second file")
        sent = client.end()
        self.assertEqual(agent.stop(), 0)
        files = sorted((path for path in self.directory.glob("out*")
                        if path != self.output), key=lambda path: path.name)
        self.assertTrue(files)
        text = b"".join(path.read_bytes() for path in [*files, self.output, other])
        self.assertEqual(text, support.as_lines(sent))

    def test_a_fallback_comes_and_goes(self):
        port = self.refusing_port()
        target = support.syslog_target(port.number)
        agent = self.start(self.configure_stream(destination=target))
        events = support.numbered(0, 200)
        support.send(agent.port(), support.as_lines(events))
        agent.wait_for("can't be reached")
        self.configure_stream(destination=target, more="    fallback: { after: 1s, retry: 1s, "
                              "destination: { type: file, path: fallback.log } }\n")
        self.reload_changed(agent)
        self.wait_for_output(events, self.directory / "fallback.log")
        self.configure_stream(destination="{ type: file, path: out.log }")
        self.reload_changed(agent)
        ports = [line for line in agent.lines if "Listening on tcp" in line]
        self.assertEqual(len(ports), 1, "the source went on")
        support.send(agent.port(), b"the last\n")
        self.wait_for_output([b"the last"])
        self.assertEqual(agent.stop(), 0)
        self.wait_for_output(events, self.directory / "fallback.log")

    def test_a_fallback_that_is_in_use_goes_on_with_the_next_stream(self):
        port = self.refusing_port()
        target = support.syslog_target(port.number)
        # Between two chunks there is time for the next attempt.
        fallback = ("    fallback: { after: 1s, retry: 5s, "
                    "destination: { type: file, path: fallback.log } }\n")
        agent = self.start(self.configure_stream(destination=target, more=fallback, period=15))
        events = support.numbered(0, 600)
        support.send(agent.port(), support.as_lines(events[:200]))
        self.wait_for_output(events[:200], self.directory / "fallback.log")
        self.configure_stream(destination=target, more=fallback, period=16)
        self.reload_changed(agent)
        support.send(agent.port(), support.as_lines(events[200:400]))
        self.wait_for_output(events[:400], self.directory / "fallback.log")
        receiver = self.receiver(port)
        support.send(agent.port(), support.as_lines(events[400:]))
        self.assertEqual(receiver.wait_for_lines(200), events[400:])
        agent.wait_for("The destination sends again; 400 events went to the fallback")
        self.assertEqual(agent.stop(), 0)
        self.wait_for_output(events[:400], self.directory / "fallback.log")
        told = [line for line in agent.lines if "events go to the fallback until" in line]
        self.assertEqual(len(told), 1, told)

    def test_a_relp_session_goes_on_with_the_next_stream(self):
        receiver = RelpReceiver(take)
        self.addCleanup(receiver.close)
        target = f'{{ type: relp, target: "tcp://127.0.0.1:{receiver.port}" }}'
        agent = self.start(self.configure_stream(destination=target))
        client = Client(agent.port(), b"one")
        for period in (6, 7):
            support.wait_until(lambda: len(client.sent) > 50, "load")
            self.configure_stream(destination=target, period=period)
            self.reload_changed(agent)
        sent = client.end()
        support.wait_until(lambda: len(receiver.events()) >= len(sent), "every event")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(receiver.events(), sent)
        self.assertEqual(receiver.connections, 1)

    def test_a_client_of_a_source_that_stays_notices_nothing_of_a_section_that_fails(self):
        taken = self.receiver()
        agent = self.start(self.configure_stream())
        client = Client(agent.port(), b"one")
        support.wait_until(lambda: len(client.sent) > 50, "load")
        self.configure_stream(f'[ {support.SYSLOG_SOURCE}, '
                              f'{{ type: syslog, listen: "tcp://127.0.0.1:{taken.port}" }} ]')
        self.reload_in_vain(agent)
        self.assertTrue(agent.find("The section of stream Default can't be used: .*in use"))
        self.assertTrue(agent.find("Stream Default goes on with its section as it was before"))
        before = len(client.sent)
        support.wait_until(lambda: len(client.sent) > before + 100, "more load")
        sent = client.end()
        self.assertIsNone(client.failure)
        self.wait_for_output(sent)
        self.assertEqual(agent.stop(), 0)
        self.wait_for_output(sent)
        self.assertEqual(len([line for line in agent.lines if "Listening on tcp" in line]), 1)

    def stop_a_stream_by_a_reload(self):
        """An agent whose stream can be made neither anew nor as it was before, and a client of its
        source, which waits."""
        agent = self.start(self.configure_stream())
        client = Client(agent.port(), b"one")
        support.wait_until(lambda: self.output.exists() and self.output.read_bytes(), "an event")
        # In one step, as an agent that misses its file makes it anew.
        os.link(self.output, self.directory / "before.log")
        (self.directory / "folder").mkdir()
        (self.directory / "link").symlink_to("folder")
        (self.directory / "link").rename(self.output)
        self.configure_stream(destination="{ type: file, path: out.log/., send_timeout: 6s }")
        self.reload_in_vain(agent)
        self.assertTrue(agent.find("Stream Default does not run"), agent.lines)
        return agent, client

    def test_a_source_whose_stream_does_not_run_waits_until_it_does(self):
        agent, client = self.stop_a_stream_by_a_reload()
        self.output.unlink()
        self.configure_stream(period=6)
        self.reload(agent, "0 were changed, 1 added")
        before = len(client.sent)
        support.wait_until(lambda: len(client.sent) > before + 100, "more load")
        sent = client.end()
        self.assertIsNone(client.failure)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual((self.directory / "before.log").read_bytes() + self.output.read_bytes(),
                         support.as_lines(sent))

    def test_a_stream_that_does_not_run_is_removed(self):
        agent, client = self.stop_a_stream_by_a_reload()
        self.configure(self.stream(support.SYSLOG_SOURCE, "{ type: file, path: more.log }",
                                   name="More"))
        self.reload(agent, "0 were changed, 1 added, 0 removed")
        support.wait_until(lambda: client.failure, "the end of the client's connection")
        support.send(agent.port("More"), b"after all\n")
        self.wait_for_output([b"after all"], self.directory / "more.log")
        self.assertEqual(agent.stop(), 0)

    def test_an_agent_whose_stream_does_not_run_stops(self):
        agent, client = self.stop_a_stream_by_a_reload()
        self.assertEqual(agent.stop(), 0)
        support.wait_until(lambda: client.failure, "the end of the client's connection")
        sent = (self.directory / "before.log").read_bytes()
        self.assertTrue(support.as_lines(client.sent).startswith(sent))

    def test_a_file_that_changes_during_a_reload_is_read_once_more(self):
        target = support.syslog_target(self.refusing_port().number)
        agent = self.start(self.configure_stream(destination=target))
        support.send(agent.port(), b"held\n")
        agent.wait_for("can't be reached")
        self.configure_stream(destination="{ type: file, path: first.log }")
        agent.signal(signal.SIGHUP)
        agent.wait_for("its section has changed")
        self.configure_stream()
        self.reload(agent)
        support.wait_until(lambda: len([line for line in agent.lines if "was read again" in line])
                           == 2, "both reloads")
        support.send(agent.port(), b"after all\n")
        support.wait_until(lambda: self.output.exists() and
                           self.output.read_bytes().endswith(b"after all\n"), "the second file")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual((self.directory / "first.log").read_bytes() + self.output.read_bytes(),
                         b"held\nafter all\n")

    def test_the_end_of_the_input_during_a_reload_does_not_end_an_agent_with_a_new_source(self):
        config = self.configure_stream("{ type: stdin }")
        agent = self.start(config, stdin=subprocess.PIPE)
        agent.wait_for("StoreAndForwardIncoming.Default: Started")
        agent.process.stdin.write(b"first\n")
        agent.process.stdin.flush()
        self.wait_for_output([b"first"])
        self.configure_stream("{ type: stdin }", 6, more=self.stream(
            support.SYSLOG_SOURCE, "{ type: file, path: more.log }", name="More"))
        agent.process.stdin.write(b"second\n")
        agent.process.stdin.flush()
        agent.signal(signal.SIGHUP)
        agent.wait_for("its section has changed")
        agent.process.stdin.close()
        agent.wait_for("was read again: 0 streams go on untouched, 1 were changed, 1 added")
        support.send(agent.port("More"), b"after all\n")
        self.wait_for_output([b"after all"], self.directory / "more.log")
        self.assertEqual(agent.stop(), 0)
        self.wait_for_output([b"first", b"second"])
        self.assertFalse(agent.find("The input has ended"))


if __name__ == "__main__":
    unittest.main()
