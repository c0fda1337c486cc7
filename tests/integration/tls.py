"""TLS on both sides of the agent, against Python's ssl module: what is right gets through, and
whatever is wrong with a certificate or a peer is refused, counted, and said in one line."""

import pathlib
import shutil
import socket
import ssl
import sys
import threading
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import support  # noqa: E402
from certificates import Authority  # noqa: E402


class TlsReceiver(support.Receiver):
    """A receiver whose connections are secured before they are read."""

    def __init__(self, certificate, key, client_ca=None):
        self._context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self._context.load_cert_chain(certificate, key)
        if client_ca:
            self._context.load_verify_locations(client_ca)
            self._context.verify_mode = ssl.CERT_REQUIRED
        super().__init__()

    def read(self, connection):
        try:
            secured = self._context.wrap_socket(connection, server_side=True)
        except OSError:
            return
        with secured:
            super().read(secured)


class TlsSource(support.AgentTest):
    def setUp(self):
        super().setUp()
        self.authority = Authority(self.directory)
        self.certificate, self.key = self.authority.issue("server")
        self.output = self.directory / "out.log"

    def start_source(self, extra=""):
        source = (f'{{ type: syslog, listen: "tls://127.0.0.1:0", tls: {{ certificate: '
                  f'"{self.certificate}", key: "{self.key}"{extra} }} }}')
        agent = self.start(self.configure(
            self.stream(source, "{ type: file, path: ./out.log }")))
        found = agent.wait_for(r"Listening on tls://127\.0\.0\.1:(\d+)\.")
        self.port = int(found.group(1))
        return agent

    def client(self, certificate=None, key=None, version=None):
        context = ssl.create_default_context(cafile=str(self.authority.certificate))
        if certificate:
            context.load_cert_chain(certificate, key)
        if version:
            context.maximum_version = version
        plain = socket.create_connection(("127.0.0.1", self.port))
        return context.wrap_socket(plain, server_hostname="localhost")

    def send(self, data, **options):
        with self.client(**options) as connection:
            connection.sendall(data)
            connection.unwrap().close()

    def test_messages_come_through_in_both_versions_and_framings(self):
        agent = self.start_source()
        self.send(b"<13>one\n<13>two\n", version=ssl.TLSVersion.TLSv1_2)
        self.send(b"7 <13>six5 <1>\n7")
        large = support.as_lines(support.numbered(0, 20_000))
        self.send(large)
        support.wait_until(lambda: self.output.exists()
                           and self.output.read_bytes().endswith(large), "the last message")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(self.output.read_bytes(),
                         b"<13>one\n<13>two\n<13>six\n<1>\n7\n" + large)
        self.assertTrue(agent.find(r"20004 events came over 3 connections"))
        self.assertEqual(agent.messages("Warn"), [])

    def test_a_client_without_the_right_certificate_is_refused(self):
        other = Authority(self.directory, "other")
        good, wrong = self.authority.issue("client"), other.issue("intruder")
        expired = self.authority.issue("old", expired=True)
        agent = self.start_source(f', client_ca: "{self.authority.certificate}"')
        self.send(b"good\n", certificate=good[0], key=good[1])
        for pair in (wrong, expired, (None, None)):
            with self.assertRaises((ssl.SSLError, ConnectionError)):
                with self.client(*pair) as connection:
                    connection.sendall(b"bad\n")
                    # The refusal may come after our side is done.
                    if not connection.recv(1):
                        raise ConnectionResetError
        support.wait_until(lambda: self.output.exists() and self.output.read_bytes(), "the event")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(self.output.read_bytes(), b"good\n")
        warnings = agent.messages("Warn")
        self.assertEqual(len(warnings), 3, agent.lines)
        self.assertRegex(warnings[0], r"handshake with 127\.0\.0\.1:\d+ failed, the connection is "
                                      r"closed: its certificate is refused: unable to get local")
        self.assertRegex(warnings[1], "its certificate is refused: certificate has expired")
        self.assertRegex(warnings[2], "it has shown no certificate")
        self.assertTrue(agent.find("3 connections were not secured"))

    def test_plain_clients_and_silent_ones_do_not_disturb_others(self):
        agent = self.start_source(", handshake_timeout: 5s")
        silent = socket.create_connection(("127.0.0.1", self.port))
        self.addCleanup(silent.close)
        with socket.create_connection(("127.0.0.1", self.port)) as plain:
            plain.sendall(b"<13>this is no handshake\n" * 5)
            plain.settimeout(support.LIMIT)
            try:
                while plain.recv(100):
                    pass
            except ConnectionResetError:
                pass
        self.send(b"good\n")
        agent.wait_for("it does not speak TLS 1.2 or newer")
        agent.wait_for("it took too long")
        support.wait_until(lambda: self.output.exists() and self.output.read_bytes(), "the event")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(self.output.read_bytes(), b"good\n")
        self.assertEqual(len(agent.messages("Warn")), 2, agent.lines)

    def test_a_certificate_that_is_replaced_is_used_after_a_hang_up(self):
        agent = self.start_source()
        with self.client() as connection:
            first = connection.getpeercert()["serialNumber"]
        certificate, key = self.authority.issue("renewed")
        shutil.copy(certificate, self.certificate)
        shutil.copy(key, self.key)
        agent.signal(support.signal.SIGHUP)
        agent.wait_for("New connections to tls://127.0.0.1:0 get the certificate as it is now")
        with self.client() as connection:
            second = connection.getpeercert()["serialNumber"]
        self.assertNotEqual(first, second)
        self.key.write_text("no key\n")
        agent.signal(support.signal.SIGHUP)
        agent.wait_for(r'key file ".*" can\'t be used \(.*\); the certificate that was read before '
                       "stays in use")
        with self.client() as connection:
            self.assertEqual(connection.getpeercert()["serialNumber"], second)
        self.assertEqual(agent.stop(), 0)

    def test_files_that_cannot_be_used_are_named_at_the_start(self):
        for what, path in (("certificate", self.certificate), ("key", self.key)):
            good = path.read_text()
            path.write_text("nothing\n")
            source = (f'{{ type: syslog, listen: "tls://127.0.0.1:0", tls: {{ certificate: '
                      f'"{self.certificate}", key: "{self.key}" }} }}')
            agent = self.start(self.configure(
                self.stream(source, "{ type: file, path: ./out.log }")))
            self.assertEqual(agent.wait(), 1)
            self.assertRegex(agent.messages("Error")[0],
                             rf'Can\'t listen on tls://127\.0\.0\.1:0: {what} file "{path}" '
                             r"can't be used \(")
            path.write_text(good)


