"""proxymanager-relay with a real daemon: requests of each kind, in each mode, and failing proxies."""

import contextlib
import socket
import struct

import pytest

from support import own_network as network
from support.bus import wait_until
from support.relay import Relay
from support.relay_peers import (Origin, Proxy, Server, SocksProxy, read_all, read_exactly, read_head,
                                 status)
from support.syslog_socket import INFO, WARNING
from support.web import script

HOST = "origin.example"


@pytest.fixture
def origin(own_network):
    network.hosts(HOST)
    with contextlib.closing(Origin()) as origin:
        yield origin


@pytest.fixture
def relay(build, own_network, syslog):
    relay = Relay(build)
    yield relay
    relay.stop()


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


def test_without_a_daemon_requests_go_directly_and_that_is_logged_once(relay, origin, bus, syslog):
    relay.start()
    for _ in range(2):
        assert get(relay, f"http://{HOST}:{origin.port}/a?b")[0] == 200
    assert origin.heads[0].startswith(b"GET /a?b HTTP/1.1\r\nHost: origin.example:")
    assert through_tunnel(relay, origin.port)[0] == 200
    syslog.wait_match(WARNING, "relay: no answer of the daemon: .*; requests go directly")
    assert sum("no answer of the daemon" in text for text in syslog.texts()) == 1


def test_without_a_daemon_requests_are_refused_if_the_configuration_says_so(relay, origin, bus):
    relay.configure('when-no-answer = "refuse"\n')
    relay.start()
    assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 503
    assert through_tunnel(relay, origin.port)[0] == 503
    assert origin.heads == []


def test_http_urls_go_to_an_http_proxy_whole_and_the_rest_by_connect(
        relay, origin, daemon, client, web, syslog):
    relay.configure("log-requests = true\n")
    with contextlib.closing(Proxy()) as proxy:
        answers(client, web, proxy.entry)
        relay.start()
        code, answer = get(relay, f"http://{HOST}:{origin.port}/path", "X-Mine: yes\r\n"
                           "Proxy-Authorization: Basic dDp0\r\nKeep-Alive: 1\r\nTE: gzip\r\n")
        assert code == 200 and b"X-Mine: yes" in answer
        head = proxy.heads[0]
        assert head.startswith(f"GET http://{HOST}:{origin.port}/path HTTP/1.1\r\n".encode())
        for gone in (b"Proxy-Authorization", b"Keep-Alive", b"TE:", b"Host: x"):
            assert gone not in head
        assert b"Via: 1.1 proxymanager-relay-" in head
        assert through_tunnel(relay, origin.port)[0] == 200
        assert proxy.heads[1].startswith(f"CONNECT {HOST}:{origin.port} HTTP/1.1\r\n".encode())
        syslog.wait(INFO, f"relay: request to {HOST}:{origin.port} by {proxy.entry.replace('PROXY ', 'http://')}")
        syslog.wait(INFO, f"relay: tunnel to {HOST}:{origin.port} by {proxy.entry.replace('PROXY ', 'http://')}")
        assert not any("/path" in text for text in syslog.texts() if text.startswith("relay:"))


def test_socks_clients_of_both_versions_are_served_on_the_same_port(relay, origin, bus):
    relay.start()
    name = HOST.encode()
    port = struct.pack("!H", origin.port)
    with relay.connect() as connection:
        connection.sendall(b"\x05\x01\x00")
        assert read_exactly(connection, 2) == b"\x05\x00"
        connection.sendall(b"\x05\x01\x00\x03" + bytes((len(name),)) + name + port)
        assert read_exactly(connection, 10)[:2] == b"\x05\x00"
        connection.sendall(b"GET /five HTTP/1.1\r\n\r\n")
        assert read_head(connection)
    with relay.connect() as connection:
        connection.sendall(b"\x04\x01" + port + b"\0\0\0\1user\0" + name + b"\0")
        assert read_exactly(connection, 8)[:2] == b"\0\x5a"
        connection.sendall(b"GET /four HTTP/1.1\r\n\r\n")
        assert read_head(connection)
    assert [head.split()[1] for head in origin.heads] == [b"/five", b"/four"]


