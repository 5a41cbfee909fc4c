"""A stand-in for the daemon on the test's bus."""

import socket
import threading

from jeepney import HeaderFields, MessageFlag, MessageType, message_bus, new_error, new_method_return
from jeepney.io.blocking import open_dbus_connection

from .bus import ADDRESS, LIMIT, NAME

HOLD = "no answer"


class StandIn:
    """Has the daemon's name on the bus and answers calls with what the test gives: a signature and a
    body, the name of an error, or HOLD; a list has one after the other. It ends at a call that it
    has nothing for."""

    def __init__(self, replies, name=NAME):
        self.held = threading.Event()
        self.calls = []  # the members and flags of all calls, in their order
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
