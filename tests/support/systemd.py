"""A stand-in for systemd, with the functions that the daemon needs: a socket for the daemon's reports, and a
service on the bus that shows the last status."""

import socket
import threading

from jeepney import HeaderFields, MessageType, message_bus, new_error, new_method_return
from jeepney.io.blocking import open_dbus_connection

from .bus import ADDRESS, LIMIT, wait_until

SOCKET = "/run/supervisor"
UNIT = "/org/freedesktop/systemd1/unit/proxymanagerd_2eservice"


class Systemd:
    def __init__(self):
        self.statuses = []
        self.process = None  # id of the main process; only the bus object of the unit has it
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(SOCKET)
        self.environment = {"NOTIFY_SOCKET": SOCKET}
        self._connection = open_dbus_connection(ADDRESS, auth_timeout=LIMIT)
        reply = self._connection.send_and_get_reply(message_bus.RequestName("org.freedesktop.systemd1"))
        assert reply.body == (1,)
        for serve in (self._hear, self._answer):
            threading.Thread(target=serve, daemon=True).start()

    def _hear(self):
        while True:
            for line in self._socket.recv(65536).decode().splitlines():
                if line.startswith("STATUS="):
                    self.statuses.append(line.removeprefix("STATUS="))

    def _answer(self):
        while True:
            try:
                call = self._connection.receive()
            except OSError:
                return  # the bus has ended
            if call.header.message_type != MessageType.method_call:
                continue
            known = {("GetUnitByPID", (self.process,)): ("o", (UNIT,)),
                     ("Get", ("org.freedesktop.systemd1.Service", "StatusText")):
                         ("v", (("s", self.statuses[-1] if self.statuses else ""),))}
            answer = known.get((call.header.fields[HeaderFields.member], call.body))
            self._connection.send(
                new_method_return(call, *answer) if answer else
                new_error(call, "org.freedesktop.systemd1.NoUnitForPID", "s", ("no unit",)))

    def wait_for(self, fits, what):
        """@return the first status that matches"""
        wait_until(lambda: any(map(fits, self.statuses)), what)
        return next(filter(fits, self.statuses))
