"""Tests proxymanager-relay with a real daemon: requests of each kind, in each mode, and failing
proxies."""

import contextlib
import itertools
import json
import re
import socket
import struct
import subprocess

import pytest

from support import own_network as network
from support.bus import LIMIT, Client, wait_until
from support.daemon import Daemon, make_watched_files
from support.relay import Relay
from support.relay_peers import (DeadProxy, Proxy, Server, SocksProxy, read_all, read_exactly,
                                 read_head, status)
from support.relay_requests import HOST, answers, get, through_tunnel, tunnel
from support.syslog_socket import INFO, WARNING
from support.systemd import Systemd


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
    # The arguments of Proxy are its answers to CONNECT and to GET. The GET must not reach the bad
    # proxy. If it does, even the silent proxy closes the connection, because the relay would wait
    # long for an answer to GET.
    kinds = (DeadProxy, lambda: Proxy("silent", ""), lambda: Proxy("", ""),
             lambda: Proxy("reset", "reset"), lambda: Proxy("220 smtp\r\n\r\n", "220 smtp\r\n\r\n"))
    # All proxies keep their ports until the end. Otherwise a good proxy could get the port of a
    # failed one, and the relay would try it last.
    with contextlib.ExitStack() as stack:
        for make, position in itertools.product(kinds, (0, 1)):
            good, bad, other = (stack.enter_context(contextlib.closing(one()))
                                for one in (Proxy, make, DeadProxy))
            answers(client, web, "; ".join([other.entry] * position + [bad.entry, good.entry]))
            assert through_tunnel(relay, origin.port)[0] == 200
            assert len(good.heads) == 1
            tried = bad.connections
            assert through_tunnel(relay, origin.port)[0] == 200
            assert bad.connections == tried, "a proxy in penalty was tried first"
            status, answer = get(relay, f"http://{HOST}:{origin.port}/")
            assert status == 200, answer
            assert len(good.heads) == 3
            assert bad.connections == tried, "a proxy in penalty was tried first"


def test_bytes_that_come_with_a_proxys_answer_to_connect_belong_to_the_tunnel(
        relay, origin, daemon, client, web):
    early = "HTTP/1.1 103 Hints\r\n\r\nHTTP/1.0 200 OK\nX: y\n\nfirst"
    with contextlib.closing(Proxy(early)) as proxy:
        answers(client, web, proxy.entry)
        relay.start()
        with tunnel(relay, f"{HOST}:{origin.port}") as (code, connection):
            assert code == 200
            assert read_exactly(connection, 5) == b"first"


def test_a_proxy_that_breaks_a_request_in_absolute_form_is_passed_over(
        relay, origin, daemon, client, web):
    relay.start()
    with contextlib.ExitStack() as stack:  # all proxies keep their ports until the end
        for bad_answer in ("", "reset", "rubbish\r\n\r\n"):
            bad = stack.enter_context(contextlib.closing(Proxy(get=bad_answer)))
            good = stack.enter_context(contextlib.closing(Proxy()))
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


def test_an_http_proxy_gets_the_password_by_basic_and_digest_for_absolute_form(
        relay, origin, daemon, client):
    relay.start()
    digest = 'Digest realm="x", nonce="n1", qop="auth", algorithm=SHA-256'

    def wants_digest(head):
        if b'Proxy-Authorization: Digest username="me"' in head and b"qop=auth, nc=0000000" in head:
            return None
        return status(407, "Auth", f"Proxy-Authenticate: {digest}\r\n")

    for wants in (wants_basic(), wants_digest):
        with contextlib.closing(Proxy(get=wants)) as proxy:
            client.update("manual", proxyurl=f"http://127.0.0.1:{proxy.port}", auth=True, user="me",
                          password="pa:ss")
            wait_until(lambda: get(relay, f"http://{HOST}:{origin.port}/")[0] == 200 and proxy.heads,
                       "a request with the password")
            before = len(proxy.heads)
            assert get(relay, f"http://{HOST}:{origin.port}/again")[0] == 200
            assert len(proxy.heads) == before + 1, "the password goes with the first attempt now"


