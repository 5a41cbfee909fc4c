"""Requests to the relay, and what the daemon answers for them."""

import contextlib

from .bus import wait_until
from .relay_peers import read_all, read_head
from .web import script

HOST = "origin.example"


def answers(client, web, answer):
    """The daemon has a script that gives `answer` for all."""
    web.routes["/proxy.pac"] = script(answer)
    client.update("pacurl", pacurl=web.url("/proxy.pac"))
    entries = [entry.strip() for entry in answer.split(";")]
    wait_until(lambda: list(client.urls(f"http://{HOST}/"))[1:] == entries, f"{entries}")


def get(relay, url, fields="", method="GET", body=b""):
    """One request in absolute form: status and the rest of the answer."""
    with relay.connect() as connection:
        connection.sendall(f"{method} {url} HTTP/1.1\r\nHost: x\r\nConnection: close\r\n{fields}\r\n"
                           .encode() + body)
        answer = read_all(connection)
    return int(answer[9:12]), answer


@contextlib.contextmanager
def tunnel(relay, authority):
    """The status of a CONNECT, and the connection."""
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
