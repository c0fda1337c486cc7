"""Other programs as clients of the syslog source: rsyslog's omfwd, syslog-ng, and logger, in the
formats of RFC 5424 and RFC 3164, over UDP, over TCP in both framings, and over TLS. What they are
given must arrive, each message once and in order, in the format that they were told to send."""

import pathlib
import re
import socket
import subprocess
import sys
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "integration")]
import peers  # noqa: E402
import support  # noqa: E402
from certificates import Authority  # noqa: E402

COUNT = 300

FORMATS = {
    "rfc5424": re.compile(rb"<(?P<priority>\d+)>1 \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?(Z|[+-]\d\d:\d\d) "
                          rb"(?P<host>\S+) (?P<tag>\S+) \S+ \S+ (-|(\[[^\]]*\])+) (\xef\xbb\xbf)?"
                          rb"(?P<text>.*)", re.DOTALL),
    "rfc3164": re.compile(rb"<(?P<priority>\d+)>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d (?P<host>\S+) "
                          rb"(?P<tag>[^ :\[]+)(\[\d+\])?: (?P<text>.*)", re.DOTALL),
}


def texts():
    """Numbered, of many lengths, some with what is special to one framing or the other."""
    special = ["7 starts like a length", "<99>priority inside", "grüße, 日本語, ✓", "a  b   c",
               "[x y=\"z\"] no structured data", "x" * 4_000, "tab\there"]
    return [f"{number:05d} {special[number % 20] if number % 20 < len(special) else 'm' * (number % 97)}"
            for number in range(COUNT)]


class SendersTest(support.AgentTest):
    def start_agent(self, kinds):
        """A stream for each kind, TRANSPORT or TRANSPORT-ANYTHING, with a source and a file."""
        authority = Authority(self.directory)
        self.ca = authority.certificate
        certificate, key = authority.issue("server")
        streams = ""
        for kind in kinds:
            transport = kind.split("-")[0]
            tls = f', tls: {{ certificate: "{certificate}", key: "{key}" }}' if transport == "tls" else ""
            streams += self.stream(
                f'{{ type: syslog, listen: "{transport}://127.0.0.1:0"{tls} }}',
                f"{{ type: syslog, framing: octet-counted, target: "
                f'"tcp://127.0.0.1:{self.collector(kind).port}" }}', name=kind)
        self.agent = self.start(self.configure(streams))
        return {kind: int(self.agent.wait_for(
            rf"SyslogSource\.{kind}: Listening on \w+://127\.0\.0\.1:(\d+)\.").group(1))
            for kind in kinds}

    def collector(self, kind):
        """Octet-counted, so that a message which has become two, or two which have become one, is
        seen."""
        self.collectors = getattr(self, "collectors", {})
        self.collectors[kind] = self.receiver()
        return self.collectors[kind]

    def messages(self, kind):
        received, messages = bytes(self.collectors[kind].received), []
        while found := re.match(rb"(\d+) ", received):
            end = found.end() + int(found.group(1))
            if end > len(received):
                break
            messages.append(received[found.end():end])
            received = received[end:]
        return messages

    def expect(self, kind, wire_format, priority=b"13", tag=b"orlo", wanted=None):
        wanted = [text.encode() for text in wanted or texts()]
        support.wait_until(lambda: len(self.messages(kind)) >= len(wanted), f"messages of {kind}")
        arrived = []
        for message in self.messages(kind):
            found = FORMATS[wire_format].fullmatch(message)
            self.assertTrue(found, (kind, message))
            self.assertEqual((found["priority"], found["tag"]), (priority, tag), (kind, message))
            # Some put a blank before the text, or a line feed behind it that the framing ends with.
            arrived.append(found["text"].removeprefix(b" ").removesuffix(b"\n"))
        self.assertEqual(arrived, wanted, kind)

    def relay(self, program, config, source, kinds):
        """The program sends what it takes from the source in each of these ways."""
        sender = peers.Peer(program, self.directory, config)
        self.addCleanup(sender.stop)
        sender.start()

        def listens():
            sender.expect_running()
            return source.path.exists()
        support.wait_until(listens, "the socket")
        source.send()
        for kind in kinds:
            self.expect(kind, kind.split("-")[1])
        self.end()

    def end(self):
        self.assertEqual(self.agent.stop(), 0)
        self.assertEqual([line for line in self.agent.messages("Warn") if "Source" in line], [])


