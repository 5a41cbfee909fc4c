"""Tests proxies that require a password, and requests with a body. Before the relay sends the body,
it waits for the proxy's answer, at most one second."""

import contextlib
import os
import subprocess

import pytest

from support.bus import LIMIT
from support.relay_peers import Proxy, Server, read_exactly, read_head, status
from support.relay_requests import HOST, answers, get

BASIC = b"Proxy-Authorization: Basic bWU6cGE6c3M="
DIGEST = b'Proxy-Authorization: Digest username="me"'
WANTS_BASIC = status(407, "Auth", 'Proxy-Authenticate: Basic realm="x"\r\nConnection: close\r\n')
WANTS_DIGEST = status(407, "Auth", 'Proxy-Authenticate: Digest realm="x", nonce="n", qop="auth", '
                                   'algorithm=SHA-256\r\nConnection: close\r\n')
CONTINUE = "HTTP/1.1 100 Continue\r\n\r\n"
MADE = status(201, "Made", "Connection: close\r\n")
BODY = os.urandom(300_000)
CHUNKED = b"%x\r\n" % len(BODY) + BODY + b"\r\n0\r\n\r\n"
FRAMINGS = ((f"Content-Length: {len(BODY)}\r\n", BODY), ("Transfer-Encoding: chunked\r\n", CHUNKED))


class BodyProxy(Server):
    """An HTTP proxy that accepts requests with a body. It sends `answer(head)` immediately after
    the head. If this answer is final, the proxy reads no body."""

    def __init__(self, answer):
        self.heads, self.bodies, self.answer = [], [], answer
        super().__init__(self._handle)

    def _handle(self, connection):
        head = read_head(connection)
        self.heads.append(head)
        first = self.answer(head)
        connection.sendall(first.encode())
        if first and first != CONTINUE:
            return
        is_chunked = b"Transfer-Encoding: chunked" in head
        body = read_exactly(connection, len(CHUNKED if is_chunked else BODY))
        self.bodies.append(body[body.index(b"\r\n") + 2:][:len(BODY)] if is_chunked else body)
        connection.sendall(MADE.encode())


def manual(client, proxy):
    client.update("manual", proxyurl=f"http://127.0.0.1:{proxy.port}", auth=True, user="me",
                  password="pa:ss")


@contextlib.contextmanager
def running(relay):
    """Starts a new relay, which remembers nothing about another proxy on the same port."""
    relay.start()
    try:
        yield
    finally:
        relay.stop()


def once_of_five(attempt):
    """The relay waits one second for the proxy's answer before it sends a body. The test has five
    tries, because a busy machine may be late."""
    for _ in range(4):
        with contextlib.suppress(AssertionError):
            return attempt()
    return attempt()


def put(relay, origin, fields, body, method="POST"):
    return get(relay, f"http://{HOST}:{origin.port}/", fields, method, body)[0]


@pytest.mark.parametrize("wants, password", [(WANTS_BASIC, BASIC), (WANTS_DIGEST, DIGEST)])
def test_the_first_request_with_a_body_reaches_a_proxy_that_wants_a_password(
        relay, origin, daemon, client, wants, password):
    def answer(head):
        if password not in head:
            return wants
        return CONTINUE if b"Expect: 100-continue" in head else ""

    def attempt(fields, body):
        with contextlib.closing(BodyProxy(answer)) as proxy, running(relay):
            manual(client, proxy)
            for _ in range(2):
                assert put(relay, origin, fields, body) == 201
            assert proxy.bodies == [BODY, BODY]
            assert [password in head for head in proxy.heads] == [False, True, True]

    for framing in FRAMINGS:
        once_of_five(lambda: attempt(*framing))


def test_a_proxy_that_knows_no_100_gets_the_body_after_a_moment_and_then_at_once(
        relay, origin, daemon, client):
    with contextlib.closing(BodyProxy(lambda head: "")) as proxy:
        manual(client, proxy)
        relay.start()
        for _ in range(2):
            assert put(relay, origin, *FRAMINGS[0]) == 201
        assert proxy.bodies == [BODY, BODY]
        assert [b"Expect" in head for head in proxy.heads] == [True, False]


def test_a_server_that_refuses_to_be_asked_for_a_100_is_not_asked_again(
        relay, origin, daemon, client):
    def answer(head):
        return status(417, "No", "Connection: close\r\n") if b"Expect" in head else ""

    def attempt():
        with contextlib.closing(BodyProxy(answer)) as proxy, running(relay):
            manual(client, proxy)
            assert put(relay, origin, *FRAMINGS[0]) == 201
            assert proxy.bodies == [BODY] and len(proxy.heads) == 2

    once_of_five(attempt)


def test_a_client_does_not_see_a_100_that_the_relay_asked_for(relay, origin, daemon, client):
    with contextlib.closing(BodyProxy(lambda head: CONTINUE)) as proxy:
        manual(client, proxy)
        relay.start()
        answer = get(relay, f"http://{HOST}:{origin.port}/", *FRAMINGS[0][:1], "POST", BODY)
        assert answer[0] == 201, "the first answer is the last"


def test_a_password_that_is_refused_sends_a_body_to_the_next_proxy(
        relay, origin, daemon, client, web):
    relay.configure('credentials-file = "/run/relay.credentials"\ncredentials-hosts = ["127.0.0.1"]\n')

    def attempt():
        with contextlib.closing(BodyProxy(lambda head: WANTS_BASIC)) as first, \
                contextlib.closing(BodyProxy(lambda head: "")) as second:
            with open("/run/relay.credentials", "w") as file:
                file.write(f'["127.0.0.1:{first.port}"]\nuser = "me"\npassword = "wrong"\n')
            answers(client, web, f"PROXY 127.0.0.1:{first.port}; PROXY 127.0.0.1:{second.port}")
            with running(relay):
                assert put(relay, origin, *FRAMINGS[0]) == 201
                assert len(first.heads) == 2 and second.bodies == [BODY]

    once_of_five(attempt)


def test_passwords_are_for_the_users_and_groups_that_may_have_them(relay, origin, daemon, client):
    """The list contains the user nobody, and the group of the user games. It does not contain the
    user man."""
    def wants(head):
        return None if BASIC in head else WANTS_BASIC.replace("Connection: close\r\n", "")

    relay.configure('credentials-for = ["nobody", "@games"]\n')
    curl = ["curl", "-s", "--noproxy", "", "-o", "/dev/null", "-w", "%{http_code} %{http_connect}", "-x",
            "http://127.0.0.1:3128"]
    with contextlib.closing(Proxy(wants, wants)) as proxy:
        manual(client, proxy)
        relay.start()
        for user, is_listed in (("nobody", True), ("games", True), ("man", False), ("root", False)):
            for options, wanted in ((("-X", "GET"), "200 000" if is_listed else "502 000"),
                                    (("-p",), "200 200" if is_listed else "000 502")):
                done = subprocess.run(
                    ["setpriv", f"--reuid={user}", "--clear-groups", *curl, *options,
                     f"http://{HOST}:{origin.port}/"], capture_output=True, text=True, timeout=LIMIT)
                assert done.stdout == wanted, (user, options)
