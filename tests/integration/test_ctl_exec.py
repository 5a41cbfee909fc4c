"""Tests proxymanagerctl exec."""

import contextlib
import os
import signal
import socket

import pytest
from support.bus import wait_until
from support.ctl import ANSWERED, NO_ANSWER, NO_PROXY, USAGE, VARIABLES, answering, said
from support.far_network import FarNetwork
from support.stand_in import StandIn


def test_exec_gives_the_command_the_proxy_of_the_url(ctl, client):
    def variables(url, before):
        output = ctl("exec", "--no-check", "--ask-local", url, "--", "env",
                     environment=before).output
        lines = dict(line.split("=", 1) for line in output.splitlines())
        assert lines["PATH"] == "/usr/bin:/bin"
        return {name: value for name, value in lines.items() if name in VARIABLES}

    client.update("manual", "http://a.example:8080")
    proxied = {**{name: "http://a.example:8080" for name in VARIABLES},
               "no_proxy": NO_PROXY, "NO_PROXY": NO_PROXY}
    assert variables("http://b/", {"http_proxy": "old", "NO_PROXY": "*"}) == proxied
    for name in ("no_proxy", "NO_PROXY"):
        del proxied[name]
    for url in ("http://localhost:80/", "http://[::1]:80/", "http://u:p@localhost/", "LOCALHOST",
                "localhost?x"):
        assert variables(url, {"NO_PROXY": "*"}) == proxied, url
    client.update("off")
    assert variables("http://b/", {"http_proxy": "old", "NO_PROXY": "*", "ALL_PROXY": ""}) == {}


def test_exec_ends_as_the_command_does(ctl, client):
    assert ctl("exec", "http://a/", "--", "sh", "-c", 'exit "$1"', "sh", "7").status == 7
    assert ctl("exec", "http://a/", "--", "sh", "-c", "kill -9 $$").status == -signal.SIGKILL
    echo = ctl("exec", "http://a/", "--", "printf", "%s|", "--json", "--", "-h", "")
    assert (echo.status, echo.output) == (ANSWERED, "--json|--|-h||")
    assert ctl("exec", "http://a/", "--", "cat", script="through").output == "through"
    assert said(ctl("exec", "http://a/", "--", "no-such-command")) == (
        127, "cannot run no-such-command: No such file or directory")
    assert said(ctl("exec", "http://a/", "--", "/etc/passwd")) == (
        126, "cannot run /etc/passwd: Permission denied")


def test_exec_does_not_ask_about_this_machine(ctl, client):
    client.update("manual", "http://a.example:8080")
    for url in ("http://localhost/", "http://127.1/", "http://[::ffff:127.0.0.1]/", "http://a.localhost."):
        output = ctl("exec", url, "--", "env", environment={"http_proxy": "old"}).output
        assert "proxy" not in output.lower(), url


def test_exec_takes_the_first_entry_whose_proxy_takes_a_connection(ctl, client, web):
    with socket.create_server(("127.0.0.1", 0)) as alive, socket.socket() as closed:
        closed.bind(("127.0.0.1", 0))  # the port is in use, but nobody listens
        dead, port = closed.getsockname()[1], alive.getsockname()[1]
        answering(client, web, f"PROXY 127.0.0.1:{dead}; PROXY 127.0.0.1:{port}; DIRECT")
        show = ["--", "sh", "-c", "echo $http_proxy"]
        assert ctl("exec", "http://a/", *show).output == f"http://127.0.0.1:{port}\n"
        assert ctl("exec", "--no-check", "http://a/", *show).output == f"http://127.0.0.1:{dead}\n"
        answering(client, web, f"PROXY 127.0.0.1:{dead}; DIRECT")
        assert ctl("exec", "http://a/", *show).output == "\n"
        answering(client, web, f"PROXY 127.0.0.1:{dead}; SOCKS 127.0.0.1:{dead}")
        result = ctl("exec", "http://a/", *show)
        assert result.output == f"http://127.0.0.1:{dead}\n"
        assert "no proxy of the answer takes a connection" in result.errors


def test_exec_tries_the_second_address_of_a_proxy_whose_first_is_silent(own_network, ctl, client):
    with open("/etc/hosts", "a") as file:
        file.write("192.0.2.10 proxy.example\n192.0.2.11 proxy.example\n")
    client.update("manual", "http://proxy.example:3128")
    with contextlib.closing(FarNetwork("192.0.2.11")) as far:
        result = ctl("exec", "http://a/", "--", "sh", "-c", "echo $http_proxy")
        assert (result.output, result.errors) == ("http://proxy.example:3128\n", "")
        assert (far.tried[0], far.tried[-1]) == ("192.0.2.10", "192.0.2.11")


