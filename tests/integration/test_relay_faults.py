"""Tests that a failure affects only the request, the user or the destination that causes it."""

import contextlib
import json
import os
import re
import select
import signal
import socket
import ssl
import subprocess
import threading

import pytest

from support import own_network as network
from support.bus import LIMIT, wait_until
from support.relay_peers import (DeadProxy, Proxy, Server, SocksProxy, read_all, read_exactly,
                                 read_head, reset, status)
from support.relay_requests import (HOST, answers, as_user, get, metric, page, through_tunnel,
                                    tunnel)
from support.syslog_socket import INFO

PROXY_HOST = "proxy.example"
LOOKUPS_OF_USER = 48


def penalties(relay):
    return json.loads(page(relay))["penalties"]


def asked(connection, request):
    """The head of an answer, with its body."""
    connection.sendall(request)
    head = read_head(connection)
    length = re.search(rb"(?i)content-length: (\d+)", head)
    return head + read_exactly(connection, int(length[1]) if length else 0)


# --- Proxies that do not answer ---

def fails_for(word, answer):
    return lambda head: answer if word in head.split(b"\r\n")[0] else None


@pytest.mark.parametrize("answer", ["silent", "", "reset"])
def test_a_proxy_that_answers_nothing_for_one_destination_stays_first_for_others(
        relay, origin, daemon, client, web, answer):
    network.hosts(HOST, "dead.example", "dead2.example")
    relay.configure('connect-time = "1s"\n')
    fails = fails_for(b"dead", answer)
    with contextlib.closing(Proxy(fails, fails)) as first, contextlib.closing(Proxy()) as second:
        answers(client, web, f"{first.entry}; {second.entry}")
        relay.start()

        def ask(host):
            if answer == "silent":
                with tunnel(relay, f"{host}:{origin.port}") as (code, _):
                    return code
            return get(relay, f"http://{host}:{origin.port}/")[0]

        assert ask("dead.example") == 200 and len(second.heads) == 1
        assert penalties(relay) == []
        assert ask(HOST) == 200 and (len(first.heads), len(second.heads)) == (2, 1)
        # The next request for the same destination does not wait again.
        assert ask("dead.example") == 200 and (len(first.heads), len(second.heads)) == (2, 2)
        # Between its failures, the proxy has answered for another destination, so it gets no
        # penalty.
        assert ask("dead2.example") == 200 and penalties(relay) == []


def test_a_proxy_that_answers_nothing_for_two_destinations_gets_a_penalty(
        relay, origin, daemon, client, web):
    network.hosts(HOST, "other.example")
    with contextlib.closing(Proxy("", "")) as first, contextlib.closing(Proxy()) as second:
        answers(client, web, f"{first.entry}; {second.entry}")
        relay.start()
        assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 200 and penalties(relay) == []
        assert get(relay, f"http://other.example:{origin.port}/")[0] == 200
        assert [one["entry"] for one in penalties(relay)] == [f"http://127.0.0.1:{first.port}"]
        before = first.connections
        assert through_tunnel(relay, origin.port)[0] == 200 and first.connections == before


def test_an_answer_that_the_relay_refuses_is_a_502_of_its_own_and_no_fault_of_the_proxy(
        relay, origin, daemon, client, web):
    many = "HTTP/1.1 200 OK\r\n" + "".join(f"X-{n}: y\r\n" for n in range(210)) + "\r\n"
    with contextlib.closing(Proxy(get=many)) as first, contextlib.closing(Proxy()) as second:
        answers(client, web, f"{first.entry}; {second.entry}")
        relay.start()
        code, answer = get(relay, f"http://{HOST}:{origin.port}/")
        assert code == 502 and b"the relay refused the answer: " in answer
        assert penalties(relay) == [] and not second.heads


@pytest.mark.parametrize("position", [0, 1])
def test_a_dead_and_a_silent_proxy_are_passed_over_and_the_next_request_does_not_pay_again(
        relay, origin, daemon, client, web, position):
    relay.configure('connect-time = "1s"\n')
    with contextlib.closing(Proxy("silent", "silent")) as silent, \
            contextlib.closing(Proxy()) as good, contextlib.closing(DeadProxy()) as dead:
        bad = [dead.entry, silent.entry] if position else [silent.entry, dead.entry]
        answers(client, web, "; ".join([*bad, good.entry]))
        relay.start()
        assert through_tunnel(relay, origin.port)[0] == 200
        tried = silent.connections
        assert through_tunnel(relay, origin.port)[0] == 200
        assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 200
        assert len(good.heads) == 3 and silent.connections == tried == 1


