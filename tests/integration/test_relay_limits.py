"""Tests the limits of the relay (the largest allowed value, and one more), and slow clients."""

import contextlib
import os
import re
import resource
import socket
import tempfile
import threading

import pytest
from jeepney import HeaderFields, MessageType, message_bus, new_error, new_method_return
from jeepney.io.blocking import open_dbus_connection

from support import own_network as network
from support.bus import ADDRESS, LIMIT, NAME, wait_until
from support.relay_peers import Server, read_all, read_exactly, read_head
from support.relay_requests import HOST, answers, as_user, get, metric, tunnel

OF_USER, OF_ALL = 1024, 4096
STYLE = b"GET /style.css HTTP/1.1\r\nHost: localhost\r\n\r\n"


class HoldingDaemon:
    """Owns the daemon's bus name, and answers a question only when the test asks for it."""

    def __init__(self):
        self.asked = []
        self._held = []
        self._changed = threading.Condition()
        self._connection = open_dbus_connection(ADDRESS, auth_timeout=LIMIT)
        assert self._connection.send_and_get_reply(message_bus.RequestName(NAME)).body == (1,)
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            try:
                call = self._connection.receive()
            except OSError:
                return
            if call.header.message_type != MessageType.method_call:
                continue
            if call.header.fields[HeaderFields.member] != "getProxyurl":
                self._connection.send(new_error(call, "org.example.No"))
                continue
            with self._changed:
                self.asked.append(call.body[0])
                self._held.append(call)
                self._changed.notify_all()

    def answer_one(self):
        """Answers the oldest question. @return the next question"""
        with self._changed:
            count = len(self.asked)
            call = self._held.pop(0)
        self._connection.send(new_method_return(call, "as", (["off", ""],)))
        self.wait(count + 1)
        return self.asked[count]

    def wait(self, count):
        with self._changed:
            assert self._changed.wait_for(lambda: len(self.asked) >= count, LIMIT), self.asked


def test_the_daemon_has_32_questions_at_most_equal_ones_are_one_and_users_have_turns(
        relay, own_network, bus):
    daemon = HoldingDaemon()
    relay.start()
    with contextlib.ExitStack() as stack:
        def ask(user, address):
            with as_user(user):
                connection = stack.enter_context(relay.connect())
            connection.sendall(f"CONNECT {address}:9 HTTP/1.1\r\nHost: x\r\n\r\n".encode())

        for number in range(60):
            ask(1001, f"192.0.2.{number}")
        daemon.wait(32)
        wait_until(lambda: metric(relay, "questions_waiting") == 28, "the others wait")
        assert metric(relay, "questions_asked") == 32 == len(daemon.asked)
        ask(1002, "192.0.2.59")  # this host is already the last one in the first user's queue
        ask(1002, "192.0.2.101")
        ask(1003, "192.0.2.102")
        ask(1002, "192.0.2.103")
        wait_until(lambda: metric(relay, "questions_waiting") == 31, "three more wait")
        came = [daemon.answer_one() for _ in range(6)]
        assert sorted(daemon.asked) == sorted(set(daemon.asked)), "no question came twice"
    numbers = [int(re.search(r"192\.0\.2\.(\d+)", url)[1]) for url in came]
    # The first user has the questions 0 to 59. The questions of the two others are asked between
    # them.
    assert [number if number >= 59 else 0 for number in numbers] == [59, 102, 0, 101, 0, 103]


def hold(relay, stack, user, count):
    with as_user(user):
        made = [stack.enter_context(relay.connect()) for _ in range(count)]
    return made


def is_refused(relay, user):
    with as_user(user), relay.connect() as connection:
        connection.sendall(STYLE)
        answer = read_head(connection)
    return answer.startswith(b"HTTP/1.1 503 ")


def is_served(connection):
    connection.sendall(STYLE)
    head = read_head(connection)
    read_exactly(connection, int(head.split(b"Content-Length: ")[1].split(b"\r\n")[0]))
    return head.startswith(b"HTTP/1.1 200 ")