class Socket:
    """Where rsyslog and syslog-ng take messages of this machine."""

    def __init__(self, directory):
        self.path = directory / "log"

    def send(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            for text in texts():
                # Waits when the receiver is behind.
                sender.sendto(f"<13>Nov 21 12:00:00 orlo: {text}".encode(), str(self.path))


RSYSLOG_TEMPLATES = {"rfc5424": "RSYSLOG_SyslogProtocol23Format",
                     "rfc3164": "RSYSLOG_TraditionalForwardFormat"}


class Rsyslog(SendersTest):
    def action(self, kind, port):
        transport, wire_format, *rest = kind.split("-")
        text = (f'action(type="omfwd" target="127.0.0.1" port="{port}" '
                f'protocol="{"udp" if transport == "udp" else "tcp"}" '
                f'template="{RSYSLOG_TEMPLATES[wire_format]}"')
        if rest:
            text += ' TCP_Framing="octet-counted"' if rest[0] == "counted" else ""
        if transport == "tls":
            driver = "gtls" if rest[-1] == "gnutls" else "ossl"
            text += (f' StreamDriver="{driver}" StreamDriverMode="1" StreamDriverAuthMode="x509/name"'
                     f' StreamDriverPermittedPeers="localhost" StreamDriver.CAFile="{self.ca}"')
        return text + ")\n"

    def test_omfwd_over_every_transport_in_both_formats(self):
        kinds = ["udp-rfc5424", "udp-rfc3164", "tcp-rfc5424-lines", "tcp-rfc3164-lines",
                 "tcp-rfc5424-counted", "tcp-rfc3164-counted", "tls-rfc5424-counted-openssl",
                 "tls-rfc3164-lines-gnutls"]
        ports = self.start_agent(kinds)
        source = Socket(self.directory)
        config = (f'global(workDirectory="{self.directory}" '
                  'parser.escapeControlCharactersOnReceive="off")\n'
                  'module(load="imuxsock" SysSock.Use="off")\n'
                  f'input(type="imuxsock" Socket="{source.path}" RateLimit.Interval="0")\n')
        self.relay("rsyslog", config + "".join(
            self.action(kind, port) for kind, port in ports.items()), source, kinds)


class SyslogNg(SendersTest):
    def destination(self, kind, port):
        transport, wire_format, framing = (kind.split("-") + ["lines"])[:3]
        name = kind.replace("-", "_")
        tls = (f' tls(ca-file("{self.ca}") peer-verify(required-trusted))'
               if transport == "tls" else "")
        driver = "syslog" if framing == "counted" or kind == "udp-rfc5424" else "network"
        flags = " flags(syslog-protocol)" if driver == "network" and wire_format == "rfc5424" else ""
        return (f'destination d_{name} {{ {driver}("127.0.0.1" port({port}) '
                f'transport("{transport}"){tls}{flags}); }};\n'
                f"log {{ source(s); destination(d_{name}); }};\n")

    def test_every_transport_in_both_formats(self):
        kinds = ["udp-rfc5424", "udp-rfc3164", "tcp-rfc5424-lines", "tcp-rfc3164-lines",
                 "tcp-rfc5424-counted", "tls-rfc5424-counted", "tls-rfc3164-lines"]
        ports = self.start_agent(kinds)
        source = Socket(self.directory)
        config = ('@version: 3.38\noptions { keep-hostname(yes); use-dns(no); };\n'
                  f'source s {{ unix-dgram("{source.path}"); }};\n')
        self.relay("syslog-ng", config + "".join(
            self.destination(kind, port) for kind, port in ports.items()), source, kinds)


class Logger(SendersTest):
    def test_every_transport_framing_and_format(self):
        kinds = {f"{transport}-{wire_format}{'-counted' if counted else ''}":
                 [f"--{transport}", f"--{wire_format}", *(["--octet-count"] if counted else [])]
                 for transport in ("udp", "tcp") for wire_format in FORMATS
                 for counted in (False, True) if transport == "tcp" or not counted}
        ports = self.start_agent(kinds)
        lines = self.directory / "lines"
        # It cuts at 1 KiB if it is not told otherwise.
        lines.write_text("".join(text + "\n" for text in texts()), encoding="utf-8")
        for kind, options in kinds.items():
            subprocess.run(["logger", *options, "--server", "127.0.0.1", "--port", str(ports[kind]),
                            "--tag", "orlo", "--size", "8KiB", "--file", str(lines)], check=True)
        for kind in kinds:
            self.expect(kind, kind.split("-")[1])
        self.end()


if __name__ == "__main__":
    unittest.main()
