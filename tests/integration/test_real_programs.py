"""Tests that Debian's curl, wget and git use the answers of proxymanagerctl, through real proxies.

Each program starts with proxy variables that name no real proxy. So it reaches the server only if
the variables are replaced or removed as the daemon's answer requires.
"""

import os
import subprocess

import pytest
from support.bus import ADDRESS
from support.ctl import LIMIT, NO_ANSWER, UNAVAILABLE, Ctl
from support.real_proxies import (DIRECT, HTTP, HTTP_PROXY, PAGE, PASSWORD, PASSWORD_HTTP,
                                  PASSWORD_PROXY, PASSWORD_SOCKS, PASSWORD_SOCKS_PROXY, SITE, SOCKS,
                                  SOCKS_PROXY, USER, by_network, by_script)

pytestmark = pytest.mark.usefixtures("own_network")

NOWHERE = "http://127.0.0.1:9"  # nobody listens
LEFT_OVER = {**{name: NOWHERE for name in ("http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY",
                                           "HTTPS_PROXY", "ALL_PROXY")},
             "no_proxy": "", "NO_PROXY": ""}
# The ways to give the answer to a program.
EXEC = 'proxymanagerctl exec "$URL" -- {}'
ENV = 'vars=$(proxymanagerctl get --format env "$URL") && eval "$vars" && {}'
# Commands that fetch $URL and print it. From a repository, they print a file.
CURL = 'curl -sS --fail --max-time 60 "$URL"'
CURL_TOLD = ('proxy=$(proxymanagerctl get --format curl "$URL") && '
             'curl -sS --fail --max-time 60 -x "$proxy" "$URL"')
WGET = 'wget -q --tries=1 --timeout=60 -O - "$URL"'
GIT = """sh -c 'rm -rf /run/clone && git clone -q "$URL" /run/clone && cat /run/clone/way'"""
REPOSITORY = f"http://{SITE}/way.git"


class Shell:
    """Runs a line of a shell, in which proxymanagerctl is a command."""

    def __init__(self, build):
        self._ctl = Ctl(os.path.join(build, "out", "bin", "proxymanagerctl"), ADDRESS)

    def __call__(self, line, url):
        """The status, the output and the error text."""
        path = f"{os.path.dirname(self._ctl.path)}:/usr/bin:/bin"
        variables = self._ctl.variables({"PATH": path, "HOME": "/run", "URL": url, **LEFT_OVER})
        done = subprocess.run(["sh", "-c", line], env=variables, capture_output=True, text=True,
                              stdin=subprocess.DEVNULL, timeout=LIMIT)
        assert "Sanitizer" not in done.stderr, done.stderr
        return done.returncode, done.stdout, done.stderr

    def ways(self, page=PAGE, repository=REPOSITORY, programs=(CURL, WGET, GIT)):
        """Runs each program with each way to give it the answer. Returns the ways of the requests:
        direct, or the proxy."""
        lines = [told.format(program) for program in programs for told in (EXEC, ENV)]
        if CURL in programs:
            lines.append(CURL_TOLD)
        taken = []
        for line in lines:
            url = repository if "clone" in line else page
            status, output, errors = self(line, url)
            assert status == 0, f"{line} {url}: {errors}"
            taken.append(output)
        return set(taken)


@pytest.fixture
def shell(build, proxies):
    return Shell(build)


def test_without_a_proxy_programs_fetch_directly(shell, client):
    client.update("off")
    assert shell.ways() == {DIRECT}
    assert shell.ways(f"https://{SITE}/way", f"https://{SITE}/way.git") == {DIRECT}


def test_a_manual_proxy_is_what_programs_fetch_through(shell, client):
    client.update("manual", f"http://{HTTP_PROXY}")
    assert shell.ways() == {HTTP}
    # These requests use a tunnel.
    assert shell.ways(f"https://{SITE}/way", f"https://{SITE}/way.git") == {HTTP}


