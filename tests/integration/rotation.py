"""A destination file that the agent rotates: every event is in one of the files, in order, and the
oldest files go. A kill while files are compressed leaves each plain or compressed, and complete."""

import gzip
import threading
import time

import support


class Rotation(support.AgentTest):
    def destination(self, rotate):
        return self.stream(support.SYSLOG_SOURCE,
                           f"{{ type: file, path: ./logs/out.log, rotate: {rotate} }}")

    def closed(self):
        return sorted((self.directory / "logs").glob("out.log.*"))

    def read(self, path):
        return gzip.decompress(path.read_bytes()) if path.suffix == ".gz" else path.read_bytes()

    def all_bytes(self):
        """Nothing while a file is between two names."""
        try:
            return b"".join(self.read(path) for path in [*self.closed(),
                                                         self.directory / "logs" / "out.log"])
        except FileNotFoundError:
            return b""

    def test_files_of_a_size_hold_all_events_in_order_and_are_compressed(self):
        agent = self.start(self.configure(self.destination("{ size: 1MiB, compress: gzip }")))
        events = [b"event %08d " % number + b"x" * 200 for number in range(50000)]
        support.send(agent.port(), support.as_lines(events))
        support.wait_until(lambda: (self.directory / "logs").exists() and self.closed()
                           and all(path.suffix == ".gz" for path in self.closed())
                           and self.all_bytes() == support.as_lines(events), "every event")
        self.assertGreaterEqual(len(self.closed()), 5)
        for path in self.closed():
            # A file ends with a whole event, and is larger than asked by one write at most.
            self.assertTrue(self.read(path).endswith(b"x\n"))
            self.assertLess(len(self.read(path)), (1 << 20) + (1 << 19))
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (50000, 0, 0, 0))

    def test_files_of_a_period_are_begun_anew_and_the_oldest_are_deleted(self):
        agent = self.start(self.configure(self.destination("{ every: 1s, keep: 2 }")))
        port = agent.port()
        sent = []
        stopped = threading.Event()

        def produce():
            while not stopped.is_set():
                sent.append(b"event %d" % len(sent))
                support.send(port, sent[-1] + b"\n")
                time.sleep(0.1)

        producer = threading.Thread(target=produce)
        producer.start()
        try:
            support.wait_until(
                lambda: len([line for line in list(agent.lines)
                             if " is now " in line and "out.log." in line]) >= 4, "four rotations")
        finally:
            stopped.set()
            producer.join()
        path = self.directory / "logs" / "out.log"
        support.wait_until(lambda: path.exists() and path.read_bytes().endswith(sent[-1] + b"\n"),
                           "the last event")
        support.wait_until(lambda: len(self.closed()) == 2, "two files left")
        # What is left is the end of what was sent.
        left = support.wait_until(self.all_bytes, "what is left").split(b"\n")[:-1]
        self.assertEqual(left, sent[-len(left):])
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (len(sent), 0, 0, 0))

    def test_a_kill_leaves_each_file_plain_or_complete_and_the_next_start_goes_on(self):
        logs = self.directory / "logs"
        logs.mkdir()
        contents = {}
        for number in range(8):
            path = logs / f"out.log.2026-01-0{number + 1}T00-00-00.000Z"
            contents[path.name] = b"".join(b"%d line %d\n" % (number, line)
                                           for line in range(400000))
            path.write_bytes(contents[path.name])
        config = self.configure(self.destination("{ size: 1GiB, compress: gzip }"))
        for finished in (1, 3):
            agent = self.start(config)
            support.wait_until(lambda: len(list(logs.glob("*Z.gz"))) >= finished, "some of it")
            agent.process.kill()
            agent.process.wait()
            for name, content in contents.items():
                plain, compressed = logs / name, logs / (name + ".gz")
                self.assertTrue(plain.exists() or compressed.exists())
                if compressed.exists():
                    self.assertEqual(gzip.decompress(compressed.read_bytes()), content)
                if plain.exists():
                    self.assertEqual(plain.read_bytes(), content)
        agent = self.start(config)
        support.wait_until(
            lambda: sorted(path.name for path in self.closed())
            == sorted(name + ".gz" for name in contents), "all of it")
        self.assertEqual(agent.stop(), 0)


if __name__ == "__main__":
    support.unittest.main()