# --- Servers that refuse a body ---

EARLY = b"HTTP/1.1 413 Large\r\nContent-Length: 4\r\n\r\nlate"


@pytest.mark.parametrize("early, code", [(b"", 502), (EARLY, 413)], ids=["silence", "413"])
def test_a_server_that_ends_during_a_body_has_answered_or_failed(relay, bus, early, code):
    def handle(connection):
        read_head(connection)
        read_exactly(connection, 1 << 17)
        connection.sendall(early)
        reset(connection)

    def upload(connection):
        with contextlib.suppress(OSError):
            connection.sendall(bytes(1 << 24))

    network.hosts(HOST)
    with contextlib.closing(Server(handle)) as server:
        relay.start()
        with relay.connect() as connection:
            connection.sendall(f"PUT http://{HOST}:{server.port}/ HTTP/1.1\r\nHost: x\r\n"
                               f"Content-Length: {1 << 24}\r\n\r\n".encode())
            sending = threading.Thread(target=upload, args=(connection,))
            sending.start()
            answer = read_all(connection)
            sending.join(LIMIT)
    assert answer.startswith(b"HTTP/1.1 %d " % code) and answer.endswith(early[-4:])


# --- HTTPS proxies ---

@pytest.fixture
def tls(own_network):
    """The TLS context of a server with a certificate for PROXY_HOST, which programs trust in this
    test's /etc."""
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:prime256v1", "-nodes", "-days", "30", "-subj",
                    f"/CN={PROXY_HOST}", "-addext", f"subjectAltName=DNS:{PROXY_HOST}", "-keyout",
                    "/run/proxy.key", "-out", "/run/proxy.pem"], check=True, capture_output=True)
    with open("/run/proxy.pem") as made, open("/etc/ssl/certs/ca-certificates.crt", "a") as trusted:
        trusted.write(made.read())
    network.hosts(HOST, PROXY_HOST)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain("/run/proxy.pem", "/run/proxy.key")
    return context


def send_until_it_stands_still(connection, data):
    """Returns the part of `data` that was not sent. If the machine pauses, the function may end early,
    but the tests still pass."""
    connection.setblocking(False)
    while data and select.select([], [connection], [], 0.5)[1]:
        data = data[connection.send(data):]
    connection.settimeout(LIMIT)
    return data


@pytest.mark.parametrize("request_line", ["CONNECT {}:443", "PUT http://{}/"])
def test_an_upload_over_an_https_proxy_that_reads_slowly_arrives(
        relay, tls, daemon, client, request_line):
    body = os.urandom(1 << 20) * 24
    goes_on, got = threading.Event(), []

    def handle(raw):
        with tls.wrap_socket(raw, server_side=True) as connection:
            is_connect = read_head(connection).startswith(b"CONNECT")
            if is_connect:
                connection.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
            assert goes_on.wait(LIMIT)
            taken = bytearray()
            while len(taken) < len(body) and (piece := connection.recv(1 << 16)):
                taken += piece
            got.append(taken == body)
            connection.sendall(b"taken" if is_connect else status(201, "Made").encode())

    with contextlib.closing(Server(handle)) as proxy:
        client.update("manual", f"https://{PROXY_HOST}:{proxy.port}")
        wait_until(lambda: "https" in str(list(client.urls(f"http://{HOST}/"))), "the manual proxy")
        relay.start()
        with relay.connect() as connection:
            connection.sendall(f"{request_line.format(HOST)} HTTP/1.1\r\nHost: x\r\n".encode())
            if request_line.startswith("CONNECT"):
                connection.sendall(b"\r\n")
                assert read_head(connection).startswith(b"HTTP/1.1 200 ")
            else:
                connection.sendall(f"Content-Length: {len(body)}\r\n\r\n".encode())
            rest = send_until_it_stands_still(connection, body)
            assert rest, "all bytes were taken at once"
            goes_on.set()
            connection.sendall(rest)
            assert read_exactly(connection, 5) in (b"taken", b"HTTP/")
    assert got == [True]


