"""Tests that unchanged programs with GLib's networking follow the daemon if the module is
installed.

soup_get is a small program with libsoup. gio is Debian's program, and fetches through gvfs.
"""

import os
import signal
import subprocess

import pytest
from support.bus import ADDRESS
from support.real_proxies import (DIRECT, HTTP, HTTP_PROXY, PAGE, PASSWORD, PASSWORD_SOCKS,
                                  PASSWORD_SOCKS_PROXY, SOCKS, SOCKS_PROXY, USER, by_network,
                                  by_script)

pytestmark = pytest.mark.usefixtures("own_network")

LIMIT = 120  # seconds for any run
# The first argument after this wrapper is a folder with unpacked packages. The wrapper mounts the
# folder's usr over /usr, so Debian's programs find each other at their usual places. When the
# program ends, all processes that it has started end, too.
OVER_USR = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "sh", "-c",
            'mount -t overlay overlay -o "lowerdir=$0/usr:/usr" /usr && exec "$@"']


class GlibPrograms:
    def __init__(self, build):
        self._tests = os.path.join(build, "out", "tests")
        sanitizers = {name: value for name, value in os.environ.items()
                      if name.endswith("SAN_OPTIONS")}
        # A module may load a library with thread-local memory. GCC 12's leak sanitizer fails if
        # it keeps records of this memory.
        sanitizers["ASAN_OPTIONS"] = (os.environ.get("ASAN_OPTIONS", "verbosity=0")
                                      + ":intercept_tls_get_addr=0")
        self._variables = {
            "PATH": "/usr/bin:/bin", "LC_ALL": "C", "HOME": "/run/home",
            "XDG_RUNTIME_DIR": "/run/home", "DBUS_SYSTEM_BUS_ADDRESS": ADDRESS,
            "GIO_EXTRA_MODULES": os.path.join(build, "out", "lib", "gio", "modules"),
            "G_DEBUG": "fatal-criticals",
            **sanitizers}
        os.makedirs("/run/home", mode=0o700)

    def soup(self, url=PAGE, **variables):
        """Returns the output of soup_get, or its error text if soup_get fails."""
        return self._run([os.path.join(self._tests, "soup_get"), url], variables)

    def gio(self, url=PAGE, **variables):
        """Returns the output of `gio cat`, or its error text if the command fails. gvfs needs a
        session bus."""
        return self._run([*OVER_USR, os.path.join(self._tests, "gio_clients"), "dbus-run-session",
                          "--", "gio", "cat", url], variables)

    def _run(self, command, variables):
        done = subprocess.run(command, env={**self._variables, **variables}, capture_output=True,
                              text=True, stdin=subprocess.DEVNULL, timeout=LIMIT)
        assert "Sanitizer" not in done.stderr, done.stderr
        return done.stdout if done.returncode == 0 else done.stderr


@pytest.fixture
def programs(build, proxies):
    return GlibPrograms(build)


def follow_every_mode(fetch, client, port80, syslog, daemon, bus):
    """In each mode, `fetch` must get the page in the way that the mode sets: directly, or through a
    proxy."""
    # The daemon starts in mode off.
    assert fetch() == DIRECT
    client.update("manual", f"http://{HTTP_PROXY}")
    assert fetch() == HTTP
    client.update("manual", f"socks5://{SOCKS_PROXY}")
    assert fetch() == SOCKS
    by_script(client, port80, f"SOCKS {SOCKS_PROXY}; DIRECT")
    assert fetch() == SOCKS
    by_network(client, port80, syslog, f"PROXY {HTTP_PROXY}")
    assert fetch() == HTTP
    client.update("off")
    assert fetch() == DIRECT
    client.update("manual", f"http://{HTTP_PROXY}")
    daemon.kill()
    assert fetch() == DIRECT
    bus.kill()
    assert fetch() == DIRECT


def test_a_program_of_libsoup_follows_every_mode(programs, client, port80, syslog, daemon, bus):
    follow_every_mode(programs.soup, client, port80, syslog, daemon, bus)


# This test does not run under sanitizers: gio and gvfs are built without sanitizers, so they cannot
# load a module that is built with sanitizers.
@pytest.mark.slow
def test_gio_follows_every_mode(programs, client, port80, syslog, daemon, bus):
    follow_every_mode(programs.gio, client, port80, syslog, daemon, bus)


def test_proxies_are_tried_in_the_order_of_the_script(programs, client, port80):
    nobody = "127.0.0.1:9"
    by_script(client, port80, f"PROXY {nobody}; SOCKS {nobody}; PROXY {HTTP_PROXY}; DIRECT")
    assert programs.soup() == HTTP
    by_script(client, port80, f"PROXY {nobody}; SOCKS {SOCKS_PROXY}; PROXY {HTTP_PROXY}")
    assert programs.soup() == SOCKS
    by_script(client, port80, f"PROXY {nobody}; PROXY -unusable:1; DIRECT; PROXY {HTTP_PROXY}")
    assert programs.soup() == DIRECT
    by_script(client, port80, f"PROXY {nobody}")
    assert "Connection refused" in programs.soup()


def test_the_password_of_a_manual_proxy_reaches_it_from_glib(programs, client):
    client.update("manual", f"socks5://{USER}:{PASSWORD}@{PASSWORD_SOCKS_PROXY}")
    assert programs.soup() == PASSWORD_SOCKS
    client.update("manual", f"socks://{USER}:wrong@{PASSWORD_SOCKS_PROXY}")
    assert "authentication failed" in programs.soup()


def test_a_program_may_name_another_resolver(programs, client):
    client.update("manual", f"http://{HTTP_PROXY}")
    assert programs.soup(GIO_USE_PROXY_RESOLVER="proxymanager") == HTTP
    assert programs.soup(GIO_USE_PROXY_RESOLVER="dummy") == DIRECT


# This test waits for the module's limit of 10 seconds.
@pytest.mark.slow
def test_a_daemon_that_hangs_holds_nobody_up_for_ever(programs, client, daemon):
    client.update("manual", f"http://{HTTP_PROXY}")
    daemon.signal(signal.SIGSTOP)
    try:
        assert programs.soup() == DIRECT
    finally:
        daemon.signal(signal.SIGCONT)
    assert programs.soup() == HTTP
