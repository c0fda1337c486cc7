"""A destination that keeps whole messages, and can tell when nothing is under way any more."""

import socket
import threading
import time

LIMIT = 120


class Receiver:
    """Receives octet-counted messages (RFC 6587); those of each connection by themselves, so that
    a message which a kill has cut does not spoil the next connection's."""

    def __init__(self):
        self.cut_messages = 0
        self._messages = []
        self._lock = threading.Lock()
        self._ended = None  # the peer of the connection that was read last
        self._listener = socket.socket()
        self._listener.bind(("127.0.0.1", 0))
        self._listener.listen()
        self.port = self._listener.getsockname()[1]
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while True:
            try:
                connection, peer = self._listener.accept()
            except OSError:
                return
            with connection:
                self._read(connection)
            with self._lock:
                self._ended = peer

    def _read(self, connection):
        pending = bytearray()
        while True:
            try:
                data = connection.recv(1 << 16)
            except OSError:
                break
            if not data:
                break
            pending += data
            self._take(pending)
        if pending:
            self.cut_messages += 1

    def _take(self, pending):
        start = 0
        messages = []
        while True:
            space = pending.find(b" ", start)
            if space < 0:
                break
            end = space + 1 + int(pending[start:space])
            if end > len(pending):
                break
            messages.append(bytes(pending[space + 1:end]))
            start = end
        del pending[:start]
        with self._lock:
            self._messages += messages

    def count(self):
        with self._lock:
            return len(self._messages)

    def take(self):
        """What has arrived since the last call. Everything that a process which has ended gave to
        its connections is in it: connections are read one after the other, each to its end, and
        this waits for one of its own that comes last."""
        with socket.create_connection(("127.0.0.1", self.port)) as last:
            own = last.getsockname()
        end = time.monotonic() + LIMIT
        while True:
            with self._lock:
                if self._ended == own:
                    messages, self._messages = self._messages, []
                    return messages
            if time.monotonic() > end:
                raise AssertionError(f"a connection to the receiver did not end in {LIMIT} s")
            time.sleep(0.005)

    def close(self):
        try:
            self._listener.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._listener.close()
        self._thread.join(LIMIT)