# --- Names ---

@contextlib.contextmanager
def silent_name_server():
    """Inside the block, a lookup takes longer than the whole test may take."""
    with open("/etc/resolv.conf", "w") as file:
        file.write("nameserver 127.0.0.1\noptions timeout:30 attempts:5\n")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        silent.bind(("127.0.0.1", 53))
        silent.settimeout(LIMIT)
        yield silent


@pytest.mark.parametrize("proxy_url, password", [("http://slow.example:8080", True),
                                                 ("https://slow.example:8080", False),
                                                 ("socks5://127.0.0.1:{}", False)])
def test_a_slow_name_of_a_proxy_or_for_a_socks_proxy_stops_nobody_else(
        relay, origin, daemon, client, proxy_url, password):
    relay.configure('connect-time = "1s"\n')
    with silent_name_server() as silent, contextlib.closing(SocksProxy()) as socks:
        client.update("manual", proxy_url.format(socks.port), auth=password, user="u", password="p")
        wait_until(lambda: "//" in str(list(client.urls(f"http://{HOST}/"))), "the manual proxy")
        relay.start()
        with tunnel(relay, "slow.example:443") as (code, _):
            assert code == 502
        assert silent.recv(512), "the name was looked up"
        assert page(relay, "/style.css")


def test_a_proxy_with_local_lookups_gets_an_address(relay, origin, daemon, client):
    with contextlib.closing(SocksProxy()) as socks:
        relay.start()
        for scheme in ("socks5", "socks4"):
            client.update("manual", f"{scheme}://127.0.0.1:{socks.port}")
            wait_until(lambda: scheme + ":" in str(list(client.urls(f"http://{HOST}/"))), scheme)
            assert through_tunnel(relay, origin.port)[0] == 200
            assert socks.names[-1] == (int(scheme[-1]), "127.0.0.1", origin.port)


def test_one_user_with_many_slow_names_stops_no_lookup_of_another(
        relay, origin, daemon, client, web):
    network.hosts(HOST, PROXY_HOST)
    with silent_name_server() as silent, contextlib.closing(Proxy()) as proxy, \
            contextlib.ExitStack() as stack:
        web.routes["/proxy.pac"] = (
            'function FindProxyForURL(url, host) { return host.indexOf("slow") == 0 ? "DIRECT" : '
            f'"PROXY {PROXY_HOST}:{proxy.port}"; }}')
        client.update("pacurl", pacurl=web.url("/proxy.pac"))
        wait_until(lambda: PROXY_HOST in str(list(client.urls(f"http://{HOST}/"))), "the script")
        relay.configure('connect-time = "1h"\n')
        relay.start()
        for number in range(100):
            with as_user(1001):
                connection = stack.enter_context(relay.connect())
            connection.sendall(f"CONNECT slow{number}.example:443 HTTP/1.1\r\nHost: x\r\n\r\n".encode())
        for _ in range(LOOKUPS_OF_USER):
            assert silent.recv(512)
        with as_user(1002):
            assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 200
        assert len(proxy.heads) == 1 and penalties(relay) == []


def test_a_lookup_that_had_no_turn_is_no_fault_of_the_proxy(relay, origin, daemon, client, web):
    network.hosts(HOST, PROXY_HOST)
    relay.configure('connect-time = "2s"\n')
    with silent_name_server() as silent, contextlib.ExitStack() as stack:
        web.routes["/proxy.pac"] = (
            'function FindProxyForURL(url, host) { return host.indexOf("slow") == 0 ? "DIRECT" : '
            f'"PROXY {PROXY_HOST}:9; DIRECT"; }}')
        client.update("pacurl", pacurl=web.url("/proxy.pac"))
        wait_until(lambda: PROXY_HOST in str(list(client.urls(f"http://{HOST}/"))), "the script")
        relay.start()
        for number in range(LOOKUPS_OF_USER):
            connection = stack.enter_context(relay.connect())
            connection.sendall(f"CONNECT slow{number}.example:443 HTTP/1.1\r\nHost: x\r\n\r\n".encode())
        for _ in range(LOOKUPS_OF_USER):
            assert silent.recv(512)
        code, answer = get(relay, f"http://{HOST}:{origin.port}/")
        assert code == 502 and answer.count(b"too many lookups") == 2, answer
        assert penalties(relay) == []


