"""A stand-in for the daemon on the test's bus."""

import socket
import threading

from jeepney import HeaderFields, MessageFlag, MessageType, message_bus, new_error, new_method_return
from jeepney.io.blocking import open_dbus_connection

from .bus import ADDRESS, LIMIT, NAME

HOLD = "no answer"


class StandIn:
    """Owns the daemon's name on the bus, and answers calls with the replies that the test gives:
    a signature and a body, the name of an error, or HOLD (no reply). A list has the replies of
    consecutive calls. If there is no reply for a call, the stand-in ends."""

    def __init__(self, replies, name=NAME):
        self.held = threading.Event()
        self.calls = []  # member and flags of each call, in their order
        self._connection = open_dbus_connection(ADDRESS, auth_timeout=LIMIT)
        reply = self._connection.send_and_get_reply(message_bus.RequestName(name))
        assert reply.body == (1,)
        self._replies = replies
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self):
        while True:
            try:
                call = self._connection.receive()
            except (OSError, ValueError):
                return
            fields = call.header.fields
            if (call.header.message_type != MessageType.method_call
                    or call.header.flags & MessageFlag.no_reply_expected):
                continue
            self.calls.append((fields[HeaderFields.member], call.header.flags))
            answer = self._replies.get(fields[HeaderFields.member])
            if isinstance(answer, list):
                answer = answer.pop(0)
            if answer is HOLD:
                self.held.set()
            elif isinstance(answer, tuple):
                self._connection.send(new_method_return(call, *answer))
            elif answer is not None:
                self._connection.send(new_error(call, answer, "s", ("why\x1b[2J",)))
            else:
                self._connection.sock.shutdown(socket.SHUT_RDWR)
                return

    def count(self, member):
        return sum(called == member for called, _ in self.calls)

    def close(self):
        try:
            self._connection.sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._thread.join(LIMIT)
        self._connection.close()
