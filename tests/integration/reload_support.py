"""What the tests of SIGHUP share: a client that goes on sending, and the wait for a reload."""

import signal
import socket
import threading
import time

import support


class Client:
    """Sends numbered lines over one connection until it is told to end."""

    def __init__(self, port, name):
        self.sent = []
        self.failure = None
        self._name = name
        self._connection = socket.create_connection(("127.0.0.1", port))
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        try:
            while not self._stop.is_set():
                batch = [b"%s %d" % (self._name, len(self.sent) + number) for number in range(20)]
                self._connection.sendall(support.as_lines(batch))
                self.sent += batch
                time.sleep(0.01)
        except OSError as error:
            self.failure = error

    def end(self):
        self._stop.set()
        self._thread.join(support.LIMIT)
        self._connection.close()
        return self.sent


class ReloadTest(support.AgentTest):
    def reload(self, agent, expected=r"was read again: "):
        def count():
            self.assertIsNone(agent.process.poll(), agent.lines)
            return len([line for line in list(agent.lines) if support.re.search(expected, line)])

        before = count()
        agent.signal(signal.SIGHUP)
        support.wait_until(lambda: count() > before, "the reload")
