"""Sends requests to the relay, and sets the daemon's answers for them."""

import contextlib
import ctypes
import re

from .bus import wait_until
from .relay_peers import read_all, read_head
from .web import script

HOST = "origin.example"
_libc = ctypes.CDLL(None, use_errno=True)


def answers(client, web, answer):
    """Gives the daemon a script that returns `answer` for all URLs."""
    web.routes["/proxy.pac"] = script(answer)
    client.update("pacurl", pacurl=web.url("/proxy.pac"))
    entries = [entry.strip() for entry in answer.split(";")]
    wait_until(lambda: list(client.urls(f"http://{HOST}/"))[1:] == entries, f"{entries}")


def get(relay, url, fields="", method="GET", body=b""):
    """Sends one request in absolute form. Returns the status and the rest of the answer."""
    with relay.connect() as connection:
        connection.sendall(f"{method} {url} HTTP/1.1\r\nHost: x\r\nConnection: close\r\n{fields}\r\n"
                           .encode() + body)
        answer = read_all(connection)
    return int(answer[9:12]), answer


@contextlib.contextmanager
def tunnel(relay, authority):
    """Sends a CONNECT. Returns the status and the connection."""
    with relay.connect() as connection:
        connection.sendall(f"CONNECT {authority} HTTP/1.1\r\nHost: {authority}\r\n\r\n".encode())
        head = read_head(connection)
        yield int(head[9:12]), connection


def through_tunnel(relay, port):
    with tunnel(relay, f"{HOST}:{port}") as (code, connection):
        if code != 200:
            return code, read_all(connection)
        connection.sendall(b"GET / HTTP/1.1\r\nHost: inside\r\n\r\n")
        return code, read_head(connection)


@contextlib.contextmanager
def as_user(user):
    """Inside the block, sockets that this thread makes belong to the user."""
    _libc.setfsuid(user)
    try:
        yield
    finally:
        _libc.setfsuid(0)


def page(relay, path="/status.json"):
    """The body of one of the relay's own pages."""
    with relay.connect() as connection:
        connection.sendall(f"GET {path} HTTP/1.0\r\nHost: localhost\r\n\r\n".encode())
        return read_all(connection).partition(b"\r\n\r\n")[2].decode()


def metric(relay, name):
    text = page(relay, "/metrics")
    return int(re.search(rf"^proxymanager_relay_{name} (\d+)$", text, re.MULTILINE)[1])