# --- Clients that send much ---

def test_many_requests_that_were_sent_ahead_delay_no_other_connection(relay, own_network, bus):
    """Both connections have waiting requests when the relay continues. The last of the many
    requests is malformed, so a counter shows when it was served."""
    many = b"GET /none HTTP/1.1\r\nHost: localhost\r\n\r\n" * 300 + b"broken\r\n\r\n"
    relay.start()
    with relay.connect() as busy, relay.connect() as other:
        for connection in (busy, other):
            asked(connection, b"GET /none HTTP/1.1\r\nHost: localhost\r\n\r\n")
        relay.process.send_signal(signal.SIGSTOP)
        wait_until(lambda: is_stopped(relay.process.pid), "the relay has stopped")
        busy.sendall(many)
        other.sendall(b"GET /metrics HTTP/1.1\r\nHost: localhost\r\n\r\n")
        relay.process.send_signal(signal.SIGCONT)
        answer = asked(other, b"")
        assert b"proxymanager_relay_malformed_total 0\n" in answer, answer
        wait_until(lambda: metric(relay, "malformed_total") == 1, "all were served")


def is_stopped(pid):
    with open(f"/proc/{pid}/status") as file:
        return re.search(r"^State:\s+T", file.read(), re.M)


# --- Clients that have gone ---

def test_a_client_that_has_gone_gives_its_place_back_and_one_that_only_sends_no_more_does_not(
        relay, own_network, bus):
    network.hosts(HOST)
    relay.configure("max-connections-of-user = 5\n")
    goes_on = threading.Event()

    def handle(connection):
        if b"/half" in read_head(connection):
            assert goes_on.wait(LIMIT)
            connection.sendall(status(200, "OK").encode())
        read_all(connection)

    relay.start()
    with contextlib.closing(Server(handle)) as server, relay.connect() as half:
        begin = f"GET http://{HOST}:{server.port}"
        half.sendall(f"{begin}/half HTTP/1.1\r\nHost: x\r\n\r\n".encode())
        half.shutdown(socket.SHUT_WR)
        with contextlib.ExitStack() as stack:
            for _ in range(5):
                with as_user(1001):
                    gone = stack.enter_context(relay.connect())
                gone.sendall(f"{begin}/gone HTTP/1.1\r\nHost: x\r\n\r\n".encode())
            wait_until(lambda: metric(relay, "open_connections") == 7, "all are there")
        wait_until(lambda: metric(relay, "open_connections") == 2, "the places are free")
        goes_on.set()
        assert read_head(half).startswith(b"HTTP/1.1 200 ")


def test_a_client_that_has_gone_before_the_relay_accepts_it_has_no_request(relay, own_network, bus):
    network.hosts(HOST)
    heads = []
    relay.start()
    with contextlib.closing(Server(lambda connection: heads.append(read_head(connection)))) as server:
        relay.process.send_signal(signal.SIGSTOP)
        before = relay.connect()
        for _ in range(5):
            with relay.connect() as connection:
                connection.sendall(f"GET http://{HOST}:{server.port}/ HTTP/1.1\r\nHost: x\r\n\r\n"
                                   .encode())
        relay.process.send_signal(signal.SIGCONT)
        before.close()
        wait_until(lambda: metric(relay, "connections_total") >= 7, "all are accepted")
        wait_until(lambda: metric(relay, "open_connections") == 1, "none is open")
    assert heads == []


# --- Kept connections ---

@pytest.mark.parametrize("last", [b"", b"HTTP/1.1 408 Timeout\r\nContent-Length: 0\r\n\r\n"])
def test_a_kept_connection_that_the_server_has_ended_or_used_is_not_used_again(
        relay, own_network, bus, last):
    network.hosts(HOST)
    ended, seen = threading.Event(), []

    def handle(connection):
        head = read_head(connection)
        seen.append(head.split()[0] + read_exactly(connection, 3 if b"POST" in head else 0))
        connection.sendall(status(200, "OK").encode())
        if len(seen) == 1:
            connection.sendall(last)
            connection.shutdown(socket.SHUT_WR)
            ended.set()
        read_all(connection)

    relay.start()
    with contextlib.closing(Server(handle)) as server, relay.connect() as connection:
        end = f"http://{HOST}:{server.port}/ HTTP/1.1\r\nHost: x\r\n"
        assert b" 200 " in asked(connection, f"GET {end}\r\n".encode())
        assert ended.wait(LIMIT)
        answer = asked(connection, f"POST {end}Content-Length: 3\r\n\r\nabc".encode())
        assert answer.startswith(b"HTTP/1.1 200 "), answer
    assert seen == [b"GET", b"POSTabc"]