class TlsDestination(support.AgentTest):
    def setUp(self):
        super().setUp()
        self.authority = Authority(self.directory)

    def tls_receiver(self, certificate, client_ca=None):
        receiver = TlsReceiver(*certificate, client_ca=client_ca)
        self.addCleanup(receiver.close)
        return receiver

    def start_with(self, port, host="127.0.0.1", tls=None):
        tls = tls if tls is not None else f'ca: "{self.authority.certificate}"'
        return self.start(self.configure(self.stream(
            support.SYSLOG_SOURCE,
            f'{{ type: syslog, target: "tls://{host}:{port}", tls: {{ {tls} }} }}'), drain="1s"),
            abandons=True)

    def test_events_arrive_when_name_or_address_and_authority_are_right(self):
        for host in ("127.0.0.1", "localhost"):
            receiver = self.tls_receiver(self.authority.issue(f"for-{host}"))
            agent = self.start_with(receiver.port, host)
            events = support.numbered(0, 30_000)
            support.send(agent.port(), support.as_lines(events))
            self.assertEqual(receiver.wait_for_lines(30_000), events)
            self.assertEqual(agent.stop(), 0)
            self.assertFalse(agent.find("Warn Code.SyslogDestination"), agent.lines)

    def expect_refusal(self, receiver, reason, **options):
        agent = self.start_with(receiver.port, **options)
        support.send(agent.port(), b"secret\n")
        agent.wait_for(rf"tls://\S+ can't be reached \({reason}.*\); events wait until it can")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(bytes(receiver.received), b"")
        refusals = [line for line in agent.messages("Warn") if "SyslogDestination" in line]
        self.assertEqual(len(refusals), 1, agent.lines)
        self.assertEqual(agent.summary()[0], 0)

    def test_expired_certificate_is_refused(self):
        self.expect_refusal(self.tls_receiver(self.authority.issue("old", expired=True)),
                            "the TLS handshake failed: its certificate is refused: certificate has "
                            "expired")

    def test_certificate_for_another_name_is_refused(self):
        receiver = self.tls_receiver(self.authority.issue("other", subject="DNS:other.example"))
        self.expect_refusal(receiver, "the TLS handshake failed: its certificate is refused: "
                                      "IP address mismatch")
        self.expect_refusal(receiver, "the TLS handshake failed: its certificate is refused: "
                                      "hostname mismatch", host="localhost")

    def test_certificate_of_an_unknown_authority_is_refused(self):
        other = Authority(self.directory, "unknown")
        self.expect_refusal(self.tls_receiver(other.issue("server")),
                            "the TLS handshake failed: its certificate is refused: unable to get "
                            "local issuer certificate")

    def test_receiver_that_does_not_speak_tls_gets_no_event(self):
        # It answers as soon as it is spoken to.
        listener = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(listener.close)
        received = bytearray()

        def answer():
            connection, _ = listener.accept()
            with connection:
                received.extend(connection.recv(4096))
                connection.sendall(b"220 no TLS here\r\n")
                try:
                    while data := connection.recv(4096):
                        received.extend(data)
                except ConnectionResetError:
                    pass

        threading.Thread(target=answer, daemon=True).start()
        agent = self.start_with(listener.getsockname()[1])
        support.send(agent.port(), b"secret\n")
        agent.wait_for("the TLS handshake failed: it does not speak TLS 1.2 or newer")
        self.assertEqual(agent.stop(), 0)
        self.assertNotIn(b"secret", received)

    def test_receiver_that_refuses_our_certificate_costs_no_event(self):
        receiver = self.tls_receiver(self.authority.issue("server"),
                                     client_ca=self.authority.certificate)
        self.expect_refusal(receiver, "the receiver has ended the TLS handshake: .*certificate")
        certificate, key = self.authority.issue("client")
        agent = self.start_with(
            receiver.port, tls=f'ca: "{self.authority.certificate}", certificate: "{certificate}", '
                               f'key: "{key}"')
        support.send(agent.port(), b"welcome\n")
        self.assertEqual(receiver.wait_for_lines(1), [b"welcome"])
        self.assertEqual(agent.stop(), 0)

    def test_without_verification_everybody_is_believed_and_a_warning_says_so(self):
        receiver = self.tls_receiver(Authority(self.directory, "any").issue("any"))
        agent = self.start_with(receiver.port, tls="verify: false")
        agent.wait_for(r"Warn .*The certificate of tls://\S+ is not verified: whoever answers there "
                       "gets the events")
        support.send(agent.port(), b"event\n")
        self.assertEqual(receiver.wait_for_lines(1), [b"event"])
        self.assertEqual(agent.stop(), 0)

    def test_the_name_that_is_expected_can_be_another_than_the_targets(self):
        receiver = self.tls_receiver(self.authority.issue("named", subject="DNS:log.example"))
        agent = self.start_with(
            receiver.port, tls=f'ca: "{self.authority.certificate}", server_name: log.example')
        support.send(agent.port(), b"event\n")
        self.assertEqual(receiver.wait_for_lines(1), [b"event"])
        self.assertEqual(agent.stop(), 0)


if __name__ == "__main__":
    unittest.main()