@pytest.mark.slow  # waits for a limit of 10 s
def test_exec_tries_each_proxy_once_and_all_of_them_for_ten_seconds(ctl, bus):
    def silent(stack):
        """A port that neither accepts nor refuses connections: two connections fill its queue."""
        server = stack.enter_context(socket.create_server(("127.0.0.1", 0), backlog=0))
        for _ in range(2):
            waiting = stack.enter_context(socket.socket())
            waiting.setblocking(False)
            waiting.connect_ex(server.getsockname())
        return f"127.0.0.1:{server.getsockname()[1]}"

    with contextlib.ExitStack() as stack:
        ports = [silent(stack) for _ in range(8)]
        entries = [f"PROXY {port}" for port in ports[:1] * 20 + ports] + ["DIRECT"]
        daemon = StandIn({"getProxyurl": ("as", (["pacurl", *entries],))})
        result = ctl("exec", "http://a/", "--", "sh", "-c", "echo $http_proxy")
        daemon.close()
    # Each try takes 3 s. On a slow machine, there is one try less.
    assert result.output in [f"http://{port}\n" for port in ports[2:5]]
    assert result.errors == ("proxymanagerctl: no proxy has taken a connection within 10 s; the command "
                             "gets the first that was not tried\n")


def test_wget_gets_no_proxy_that_it_refuses(ctl, client, web):
    wget = "/run/wget"
    with open(wget, "w") as file:
        file.write("#!/bin/sh\necho $http_proxy\n")
    os.chmod(wget, 0o755)
    answering(client, web, "SOCKS s:1; PROXY p:2")
    assert ctl("exec", "--no-check", "http://a/", "--", wget).output == "http://p:2\n"
    assert ctl("exec", "--no-check", "http://a/", "--", "sh", "-c", "echo $http_proxy").output == \
        "socks5h://s:1\n"
    answering(client, web, "SOCKS s:1")
    assert ctl("exec", "--no-check", "http://a/", "--", wget).status == NO_ANSWER


def test_the_configured_password_comes_into_a_manual_proxys_url_alone(ctl, client, web):
    show = ["--", "sh", "-c", "echo $http_proxy"]
    client.update("manual", "http://p:1", auth=True, user="me@x", password="a b/c")
    assert ctl("exec", "--no-check", "http://a/", *show).output == "http://me%40x:a%20b%2Fc@p:1\n"
    assert ctl("get", "--format", "curl", "http://a/").output == "http://p:1\n"
    assert ctl("get", "--format", "curl", "--with-password", "http://a/").output == \
        "http://me%40x:a%20b%2Fc@p:1\n"
    for useless in (["--with-password"], ["--with-password", "--format", "raw"],
                    ["--with-password", "--format", "table"], ["--credentials-for", "p"],
                    ["--credentials-for", "p", "--format", "curl"]):
        result = ctl("get", *useless, "http://a/")
        assert result.status == USAGE and "with-password" in result.errors, useless
    web.routes["/two.pac"] = ('function FindProxyForURL(u, h) {'
                              ' return h == "a" ? "PROXY p:1" : "PROXY other:1"; }')
    client.update("pacurl", pacurl=web.url("/two.pac"), auth=True, user="me", password="pw")
    wait_until(lambda: client.urls("http://a/") == ["pacurl", "PROXY p:1"], "the script answers")
    assert ctl("exec", "--no-check", "http://a/", *show).output == "http://p:1\n"
    listed = ["--no-check", "--credentials-for", "P"]
    assert ctl("exec", *listed, "http://a/", *show).output == "http://me:pw@p:1\n"
    assert ctl("exec", *listed, "http://b/", *show).output == "http://other:1\n"


def test_a_new_password_never_comes_into_the_url_of_the_proxy_before(ctl, bus):
    def answer(mode, entry):
        return "as", ([mode, entry],)

    def asked(answers, *command):
        daemon = StandIn({"getProxyurl": answers, "getProxyconfig": (
            "(ssssss)", (("manual", "http://new.example:1", "", "n", "me", "x"),))})
        output = ctl(*command).output
        daemon.close()
        return output

    old, new = (answer("manual", f"http://{name}.example:1") for name in ("old", "new"))
    script = answer("pacurl", "PROXY old.example:1")
    get = ["get", "--format", "curl", "--with-password", "--credentials-for", "old.example"]
    run = ["exec", "--no-check", "http://a/", "--", "sh", "-c", "echo $http_proxy"]
    assert asked([old, new], *run) == "http://me:x@new.example:1\n"
    assert asked([old] * 3, *run) == asked([script] * 3, *get, "http://a/") == "http://old.example:1\n"
    # The command reads the configuration again for each URL.
    assert asked([new, old, new], *get, "http://a/", "http://b/") == "http://me:x@new.example:1\n" * 2