def test_a_script_s_socks_is_version_5_with_the_name_and_version_4a_where_that_is_refused(
        relay, origin, daemon, client, web):
    relay.start()
    for versions, used in (((4, 5), 5), ((4,), 4)):
        with contextlib.closing(SocksProxy(versions)) as proxy:
            answers(client, web, f"SOCKS 127.0.0.1:{proxy.port}")
            wait_until(lambda: get(relay, f"http://{HOST}:{origin.port}/")[0] == 200
                       and proxy.names, "the new answer")
            assert proxy.names[-1] == (used, HOST, origin.port)
            assert through_tunnel(relay, origin.port)[0] == 200


@pytest.mark.slow
def test_a_failed_proxy_at_each_position_is_passed_over_and_the_next_request_does_not_pay_again(
        relay, origin, daemon, client, web):
    relay.configure('connect-time = "2s"\n')
    relay.start()
    for make in (None, lambda: Proxy("silent", ""), lambda: Proxy("", ""),
                 lambda: Proxy("reset", "reset"), lambda: Proxy("220 smtp\r\n\r\n", "220 smtp\r\n\r\n")):
        for position in (0, 1):
            with contextlib.ExitStack() as stack:
                good = stack.enter_context(contextlib.closing(Proxy()))
                with socket.create_server(("127.0.0.1", 0)) as free:
                    dead_port = free.getsockname()[1]
                bad = stack.enter_context(contextlib.closing(make())) if make else None
                bad_entry = bad.entry if bad else f"PROXY 127.0.0.1:{dead_port}"
                with socket.create_server(("127.0.0.1", 0)) as free:
                    other_dead = f"PROXY 127.0.0.1:{free.getsockname()[1]}"
                entries = [other_dead] * position + [bad_entry, good.entry]
                answers(client, web, "; ".join(entries))
                assert through_tunnel(relay, origin.port)[0] == 200
                assert len(good.heads) == 1
                tried = bad.connections if bad else 0
                assert through_tunnel(relay, origin.port)[0] == 200
                assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 200
                assert len(good.heads) == 3
                assert (bad.connections if bad else 0) == tried, "a proxy in penalty was tried first"


def test_a_proxy_that_breaks_a_request_in_absolute_form_is_passed_over(
        relay, origin, daemon, client, web):
    relay.start()
    for bad_answer in ("", "reset", "rubbish\r\n\r\n"):
        with contextlib.closing(Proxy(get=bad_answer)) as bad, contextlib.closing(Proxy()) as good:
            answers(client, web, f"{bad.entry}; {good.entry}")
            assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 200
            assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 200
            assert (len(bad.heads), len(good.heads)) == (1, 2)


def test_a_dead_destination_costs_one_request_another_attempt_and_no_proxy_a_penalty(
        relay, origin, daemon, client, web):
    with contextlib.closing(Proxy()) as first, contextlib.closing(Proxy()) as second, \
            socket.create_server(("127.0.0.1", 0)) as free:
        dead = free.getsockname()[1]
        free.close()
        answers(client, web, f"{first.entry}; {second.entry}")
        relay.start()
        code, answer = through_tunnel(relay, dead)
        assert code == 502 and answer.count(b"response 503") == 2
        assert (len(first.heads), len(second.heads)) == (1, 1)
        assert through_tunnel(relay, origin.port)[0] == 200
        assert (len(first.heads), len(second.heads)) == (2, 1)


def test_a_socks_reply_about_the_host_is_no_fault_of_the_proxy(relay, origin, daemon, client, web):
    with contextlib.closing(SocksProxy(reply=4)) as first, contextlib.closing(Proxy()) as second:
        answers(client, web, f"SOCKS 127.0.0.1:{first.port}; {second.entry}")
        relay.start()
        for tries in (1, 2):
            assert through_tunnel(relay, origin.port)[0] == 200
            assert (len(first.names), len(second.heads)) == (tries, tries)


