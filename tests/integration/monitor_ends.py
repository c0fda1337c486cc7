"""What the monitor shows of sources, destinations and fallbacks when their other ends fail."""

import socket
import ssl
import unittest

import support
from certificates import Authority
from monitor_support import MonitorTest
from relp import RelpReceiver, response, take
from tls import TlsReceiver


class MonitoredEnds(MonitorTest):
    def of(self, agent, metric, name, kind="destination", end_type="syslog"):
        return self.metrics(agent).get(
            f'orlo_{kind}_{metric}{{stream="Default",type="{end_type}",name="{name}"}}')

    def wait_for(self, agent, metric, name, value, **of):
        support.wait_until(lambda: self.of(agent, metric, name, **of) == value,
                           f"{metric} {value} of {name}")

    def test_a_receiver_that_goes_and_comes_is_counted(self):
        port = self.refusing_port()
        # The agent goes on trying when the receiver is gone.
        self.refusing_port(port.number)
        name = f"tcp://127.0.0.1:{port.number}"
        agent = self.start_monitored(
            self.stream(support.SYSLOG_SOURCE, support.syslog_target(port.number)))
        support.send(agent.port(), b"one\n")
        support.wait_until(lambda: (self.of(agent, "connections_failed_total", name) or 0) >= 1,
                           "an attempt that failed")
        receiver = self.receiver(port)
        self.assertEqual(receiver.wait_for_lines(1), [b"one"])
        self.wait_for(agent, "connections_total", name, 1)
        self.wait_for(agent, "events_total", name, 1)
        self.wait_for(agent, "bytes_total", name, 4)
        self.wait_for(agent, "unsent_events", name, 0)
        self.assertEqual(self.of(agent, "connections_broken_total", name), 0)
        receiver.close()
        support.send(agent.port(), b"two\n")
        self.wait_for(agent, "connections_broken_total", name, 1)
        agent.stop()

    def test_connections_that_are_not_secured_are_counted_on_both_sides(self):
        authority = Authority(self.directory)
        certificate, key = authority.issue("server")
        receiver = TlsReceiver(*authority.issue("old", expired=True))
        self.addCleanup(receiver.close)
        secured = (f'{{ type: syslog, listen: "tls://127.0.0.1:0", tls: {{ certificate: '
                   f'"{certificate}", key: "{key}" }} }}')
        agent = self.start_monitored(self.stream(
            f"[ {support.SYSLOG_SOURCE}, {secured} ]",
            f'{{ type: syslog, target: "tls://127.0.0.1:{receiver.port}", tls: {{ ca: '
            f'"{authority.certificate}" }} }}'), abandons=True)
        tls_port = int(agent.wait_for(r"Listening on tls://.*:(\d+)\.").group(1))
        support.send(tls_port, b"<13>this is no handshake\n" * 5)
        self.wait_for(agent, "handshakes_failed_total", "tls://127.0.0.1:0", 1, kind="source")

        context = ssl.create_default_context(cafile=str(authority.certificate))
        with socket.create_connection(("127.0.0.1", agent.port())) as plain:
            with self.assertRaises(OSError):
                context.wrap_socket(plain, server_hostname="localhost")
        self.wait_for(agent, "connections_unexpected_tls_total", "tcp://127.0.0.1:0", 1,
                      kind="source")
        self.assertEqual(self.of(agent, "events_total", "tcp://127.0.0.1:0", kind="source"), 0)
        agent.wait_for(r"Warn .* 127\.0\.0\.1:\d+ speaks TLS, which this port does not")

        support.send(agent.port(), b"never sent\n")
        name = f"tls://127.0.0.1:{receiver.port}"
        support.wait_until(lambda: (self.of(agent, "handshakes_failed_total", name) or 0) >= 1,
                           "a handshake that failed")
        support.wait_until(lambda: (self.of(agent, "connections_failed_total", name) or 0) >= 1,
                           "the connection that failed by it")
        agent.stop()
        self.assertEqual(bytes(receiver.received), b"")

    def test_a_destination_that_is_away_behind_its_fallback_is_a_problem(self):
        port = self.refusing_port()
        name = f"tcp://127.0.0.1:{port.number}"
        agent = self.start_monitored(
            self.stream(support.SYSLOG_SOURCE, f'{{ type: relp, target: "{name}" }}')
            + "    fallback: { after: 1s, retry: 1s, destination: "
            "{ type: file, path: fallback.log } }\n")
        relp, file = {"end_type": "relp"}, {"end_type": "file"}
        self.assertEqual(self.metrics(agent)['orlo_stream_fallback_in_use{stream="Default"}'], 0)

        # Nobody listens: the first event is in the window, the next ones go to the fallback. One
        # alone, which can't come as two chunks.
        support.send(agent.port(), support.as_lines(support.numbered(0, 1)))
        self.wait_for(agent, "unsent_events", name, 1, **relp)
        support.send(agent.port(), support.as_lines(support.numbered(10, 10)))
        self.wait_for(agent, "events_total", "fallback.log", 10, **file)
        self.wait_for_problem(agent, r"^events go to the fallback since 20\d\d-\d\d-\d\d "
                                     r"\d\d:\d\d:\d\d UTC: the destination sends none$")
        metrics = self.metrics(agent)
        self.assertEqual(metrics['orlo_stream_fallback_in_use{stream="Default"}'], 1)
        self.assertEqual(metrics['orlo_stream_healthy{stream="Default"}'], 0)
        self.assertEqual(self.of(agent, "events_to_fallback_total", name, **relp), 10)
        shown = self.run_status(agent)
        self.assertEqual(shown.returncode, 1)
        self.assertRegex(shown.stdout, r"fallback  file fallback\.log gets the events since 20")

        # A receiver that takes connections and refuses events does not get any others.
        refuses = [True]

        def answer(connection, number, command, body, send):
            if command == "syslog" and refuses[0]:
                send(response(number, b"500 not now"))
                return True
            return take(connection, number, command, body, send)

        receiver = RelpReceiver(answer, port)
        self.addCleanup(receiver.close)
        support.wait_until(lambda: self.of(agent, "events_refused_total", name, **relp) >= 2,
                           "refusals")
        support.send(agent.port(), support.as_lines(support.numbered(20, 10)))
        self.wait_for(agent, "events_total", "fallback.log", 20, **file)
        for metric, least in (("connections_broken_total", 2), ("events_sent_again_total", 1)):
            support.wait_until(lambda: self.of(agent, metric, name, **relp) >= least, metric)

        # It acknowledges what it was given: the next event is its.
        refuses[0] = False
        self.wait_for(agent, "events_total", name, 1, **relp)
        support.send(agent.port(), b"handed back\n")
        support.wait_until(lambda: b"handed back" in receiver.events(), "the return")
        self.wait_for_health(agent)
        self.assertEqual(self.of(agent, "events_total", "fallback.log", **file), 20)
        agent.stop()
        self.assertEqual(agent.summary(), (22, 0, 0, 0))


if __name__ == "__main__":
    unittest.main()
