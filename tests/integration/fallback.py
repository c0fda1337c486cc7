"""A stream with a fallback: it gets the events while the first destination is away, and no others."""

import socket

import support


class Fallback(support.AgentTest):
    def test_an_outage_sends_events_to_the_fallback_and_the_return_hands_them_back(self):
        port = self.refusing_port()
        # For when the receiver is gone.
        same_port = self.refusing_port(port.number)
        # Between two chunks there is time for the next attempt.
        config = self.configure(
            self.stream(support.SYSLOG_SOURCE, support.syslog_target(port.number),
                        settings={"DataChunkPeriod": 15})
            + "    fallback: { after: 2s, retry: 5s, destination: "
            "{ type: file, path: fallback.log } }\n")
        output = self.directory / "fallback.log"
        agent = self.start(config)

        # It is away from the start.
        first = support.numbered(0, 500)
        support.send(agent.port(), support.as_lines(first))
        agent.wait_for(r"Warn Code\.Fallback\.Default: The destination has sent nothing for \d+\.\d "
                       r"s; events go to the fallback until it sends again\.")
        support.wait_until(lambda: output.read_bytes() == support.as_lines(first), "the fallback")

        # It comes: the next events are its.
        receiver = self.receiver(port)
        second = support.numbered(500, 500)
        support.send(agent.port(), support.as_lines(second))
        self.assertEqual(receiver.wait_for_lines(500), second)
        agent.wait_for(r"Info Code\.Fallback\.Default: The destination sends again; 500 events "
                       r"went to the fallback in \d+\.\d s\.")
        self.assertEqual(output.read_bytes(), support.as_lines(first))

        # It goes. What it had taken by then waits for it, and all that follows goes to the fallback.
        receiver.close()
        third = support.numbered(1000, 500)
        support.send(agent.port(), support.as_lines(third))
        agent.wait_for("Warn Code.SyslogDestination.Default: .* can't be reached.*closed")
        fourth = support.numbered(1500, 500)
        support.send(agent.port(), support.as_lines(fourth))
        support.wait_until(lambda: output.read_bytes().endswith(support.as_lines(fourth)),
                           "the fallback, again")
        given = output.read_bytes().split(b"\n")[:-1][len(first):]
        waiting = 1000 - len(given)
        self.assertEqual(given, (third + fourth)[waiting:])

        # It comes once more, gets what waits for it, and then what follows.
        again = self.receiver(same_port)
        self.assertEqual(again.wait_for_lines(waiting), third[:waiting])
        fifth = support.numbered(2000, 500)
        support.send(agent.port(), support.as_lines(fifth))
        self.assertEqual(again.wait_for_lines(waiting + 500), third[:waiting] + fifth)
        self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (2500, 0, 0, 0))
        self.assertEqual(len([line for line in agent.lines if " Code.Fallback." in line]), 4)

    def test_a_receiver_that_reads_nothing_is_given_up_and_keeps_what_it_was_given(self):
        listener = socket.socket()
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8192)
        listener.bind(("127.0.0.1", 0))
        listener.listen()
        self.addCleanup(listener.close)
        target = (f'{{ type: syslog, target: "tcp://127.0.0.1:{listener.getsockname()[1]}", '
                  "send_timeout: 500ms }")
        config = self.configure(
            self.stream(support.SYSLOG_SOURCE, target)
            + "    fallback: { after: 1s, destination: { type: file, path: fallback.log } }\n")
        output = self.directory / "fallback.log"
        agent = self.start(config)
        events = [b"event %08d " % number + b"x" * 1000 for number in range(20000)]
        connection, _ = None, None
        support.send(agent.port(), support.as_lines(events))
        agent.wait_for("Code.Fallback.Default: The destination has sent nothing")
        connection, _ = listener.accept()
        last = events[-1] + b"\n"
        support.wait_until(lambda: output.exists() and output.read_bytes().endswith(last),
                           "the end of the fallback")
        # What it had taken comes when it reads; the two have everything, each in order.
        received = bytearray()
        given = output.read_bytes()
        with connection:
            while len(received) + len(given) < len(support.as_lines(events)):
                received += connection.recv(1 << 16)
            self.assertEqual(bytes(received) + given, support.as_lines(events))
            self.assertEqual(agent.stop(), 0)
        self.assertEqual(agent.summary(), (20000, 0, 0, 0))


if __name__ == "__main__":
    support.unittest.main()
