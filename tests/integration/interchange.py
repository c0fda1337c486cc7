"""A cache that the agent of one system has written is delivered by that of the other.

    interchange.py write DIRECTORY     writes such a cache, with the agent that the environment names

data/caches/README.md says how the kept ones were made.
"""

import pathlib
import shutil
import sys
import unittest

import support

KEPT = pathlib.Path(__file__).parent / "data" / "caches"
STREAMS = ("Default", "Gr\u00f6\u00dfe \u0436")
CHUNKS = 2


def events(stream, chunk):
    """Of every length and kind that newline framing lets through."""
    name = stream.encode()
    made = [b"%s chunk %d event %d " % (name, chunk, number) + b"x" * (number * 7 % 90)
            for number in range(40)]
    return made + [b"bytes \x00\x01\x7f\x80\xfe\xff end", b" ", b"\xef\xbb\xbfmark"]


class Interchange(support.AgentTest):
    def configure_streams(self, ports, drain):
        return self.configure(
            "".join(self.stream(support.SYSLOG_SOURCE, support.syslog_target(port), name=name)
                    for name, port in zip(STREAMS, ports)), drain=drain)

    def deliver(self, origin):
        shutil.copytree(KEPT / origin, self.directory / "data" / "Events")
        receivers = [self.receiver() for _ in STREAMS]
        agent = self.start(self.configure_streams([one.port for one in receivers], "30s"))
        for name, receiver in zip(STREAMS, receivers):
            expected = [event for chunk in range(CHUNKS) for event in events(name, chunk)]
            self.assertEqual(receiver.wait_for_lines(len(expected)), expected)
        self.assertEqual(agent.stop(), 0)
        for name in STREAMS:
            count = sum(len(events(name, chunk)) for chunk in range(CHUNKS))
            self.assertEqual(agent.summary(name), (count, 0, 0, 0))
            self.assertEqual(self.chunks(name), [])

    def test_a_cache_written_on_linux_is_delivered(self):
        self.deliver("linux")

    def test_a_cache_written_on_windows_is_delivered(self):
        self.deliver("windows")

    def test_the_kept_caches_hold_all_events(self):
        for origin in ("linux", "windows"):
            for name in STREAMS:
                chunks = sorted((KEPT / origin / name).glob("*/*"))
                self.assertEqual(len(chunks), CHUNKS)
                for number, chunk in enumerate(chunks):
                    content = chunk.read_bytes()
                    self.assertEqual(int.from_bytes(content[:4], "little"),
                                     len(events(name, number)))
                    for event in events(name, number):
                        self.assertIn(event, content)

    def write(self, target):
        ports = [self.refusing_port().number for _ in STREAMS]
        agent = self.start(self.configure_streams(ports, "1s"), abandons=True)
        for name in STREAMS:
            self.hold_one(agent, name)
        for chunk in range(CHUNKS):
            for name in STREAMS:
                support.send(agent.port(name), support.as_lines(events(name, chunk)))
            for name in STREAMS:
                count = sum(len(events(name, one)) for one in range(chunk + 1))
                self.wait_for_cached(count, name)
        self.assertEqual(agent.stop(), 0)
        shutil.copytree(self.directory / "data" / "Events", target)


if __name__ == "__main__":
    if len(sys.argv) == 3 and sys.argv[1] == "write":
        Interchange.runTest = lambda self: self.write(sys.argv[2])
        result = unittest.TextTestRunner().run(Interchange())
        sys.exit(not result.wasSuccessful())
    unittest.main()