def test_a_script_does_not_get_the_password_and_a_listed_host_does(
        relay, origin, daemon, client, web):
    secret = "/run/relay.credentials"
    with open(secret, "w") as file:
        file.write('["127.0.0.1"]\nuser = "me"\npassword = "pa:ss"\n')
    for hosts, code in (("", 502), ('credentials-hosts = ["127.0.0.1"]\n', 200)):
        wants = wants_basic()
        with contextlib.closing(Proxy(wants, wants)) as proxy:
            answers(client, web, proxy.entry)
            relay.configure(f'credentials-file = "{secret}"\n{hosts}')
            relay.start()
            assert through_tunnel(relay, origin.port)[0] == code
            assert get(relay, f"http://{HOST}:{origin.port}/")[0] == code
            assert any(b"Authorization" in head for head in proxy.heads) == (code == 200)
            relay.stop()


def test_pages_are_for_this_machine_s_own_users(relay, origin, daemon, client):
    client.update("manual", proxyurl="http://192.0.2.1:3128")
    relay.start()

    def page(path, host="127.0.0.1:3128", fields="", method="GET"):
        with relay.connect() as connection:
            connection.sendall(f"{method} {path} HTTP/1.1\r\nHost: {host}\r\nConnection: close\r\n"
                               f"{fields}\r\n".encode())
            answer = read_all(connection).decode()
        return int(answer[9:12]), answer

    code, html = page("/?url=http%3A%2F%2Fwww.example.org%2F")
    assert code == 200 and "<li>http://192.0.2.1:3128</li>" in html and "manual" in html
    assert "default-src 'none'" in html and "<script" not in html
    assert page("/status.json")[1].count('"mode": "manual"') == 1
    assert page("/metrics")[1].endswith("# EOF\n")
    assert 'return "PROXY localhost:3128";' in page("/proxy.pac", "localhost:3128")[1]
    assert page("/style.css")[0] == 200
    assert page("/none")[0] == 404
    assert page("/", method="POST", fields="Content-Length: 0\r\n")[0] == 405
    for host in ("evil.example", "192.0.2.1:3128", "0.0.0.0:3128", "localhost.evil.example"):
        assert page("/", host)[0] == 421, host
    for field in ("Origin: http://evil.example", "Sec-Fetch-Site: cross-site",
                  "Sec-Fetch-Site: same-site", "Origin: null"):
        assert page("/", fields=field + "\r\n")[0] == 403, field
    assert page("/", fields="Sec-Fetch-Site: same-origin\r\n")[0] == 200


def test_the_page_shows_where_the_script_is_from_and_its_age(
        build, relay, bus, syslog, own_network, web):
    """The age comes from systemd, because the relay's unit has a private /tmp."""
    make_watched_files()
    systemd = Systemd()
    with contextlib.closing(Daemon(build, environment=systemd.environment)) as daemon, \
            Client() as client:
        answers(client, web, "PROXY 192.0.2.1:3128")
        systemd.process = daemon.process.pid
        systemd.wait_for(lambda line: "script from" in line, "the walk is reported")
        systemd.statuses.append(describe_age(systemd.statuses[-1]))
        relay.start()
        source = "script from " + web.url("/").split("/")[2]
        shown = json.loads(page_of(relay, "/status.json"))
        assert (shown["mode"], shown["source"]) == ("pacurl", source)
        assert shown["script_age_seconds"] >= 3600 * 24
        assert f"<td>{source}</td>" in page_of(relay, "/")
        client.update("manual", proxyurl="http://192.0.2.1:3128")
        wait_until(lambda: json.loads(page_of(relay, "/status.json"))["source"]
                   == "http://192.0.2.1:3128", "the manual proxy is the source")
        assert json.loads(page_of(relay, "/status.json"))["script_age_seconds"] is None


def describe_age(line):
    """Returns the status line `line`, changed so that its script is from 2001."""
    return re.sub("script of [^;]*;", "script of 2001-01-01T00:00:00Z;", line)


def page_of(relay, path):
    with relay.connect() as connection:
        connection.sendall(f"GET {path} HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n".encode())
        return read_all(connection).decode().partition("\r\n\r\n")[2]


def test_decisions_are_shown_to_the_user_who_made_them_and_to_root(relay, origin, bus):
    def as_user(user, command):
        return subprocess.run(["setpriv", f"--reuid={user}", "--clear-groups", *command],
                              capture_output=True, text=True, timeout=LIMIT, check=True).stdout

    relay.start()
    curl = ["curl", "-sS", "--noproxy", "", "-x", "http://127.0.0.1:3128"]
    as_user(4321, [*curl, f"http://{HOST}:{origin.port}/path"])
    status_page = ["curl", "-sS", "--noproxy", "*", "http://127.0.0.1:3128/status.json"]
    shown = as_user(4321, status_page)
    assert f'"destination": "{HOST}:{origin.port}"' in shown and '"user": 4321' in shown
    assert "/path" not in shown
    assert '"decisions": []' in as_user(4322, status_page)
    assert '"user": 4321' in as_user(0, status_page)