def test_the_second_request_of_a_kept_connection_is_shown_with_its_own_host(
        relay, origin, daemon, client, web, syslog):
    relay.configure("log-requests = true\n")
    network.hosts(HOST, "other.example")

    def closing(head):
        return status(200, "OK")

    with contextlib.closing(Proxy(get=closing)) as proxy:
        answers(client, web, proxy.entry)
        relay.start()
        with relay.connect() as connection:
            for host in (HOST, "other.example"):
                asked(connection, f"GET http://{host}/ HTTP/1.1\r\nHost: x\r\n\r\n".encode())
        assert proxy.connections == 1
        shown = [one["destination"] for one in json.loads(page(relay))["decisions"]]
        assert shown == ["other.example:80", f"{HOST}:80"]
        syslog.wait(INFO, f"relay: request to other.example:80 by http://127.0.0.1:{proxy.port}")


# --- Answers and requests that are not usual ---

def test_a_url_that_the_daemon_does_not_accept_takes_the_way_of_its_host(
        relay, origin, daemon, client, web):
    with contextlib.closing(Proxy()) as proxy:
        answers(client, web, proxy.entry)
        relay.start()
        with relay.connect() as connection:
            connection.sendall(b"GET http://%s:%d/caf\xe9 HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"
                               % (HOST.encode(), origin.port))
            assert read_all(connection).startswith(b"HTTP/1.1 200 ")
        assert [head.split()[1][-5:] for head in proxy.heads] == [b"/caf\xe9"]


def test_a_server_that_answers_before_it_is_asked_harms_no_other_request(relay, origin, bus):
    early = status(408, "Timeout", "Connection: close\r\n").encode()

    def handle(connection):
        connection.sendall(early)
        read_all(connection)

    relay.start()
    with contextlib.closing(Server(handle)) as server:
        for _ in range(20):
            with relay.connect() as connection:
                answer = asked(connection, f"POST http://{HOST}:{server.port}/ HTTP/1.1\r\nHost: x\r\n"
                               "Content-Length: 3\r\n\r\nabc".encode())
                assert answer.startswith(b"HTTP/1.1 408 ")
    assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 200


@pytest.mark.parametrize("length", ["", "Content-Length: 100\r\n"])
def test_an_answer_that_a_reset_cuts_off_does_not_look_whole(relay, own_network, bus, length):
    network.hosts(HOST)
    has_half = threading.Event()

    def handle(connection):
        read_head(connection)
        connection.sendall(f"HTTP/1.1 200 OK\r\n{length}\r\nhalf".encode())
        assert has_half.wait(LIMIT)
        reset(connection)

    relay.start()
    with contextlib.closing(Server(handle)) as server, relay.connect() as connection:
        connection.sendall(f"GET http://{HOST}:{server.port}/ HTTP/1.1\r\nHost: x\r\n\r\n".encode())
        assert read_head(connection).startswith(b"HTTP/1.1 200 ")
        assert read_exactly(connection, 4) == b"half"
        has_half.set()
        if length:
            assert connection.recv(1) == b""
        else:
            with pytest.raises(ConnectionResetError):
                connection.recv(1)


def test_connect_may_name_the_length_0_and_a_failing_head_has_no_body(relay, origin, bus):
    relay.start()
    with relay.connect() as connection:
        connection.sendall(f"CONNECT {HOST}:{origin.port} HTTP/1.1\r\nHost: x\r\n"
                           "Content-Length: 0\r\n\r\n".encode())
        assert read_head(connection).startswith(b"HTTP/1.1 200 ")
    code, answer = get(relay, "http://none.invalid/", method="HEAD")
    assert code == 502 and answer.endswith(b"\r\n\r\n") and b"Content-Length: 0" not in answer
