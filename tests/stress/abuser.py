"""Hostile connections to the bus: they send raw messages at any speed. Some of these connections read the
replies, others do not."""

import array
import contextlib
import mmap
import os
import signal
import socket
import struct
import sys
import time
import traceback

from jeepney import DBusAddress, MessageFlag, new_method_call
from jeepney.io.blocking import open_dbus_connection
from support.bus import ADDRESS, INTERFACE, LIMIT, NAME, PATH

CONNECTIONS = 10
_SERIAL_AT = 8  # offset in a message, after byte order, type, flags, version and length of the body


def call(member, signature=None, body=(), interface=INTERFACE, path=PATH, reply=True):
    message = new_method_call(DBusAddress(path, bus_name=NAME, interface=interface), member,
                              signature, body)
    if not reply:
        message.header.flags |= MessageFlag.no_reply_expected
    return message


class Abuser:
    """One connection whose messages are made once and sent many times."""

    def __init__(self, address=ADDRESS, enable_fds=False):
        self._connection = open_dbus_connection(address, auth_timeout=LIMIT,
                                                enable_fds=enable_fds)
        self.socket = self._connection.sock
        self.socket.setblocking(False)
        self._serial = 100
        self.sent = 0
        self.replies = self.errors = 0
        self._waits = bytearray()  # bytes that the socket has not accepted yet
        self._read = bytearray()

    def close(self):
        self.socket.close()

    def fileno(self):
        return self.socket.fileno()

    def queue(self, template, times=1):
        """Adds the message `times` times, each time with a new serial."""
        for _ in range(times):
            self._serial += 1
            struct.pack_into("<I", template, _SERIAL_AT, self._serial)
            self._waits += template
        self.sent += times

    def send_with(self, template, descriptors):
        """Sends the message with open files."""
        self._serial += 1
        struct.pack_into("<I", template, _SERIAL_AT, self._serial)
        self.sent += 1
        with contextlib.suppress(BlockingIOError):
            self.socket.sendmsg([template], [(socket.SOL_SOCKET, socket.SCM_RIGHTS,
                                              array.array("i", descriptors))])

    def flush(self):
        """Sends as much as the socket accepts. Returns whether the bus has kept this connection open."""
        try:
            while self._waits:
                done = self.socket.send(self._waits)
                del self._waits[:done]
        except BlockingIOError:
            pass
        except OSError:
            return False
        return True

    @property
    def waits(self):
        return len(self._waits)

    def read(self):
        """Counts the replies that have arrived. Returns whether the bus has kept this connection open."""
        try:
            while True:
                data = self.socket.recv(1 << 20)
                if not data:
                    return False
                self._read += data
        except BlockingIOError:
            pass
        except OSError:
            return False
        self._count()
        return True

    def _count(self):
        at = 0
        while len(self._read) - at >= 16:
            kind = self._read[at + 1]
            body, = struct.unpack_from("<I", self._read, at + 4)
            fields, = struct.unpack_from("<I", self._read, at + 12)
            end = at + 16 + (fields + 7) // 8 * 8 + body
            if end > len(self._read):
                break
            self.replies += kind == 2
            self.errors += kind == 3
            at = end
        del self._read[:at]

    @property
    def unanswered(self):
        return self.sent - self.replies - self.errors


class Abuse:
    """A process that repeats `step` while it is allowed to run.

    It sleeps `pace` seconds between two steps. It may run only inside a `with going()` block."""

    def __init__(self, step, pace):
        self._shared = mmap.mmap(-1, 16)  # whether the process may run, and the number of finished steps
        self._pid = os.fork()
        if self._pid == 0:
            self._run(step, pace)

    def _run(self, step, pace):
        try:
            while True:
                if self._shared[0]:
                    step()
                    self._shared[8:16] = struct.pack("q", self.steps() + 1)
                time.sleep(pace if self._shared[0] else 0.001)
        except BaseException:  # noqa: BLE001: this is a separate process: its errors must be printed
            traceback.print_exc(file=sys.stderr)
        finally:
            os._exit(1)

    def steps(self):
        return struct.unpack("q", self._shared[8:16])[0]

    @contextlib.contextmanager
    def going(self):
        self._shared[0] = 1
        try:
            yield
        finally:
            self._shared[0] = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        with contextlib.suppress(ProcessLookupError):
            os.kill(self._pid, signal.SIGKILL)
        _, status = os.waitpid(self._pid, 0)
        assert os.WIFSIGNALED(status), "the abusing process failed"
