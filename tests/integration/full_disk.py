"""A full disk is an ordinary state while something guards the room: what the cache refuses is lost
and counted, delivery goes on, and caching goes on by itself when there is room again."""

import support
from full_disk_support import FullDiskTest, main


class FullDisk(FullDiskTest):
    def test_keep_free_refuses_counts_and_resumes_and_draining_needs_no_room(self):
        port = self.refusing_port()
        agent = self.start(self.configure_disk("{ keep_free: 1MiB }", support.syslog_target(port.number)))
        self.hold_one(agent)
        first = support.numbered(0, 500)
        self.send(agent, first)
        self.wait_for_cached(500)

        self.fill()
        self.send(agent, support.numbered(500, 300))
        self.wait_for_lost(agent, 300)
        self.assertEqual(len(self.pushed(agent)), len(self.lost(agent)) + len(self.chunks()),
                         "one message for each chunk")
        self.assertEqual(self.cached(), 500)

        self.filler.unlink()
        third = support.numbered(800, 200)
        self.send(agent, third)
        self.wait_for_cached(700)

        self.fill()
        receiver = self.receiver(port)
        self.assertEqual(receiver.wait_for_lines(701), [b"held"] + first + third)
        direct = support.numbered(1000, 50)
        self.send(agent, direct)
        self.assertEqual(receiver.wait_for_lines(751)[701:], direct)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (751, 0, 300, 0))

    def test_an_agent_starts_and_drains_on_a_full_disk(self):
        port = self.refusing_port()
        config = self.configure_disk("{ keep_free: 1MiB }", support.syslog_target(port.number))
        agent = self.start(config)
        self.hold_one(agent)
        events = support.numbered(0, 400)
        self.send(agent, events)
        self.wait_for_cached(400)
        self.fill()
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (0, 400, 0, 1))

        receiver = self.receiver(port)
        agent = self.start(config)
        self.assertEqual(receiver.wait_for_lines(400), events)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (400, 0, 0, 0))

    def test_a_full_quota_refuses_and_counts_and_what_is_delivered_makes_room(self):
        port = self.refusing_port()
        # 500 events take some 35 KiB.
        agent = self.start(self.configure_disk("{ quota: 64KiB, keep_free: 0 }",
                                               support.syslog_target(port.number)))
        self.hold_one(agent)
        first = support.numbered(0, 500)
        self.send(agent, first)
        self.wait_for_cached(500)
        self.send(agent, support.numbered(500, 1_000))
        support.wait_until(lambda: sum(self.pushed(agent)) == 1_500 and len(self.pushed(agent)) ==
                           len(self.lost(agent)) + len(self.chunks()), "all events settled")
        lost = sum(self.lost(agent))
        self.assertGreater(lost, 0)
        kept = 1_500 - lost

        receiver = self.receiver(port)
        self.assertEqual(receiver.wait_for_lines(1 + kept)[:501], [b"held"] + first)
        support.wait_until(lambda: not self.chunks(), "an empty cache")
        # What the destination has in its buffer when the receiver goes, and then what the sender
        # holds, is not the cache's.
        receiver.close()
        for count, event in ((2, b"buffered"), (3, b"held again")):
            self.send(agent, [event])
            support.wait_until(lambda: len(self.numbers(agent, r"\(near\)\. \((\d+) ")) == count,
                               "the hand-over")
            support.wait_until(lambda: len(self.numbers(agent, r":(\d+) can't be reached")) == 2,
                               "the receiver missed again")
        self.send(agent, support.numbered(1_500, 500))
        self.wait_for_cached(500)
        self.assertEqual(sum(self.lost(agent)), lost)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (1 + kept, 500, lost, 2))


if __name__ == "__main__":
    main()