@pytest.mark.slow
def test_a_user_may_have_1024_connections_and_all_users_4096(relay, own_network, bus):
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    relay.configure('head-time = "1h"\nkept-time = "1h"\n')
    relay.start()
    with contextlib.ExitStack() as stack:
        held = []
        for number in range(OF_ALL // OF_USER):
            user = 2001 + number
            # There are fewer connections at once than the kernel's backlog allows.
            for _ in range(4):
                held += hold(relay, stack, user, OF_USER // 4)
                assert is_served(held[-1]), "what came before it is accepted"
            assert is_refused(relay, user)
        assert is_refused(relay, 3001), "all places are taken"
        assert is_served(held[0]) and is_served(held[-1])
        held.pop().close()
        wait_until(lambda: not is_refused(relay, 3001), "one place is free")
        assert is_refused(relay, 2001), "the first user has still no place"


@pytest.mark.slow
def test_a_gigabyte_leaves_the_memory_as_it_was(relay, own_network, bus, sanitizer):
    if sanitizer:
        pytest.skip("its memory is not the program's")
    size = 1 << 30

    def handle(connection):
        head = read_head(connection)
        if head.startswith(b"GET /plain"):
            connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % size)
        with tempfile.TemporaryFile() as zeros:
            zeros.truncate(1 << 24)
            for _ in range(size >> 24):
                offset = 0
                while offset < 1 << 24:
                    offset += os.sendfile(connection.fileno(), zeros.fileno(), offset, (1 << 24) - offset)

    def take(connection):
        """Counts the bytes without storing them: with MSG_TRUNC, TCP discards the bytes that it
        reads."""
        taken = 0
        while got := len(connection.recv(1 << 20, socket.MSG_TRUNC)):
            taken += got
        return taken

    def peak():
        with open(f"/proc/{relay.process.pid}/status") as file:
            return int(re.search(r"^VmHWM:\s+(\d+) kB$", file.read(), re.MULTILINE)[1])

    network.hosts(HOST)
    relay.start()
    with contextlib.closing(Server(handle)) as server:
        before = peak()
        with tunnel(relay, f"{HOST}:{server.port}") as (code, connection):
            assert code == 200
            connection.sendall(b"GET /raw HTTP/1.1\r\n\r\n")
            assert take(connection) == size
        with relay.connect() as connection:
            connection.sendall(f"GET http://{HOST}:{server.port}/plain HTTP/1.1\r\nHost: x\r\n"
                               "Connection: close\r\n\r\n".encode())
            read_head(connection)
            assert take(connection) == size
        assert peak() - before < 2048, "KiB more than before"


def test_a_slow_body_has_more_time_than_a_head_and_a_body_that_stands_still_ends(
        relay, origin, bus):
    def begun(connection, request):
        connection.sendall(request)
        return connection

    body = (f"POST http://{HOST}:{origin.port}/ HTTP/1.1\r\nHost: x\r\nConnection: close\r\n"
            "Content-Length: 4\r\n\r\nbo").encode()
    relay.configure('head-time = "1s"\nidle-time = "1h"\n')
    relay.start()
    with relay.connect() as slow, relay.connect() as head:
        begun(slow, body)
        assert read_all(begun(head, b"GET http://")) == b"", "its time is over"
        slow.sendall(b"dy")
        assert read_all(slow).endswith(b"\r\n\r\nbody")
    relay.stop()
    relay.configure('idle-time = "1s"\n')
    relay.start()
    with relay.connect() as slow:
        assert read_all(begun(slow, body)) == b""
    assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 200


def test_a_changed_configuration_leaves_a_download_alone(relay, origin, daemon, client, web):
    goes_on = threading.Event()

    def handle(connection):
        read_head(connection)
        connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nfirst")
        assert goes_on.wait(LIMIT)
        connection.sendall(b"later")

    relay.start()
    with contextlib.closing(Server(handle)) as server, relay.connect() as connection:
        connection.sendall(f"GET http://{HOST}:{server.port}/ HTTP/1.1\r\nHost: x\r\n\r\n".encode())
        read_head(connection)
        assert read_exactly(connection, 5) == b"first"
        answers(client, web, "PROXY 127.0.0.1:9")
        wait_until(lambda: get(relay, f"http://{HOST}:{origin.port}/")[0] == 502, "it is in force")
        goes_on.set()
        assert read_exactly(connection, 5) == b"later"
