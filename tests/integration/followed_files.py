"""Files that are followed while others write, rename, copy, cut and remove them, and across stops
and kills of the agent."""

import os
import pathlib
import re
import shutil
import signal
import sys
import threading
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import support  # noqa: E402


class FollowedFiles(support.AgentTest):
    def setUp(self):
        super().setUp()
        self.logs = self.directory / "logs"
        self.logs.mkdir()
        self.log = self.logs / "app.log"
        self.output = self.directory / "out.log"

    def start_following(self, path="./logs/app.log", extra="", **options):
        source = f'{{ type: file, path: "{path}", poll_interval: 20ms{extra} }}'
        agent = self.start(self.configure(
            self.stream(source, "{ type: file, path: ./out.log }")), **options)
        agent.wait_for("Following ")
        return agent

    def named(self, name):
        return "The file " + re.escape(support.as_named(f"./logs/{name}")) + " "

    def append(self, data, path=None):
        with (path or self.log).open("ab") as file:
            file.write(data)

    def wait_for_output(self, *lines):
        expected = b"".join(line + b"\n" for line in lines)
        support.wait_until(lambda: self.output.exists()
                           and len(self.output.read_bytes()) >= len(expected), "the output")
        self.assertEqual(self.output.read_bytes(), expected)

    def wait_for_position(self, position, path=None):
        """Until so much of the file was posted, as the agent's own record says."""
        status = (path or self.log).stat()
        # The system of the agent may number its volumes in another way.
        records = self.directory / "data" / "Positions" / "Default"
        support.wait_until(lambda: [int.from_bytes(record.read_bytes()[8:16], "little")
                                    for record in records.glob(f"*-{status.st_ino:x}")]
                           == [position], f"position {position}")

    def test_lines_are_posted_as_they_come_and_a_partial_one_waits(self):
        self.append(b"one\ntwo\nunfin")
        agent = self.start_following()
        self.wait_for_output(b"one", b"two")
        self.wait_for_position(8)
        self.append(b"ished\nthree\n")
        self.wait_for_output(b"one", b"two", b"unfinished", b"three")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (4, 0, 0, 0))

    def test_a_restart_goes_on_where_the_last_run_ended(self):
        self.append(b"one\npart")
        agent = self.start_following()
        self.wait_for_output(b"one")
        self.assertEqual(agent.stop(), 0)
        self.append(b"ly\ntwo\n")
        agent = self.start_following()
        self.wait_for_output(b"one", b"partly", b"two")
        self.assertEqual(agent.stop(), 0)

    def test_a_renamed_file_is_read_to_its_end_before_its_successor(self):
        self.append(b"one\n")
        agent = self.start_following()
        self.wait_for_position(4)
        writer = self.log.open("ab")
        self.addCleanup(writer.close)
        rotated = self.log.rename(self.logs / "app.log.1")
        writer.write(b"two\n")
        writer.flush()
        self.append(b"three\n")
        self.wait_for_position(6)
        # Its writer has not noticed yet.
        writer.write(b"four\n")
        writer.flush()
        self.wait_for_position(13, rotated)
        self.wait_for_output(b"one", b"two", b"three", b"four")
        self.assertEqual(agent.stop(), 0)

    def test_a_rotation_while_the_agent_is_away_loses_nothing(self):
        self.append(b"one\ntwo\n")
        agent = self.start_following()
        self.wait_for_output(b"one", b"two")
        self.assertEqual(agent.stop(), 0)
        self.append(b"three\n")
        self.log.rename(self.logs / "app.log.1")
        self.append(b"four\n")
        agent = self.start_following()
        self.wait_for_output(b"one", b"two", b"three", b"four")
        self.assertEqual(agent.stop(), 0)

    def test_a_file_that_is_copied_and_cut_short_is_read_from_its_beginning(self):
        self.append(b"the first line of the old content\nand the second\n")
        agent = self.start_following()
        self.wait_for_position(49)
        shutil.copy(self.log, self.logs / "app.log.1")
        os.truncate(self.log, 0)
        self.append(b"new\n")
        agent.wait_for(self.named("app.log") + "has become shorter; it is read from its beginning")
        self.wait_for_position(4)
        # Longer than before at once: only the beginning tells. Not emptied first, which would be seen.
        with self.log.open("r+b") as file:
            file.write(b"newer\n" * 3)
        agent.wait_for("begins with other bytes than before")
        self.wait_for_position(18)
        self.wait_for_output(b"the first line of the old content", b"and the second", b"new",
                             b"newer", b"newer", b"newer")
        self.assertEqual(agent.stop(), 0)

    def test_globs_find_files_that_come_later_and_names_that_are_hidden_stay_so(self):
        self.append(b"a1\n", self.logs / "a.log")
        self.append(b"no\n", self.logs / ".hidden.log")
        self.append(b"no\n", self.logs / "a.txt")
        agent = self.start_following("./l*s/*.log")
        self.wait_for_position(3, self.logs / "a.log")
        self.append(b"b1\n", self.logs / "b.log")
        self.wait_for_position(3, self.logs / "b.log")
        self.wait_for_output(b"a1", b"b1")
        self.assertEqual(agent.stop(), 0)

    def test_start_at_the_end_holds_for_the_very_first_look_only(self):
        self.append(b"old\n")
        agent = self.start_following("./logs/*.log", extra=", start: end")
        self.wait_for_position(4)
        self.append(b"new\n")
        self.append(b"whole\n", self.logs / "later.log")
        self.wait_for_output(b"new", b"whole")
        self.assertEqual(agent.stop(), 0)
        self.append(b"while away\n")
        agent = self.start_following("./logs/*.log", extra=", start: end")
        self.wait_for_output(b"new", b"whole", b"while away")
        self.assertEqual(agent.stop(), 0)

    def test_a_long_line_becomes_several_events_and_no_byte_is_lost(self):
        content = b"x" * 1000 + b"\nshort\n" + b"y" * 64 + b"\n"
        self.append(content)
        agent = self.start_following(extra=", max_event_size: 64")
        self.wait_for_position(len(content))
        support.wait_until(lambda: self.output.exists()
                           and len(self.output.read_bytes()) >= len(content), "the output")
        self.assertEqual(self.output.read_bytes(), content)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (18, 0, 0, 0))

    def test_kills_under_load_repeat_at_most_one_event_each(self):
        """What was in memory is gone with a kill; what comes out is in order, and nothing is read
        twice but the event that was being posted."""
        ended = threading.Event()

        def write():
            number = 0
            with self.log.open("ab", buffering=0) as file:
                while not ended.is_set() or number % 100:
                    file.write(b"event %08d\n" % number)
                    number += 1
                    if number % 100 == 0:
                        time.sleep(0.005)

        self.log.touch()
        writer = threading.Thread(target=write)
        writer.start()
        try:
            for _ in range(6):
                agent = self.start_following()
                before = len(self.output.read_bytes()) if self.output.exists() else 0
                support.wait_until(lambda: self.output.exists()
                                   and len(self.output.read_bytes()) > before, "some output")
                agent.signal(signal.SIGKILL)
                agent.wait()
        finally:
            ended.set()
            writer.join()
        agent = self.start_following()
        self.wait_for_position(self.log.stat().st_size)
        self.assertEqual(agent.stop(), 0)
        # A kill may cut the line that was being written, and the next one is behind it.
        lines = self.output.read_bytes().split(b"\n")
        numbers = [int(line[-8:]) for line in lines if line.startswith(b"event ") and len(line) == 14]
        repeated = sum(1 for first, second in zip(numbers, numbers[1:]) if second <= first)
        self.assertLessEqual(repeated, 6)
        self.assertEqual(numbers[-1], self.log.read_bytes().count(b"\n") - 1)
        self.assertGreaterEqual(min(second - first for first, second in zip(numbers, numbers[1:])), 0)

    def test_what_cannot_be_followed_is_said_once_and_tried_again(self):
        os.mkfifo(self.logs / "pipe.log")
        os.symlink(self.logs / "nowhere", self.logs / "dangling.log")
        (self.logs / "directory.log").mkdir()
        self.append(b"one\n")
        agent = self.start_following("./logs/*.log", extra=", max_files: 1")
        self.wait_for_position(4)
        self.append(b"waits\n", self.logs / "second.log")
        agent.wait_for("Warn .*" + self.named("second.log") + "is not followed: 1 files are "
                       "followed already, as many as max_files allows")
        self.wait_for_output(b"one")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(len(agent.messages("Warn")), 1, agent.lines)


if __name__ == "__main__":
    unittest.main()