def test_a_proxy_that_wants_a_password_is_passed_over_without_a_penalty_and_a_403_is_the_answer(
        relay, origin, daemon, client, web):
    wants = status(407, "Auth", "Proxy-Authenticate: Basic realm=x\r\n")
    with contextlib.closing(Proxy(wants, wants)) as first, contextlib.closing(Proxy()) as second, \
            contextlib.closing(Proxy(status(403))) as third:
        answers(client, web, f"{first.entry}; {second.entry}")
        relay.start()
        for tries in (1, 3):
            assert through_tunnel(relay, origin.port)[0] == 200
            assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 200
            assert (len(first.heads), len(second.heads)) == (tries + 1, tries + 1)
        answers(client, web, f"{third.entry}; {second.entry}")
        assert through_tunnel(relay, origin.port)[0] == 403


def test_when_all_fail_the_answer_has_a_line_for_each_and_the_log_has_one(
        relay, origin, daemon, client, web, syslog):
    with socket.create_server(("127.0.0.1", 0)) as free:
        dead = free.getsockname()[1]
    answers(client, web, f"PROXY 127.0.0.1:{dead}; SOCKS 127.0.0.1:{dead}")
    relay.start()
    code, answer = get(relay, f"http://{HOST}:{origin.port}/secret?token")
    assert code == 502
    assert answer.count(f"127.0.0.1:{dead}: ".encode()) == 2
    line = syslog.wait_match(WARNING, rf"relay: no way to {HOST}:{origin.port}: .*;.*")
    assert "secret" not in line.text and "token" not in line.text


def test_an_answer_that_names_the_relay_and_a_request_that_came_through_it_are_loops(
        relay, origin, daemon, client, web):
    network.hosts(HOST, "me.example")
    answers(client, web, "PROXY me.example:3128")
    relay.start()
    assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 508
    assert through_tunnel(relay, origin.port)[0] == 508
    answers(client, web, "DIRECT")
    _, answer = get(relay, f"http://{HOST}:{origin.port}/")
    via = next(line for line in answer.split(b"\r\n") if line.startswith(b"Via: 1.1 proxymanager"))
    assert get(relay, f"http://{HOST}:{origin.port}/", via.decode() + "\r\n")[0] == 508


def test_a_request_whose_body_has_begun_to_leave_is_not_repeated(relay, origin, daemon, client, web):
    with contextlib.closing(Proxy(get="")) as bad, contextlib.closing(Proxy()) as good:
        answers(client, web, f"{bad.entry}; {good.entry}")
        relay.start()
        code, _ = get(relay, f"http://{HOST}:{origin.port}/", "Content-Length: 3\r\n", "PUT", b"abc")
        assert code == 502 and not good.heads


def test_bodies_pass_in_both_framings_and_a_kept_connection_serves_the_next_request(
        relay, origin, bus):
    relay.start()
    url = f"http://{HOST}:{origin.port}/"
    with relay.connect() as connection:
        for fields, body in (("Content-Length: 5\r\n", b"hello"),
                             ("Transfer-Encoding: chunked\r\n",
                              b"3;x=y\r\nabc\r\n2\r\nde\r\n0\r\nX-Trailer: t\r\n\r\n"),
                             ("Content-Length: 0\r\n", b"")):
            connection.sendall(f"POST {url} HTTP/1.1\r\nHost: x\r\n{fields}\r\n".encode() + body)
            head = read_head(connection)
            assert head.startswith(b"HTTP/1.1 200 ")
            length = int(head.split(b"Content-Length: ")[1].split(b"\r\n")[0])
            echoed = read_exactly(connection, length)
            wanted = body.replace(b";x=y", b"")
            assert echoed.endswith(b"\r\n\r\n" + wanted), echoed


