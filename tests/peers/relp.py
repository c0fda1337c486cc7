"""The RELP destination against rsyslog's imrelp."""

import pathlib
import signal
import socket
import sys
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "integration")]
import peers  # noqa: E402
import support  # noqa: E402
from certificates import Authority  # noqa: E402


class RelpTest(support.AgentTest):
    """With an rsyslog on a port that is refused while it does not run."""

    def setUp(self):
        super().setUp()
        self.port = self.refusing_port().number
        self.output = self.directory / "received"

    def receiver(self, tls="", module=""):
        receiver = peers.Peer("rsyslog", self.directory,
                              peers.relp_receiver_config(self.directory, self.port, tls, module))
        self.addCleanup(receiver.stop)
        return receiver.start()

    def start_agent(self, extra="", scheme="tcp", host="127.0.0.1", drain="60s", **options):
        destination = f'{{ type: relp, target: "{scheme}://{host}:{self.port}"{extra} }}'
        return self.start(self.configure(
            self.stream(support.SYSLOG_SOURCE, destination), drain=drain), **options)

    def wait_until_it_listens(self):
        """The receiver has written its pid file some time before."""
        def connect():
            try:
                socket.create_connection(("127.0.0.1", self.port)).close()
                return True
            except OSError:
                return False
        support.wait_until(connect, "the receiver's port")

    def received(self):
        return self.output.read_bytes().split(b"\n")[:-1] if self.output.exists() else []

    def wait_for_events(self, events):
        support.wait_until(lambda: len(self.received()) >= len(events), "every event")
        return self.received()


class Relp(RelpTest):
    def test_every_event_arrives_once_in_order_and_a_stop_waits_for_the_answers(self):
        self.receiver()
        self.wait_until_it_listens()
        agent = self.start_agent()
        events = support.numbered(0, 20_000)
        support.send(agent.port(), support.as_lines(events))
        agent.wait_for(r"\(near\)")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (20_000, 0, 0, 0))
        self.assertEqual(self.received(), events)
        self.assertEqual([line for line in agent.messages("Warn") if "Relp" in line], [])

    def test_any_bytes_but_nul_are_one_line_of_the_receiver(self):
        self.receiver()
        agent = self.start_agent()
        messages = [b"<13>plain", b"<13>1 2026-11-21T12:00:00Z host app - - - \xff\xfe \xc3(",
                    b"no header at all", b"x" * 60_000, b" 9 syslog 1 a"]
        support.send(agent.port(), support.as_lines(messages))
        self.assertEqual(self.wait_for_events(messages), messages)
        self.assertEqual(agent.stop(), 0)

    def test_a_receiver_that_stops_and_starts_in_good_order_costs_and_doubles_nothing(self):
        receiver = self.receiver()
        agent = self.start_agent()
        first = support.numbered(0, 500)
        support.send(agent.port(), support.as_lines(first))
        self.wait_for_events(first)
        receiver.stop()
        agent.wait_for(r"Warn .*tcp://127\.0\.0\.1:\d+ can't be reached")
        second = support.numbered(500, 500)
        support.send(agent.port(), support.as_lines(second))
        agent.wait_for(r"\(near\)")
        receiver.start()
        self.wait_for_events(first + second)
        agent.wait_for("Connected to .* again after")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (1_000, 0, 0, 0))
        self.assertEqual(self.received(), first + second)

    def test_a_frozen_receiver_fills_the_window_and_what_is_missing_at_the_stop_is_said(self):
        receiver = self.receiver()
        agent = self.start_agent(", window: 50, send_timeout: 100ms", drain="1s", abandons=True)
        agent.wait_for("Connected to")
        receiver.process.send_signal(signal.SIGSTOP)
        self.fill_sender(agent, support.numbered(0, 200), window=50)
        support.send(agent.port(), support.as_lines(support.numbered(200, 100)))
        self.wait_for_rest_cached(agent, 300)
        self.assertEqual(agent.stop(), 0)
        receiver.process.send_signal(signal.SIGCONT)
        agent.wait_for("50 events were not acknowledged")
        self.assertEqual(agent.summary(), (0, 300 - agent.near(), 0, agent.near()))


class RelpOverTls(RelpTest):
    def setUp(self):
        super().setUp()
        self.authority = Authority(self.directory)

    def secured_receiver(self, library, certificate, mode="certvalid", peer=""):
        permitted = f' tls.permittedPeer="{peer}"' if peer else ""
        return self.receiver(
            f'\n  tls="on" tls.caCert="{self.authority.certificate}" tls.myCert="{certificate[0]}"'
            f' tls.myPrivKey="{certificate[1]}" tls.authMode="{mode}"{permitted}',
            module=f' tls.tlslib="{library}"')

    def tls(self, certificate=None):
        own = f', certificate: "{certificate[0]}", key: "{certificate[1]}"' if certificate else ""
        return f', tls: {{ ca: "{self.authority.certificate}"{own} }}'

    def exchange(self, agent):
        events = support.numbered(0, 5_000)
        support.send(agent.port(), support.as_lines(events))
        self.assertEqual(self.wait_for_events(events), events)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (5_000, 0, 0, 0))
        self.assertFalse(agent.find("Warn Code.RelpDestination"), agent.lines)

    def test_both_libraries_of_the_receiver_and_certificates_on_both_sides(self):
        server = self.authority.issue("server")
        client = self.authority.issue("client", subject="DNS:client.example")
        for library in ("openssl", "gnutls"):
            with self.subTest(library):
                self.output.unlink(missing_ok=True)
                receiver = self.secured_receiver(library, server, "name", "client.example")
                self.wait_until_it_listens()
                self.exchange(self.start_agent(self.tls(client), "tls", "localhost"))
                receiver.stop()

    def test_a_client_that_the_receiver_does_not_know_loses_no_event(self):
        self.secured_receiver("openssl", self.authority.issue("server"), "name", "client.example")
        other = self.authority.issue("other", subject="DNS:other.example")
        agent = self.start_agent(self.tls(other), "tls", "localhost", drain="1s", abandons=True)
        support.send(agent.port(), b"secret\n")
        agent.wait_for(r"Warn Code\.RelpDestination.*can't be reached")
        agent.wait_for(r"\(near\)")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (0, 0, 0, 1))
        self.assertEqual(self.received(), [])

    def test_a_receiver_with_another_name_gets_no_event(self):
        self.secured_receiver("openssl",
                              self.authority.issue("wrong", subject="DNS:other.example"))
        agent = self.start_agent(self.tls(self.authority.issue("client")), "tls", "localhost",
                                 drain="1s", abandons=True)
        support.send(agent.port(), b"secret\n")
        agent.wait_for("the TLS handshake failed: its certificate is refused: hostname mismatch")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(self.received(), [])


if __name__ == "__main__":
    unittest.main()
