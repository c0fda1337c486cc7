"""Without keep_free the cache meets the full disk itself. What it can't make is lost and counted; a
chunk that it can't write is neither: it counts as written. keep_free, which has a default, exists
so that this does not happen."""

import os
import struct

import support
from full_disk_support import FullDiskTest, main


class UnguardedDisk(FullDiskTest):
    def start_full(self, port):
        agent = self.start(self.configure_disk("{ keep_free: 0 }", support.syslog_target(port)))
        self.hold_one(agent)
        self.fill()
        return agent

    def push(self, agent, events):
        """Returns the events of each chunk that they came to, as written or not."""
        before = len(self.pushed(agent))
        self.send(agent, events)
        support.wait_until(lambda: sum(self.pushed(agent)[before:]) == len(events), "the push")
        sizes = self.pushed(agent)[before:]
        support.wait_until(lambda: len(self.chunks()) == before + len(sizes), "the chunk files")
        starts = [sum(sizes[:i]) for i in range(len(sizes))]
        return [events[start:start + size] for start, size in zip(starts, sizes)]

    def test_chunks_that_could_not_be_written_give_the_last_ones_events_in_their_place(self):
        port = self.refusing_port()
        agent = self.start_full(port.number)
        chunks = self.push(agent, support.numbered(0, 100))
        chunks += self.push(agent, support.numbered(100, 100))
        self.assertEqual([chunk.stat().st_size for chunk in self.chunks()], [0] * len(chunks))
        self.assertEqual(self.lost(agent), [], "a failed write is not seen")

        self.filler.unlink()
        receiver = self.receiver(port)
        # Every one is read back as what the cache's buffer holds.
        expected = [b"held"] + chunks[-1] * len(chunks)
        self.assertEqual(receiver.wait_for_lines(len(expected)), expected)
        support.wait_until(lambda: not self.chunks(), "an empty cache")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(receiver.lines(), expected)
        self.assertEqual(agent.summary()[2], 0, "and not counted")

    def test_a_chunk_that_was_cut_short_gives_its_whole_events_after_a_restart(self):
        port = self.refusing_port()
        agent = self.start(self.configure_disk("{ keep_free: 0 }",
                                               support.syslog_target(port.number)))
        self.hold_one(agent)
        # A chunk has just been cached: a new period begins, and what comes at once is in one chunk.
        self.push(agent, [b"cached before"])
        self.fill(leave=4096)
        events = support.numbered(0, 200)
        chunks = self.push(agent, events)
        first = self.chunks()[1]
        self.assertEqual(first.stat().st_size, 4096)
        self.assertEqual(struct.unpack("<I", first.read_bytes()[:4])[0], len(chunks[0]))
        self.assertEqual(self.lost(agent), [])
        self.assertEqual(agent.stop(), 0)
        # The others, if the end of a period came between all the same, are empty.
        for empty in self.chunks()[2:]:
            self.assertEqual(empty.stat().st_size, 0)
            empty.unlink()

        receiver = self.receiver(port)
        agent = self.start(self.directory / "agent.yaml")
        support.wait_until(lambda: not self.chunks(), "an empty cache")
        self.assertEqual(agent.stop(), 0)
        delivered = agent.summary()[0]
        expected = [b"cached before"] + events
        self.assertEqual(receiver.wait_for_lines(delivered), expected[:delivered])
        self.assertGreater(delivered, 1)
        self.assertLess(delivered, 1 + len(chunks[0]))


class NoNamesLeft(FullDiskTest):
    """A file system that has room, but none for a further name."""

    MOUNT_OPTIONS = "size=4m,nr_inodes=64"

    def use_up_names(self):
        names = []
        while os.statvfs(self.data).f_ffree:
            names.append(self.data / f"name{len(names)}.bin")
            names[-1].touch()
        return names

    def test_a_directory_or_file_that_cannot_be_made_is_counted_and_caching_resumes(self):
        port = self.refusing_port()
        agent = self.start(self.configure_disk("{ keep_free: 0 }", support.syslog_target(port.number)))
        self.hold_one(agent)
        names = self.use_up_names()
        self.send(agent, support.numbered(0, 100))
        self.wait_for_lost(agent, 100)

        # Enough for the directory, not for the file.
        names.pop().unlink()
        self.send(agent, support.numbered(100, 100))
        self.wait_for_lost(agent, 200)
        self.assertEqual(len(self.pushed(agent)), len(self.lost(agent)))
        self.assertEqual(list((self.data / "Events" / "Default").iterdir()), [])

        for name in names:
            name.unlink()
        self.send(agent, support.numbered(200, 100))
        self.wait_for_cached(100)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (0, 100, 200, 1))


if __name__ == "__main__":
    main()
