"""Connections that mean harm: raw messages on the bus, as fast as one likes, replies read or not."""

import os
import select
import struct

from jeepney import DBusAddress, MessageFlag, new_method_call
from jeepney.io.blocking import open_dbus_connection
from support.bus import ADDRESS, INTERFACE, LIMIT, NAME, PATH

CONNECTIONS = 10
# Calls of one connection that the system bus lets wait for a reply; a further one is refused by it.
BUS_PENDING = 128
_SERIAL_AT = 8  # bytes into a message, RFC-less: byte order, type, flags, version, body length


def call(member, signature=None, body=(), interface=INTERFACE, path=PATH, reply=True):
    message = new_method_call(DBusAddress(path, bus_name=NAME, interface=interface), member,
                              signature, body)
    if not reply:
        message.header.flags |= MessageFlag.no_reply_expected
    return message


class Abuser:
    """One connection whose messages are made once and sent many times."""

    def __init__(self, address=ADDRESS):
        self._connection = open_dbus_connection(address, auth_timeout=LIMIT)
        self.socket = self._connection.sock
        self.socket.setblocking(False)
        self._serial = 100
        self.sent = 0
        self.replies = self.errors = 0
        self._waits = bytearray()  # what the socket has not taken yet
        self._read = bytearray()

    def close(self):
        self.socket.close()

    def fileno(self):
        return self.socket.fileno()

    def queue(self, template, times=1):
        """Adds the message `times` times, each with a serial of its own."""
        for _ in range(times):
            self._serial += 1
            struct.pack_into("<I", template, _SERIAL_AT, self._serial)
            self._waits += template
        self.sent += times

    def flush(self):
        """Sends what the socket takes. Whether the bus still wants this connection."""
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
        """Counts the replies that have come. Whether the bus still wants this connection."""
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