def test_users_who_are_denied_or_not_allowed_get_403(relay, origin, bus):
    curl = ["curl", "-s", "--noproxy", "", "-o", "/dev/null", "-w", "%{http_code}", "-x",
            "http://127.0.0.1:3128", f"http://{HOST}:{origin.port}/"]
    for text, root, nobody in (('deny-users = ["nobody"]\n', "200", "403"),
                               ('allow-users = ["nobody"]\n', "403", "200"),
                               ('allow-users = ["@root"]\n', "200", "403")):
        relay.configure(text)
        relay.start()
        for user, wanted in ((0, root), (65534, nobody)):
            done = subprocess.run(["setpriv", f"--reuid={user}", "--clear-groups", *curl],
                                  capture_output=True, text=True, timeout=LIMIT, check=True)
            assert done.stdout == wanted, (text, user)
        relay.stop()


def test_tunnels_go_to_allowed_ports_only(relay, origin, bus):
    relay.configure(f'allow-ports = [443, "{origin.port}-{origin.port}"]\n')
    relay.start()
    assert through_tunnel(relay, origin.port)[0] == 200
    assert through_tunnel(relay, origin.port + 1)[0] == 403
    assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 200


def test_connections_past_the_limits_are_refused_and_the_others_live(relay, origin, bus):
    for text in ("max-connections = 5\n", "max-connections-of-user = 5\n"):
        relay.configure(text)
        relay.start()
        wait_until(lambda: get(relay, f"http://{HOST}:{origin.port}/")[0] == 200, "all are free")
        with contextlib.ExitStack() as stack:
            held = [stack.enter_context(relay.connect()) for _ in range(5)]
            for connection in held:
                connection.sendall(f"GET http://{HOST}:{origin.port}/ HTTP/1.1\r\nHost: x\r\n\r\n"
                                   .encode())
                assert read_head(connection).startswith(b"HTTP/1.1 200 ")
            with relay.connect() as sixth:
                assert read_all(sixth).startswith(b"HTTP/1.1 503 ")
        wait_until(lambda: get(relay, f"http://{HOST}:{origin.port}/")[0] == 200, "one is free")
        relay.stop()


def test_a_head_of_64_kib_is_read_and_one_byte_more_is_refused(relay, origin, bus):
    relay.start()
    line = f"GET http://{HOST}:{origin.port}/ HTTP/1.1\r\nHost: x\r\nConnection: close\r\nX: "
    for size, wanted in ((65536, b"200"), (65537, b"431")):
        with relay.connect() as connection:
            connection.sendall((line + "y" * (size - len(line) - 4) + "\r\n\r\n").encode())
            assert read_all(connection)[9:12] == wanted


def test_a_slow_head_and_an_idle_tunnel_end_at_their_time(relay, origin, bus):
    relay.configure('head-time = "1s"\nidle-time = "1s"\n')
    relay.start()
    with relay.connect() as connection:
        connection.sendall(b"GET http://")
        assert read_all(connection) == b""
    with tunnel(relay, f"{HOST}:{origin.port}") as (code, connection):
        assert code == 200 and read_all(connection) == b""


def test_requests_that_could_be_read_in_two_ways_are_refused_and_reach_no_server(
        relay, origin, bus):
    relay.start()
    url = f"http://{HOST}:{origin.port}/"
    begin = f"POST {url} HTTP/1.1\r\nHost: x\r\n"
    for rest in ("Content-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
                 "Transfer-Encoding: xchunked\r\n\r\n0\r\n\r\n",
                 "Transfer-Encoding: chunked, gzip\r\n\r\n0\r\n\r\n",
                 "Content-Length: 1, 1\r\n\r\na", "Content-Length: 1\r\nContent-Length: 2\r\n\r\nab",
                 "Host: y\r\n\r\n", "X: a\r\n b\r\n\r\n", "X: a\rb\r\n\r\n", "X: a\nb: c\r\n\r\n",
                 "Transfer-Encoding : chunked\r\n\r\n0\r\n\r\n", "\x00: a\r\n\r\n"):
        with relay.connect() as connection:
            connection.sendall((begin + rest).encode())
            assert read_all(connection)[9:12] == b"400", rest
    assert origin.heads == []
    for body in ("3\nabc\r\n", "x\r\n", "3\r\nabcd\r\n", "0\r\nHost: evil\r\n\r\n", "-1\r\n"):
        with relay.connect() as connection:
            connection.sendall((begin + "Transfer-Encoding: chunked\r\n\r\n" + body).encode())
            assert read_all(connection)[9:12] in (b"400", b""), body


