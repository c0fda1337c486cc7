"""SIGHUP while a stream's destination is away: what its sender and its destination hold goes on with
the stream that follows, before what is in the cache. Nothing is lost, doubled or out of order, and
nothing stays behind in memory, which LeakSanitizer would report."""

import select
import signal
import subprocess
import threading
import unittest

import support
from relp import RelpReceiver, response, take, OFFERS
from reload_support import Client, ReloadTest


class StuckReceiver(support.Receiver):
    """Takes connections and reads nothing until it is told to."""

    def __init__(self):
        self.reads = threading.Event()
        super().__init__()

    def read(self, connection):
        self.reads.wait()
        super().read(connection)

    def close(self):
        self.reads.set()
        super().close()


class ReloadAway(ReloadTest):
    def configure_stream(self, destination, period=5, source=support.SYSLOG_SOURCE, **options):
        return self.configure(
            self.stream(source, destination, settings={"DataChunkPeriod": period}), **options)

    def start_away(self, destination, count=300, window=0):
        """An agent whose destination takes no more than its window, with events that its sender holds
        and events in its cache. Returns it with all events."""
        agent = self.start(self.configure_stream(destination))
        port = agent.port()
        events = support.numbered(0, 3 * count)
        self.fill_sender(agent, events[:count], window)
        support.send(port, support.as_lines(events[count:2 * count]))
        support.wait_until(lambda: self.cached() > 0, "cached events")
        support.send(port, support.as_lines(events[2 * count:]))
        return agent, events

    def test_the_same_destination_gets_all_of_it_when_it_comes(self):
        port = self.refusing_port()
        agent, events = self.start_away(support.syslog_target(port.number))
        for period in (6, 7):
            self.configure_stream(support.syslog_target(port.number), period)
            self.reload(agent, "0 streams go on untouched, 1 were changed")
        self.assertTrue(agent.find(r"Stream Default: [1-9]\d* events of the stream before it are "
                                   "sent first"))
        handed_on = agent.find(r"Stream Default: 0 events delivered, \d+ cached, 0 lost, 0 held; "
                               r"([1-9]\d*) handed on\.$").group(1)
        self.assertTrue(agent.find(f"Stream Default: {handed_on} events of the stream before it"))
        self.assertFalse(agent.find("did not come to rest"))
        receiver = self.receiver(port)
        self.assertEqual(receiver.wait_for_lines(len(events)), events)
        support.send(agent.port(), b"the last\n")
        self.assertEqual(receiver.wait_for_lines(len(events) + 1)[-1], b"the last")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(receiver.lines(), events + [b"the last"])

    def test_another_destination_gets_all_of_it_at_once(self):
        port = self.refusing_port()
        agent, events = self.start_away(support.syslog_target(port.number))
        receiver = self.receiver()
        self.configure_stream(support.syslog_target(receiver.port))
        self.reload(agent, "0 streams go on untouched, 1 were changed")
        self.assertEqual(receiver.wait_for_lines(len(events)), events)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(receiver.lines(), events)

    def test_what_the_old_destination_has_in_its_buffer_goes_to_the_new_one(self):
        stuck = StuckReceiver()
        self.addCleanup(stuck.close)
        # More than both systems' buffers take; framed, so that the rest can be told apart.
        events = [b"event %06d %s" % (number, b"x" * 20_000) for number in range(1_000)]
        agent = self.start(self.configure_stream(
            f'{{ type: syslog, target: "tcp://127.0.0.1:{stuck.port}", framing: octet-counted, '
            'send_timeout: 500ms }'))
        support.send(agent.port(), support.as_lines(events))
        agent.wait_for(r"\(near\)")
        receiver = self.receiver()
        self.configure_stream(support.syslog_target(receiver.port))
        self.reload(agent, "0 streams go on untouched, 1 were changed")
        support.wait_until(lambda: receiver.received.endswith(events[-1] + b"\n"), "the last event")
        stuck.reads.set()
        support.wait_until(lambda: stuck.received, "what the first receiver got")
        self.assertEqual(agent.stop(), 0)
        given = receiver.lines()
        first = events.index(given[0])
        self.assertEqual(given, events[first:])
        self.assertGreater(first, 0)
        whole = b"".join(b"%d %s" % (len(event), event) for event in events[:first])
        support.wait_until(lambda: len(stuck.received) >= len(whole), "what is its")
        self.assertTrue(bytes(stuck.received).startswith(whole))

    def test_a_window_goes_to_the_new_receiver_and_stays_with_the_same_one(self):
        def silent(_connection, number, command, _body, send):
            if command == "open":
                send(response(number, OFFERS))

        first = RelpReceiver(silent)
        self.addCleanup(first.close)
        target = f'{{ type: relp, target: "tcp://127.0.0.1:{first.port}", window: 50 }}'
        agent, events = self.start_away(target, count=100, window=50)
        self.configure_stream(target, 6)
        self.reload(agent, "0 streams go on untouched, 1 were changed")
        support.wait_until(lambda: len(first.events()) >= 50, "a full window")
        self.assertEqual(first.connections, 1)
        self.assertEqual(first.events(), events[:50])
        second = RelpReceiver(take)
        self.addCleanup(second.close)
        self.configure_stream(f'{{ type: relp, target: "tcp://127.0.0.1:{second.port}" }}')
        self.reload(agent, "0 streams go on untouched, 1 were changed")
        support.wait_until(lambda: len(second.events()) >= len(events), "every event")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(second.events(), events)
        self.assertEqual(first.events(), events[:50])

    def test_what_a_removed_stream_holds_waits_for_its_return(self):
        port = self.refusing_port()
        agent, events = self.start_away(support.syslog_target(port.number))
        other = self.stream(support.SYSLOG_SOURCE, "{ type: file, path: other.log }", name="Other")
        self.configure(other, drain="1s")
        self.reload(agent, "1 added, 1 removed")
        self.assertTrue(agent.find(r"Warn .*Stream Default: [1-9]\d* events that could not be sent "
                                   "stay in memory until there is a stream of that name again"))
        receiver = self.receiver()
        self.configure(other + self.stream(support.SYSLOG_SOURCE,
                                           support.syslog_target(receiver.port)))
        self.reload(agent, "1 streams go on untouched, 0 were changed, 1 added, 0 removed")
        self.assertEqual(receiver.wait_for_lines(len(events)), events)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(receiver.lines(), events)

    def test_a_stop_in_the_middle_is_obeyed(self):
        port = self.refusing_port()
        # What its sender holds at the stop is left to the end of the process.
        # The section that ends is the one that decides how long that takes: longer than to stop.
        agent = self.start(self.configure_stream(support.syslog_target(port.number), 15, drain="10s"),
                           abandons=True)
        client = Client(agent.port(), b"one")
        support.wait_until(lambda: self.cached() > 0, "cached events")
        self.configure_stream(support.syslog_target(port.number), 60, drain="10s")
        agent.signal(signal.SIGHUP)
        agent.wait_for("Stream Default: its section has changed")
        agent.signal()
        agent.wait_for("Signal 15 received; stopping")
        agent.signal(signal.SIGHUP)
        agent.wait_for("Signal 1 received; the agent stops, and reads nothing any more")
        self.assertEqual(agent.wait(), 0)
        client.end()
        self.assertFalse(agent.find("was read again"))

    def test_a_full_pipe_keeps_every_line_whole(self):
        source = support.SYSLOG_SOURCE
        config = self.configure_stream("{ type: stdout, send_timeout: 500ms }", source=source)
        agent = self.start(config, stdout=subprocess.PIPE)
        events = [b"event %06d %s" % (number, b"x" * 1_000) for number in range(2_000)]
        support.send(agent.port(), support.as_lines(events))
        agent.wait_for(r"\(near\)")
        self.configure_stream("{ type: stdout, send_timeout: 500ms }", 6, source=source)
        self.reload(agent, "0 streams go on untouched, 1 were changed")
        received = bytearray()

        def read():
            # Not read1, which could wait for ever.
            if select.select([agent.process.stdout], [], [], 0)[0]:
                received.extend(agent.process.stdout.read1(1 << 16))
            return len(received) >= len(support.as_lines(events))

        support.wait_until(read, "every byte")
        self.assertEqual(bytes(received), support.as_lines(events))
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.process.stdout.read(), b"")
        agent.process.stdout.close()


if __name__ == "__main__":
    unittest.main()