def test_the_password_of_a_manual_proxy_reaches_it(shell, client):
    client.update("manual", f"http://{USER}:{PASSWORD}@{PASSWORD_PROXY}")
    assert shell.ways() == {PASSWORD_HTTP}
    client.update("manual", f"socks5h://{USER}:{PASSWORD}@{PASSWORD_SOCKS_PROXY}")
    assert shell.ways(programs=(CURL, GIT)) == {PASSWORD_SOCKS}
    client.update("manual", f"http://{PASSWORD_PROXY}", auth=True, user=USER, password=PASSWORD)
    line = EXEC.format(CURL)
    assert shell(line, PAGE)[:2] == (0, PASSWORD_HTTP)
    # Without --with-password, no password is sent.
    assert "407" in shell(CURL_TOLD.replace("-sS", "-sS -v"), PAGE)[2]
    assert shell(CURL_TOLD.replace("--format curl", "--format curl --with-password"), PAGE)[:2] == (
        0, PASSWORD_HTTP)
    client.update("manual", f"http://{USER}:wrong@{PASSWORD_PROXY}")
    status, output, errors = shell(EXEC.format(CURL), PAGE)
    assert (status, output) == (22, "") and "returned error: 401" in errors


def test_a_script_decides_what_programs_fetch_through(shell, client, port80):
    by_script(client, port80, f"PROXY -unusable:1; PROXY {HTTP_PROXY}; DIRECT")
    assert shell.ways() == {HTTP}
    by_script(client, port80, "DIRECT")
    assert shell.ways() == {DIRECT}


def test_a_script_that_the_network_announces_decides_too(shell, client, port80, syslog):
    by_network(client, port80, syslog, f"PROXY {HTTP_PROXY}")
    assert shell.ways() == {HTTP}


def test_socks_is_for_curl_and_git_and_wget_does_not_go_past_it(shell, client, port80, proxies):
    for configure in (lambda: client.update("manual", f"socks5://{SOCKS_PROXY}"),
                      lambda: by_script(client, port80, f"SOCKS {SOCKS_PROXY}")):
        configure()
        assert shell.ways(programs=(CURL, GIT)) == {SOCKS}
        assert shell.ways(f"https://{SITE}/way", f"https://{SITE}/way.git", (CURL, GIT)) == {SOCKS}
    status, output, errors = shell(ENV.format(WGET.replace("-q", "-nv")), PAGE)
    assert status != 0 and output == "" and "Unsupported scheme" in errors
    assert shell(EXEC.format(WGET), PAGE)[:2] == (NO_ANSWER, "")
    assert not proxies.has_been_asked_by("Wget")
    assert proxies.has_been_asked_by("curl")


def test_what_the_daemon_says_is_printed_raw_for_who_reads_it(shell, client, port80):
    first = ('all=$(proxymanagerctl get --format raw "$URL") && first=${all%%;*} && '
             'http_proxy="http://${first#PROXY }" && export http_proxy && ')
    by_script(client, port80, f"PROXY {HTTP_PROXY}; SOCKS {SOCKS_PROXY}")
    assert shell('proxymanagerctl get --format raw "$URL"', PAGE)[1] == (
        f"PROXY {HTTP_PROXY}; SOCKS {SOCKS_PROXY}\n")
    for program in (CURL, WGET, GIT):
        url = REPOSITORY if program is GIT else PAGE
        status, output, errors = shell(first + program, url)
        assert (status, output) == (0, HTTP), errors


def test_without_an_answer_or_a_daemon_no_program_runs(shell, client, port80, daemon, proxies):
    by_script(client, port80, "PROXY -unusable:1")
    for line in (EXEC.format(CURL), ENV.format(CURL), CURL_TOLD):
        assert shell(line, PAGE)[:2] == (NO_ANSWER, "")
    daemon.kill()
    for line in (EXEC.format(CURL), ENV.format(CURL), CURL_TOLD):
        assert shell(line, PAGE)[:2] == (UNAVAILABLE, "")
    assert not proxies.has_been_asked_by("curl")
