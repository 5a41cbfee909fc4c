"""Tests Debian's curl, wget and git with the relay as their only proxy, through tinyproxy and
microsocks in each mode. ./test.sh --relay tests with Squid, haproxy, package managers and browsers.
"""

import subprocess

import pytest
from support.bus import wait_until
from support.ctl import LIMIT
from support.real_proxies import (DIRECT, HTTP, HTTP_PROXY, PAGE, PASSWORD, PASSWORD_HTTP,
                                  PASSWORD_PROXY, PASSWORD_SOCKS, PASSWORD_SOCKS_PROXY, SITE, SOCKS,
                                  SOCKS_PROXY, USER, by_network, by_script)
from support.relay import Relay

pytestmark = pytest.mark.usefixtures("own_network")

NOBODY = "127.0.0.1:9"  # nobody listens
CURL = ("curl", "-sS", "--fail", "--max-time", "60")
WGET = ("wget", "-q", "--tries=1", "--timeout=60", "-O", "-")
GIT = ("sh", "-c", 'rm -rf /run/clone && git clone -q "$0" /run/clone && cat /run/clone/way')
REPOSITORY = f"http://{SITE}/way.git"


def run(*command, proxy="http://127.0.0.1:3128"):
    """Runs a program with the variables that name the relay. @return its status, output and error
    text"""
    variables = {"PATH": "/usr/bin:/bin", "HOME": "/run", "http_proxy": proxy, "https_proxy": proxy}
    done = subprocess.run(command, env=variables, capture_output=True, text=True,
                          stdin=subprocess.DEVNULL, timeout=LIMIT)
    return done.returncode, done.stdout, done.stderr


def way(proxy="http://127.0.0.1:3128"):
    return run(*CURL, PAGE, proxy=proxy)[1]


def ways():
    """The proxies that the programs use, for http and through tunnels."""
    taken = []
    for command in ((*CURL, PAGE), (*CURL, f"https://{SITE}/way"), (*WGET, PAGE),
                    (*WGET, f"https://{SITE}/way"), (*GIT, REPOSITORY),
                    (*GIT, REPOSITORY.replace("http:", "https:"))):
        status, output, errors = run(*command)
        assert status == 0, f"{command}: {errors}"
        taken.append(output)
    return set(taken)


@pytest.fixture
def relay(build, proxies, client):
    relay = Relay(build)
    yield relay
    relay.stop()


def follows(wanted):
    """Waits until the relay uses the way `wanted`: the daemon's signal may arrive after the first
    request."""
    wait_until(lambda: way() == wanted, f"the relay goes {wanted}")


def test_programs_that_know_one_proxy_follow_each_mode(relay, client, port80, syslog):
    client.update("off")
    relay.start()
    assert ways() == {DIRECT}
    client.update("manual", f"http://{HTTP_PROXY}")
    follows(HTTP)
    assert ways() == {HTTP}
    by_script(client, port80, f"PROXY {NOBODY}; SOCKS {SOCKS_PROXY}")
    follows(SOCKS)
    assert ways() == {SOCKS}
    by_network(client, port80, syslog, f"PROXY {HTTP_PROXY}")
    follows(HTTP)
    assert ways() == {HTTP}


def test_socks_programs_follow_too(relay, client):
    client.update("manual", f"http://{HTTP_PROXY}")
    relay.start()
    for scheme in ("socks4a", "socks5h"):
        status, output, errors = run(*CURL, "-x", f"{scheme}://127.0.0.1:3128", f"https://{SITE}/way")
        assert (status, output) == (0, HTTP), f"{scheme}: {errors}"


def test_the_password_of_the_manual_proxy_is_the_relays_to_give(relay, client):
    client.update("manual", f"http://{PASSWORD_PROXY}", auth=True, user=USER, password=PASSWORD)
    relay.start()
    follows(PASSWORD_HTTP)
    assert ways() == {PASSWORD_HTTP}
    client.update("manual", f"socks5h://{PASSWORD_SOCKS_PROXY}", auth=True, user=USER,
                  password=PASSWORD)
    follows(PASSWORD_SOCKS)
    assert ways() == {PASSWORD_SOCKS}


def test_a_script_names_nobody_who_gets_a_password(relay, client, port80, proxies):
    with open("/run/credentials", "w") as file:
        file.write(f'["{PASSWORD_PROXY}"]\nuser = "{USER}"\npassword = "{PASSWORD}"\n')
    relay.configure('credentials-file = "/run/credentials"\n')
    by_script(client, port80, f"PROXY {PASSWORD_PROXY}")
    relay.start()
    status, _, errors = run(*CURL, PAGE)
    assert status == 22 and "502" in errors, errors
    assert not proxies.has_been_asked_by("curl")
    relay.stop()
    relay.configure('credentials-file = "/run/credentials"\n'
                    f'credentials-hosts = ["{PASSWORD_PROXY}"]\n')
    relay.start()
    follows(PASSWORD_HTTP)
    assert ways() == {PASSWORD_HTTP}
