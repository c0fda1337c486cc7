"""The RELP destination against receivers that answer too late, wrongly, or not at all."""

import itertools
import re
import socket
import threading
import unittest

import support

OFFERS = b"200 OK\nrelp_version=0\nrelp_software=test\ncommands=syslog"


class RelpReceiver(support.Receiver):
    """Takes one connection after the other. `answer(connection, number, command, data, send)` is
    asked for every command; what it sends goes out; False from it ends the connection."""

    def __init__(self, answer, port=None):
        self._answer = answer
        self.commands = []  # (connection, number, command, data)
        super().__init__(port)

    def read(self, connection):
        try:
            self._serve(connection)
        except OSError:
            pass

    def _serve(self, connection):
        pending = b""
        while data := connection.recv(1 << 16):
            pending += data
            while found := re.match(rb"(\d+) ([a-z]+) (\d+)(?: |(?=\n))", pending):
                end = found.end() + int(found.group(3))
                if len(pending) <= end:
                    break
                number, command = int(found.group(1)), found.group(2).decode()
                body, pending = pending[found.end():end], pending[end + 1:]
                self.commands.append((self.connections, number, command, body))
                if self._answer(self.connections, number, command, body,
                                connection.sendall) is False:
                    return

    def events(self, connection=None):
        return [body for one, _, command, body in list(self.commands)
                if command == "syslog" and connection in (None, one)]


def response(number, data=b"200 OK"):
    return b"%d rsp %d %s\n" % (number, len(data), data)


def take(_connection, number, command, _body, send):
    """What a good receiver answers."""
    send(response(number, OFFERS if command == "open" else b"200 OK"))
    return command != "close"