def test_requests_that_were_sent_ahead_are_answered_in_order(relay, origin, bus):
    relay.start()
    url = f"http://{HOST}:{origin.port}"
    with relay.connect() as connection:
        connection.sendall(b"".join(f"GET {url}/{number} HTTP/1.1\r\nHost: x\r\n\r\n".encode()
                                    for number in range(20)))
        for number in range(20):
            head = read_head(connection)
            length = int(head.split(b"Content-Length: ")[1].split(b"\r\n")[0])
            assert f"GET /{number} ".encode() in read_exactly(connection, length)


def test_an_upload_gets_its_100_and_a_refusal_before_its_end(relay, own_network, bus):
    def handle(connection):
        head = read_head(connection)
        if b"/refuse" in head:
            connection.sendall(status(413, "Too Large", "Connection: close\r\n").encode())
            return
        connection.sendall(b"HTTP/1.1 100 Continue\r\n\r\n")
        assert read_exactly(connection, 4) == b"body"
        connection.sendall(status(201, "Made").encode())

    network.hosts(HOST)
    relay.start()
    with contextlib.closing(Server(handle)) as server, relay.connect() as connection:
        fields = "Host: x\r\nContent-Length: 4\r\nExpect: 100-continue\r\n\r\n"
        connection.sendall(f"PUT http://{HOST}:{server.port}/ HTTP/1.1\r\n{fields}".encode())
        assert read_head(connection).startswith(b"HTTP/1.1 100 ")
        connection.sendall(b"body")
        assert read_head(connection).startswith(b"HTTP/1.1 201 ")
        connection.sendall(f"PUT http://{HOST}:{server.port}/refuse HTTP/1.1\r\n{fields}".encode())
        assert read_head(connection).startswith(b"HTTP/1.1 413 ")


def test_an_upgrade_becomes_a_tunnel(relay, own_network, bus):
    def handle(connection):
        head = read_head(connection)
        assert b"Upgrade: websocket" in head and b"Connection: Upgrade" in head
        connection.sendall(b"HTTP/1.1 101 Switching\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                           b"\r\nfirst")
        connection.sendall(read_exactly(connection, 4))

    network.hosts(HOST)
    relay.start()
    with contextlib.closing(Server(handle)) as server, relay.connect() as connection:
        connection.sendall(f"GET http://{HOST}:{server.port}/ HTTP/1.1\r\nHost: x\r\n"
                           "Upgrade: websocket\r\nConnection: Upgrade\r\n\r\n".encode())
        assert read_head(connection).startswith(b"HTTP/1.1 101 ")
        connection.sendall(b"ping")
        assert read_all(connection) == b"firstping"


def test_a_daemon_that_is_killed_and_a_changed_configuration_leave_open_connections_alone(
        relay, origin, daemon, client, web):
    with contextlib.closing(Proxy()) as proxy:
        answers(client, web, proxy.entry)
        relay.start()
        with tunnel(relay, f"{HOST}:{origin.port}") as (code, connection):
            assert code == 200
            client.update("off")
            wait_until(lambda: get(relay, f"http://{HOST}:{origin.port}/")[0] == 200
                       and len(proxy.heads) == 1, "requests go directly")
            daemon.kill()
            connection.sendall(b"GET / HTTP/1.1\r\nHost: inside\r\n\r\n")
            assert read_head(connection).startswith(b"HTTP/1.1 200 ")
        assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 200


def wants_basic(fields=""):
    """A proxy's answer to a head: 407 without the password "me:pa:ss"."""
    def answer(head):
        if b"Proxy-Authorization: Basic bWU6cGE6c3M=" in head:
            return None
        return status(407, "Auth", 'Proxy-Authenticate: Basic realm="x"\r\n' + fields)
    return answer


def test_a_manual_proxy_gets_its_password_by_basic_for_connect(relay, origin, daemon, client):
    relay.start()
    for fields in ("", "Connection: close\r\n"):
        wants = wants_basic(fields)
        with contextlib.closing(Proxy(wants, wants)) as proxy:
            client.update("manual", proxyurl=f"http://127.0.0.1:{proxy.port}", auth=True, user="me",
                          password="pa:ss")
            wait_until(lambda: through_tunnel(relay, origin.port)[0] == 200 and proxy.heads,
                       "a tunnel with the password")
