"""A message bus for one program, the guest. After the handshake, the bus does not answer the
guest. It can send any number of calls, and reads the replies only on the test's request."""

import os
import socket
import struct
import time

from jeepney import HeaderFields, MessageType, Parser, new_error, new_method_return

from .bus import LIMIT

STANDSTILL = 1.0  # seconds: after this time without a read byte, the guest has stopped reading


class DeafBus:
    """Listens at `path`. `accept` accepts the guest, and answers the guest until the guest has asked for
    `last`."""

    def __init__(self, path="/run/deaf_bus"):
        self.address = f"unix:path={path}"
        self._listening = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listening.bind(path)
        self._listening.listen(1)
        self._listening.settimeout(LIMIT)
        self._serial = 0
        self._parser = Parser()

    def accept(self, last="RequestName"):
        self.guest, _ = self._listening.accept()
        self.guest.settimeout(LIMIT)
        self._authenticate()
        while True:
            call = self._receive()
            member = call.header.fields[HeaderFields.member]
            if member == "Hello":
                self._reply(call, "s", (":1.1",))
            elif member == "RequestName":
                self._reply(call, "u", (1,))
            elif call.header.message_type == MessageType.method_call:
                self._send(new_error(call, "org.freedesktop.DBus.Error.NotSupported"))
            if member == last:
                return

    def close(self):
        self.guest.close()
        self._listening.close()

    def _authenticate(self):
        accepted = b"OK " + os.urandom(16).hex().encode()
        said, answered = b"", 0
        while b"BEGIN\r\n" not in said:
            data = self.guest.recv(4096)
            assert data, "the guest hung up"
            said += data
            lines = said.partition(b"BEGIN\r\n")[0].split(b"\r\n")[:-1]
            for line in lines[answered:]:
                self.guest.sendall({
                    b"\0AUTH EXTERNAL": b"DATA",  # the user id follows
                    b"DATA": accepted,
                    b"NEGOTIATE_UNIX_FD": b"ERROR"}.get(line, accepted) + b"\r\n")
            answered = len(lines)
        self._parser.add_data(said.partition(b"BEGIN\r\n")[2])

    def _receive(self):
        while True:
            message = self._parser.get_next_message()
            if message is not None:
                return message
            data = self.guest.recv(1 << 20)
            assert data, "the guest hung up"
            self._parser.add_data(data)

    def _send(self, message):
        self._serial += 1
        self.guest.sendall(message.serialise(self._serial))

    def _reply(self, call, signature, body):
        self._send(new_method_return(call, signature, body))

    def ask(self, template, most):
        """Sends the call repeatedly, as long as the guest reads, at most `most` times.

        Returns the number of calls. The last call may be incomplete; finish() sends its rest."""
        self.guest.setblocking(False)
        template = bytearray(template)
        self._waits = bytearray()
        asked, taken_last = 0, time.monotonic()
        while asked < most or self._waits:
            if not self._waits:
                asked += 1
                self._serial += 1
                struct.pack_into("<I", template, 8, self._serial)
                self._waits += template
            try:
                del self._waits[:self.guest.send(self._waits)]
                taken_last = time.monotonic()
            except BlockingIOError:
                if time.monotonic() - taken_last > STANDSTILL:
                    break
                time.sleep(0.01)
        return asked

    def answers(self, count):
        """Starts to read again, and returns the bodies of the next `count` replies in their
        order."""
        self.guest.settimeout(LIMIT)
        found = []
        while len(found) < count:
            if self._waits:
                self.guest.setblocking(False)
                try:
                    del self._waits[:self.guest.send(self._waits)]
                except BlockingIOError:
                    pass
                self.guest.settimeout(LIMIT)
            message = self._receive()
            if message.header.message_type == MessageType.method_return:
                found.append((message.header.fields[HeaderFields.reply_serial], message.body))
        return found
