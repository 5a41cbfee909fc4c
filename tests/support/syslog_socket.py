"""A reader on /dev/log that keeps the daemon's lines, exact to the blank."""

import os
import re
import socket
import threading

ERR, WARNING, NOTICE, INFO, DEBUG = 3, 4, 5, 6, 7
_LINE = re.compile(rb"<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d ([^\[:]+)\[(\d+)\]: (.*)", re.DOTALL)
LIMIT = 60.0  # seconds to wait for a line


class Line(tuple):
    """(level, text)"""

    def __new__(cls, level, text):
        return super().__new__(cls, (level, text))

    level = property(lambda self: self[0])
    text = property(lambda self: self[1])


class Syslog:
    def __init__(self, path="/dev/log"):
        self.path = path
        self.raw = []
        self._lines = []
        self._said = threading.Condition()
        self._drained = set()
        self._reads = threading.Event()
        self._reads.set()
        self._open()

    def _open(self):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, 33, 8 << 20)  # SO_RCVBUFFORCE
        self._socket.bind(self.path)
        os.chmod(self.path, 0o666)
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        while True:
            self._reads.wait()
            datagram = self._socket.recv(1 << 20)
            if datagram == b"END":
                return
            if datagram == b"PROBE":
                continue
            if datagram.startswith(b"DRAINED "):
                with self._said:
                    self._drained.add(datagram)
                    self._said.notify_all()
                continue
            match = _LINE.fullmatch(datagram.rstrip(b"\0"))
            with self._said:
                self.raw.append(datagram)
                if match:
                    self._lines.append(Line(int(match[1]) & 7, match[4].decode("utf-8", "replace")))
                else:
                    self._lines.append(Line(-1, datagram.decode("utf-8", "replace")))
                self._said.notify_all()

    def close(self):
        self.go_on()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as last:
            try:
                last.connect(self.path)
                last.send(b"END")
                self._thread.join(LIMIT)
            except OSError:
                pass
        self._socket.close()

    def hold(self):
        """From now until go_on(), reads at most one more datagram. A program that logs more has
        to wait."""
        self._reads.clear()

    def go_on(self):
        self._reads.set()

    def takes_no_more(self):
        """Whether a program would have to wait if it logged a line now."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.setblocking(False)
            sender.connect(self.path)
            try:
                sender.send(b"PROBE")
            except BlockingIOError:
                return True
        return False

    def drain(self):
        """Waits until everything that was logged before this call has been read."""
        mark = b"DRAINED " + os.urandom(8).hex().encode()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.connect(self.path)
            sender.send(mark)
        with self._said:
            assert self._said.wait_for(lambda: mark in self._drained, LIMIT), "the log stands still"

    def lines(self):
        """The texts that have been logged until now."""
        self.drain()
        with self._said:
            return list(self._lines)

    def errors(self):
        return [line for line in self.lines() if line.level == ERR]

    def texts(self):
        return [line.text for line in self.lines()]

    def clear(self):
        """Drops the lines that were logged before this call, also those that have not been read
        yet."""
        self.drain()
        with self._said:
            self._lines.clear()

    def count(self, level, text):
        return self.lines().count((level, text))

    def wait(self, level, text, times=1, limit=LIMIT):
        """Waits until the line has been logged `times` times."""
        with self._said:
            found = self._said.wait_for(
                lambda: self._lines.count((level, text)) >= times, limit)
            assert found, (f"not said within {limit} s, {times} times: {(level, text)!r}; said: "
                           + "\n".join(map(repr, self._lines[-60:])))

    def wait_match(self, level, pattern, times=1, limit=LIMIT):
        """Waits until the regular expression matches `times` whole lines of `level`."""
        expression = re.compile(pattern, re.DOTALL)
        matching = lambda: [line for line in self._lines
                            if line.level == level and expression.fullmatch(line.text)]
        with self._said:
            found = self._said.wait_for(lambda: len(matching()) >= times, limit)
            assert found, (f"no line like {pattern!r} at {level}; said: "
                           + "\n".join(map(repr, self._lines[-60:])))
            return matching()[-1]

    def expect_in_order(self, *expected):
        """Asserts that the lines were logged in this order. Other lines may be between them."""
        remaining = iter(self.lines())
        for line in expected:
            assert any(tuple(said) == tuple(line) for said in remaining), (
                f"missing, or out of order: {line!r}; said:\n"
                + "\n".join(map(repr, self.lines())))
