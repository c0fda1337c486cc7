"""The agent is killed before and after every file call that its event cache makes, and in the
middle of a write. After each kill it is started again, and every event is accounted for.

All places are visited at the same time, each in a data directory of its own, so that the chunking
periods of all of them pass together.
"""

import concurrent.futures
import unittest

from lane import Lane, Plan

# Seconds until an agent that never comes to the place is killed, and the test fails.
LIMIT = 60

LOAD = Plan("closed", load=True, seconds=LIMIT, chunks=2)

PUSH = [("push.GetFileAttributes:2", ""), ("push.CreateFile:2", ""),
        ("push.WriteFile:2", ""), ("push.WriteFile:2", "torn=0"), ("push.WriteFile:2", "torn=3"),
        ("push.WriteFile:2", "torn=4"), ("push.WriteFile:2", "torn=1500"),
        ("push.CloseHandle:2", "")]
# The second chunk finds the directory of the first one, most of the time.
FIRST_PUSH = [("push.CreateDirectory:1", ""), ("push.CreateDirectory:1", "after"),
              ("push.CloseHandle:1", "after")]
DRAIN = [("front.CreateFile:1", ""), ("front.ReadFile:1", ""), ("front.CloseHandle:1", ""),
         ("front.CloseHandle:2", "after"), ("pop.Unlink:1", ""), ("pop.Unlink:2", ""),
         ("pop.Unlink:1", "after"), ("pop.FindFirstFile:1", ""), ("pop.FindNextFile:1", ""),
         ("pop.FindNextFile:1", "after"), ("pop.RemoveDirectory:1", ""),
         ("pop.RemoveDirectory:1", "after")]


def count_handed_over(chunks, at, how):
    """How many chunks the sending side has got when the cache comes to the place."""
    place, number = at.split(":")
    if place == "pop.RemoveDirectory":
        minutes = [chunk.name.split("/")[0] for chunk in chunks]
        return minutes.count(minutes[0])
    if place.startswith("front.") and not (place == "front.CloseHandle" and how):
        return int(number) - 1
    return int(number)


class KillPoints(unittest.TestCase):
    longMessage = True

    def setUp(self):
        self.lanes = []

    def tearDown(self):
        for lane in self.lanes:
            lane.close()

    def lane(self):
        lane = Lane(rate=80)
        self.lanes.append(lane)
        return lane

    def visit_while_writing(self, at, how):
        lane = self.lane()
        account, inside = lane.live(Plan("closed", True, LIMIT, at, how))
        self.assertTrue(inside, "the agent never came there")
        chunks = lane.chunks()
        lane.finish()
        return account, chunks

    def visit_while_draining(self, at, how):
        """The receiver has got what was handed over when the agent dies."""
        lane = self.lane()
        lane.live(LOAD)
        found = lane.chunks()
        self.assertGreaterEqual(len(found), 2)
        handed_over = found[:count_handed_over(found, at, how)]
        received = sum(len(chunk.own_events()) for chunk in handed_over)
        account, inside = lane.live(Plan("there", False, LIMIT, at, how, received=received))
        self.assertTrue(inside, "the agent never came there")
        popped = len(found) - len(lane.chunks())
        lane.finish()
        return account, popped

    def test_every_place(self):
        jobs = {}
        with concurrent.futures.ThreadPoolExecutor(len(PUSH + FIRST_PUSH + DRAIN)) as pool:
            for at, how in PUSH + FIRST_PUSH:
                jobs[at, how] = pool.submit(self.visit_while_writing, at, how)
            for at, how in DRAIN:
                jobs[at, how] = pool.submit(self.visit_while_draining, at, how)
        for (at, how), job in jobs.items():
            with self.subTest(at=at, how=how):
                account, left = job.result()
                if (at, how) in DRAIN:
                    self.check_drained(at, how, account, left)
                else:
                    self.check_written(at, how, account, left)

    def check_written(self, at, how, account, chunks):
        """The first chunk is there; the second as far as it came."""
        complete = [chunk.is_complete() for chunk in chunks]
        self.assertGreater(len(account.lost_in_memory) + len(account.lost_in_torn_file), 0)
        if at == "push.CreateDirectory:1":
            self.assertEqual(chunks, [])
        elif at == "push.CloseHandle:2":
            self.assertEqual(complete, [True, True])
        elif at == "push.WriteFile:2":
            self.assertEqual(complete, [True, False])
            torn = int(how.split("=")[1]) if how else 0
            self.assertEqual(len(chunks[1].data), torn)
            self.assertGreater(len(account.lost_in_torn_file), 0)
            self.assertEqual(account.out_of_torn_file > 0, torn == 1500)
        else:
            self.assertEqual(complete, [True])

    def check_drained(self, at, how, account, popped):
        """Handed over and still on disk comes twice; nothing else does."""
        place, number = at.split(":")
        handed_over = place == "pop.Unlink" or (place == "front.CloseHandle" and how)
        handed_over = handed_over and not (place == "pop.Unlink" and how)
        self.assertEqual(sum(account.repeats.values()) > 0, bool(handed_over), account.repeats)
        self.assertEqual(account.lost_in_sender, [], "a chunk that had left the disk")
        if place.startswith("front.") or not how and place == "pop.Unlink":
            self.assertEqual(popped, int(number) - 1)
        else:
            self.assertGreaterEqual(popped, 1)


if __name__ == "__main__":
    unittest.main()