def test_malformed_socks_ends_its_connection_and_no_other(relay, origin, bus):
    relay.start()
    for bytes_ in (b"\x05\x00", b"\x05\x01\x02", b"\x05\x01\x00\x05\x02\x00\x01", b"\x04\x02" + bytes(8),
                   b"\x04\x01\x00\x50\x00\x00\x00\x01" + b"u" * 300,
                   b"\x05\x01\x00\x05\x01\x00\x03\x01 \x00\x50"):
        with relay.connect() as connection:
            connection.sendall(bytes_)
            connection.shutdown(socket.SHUT_WR)
            read_all(connection)
    assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 200


def test_peers_of_other_machines_are_refused_and_if_allowed_reach_nothing_of_this_one(
        build, origin, daemon, client, web, syslog):
    network.hosts(HOST, "inside.example")
    proxy = Proxy()
    for address in ("192.0.2.5/32", "192.0.2.6/32"):
        subprocess.run(["ip", "address", "add", address, "dev", "lo"], check=True)
    relay = Relay(build, "", listen=("192.0.2.5:3128",))

    def status_of(request):
        with socket.create_connection(("192.0.2.5", 3128), LIMIT, ("192.0.2.6", 0)) as connection:
            with contextlib.suppress(ConnectionError):
                connection.sendall(request.encode())
            return read_all(connection)[9:12]

    relay.start()
    assert status_of(f"CONNECT {HOST}:{origin.port} HTTP/1.1\r\nHost: x\r\n\r\n") == b""
    relay.stop()
    relay.configure('allow-from = ["192.0.2.6/32"]\n')
    relay.start()
    for answer in (None, proxy.entry):
        if answer:  # a proxy on this machine could also reach these names
            answers(client, web, answer)
        for name in ("inside.example", "localhost", "127.0.0.1", "127.1", "127.0.0.1.", "[::1]",
                     "[64:ff9b::7f00:1]", "192.0.2.5", "169.254.1.1"):
            request = f"CONNECT {name}:{origin.port} HTTP/1.1\r\nHost: x\r\n\r\n"
            assert status_of(request) == b"403", name
    assert status_of("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n") == b"403"
    assert origin.heads == [] and proxy.heads == []
    relay.stop()
    proxy.close()


def test_a_slow_name_delays_no_other(relay, origin, bus):
    relay.start()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent, \
            contextlib.ExitStack() as stack:
        silent.bind(("127.0.0.1", 53))
        slow = [stack.enter_context(relay.connect()) for _ in range(20)]
        for number, connection in enumerate(slow):
            connection.sendall(f"GET http://slow{number}.example/ HTTP/1.1\r\nHost: x\r\n\r\n"
                               .encode())
        silent.settimeout(LIMIT)
        for _ in slow:
            silent.recv(512)
        assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 200
        for connection in slow:
            connection.setblocking(False)
            with pytest.raises(BlockingIOError):
                connection.recv(1)


def test_an_address_that_does_not_answer_delays_the_next_one_a_moment(relay, origin, bus):
    with open("/etc/hosts", "a") as file:
        file.write("127.0.0.2 dual.example\n127.0.0.1 dual.example\n")
    with socket.socket() as full, contextlib.ExitStack() as stack:
        full.bind(("127.0.0.2", origin.port))
        full.listen(0)
        # When the backlog is full, the kernel drops further connections.
        for _ in range(3):
            waiting = stack.enter_context(socket.socket())
            waiting.setblocking(False)
            waiting.connect_ex(("127.0.0.2", origin.port))
        relay.start()
        assert get(relay, f"http://dual.example:{origin.port}/")[0] == 200


def test_the_walls_are_raised_before_the_first_connection(relay, origin, bus, sanitizer):
    relay.start()
    # The kernel accepts connections before the relay does.
    assert get(relay, f"http://{HOST}:{origin.port}/")[0] == 200
    with open(f"/proc/{relay.process.pid}/status") as file:
        fields = dict(line.split(":\t", 1) for line in file.read().splitlines() if ":\t" in line)
    assert fields["NoNewPrivs"] == "1"
    assert int(fields["CapEff"], 16) == int(fields["CapPrm"], 16) == 0
    assert fields["Uid"].split() == ["65534"] * 4
    if not sanitizer:
        assert fields["Seccomp"] == "2"
