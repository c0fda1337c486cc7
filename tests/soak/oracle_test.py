"""The oracle of the kill soak finds what it is there to find: each rule is broken once."""

import struct
import unittest

from chunks import PAGE, Chunk, read_back
from oracle import Judgement, Ledger, Life, Violation


def chunk(name, events):
    data = struct.pack("<I", len(events))
    for event in events:
        data += struct.pack("<I", 2) + b"hd" + struct.pack("<I", len(event)) + event
    return Chunk(name, data + bytes(-len(data) % PAGE))


def torn(whole, size):
    return Chunk(whole.name, whole.data[:size])


def events(first, count):
    return [b"event %d" % number for number in range(first, first + count)]


ONE, TWO = chunk("a/01", events(0, 3)), chunk("a/06", events(3, 3))


def life(before=(), after=(), sent=(), received=(), handed=(), handed_new=0, pushed=()):
    return Life(list(before), list(after), list(sent), list(received), list(handed), handed_new,
                list(pushed))


class Oracle(unittest.TestCase):
    def refuse(self, text, **facts):
        with self.assertRaisesRegex(Violation, text):
            Judgement(life(**facts)).account()

    def accept(self, **facts):
        return Judgement(life(**facts)).account()

    def test_chunks_that_come_out_in_order_are_accepted(self):
        account = self.accept(before=[ONE, TWO], received=events(0, 6), handed=[3, 3])
        self.assertEqual((account.received, account.repeats), (6, {}))
        self.assertEqual(account.lost_in_sender + account.lost_in_memory, [])

    def test_a_gap(self):
        self.refuse("event 1 received", before=[ONE, TWO], handed=[3, 3],
                    received=events(0, 1) + events(2, 4))

    def test_a_double(self):
        self.refuse("event 3 received", before=[ONE, TWO], handed=[3, 3],
                    received=events(0, 3) + events(0, 3))

    def test_another_order(self):
        self.refuse("event 0 received", before=[ONE, TWO], received=events(3, 3) + events(0, 3),
                    handed=[3, 3])

    def test_an_event_that_nobody_sent(self):
        self.refuse("never to come", before=[ONE], received=events(0, 4), handed=[3])

    def test_a_chunk_that_vanished_without_a_hand_over(self):
        self.refuse("1 chunks left the disk, but 0", before=[ONE, TWO], after=[TWO])

    def test_a_chunk_that_vanished_out_of_turn(self):
        self.refuse("gone out of turn", before=[ONE, TWO], after=[ONE])

    def test_a_chunk_that_changed(self):
        self.refuse("have changed", before=[ONE, TWO], after=[ONE, torn(TWO, 20)])

    def test_a_chunk_that_is_not_removed_after_its_hand_over(self):
        self.refuse("only 0 left the disk", before=[ONE, TWO], after=[ONE, TWO], handed=[3, 3],
                    received=events(0, 6))

    def test_a_pushed_chunk_that_is_not_on_disk(self):
        self.refuse("only 0 are there", sent=events(0, 6), pushed=[3, 3])

    def test_a_pushed_chunk_that_is_missing_between_others(self):
        self.refuse("in order", sent=events(0, 9), pushed=[3, 3, 3],
                    after=[ONE, chunk("a/11", events(6, 3))])

    def test_a_first_event_that_is_missing_though_older_chunks_were_cached(self):
        self.refuse("1 events went missing", before=[ONE], sent=events(3, 4), pushed=[4],
                    after=[ONE, chunk("a/06", events(4, 3))])

    def test_a_torn_chunk_that_others_follow(self):
        self.refuse("torn, but others follow", sent=events(0, 6), pushed=[3, 3],
                    after=[torn(ONE, 20), TWO])

    def test_a_chunk_file_of_events_that_were_not_sent(self):
        self.refuse("was not sent in this life", sent=events(0, 3), pushed=[3],
                    after=[chunk("a/01", events(50, 3))])

    def test_a_chunk_that_was_read_back_with_another_number_of_events(self):
        self.refuse("2 events were read from a/01, which gives 3", before=[ONE], handed=[2],
                    received=events(0, 2))

    def test_more_received_than_was_handed_over(self):
        self.refuse("more was received than", before=[ONE, TWO], after=[TWO], handed=[3],
                    received=events(0, 4))

    def test_more_events_that_will_come_again_than_the_oldest_chunk_has(self):
        self.refuse("4 events will come again, more than", sent=events(0, 6), handed=[6],
                    handed_new=0, pushed=[3, 3], received=events(0, 4),
                    after=[ONE, chunk("a/06", events(3, 3))])

    def test_chunks_gone_from_the_disk_that_were_never_handed_over(self):
        self.refuse("3 events that were never handed over", sent=events(0, 6), pushed=[3, 3],
                    after=[TWO])

    def test_the_ledger_finds_an_event_that_nobody_sent(self):
        ledger = Ledger()
        ledger.add(life(sent=events(0, 3), pushed=[3], after=[ONE]))
        ledger.received.update([b"made up"])
        ledger.lost["memory"] += events(0, 3)
        with self.assertRaisesRegex(Violation, "made up.* was never sent"):
            ledger.close()

    def test_a_chunk_handed_over_and_still_on_disk_comes_again(self):
        account = self.accept(before=[ONE, TWO], after=[ONE, TWO], handed=[3],
                              received=events(0, 2))
        self.assertEqual(list(account.repeats), events(0, 2))

    def test_a_chunk_handed_over_and_popped_is_lost_with_the_sender(self):
        account = self.accept(before=[ONE, TWO], after=[TWO], handed=[3], received=events(0, 1))
        self.assertEqual(account.lost_in_sender, events(1, 2))

    def test_events_that_the_destination_had_taken_must_arrive(self):
        large = chunk("a/01", [b"x" * 200_000, b"y" * 200_000])
        self.refuse("2 events are gone", before=[large, TWO], handed=[2, 3])

    def test_events_in_memory_are_lost(self):
        account = self.accept(sent=events(0, 8), pushed=[3, 3], after=[ONE, TWO])
        self.assertEqual(account.lost_in_memory, events(6, 2))

    def test_a_torn_last_chunk_loses_what_is_not_whole(self):
        account = self.accept(sent=events(0, 6), pushed=[3, 3], after=[ONE, torn(TWO, 30)])
        self.assertEqual(account.lost_in_torn_file, events(4, 2))

    def test_a_torn_file_goes_on_with_what_the_buffer_held(self):
        longer = chunk("a/06", events(3, 4))
        # The fourth comes out of the padding, which reads as an event without any bytes.
        self.assertEqual(read_back([ONE, torn(longer, 22)])[1],
                         events(3, 1) + events(1, 2) + [b""])
        self.assertEqual(read_back([ONE, torn(longer, 0)])[1], events(0, 3))
        self.assertEqual(read_back([torn(longer, 0)]), [[]])
        self.assertEqual(read_back([torn(longer, 22)]), [events(3, 1)])

    def test_the_ledger_misses_an_event_that_no_life_lost(self):
        ledger = Ledger()
        ledger.add(life(sent=events(0, 6), pushed=[3, 3], after=[ONE, TWO]))
        ledger.add(life(before=[ONE], received=events(0, 3), handed=[3]))
        with self.assertRaisesRegex(Violation, "event 3.* is missing"):
            ledger.close()

    def test_the_ledger_finds_a_double_between_lives(self):
        ledger = Ledger()
        ledger.add(life(sent=events(0, 3), pushed=[3], after=[ONE]))
        ledger.add(life(before=[ONE], received=events(0, 3), handed=[3]))
        ledger.add(life(before=[ONE], received=events(0, 3), handed=[3]))
        with self.assertRaisesRegex(Violation, "event 0.* came 2 times"):
            ledger.close()


if __name__ == "__main__":
    unittest.main()
