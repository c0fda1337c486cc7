"""A destination file that is renamed while events flow: every line is in one of the files, whole."""

import threading
import time
import unittest

import support


class FileRotation(support.AgentTest):
    def test_no_line_is_lost_or_torn_by_renames(self):
        config = self.configure(self.stream(support.SYSLOG_SOURCE,
                                            "{ type: file, path: ./logs/out.log }"))
        agent = self.start(config)
        port = agent.port()
        path = self.directory / "logs" / "out.log"
        events = []
        stopped = threading.Event()

        def produce():
            while not stopped.is_set():
                batch = support.numbered(len(events), 1000)
                support.send(port, support.as_lines(batch))
                events.extend(batch)
                time.sleep(0.05)

        producer = threading.Thread(target=produce)
        producer.start()
        rotated = []
        try:
            for number in (1, 2):
                support.wait_until(lambda: path.exists() and path.stat().st_size > 0, "events")
                rotated.append(path.rename(path.with_suffix(f".log.{number}")))
            support.wait_until(lambda: path.exists() and path.stat().st_size > 0, "events")
        finally:
            stopped.set()
            producer.join()
        # A stop listens to senders for a second only; what was sent is let arrive first.
        support.wait_until(
            lambda: sum(each.read_bytes().count(b"\n") for each in [*rotated, path])
            >= len(events), "every event")
        self.assertEqual(agent.stop(), 0)
        lines = b"".join(each.read_bytes() for each in [*rotated, path]).split(b"\n")[:-1]
        self.assertEqual(sorted(lines), events)
        self.assertEqual(agent.summary(), (len(events), 0, 0, 0))
        self.assertEqual(len([each for each in agent.messages("Info") if "made anew" in each]), 2)

    def test_a_file_that_is_removed_is_made_anew(self):
        config = self.configure(self.stream(support.SYSLOG_SOURCE,
                                            "{ type: file, path: ./out.log }"))
        agent = self.start(config)
        path = self.directory / "out.log"
        support.send(agent.port(), b"first\n")
        support.wait_until(lambda: path.read_bytes() == b"first\n", "the first event")
        path.unlink()
        support.send(agent.port(), b"second\n")
        support.wait_until(lambda: path.exists() and path.read_bytes() == b"second\n",
                           "the second event")
        self.assertEqual(agent.stop(), 0)


if __name__ == "__main__":
    unittest.main()
