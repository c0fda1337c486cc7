"""The properties of the Kafka destination for TLS and SASL: they reach librdkafka, which acts on
them. The cluster of the other tests speaks neither, so the other end is a listener that speaks TLS
and as much of Kafka's protocol as a log-in takes."""

import os
import pathlib
import ssl
import struct
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "integration"))
import support  # noqa: E402
from certificates import Authority  # noqa: E402

SASL_HANDSHAKE, API_VERSIONS, SASL_AUTHENTICATE = 17, 18, 36
UNSUPPORTED_VERSION, AUTHENTICATION_FAILED = 35, 58


def text(value):
    return struct.pack(">h", len(value)) + value


class Broker(support.Receiver):
    """Takes connections over TLS, and log-ins by the mechanism PLAIN, which it refuses once it has
    seen them: what follows would be a cluster."""

    def __init__(self, certificate, key, client_ca=None):
        self.logins, self.clients, self.requests = [], [], []
        self._context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self._context.load_cert_chain(certificate, key)
        if client_ca:
            self._context.load_verify_locations(client_ca)
            self._context.verify_mode = ssl.CERT_REQUIRED
        super().__init__()

    def read(self, connection):
        connection.settimeout(support.LIMIT)
        try:
            with self._context.wrap_socket(connection, server_side=True) as secured:
                self.clients.append(secured.getpeercert())
                self._serve(secured)
        except OSError:
            pass

    def _serve(self, connection):
        stream = connection.makefile("rb")
        while len(size := stream.read(4)) == 4:
            request = stream.read(struct.unpack(">i", size)[0])
            kind, version, correlation, client = struct.unpack(">hhih", request[:10])
            self.requests.append(kind)
            body = request[10 + client:]
            answer = self._answer(kind, version, body)
            connection.sendall(struct.pack(">ii", 4 + len(answer), correlation) + answer)

    def _answer(self, kind, version, body):
        if kind == API_VERSIONS:
            known = ((SASL_HANDSHAKE, 1), (API_VERSIONS, 0), (SASL_AUTHENTICATE, 0))
            return (struct.pack(">hi", UNSUPPORTED_VERSION if version else 0, len(known))
                    + b"".join(struct.pack(">hhh", key, 0, highest) for key, highest in known))
        if kind == SASL_HANDSHAKE:
            return struct.pack(">hi", 0, 1) + text(b"PLAIN")
        self.logins.append(body[4:])
        return struct.pack(">h", AUTHENTICATION_FAILED) + text(b"not you") + struct.pack(">i", 0)


class KafkaSecurity(support.AgentTest):
    def setUp(self):
        super().setUp()
        self.authority = Authority(self.directory)

    def broker(self, certificate, **options):
        broker = Broker(*certificate, **options)
        self.addCleanup(broker.close)
        return broker

    def start_agent(self, port, properties, **options):
        return self.start(self.configure(self.stream(
            support.SYSLOG_SOURCE,
            f'{{ type: kafka, brokers: "localhost:{port}", topic: events, properties: '
            f"{{ reconnect.backoff.max.ms: 200, {properties} }} }}"), drain="1s"), **options)

    def test_a_log_in_goes_over_tls_with_the_name_and_password_that_were_set(self):
        broker = self.broker(self.authority.issue("broker"))
        agent = self.start_agent(
            broker.port, f"security.protocol: SASL_SSL, ssl.ca.location: "
            f'"{self.authority.certificate}", sasl.mechanisms: PLAIN, sasl.username: orlo, '
            "sasl.password: SeCrEt")
        support.wait_until(lambda: broker.logins, "a log-in")
        self.assertEqual(broker.logins[0], b"\0orlo\0SeCrEt")
        self.wait_for_reason(agent, "not you")
        self.assertEqual(agent.stop(), 0)
        self.assertNotIn("SeCrEt", "\n".join(agent.lines))

    def test_the_certificate_of_the_agent_is_shown_to_a_broker_that_asks(self):
        broker = self.broker(self.authority.issue("broker"), client_ca=self.authority.certificate)
        certificate, key = self.authority.issue("client", subject="DNS:agent.example")
        agent = self.start_agent(
            broker.port, f'security.protocol: SSL, ssl.ca.location: "{self.authority.certificate}", '
            f'ssl.certificate.location: "{certificate}", ssl.key.location: "{key}"')
        support.wait_until(lambda: API_VERSIONS in broker.requests, "a request")
        self.assertEqual(broker.clients[0]["subjectAltName"], (("DNS", "agent.example"),))
        self.assertEqual(agent.stop(), 0)

    def wait_for_reason(self, agent, reason):
        # Sometimes the library finds that all brokers are down before it says why.
        agent.wait_for(rf"Warn Code\.KafkaDestination.*can't be reached.*\(.*{reason}.*\)")

    def expect_no_request(self, certificate, reason):
        broker = self.broker(certificate)
        agent = self.start_agent(
            broker.port, f'security.protocol: SSL, ssl.ca.location: "{self.authority.certificate}"')
        self.wait_for_reason(agent, reason)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(broker.requests, [])

    def test_a_broker_of_an_unknown_authority_gets_nothing(self):
        other = Authority(self.directory, "other")
        self.expect_no_request(other.issue("broker"), "certificate verify failed")

    def test_a_broker_with_another_name_gets_nothing(self):
        self.expect_no_request(self.authority.issue("wrong", subject="DNS:other.example"),
                               "certificate verify failed")

    def test_what_cannot_be_used_is_refused_at_the_start_by_its_name(self):
        wrong = {
            "security.protocol: no-such-thing": "security.protocol",
            "security.protocol: SASL_SSL, sasl.mechanisms: NO-SUCH-THING": "SASL mechanism",
            "security.protocol: SSL, ssl.ca.location: ./not-there.pem": "ssl.ca.location",
            "security.protocol: SSL, ssl.key.location: ./not-there.pem, "
            "ssl.key.password: SeCrEt": "ssl.key.location",
        }
        for properties, name in wrong.items():
            with self.subTest(properties):
                agent = self.start_agent(9, properties)
                self.assertEqual(agent.wait(), 1, agent.lines)
                self.assertRegex(agent.messages("Error")[0], rf"Can't send to Kafka: .*{name}")
                self.assertNotIn("SeCrEt", "\n".join(agent.lines))

    def test_brokers_that_are_secret_are_hidden_in_the_form_that_the_library_gives_them(self):
        secret = "SeCrEt-hunter2"
        os.environ["ORLO_TEST_BROKERS"] = f"PLAINTEXT://{secret}.invalid:09092"
        config = self.configure(self.stream(
            support.SYSLOG_SOURCE,
            '{ type: kafka, brokers: "${ORLO_TEST_BROKERS}", topic: t }'))
        config.write_text(config.read_text().replace("log: {", "log: { level: debug, "))
        agent = self.start(config)
        agent.wait_for(r"Warn Code\.KafkaDestination.* can't be reached")
        self.assertEqual(agent.stop(), 0)
        self.assertNotIn(secret.lower(), "\n".join(agent.lines).lower())


if __name__ == "__main__":
    unittest.main()
