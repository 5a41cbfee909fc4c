"""Makes many connections of one user. These connections always have as many waiting calls as the bus
allows."""

import multiprocessing
import os
import selectors
import signal
import socket
import struct

from jeepney import DBusAddress, MessageType, new_method_call
from jeepney.io.blocking import open_dbus_connection

from .bus import ADDRESS, INTERFACE, NAME, PATH

DEPTH = 128  # the system bus allows a connection this number of calls without an answer


class _Connection:
    def __init__(self, member, body):
        self.connection = open_dbus_connection(ADDRESS)
        self.socket = self.connection.sock
        message = new_method_call(DBusAddress(PATH, bus_name=NAME, interface=INTERFACE), member,
                                  "s" if body else None, body)
        self.message = bytearray(message.serialise(serial=1))
        self.serial = 1000
        self.received = b""

    def send(self, count):
        for _ in range(count):
            self.serial += 1
            struct.pack_into("<I", self.message, 8, self.serial)
            self.socket.sendall(self.message)

    def receive(self):
        """@return the number of answers that have come"""
        self.received += self.socket.recv(65536)
        count = 0
        while len(self.received) >= 16:
            body, _, fields = struct.unpack_from("<III", self.received, 4)
            size = 16 + (fields + 7) // 8 * 8 + body
            if len(self.received) < size:
                break
            count += self.received[1] == MessageType.method_return.value
            self.received = self.received[size:]
        return count


def _flood(user, connections, depth, member, body, ready):
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    os.setgid(user)
    os.setuid(user)
    chosen = selectors.DefaultSelector()
    # All connections are made first, because a full bus accepts no new connections.
    flooding = [_Connection(member, body) for _ in range(connections)]
    for connection in flooding:
        chosen.register(connection.socket, selectors.EVENT_READ, connection)
        connection.send(depth)
    ready.set()
    while True:
        for key, _ in chosen.select():
            key.data.send(key.data.receive())


class Flood:
    """Sends calls of `user` from a separate process, until the end of the block."""

    def __init__(self, user, connections, member, body=(), depth=DEPTH):
        context = multiprocessing.get_context("fork")
        self.ready = context.Event()
        self.process = context.Process(
            target=_flood, args=(user, connections, depth, member, body, self.ready), daemon=True)

    def __enter__(self):
        self.process.start()
        assert self.ready.wait(60), "the flood has begun"
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.join()