class Relp(support.AgentTest):
    def relp_receiver(self, answer=take, port=None):
        receiver = RelpReceiver(answer, port)
        self.addCleanup(receiver.close)
        return receiver

    def start_agent(self, port, extra="", drain="60s", **options):
        return self.start(self.configure(self.stream(
            support.SYSLOG_SOURCE,
            f'{{ type: relp, target: "tcp://127.0.0.1:{port}"{extra} }}'), drain=drain), **options)

    def test_any_bytes_are_one_message_and_the_session_ends_in_good_order(self):
        receiver = self.relp_receiver()
        agent = self.start_agent(receiver.port)
        messages = [b"plain", b"", b"two\nlines", b"nul \0 and \xff", b"x" * 60_000, b" 9 syslog 1"]
        support.send(agent.port(), b"".join(b"%d %s" % (len(each), each) for each in messages))
        support.wait_until(lambda: len(receiver.events()) == len(messages), "every event")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (len(messages), 0, 0, 0))
        self.assertEqual(receiver.events(), messages)
        self.assertEqual([(number, command) for _, number, command, _ in receiver.commands],
                         [(1, "open"), *((number, "syslog") for number in range(2, 8)),
                          (8, "close")])
        self.assertIn(b"relp_version=0", receiver.commands[0][3])
        self.assertEqual([line for line in agent.messages("Warn") if "Relp" in line], [])

    def test_what_was_not_acknowledged_comes_again_in_order_and_nothing_else(self):
        # Acknowledges 30 events of the first connection and takes 20 more before it breaks.
        def answer(connection, number, command, body, send):
            if connection > 1 or command != "syslog" or number <= 31:
                return take(connection, number, command, body, send)
            return number < 51

        receiver = self.relp_receiver(answer)
        agent = self.start_agent(receiver.port)
        events = support.numbered(0, 200)
        support.send(agent.port(), support.as_lines(events))
        support.wait_until(lambda: receiver.events(2)[-1:] == events[-1:], "the rest")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (200, 0, 0, 0))
        self.assertEqual(receiver.events(1), events[:50])
        # A connection that is closed with bytes unread takes answers with it that are on their way:
        # of the 30 some may come again, never one of the rest less.
        again = receiver.events(2)
        self.assertGreaterEqual(len(again), 170)
        self.assertEqual(again, events[-len(again):])

    def test_a_full_window_holds_events_and_sends_no_more_than_it(self):
        gate = threading.Event()
        held = []

        def answer(connection, number, command, body, send):
            if command == "syslog" and not gate.is_set():
                held.append(number)
                return True
            for one in held:
                send(response(one))
            held.clear()
            return take(connection, number, command, body, send)

        receiver = self.relp_receiver(answer)
        agent = self.start_agent(receiver.port, ", window: 10, send_timeout: 100ms, ack_timeout: 5s")
        first = support.numbered(0, 100)
        self.fill_sender(agent, first, window=10)
        second = support.numbered(100, 1_000)
        support.send(agent.port(), support.as_lines(second))
        self.wait_for_rest_cached(agent, 1_100)
        self.assertEqual(receiver.events(1), first[:10])
        gate.set()
        # It has acknowledged nothing for so long that it is asked anew.
        agent.wait_for("can't be reached (.*it has acknowledged nothing for 5 s)")
        support.wait_until(lambda: len(receiver.events()) >= 1_110, "every event")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (1_100, 0, 0, 0))
        self.assertEqual(list(dict.fromkeys(receiver.events())), first + second)
        self.assertGreaterEqual(len(receiver.events()), 1_110)

    def test_an_answer_in_another_order_frees_the_window_when_all_before_it_are_there(self):
        kept = []

        def answer(connection, number, command, body, send):
            if command != "syslog":
                return take(connection, number, command, body, send)
            kept.append(number)
            if len(kept) == 10:
                for one in reversed(kept):
                    send(response(one))
                kept.clear()
            return True

        receiver = self.relp_receiver(answer)
        agent = self.start_agent(receiver.port, ", window: 10")
        events = support.numbered(0, 500)
        support.send(agent.port(), support.as_lines(events))
        support.wait_until(lambda: len(receiver.events()) == 500, "every event")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(receiver.events(), events)
        self.assertEqual(receiver.connections, 1)

    def test_what_is_not_acknowledged_at_the_stop_is_said_and_held(self):
        def answer(connection, number, command, body, send):
            return command != "open" or take(connection, number, command, body, send)

        receiver = self.relp_receiver(answer)
        agent = self.start_agent(receiver.port, drain="1s", abandons=True)
        support.send(agent.port(), support.as_lines(support.numbered(0, 7)))
        support.wait_until(lambda: len(receiver.events()) == 7, "the events")
        self.assertEqual(agent.stop(), 0)
        agent.wait_for(rf"Warn .*7 events were not acknowledged; tcp://127\.0\.0\.1:{receiver.port} "
                       "may have some of them or none")
        self.assertEqual(agent.summary(), (0, 0, 0, 7))

    def test_an_event_that_is_refused_is_sent_again_until_it_is_taken(self):
        refusals = itertools.count()

        def answer(connection, number, command, body, send):
            if command == "syslog" and next(refusals) < 2:
                send(response(number, b"500 disk full"))
                return True
            return take(connection, number, command, body, send)

        receiver = self.relp_receiver(answer)
        agent = self.start_agent(receiver.port, ", window: 1")
        support.send(agent.port(), b"one\ntwo\n")
        agent.wait_for(r"can't be reached \(it refuses an event: 500 disk full\)")
        support.wait_until(lambda: len(receiver.events()) == 4, "both events")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (2, 0, 0, 0))
        self.assertEqual(receiver.events(), [b"one", b"one", b"one", b"two"])
        # One outage, however often there was a connection in it.
        said = [line for line in agent.lines if "Connected to" in line or "can't be reached" in line]
        self.assertEqual(len(said), 3, said)
        self.assertIn("again after", said[2])

    def expect_refusal(self, answer, reason, extra=""):
        receiver = self.relp_receiver(answer)
        agent = self.start_agent(receiver.port, extra, drain="1s", abandons=True)
        support.send(agent.port(), b"event\n")
        agent.wait_for(rf"can't be reached \({reason}\)")
        support.wait_until(lambda: receiver.connections >= 2, "a second attempt")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary()[0], 0)
        self.assertEqual(receiver.events(), [])
        self.assertEqual(len([line for line in agent.messages("Warn") if "can't be" in line]), 1,
                         agent.lines)

    def test_receivers_that_open_no_session_get_no_event(self):
        cases = {
            "it does not answer as a receiver of RELP does": b"",
            "what it sends is not RELP": b"220 hello, this is a mail server\r\n" * 4,
            "it does not take events: 500 no": response(1, b"500 no"),
            "it does not take events: 200 OK": response(1, b"200 OK\ncommands=other"),
            "it answers what was not sent": response(2),
        }
        for reason, bytes_sent in cases.items():
            with self.subTest(reason):
                def answer(_connection, _number, _command, _body, send, sent=bytes_sent):
                    send(sent)
                    return True
                # One that says nothing is waited for all of that time.
                self.expect_refusal(answer, reason,
                                    "" if bytes_sent else ", connect_timeout: 500ms")

    def test_an_answer_to_what_was_not_sent_ends_the_connection_and_loses_nothing(self):
        def answer(connection, number, command, body, send):
            if command == "syslog" and connection == 1:
                send(response(number + 1_000))
                return True
            return take(connection, number, command, body, send)

        receiver = self.relp_receiver(answer)
        agent = self.start_agent(receiver.port)
        support.send(agent.port(), b"one\ntwo\n")
        agent.wait_for(r"can't be reached \(it answers what was not sent\)")
        support.wait_until(lambda: len(receiver.events(2)) == 2, "both events")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (2, 0, 0, 0))

    def test_a_receiver_that_comes_later_gets_everything(self):
        port = self.refusing_port()
        agent = self.start_agent(port.number, ", window: 100, send_timeout: 100ms")
        first = support.numbered(0, 1_000)
        self.fill_sender(agent, first, window=100)
        agent.wait_for("can't be reached")
        second = support.numbered(1_000, 500)
        support.send(agent.port(), support.as_lines(second))
        self.wait_for_rest_cached(agent, 1_500)
        receiver = self.relp_receiver(port=port)
        support.wait_until(lambda: len(receiver.events()) == 1_500, "every event")
        agent.wait_for(r"Connected to tcp://127\.0\.0\.1:\d+ again after")
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (1_500, 0, 0, 0))
        self.assertEqual(receiver.events(), first + second)
        self.assertEqual(len([line for line in agent.messages("Warn") if "can't be" in line]), 1)


if __name__ == "__main__":
    unittest.main()
