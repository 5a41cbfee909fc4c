"""Tests the answers that callers get from a daemon that ends."""

import signal
import socket
import threading

from jeepney import DBusAddress, MessageType, new_method_call
from jeepney.io.blocking import open_dbus_connection

from support.bus import ADDRESS, INTERFACE, LIMIT, NAME, PATH, Client
from support.daemon import Daemon, make_watched_files
from support.syslog_socket import INFO
from support.web import Held, script

UPDATE = ("sssbss", ("manual", "p:1", "", False, "", ""))


def send(connection, member, signature=None, body=()):
    """Sends a call without waiting for its answer."""
    address = DBusAddress(PATH, bus_name=NAME, interface=INTERFACE)
    connection.send(new_method_call(address, member, signature, body))


def answers(connection, count):
    """The messages except signals: (kind, body)."""
    found = []
    while len(found) < count:
        message = connection.receive(timeout=LIMIT)
        if message.header.message_type != MessageType.signal:
            found.append((message.header.message_type, message.body))
    return found


def test_no_update_begins_after_the_line_of_the_stop(daemon, syslog):
    """SIGSTOP pauses the daemon. Calls wait in its socket, and SIGTERM comes before the daemon
    continues."""
    with Client() as client:
        client.update("off")
    with open_dbus_connection(ADDRESS) as connection:
        daemon.signal(signal.SIGSTOP)
        for _ in range(20):
            send(connection, "updateProxyconfig", *UPDATE)
        daemon.signal(signal.SIGTERM)
        daemon.signal(signal.SIGCONT)
        results = answers(connection, 20)
    assert daemon.wait() == 0
    assert {kind for kind, _ in results} == {MessageType.method_return}
    lines = syslog.texts()
    stop = lines.index("ProxyManagerServiceImpl-stop called ")
    # The stop does not wait for the update in progress, so this update may log its lines later.
    assert sum("updateProxyConfig mode:manual" in line for line in lines[stop:]) <= 1
    executed = sum("updateProxyConfig mode:manual" in line for line in lines)
    assert results == [(MessageType.method_return, (0,))] * executed + \
        [(MessageType.method_return, (-1,))] * (20 - executed)


def test_every_call_that_reached_the_daemon_gets_an_answer(daemon, client):
    """Four connections send 200 calls while the daemon ends."""
    connections = [open_dbus_connection(ADDRESS) for _ in range(4)]
    daemon.signal(signal.SIGSTOP)
    for connection in connections:
        for _ in range(50):
            send(connection, "getProxyurl", "s", ("http://a/",))
    daemon.signal(signal.SIGTERM)
    daemon.signal(signal.SIGCONT)
    for connection in connections:
        for kind, body in answers(connection, 50):
            assert kind == MessageType.method_return
            assert body[0] in (["off", ""], ["off"])
        connection.close()
    assert daemon.wait() == 0


def test_the_watchdog_is_fed_while_the_stop_waits(build, bus, syslog, web):
    """The supervisor kills the daemon if the daemon sends it no message for 60 s."""
    make_watched_files()
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as supervisor:
        supervisor.bind("/run/supervisor")
        supervisor.settimeout(LIMIT)
        daemon = Daemon(build, environment={"NOTIFY_SOCKET": "/run/supervisor",
                                            "WATCHDOG_USEC": "60000000"})

        def heard(word):
            while word not in supervisor.recv(4096).decode().splitlines():
                pass

        web.routes["/slow.pac"] = held = Held(script("DIRECT"))
        with Client() as client:
            client.update("pacurl", pacurl=web.url("/slow.pac"))
        web.wait("/slow.pac")
        stopped = threading.Thread(target=daemon.stop)
        stopped.start()
        heard("STOPPING=1")
        syslog.wait(INFO, "PACFetcher-stop called")
        heard("WATCHDOG=1")
        held.release()
        stopped.join(LIMIT)
        assert daemon.process.returncode == 0
        daemon.close()
