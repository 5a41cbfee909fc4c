"""Tests the desktop portal, whose process loads the GLib module: its answers, and a sandboxed program
that can reach only the portal.
"""

import os
import shutil
import signal
import subprocess

import pytest
from jeepney import DBusAddress, MessageType, new_method_call
from jeepney.io.blocking import open_dbus_connection
from support.bus import ADDRESS, LIMIT, wait_until
from support.real_proxies import (DIRECT, HTTP, HTTP_PROXY, PAGE, SOCKS, SOCKS_PROXY, by_network,
                                  by_script)

pytestmark = pytest.mark.usefixtures("own_network")

SESSION = "unix:path=/run/session_bus"
NAME = "org.freedesktop.portal.Desktop"
RESOLVER = DBusAddress("/org/freedesktop/portal/desktop", bus_name=NAME,
                       interface="org.freedesktop.portal.ProxyResolver")
# The text that Flatpak writes for a program that may use the network.
SANDBOX = "[Application]\nname=org.example.Program\n[Instance]\ninstance-id=1\n[Context]\nshared=network;\n"


class Portal:
    """A session bus with the portal. The portal's process loads the module, and uses no other file of
    the build."""

    def __init__(self, programs, build):
        self._programs = programs
        os.makedirs("/run/home", mode=0o700)
        shutil.copy(f"{build}/out/tests/soup_get", f"{programs.path}/opt/soup_get")
        variables = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8", "HOME": "/run/home",
                     "XDG_RUNTIME_DIR": "/run/home", "DBUS_SESSION_BUS_ADDRESS": SESSION,
                     "DBUS_SYSTEM_BUS_ADDRESS": ADDRESS,
                     "GIO_EXTRA_MODULES": "/opt/build/lib/gio/modules"}
        self._processes = [subprocess.Popen(
            programs.command("dbus-daemon", "--session", f"--address={SESSION}", "--nofork", "--nopidfile"),
            env=variables, stdin=subprocess.DEVNULL)]
        wait_until(lambda: os.path.exists("/run/session_bus"), "the session bus listens")
        self._processes.append(subprocess.Popen(
            programs.command("/usr/libexec/xdg-desktop-portal", "--verbose"), env=variables,
            stdin=subprocess.DEVNULL))
        self._connection = open_dbus_connection(SESSION, auth_timeout=LIMIT)
        wait_until(self._answers, "the portal answers")

    def _call(self, url):
        return self._connection.send_and_get_reply(new_method_call(RESOLVER, "Lookup", "s", (url,)),
                                                   timeout=LIMIT)

    def _answers(self):
        assert self._processes[-1].poll() is None, "the portal has ended"
        return self._call(PAGE).header.message_type == MessageType.method_return

    def lookup(self, url=PAGE):
        return self._call(url).body[0]

    def fetch(self, url=PAGE):
        """The page that a program with libsoup gets in a sandbox, with the portal, but without the module
        and the system bus."""
        return self._programs.run("/opt/soup_get", url, environment={
            "HOME": "/run/home", "DBUS_SESSION_BUS_ADDRESS": SESSION,
            "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nowhere", "XDG_RUNTIME_DIR": "/run/home"}).stdout

    def close(self):
        self._connection.close()
        for process in reversed(self._processes):
            process.send_signal(signal.SIGTERM)
            process.wait(LIMIT)


@pytest.fixture
def portal(programs, client, build):
    portal = Portal(programs, build)
    yield portal
    portal.close()


def follow_every_mode(portal, client, port80, syslog, daemon, see):
    """Checks in each mode that `see` returns the daemon's answer, or the way of a request that
    follows this answer."""
    def follows(answer, way):
        wait_until(lambda: see() == (answer if see == portal.lookup else way), f"{answer} is seen")

    follows(["direct://"], DIRECT)
    client.update("manual", f"http://{HTTP_PROXY}")
    follows([f"http://{HTTP_PROXY}"], HTTP)
    by_script(client, port80, f"SOCKS {SOCKS_PROXY}; DIRECT")
    follows([f"socks5://{SOCKS_PROXY}", "direct://"], SOCKS)
    by_network(client, port80, syslog, f"PROXY {HTTP_PROXY}")
    follows([f"http://{HTTP_PROXY}"], HTTP)
    client.update("off")
    follows(["direct://"], DIRECT)
    client.update("manual", f"http://{HTTP_PROXY}")
    follows([f"http://{HTTP_PROXY}"], HTTP)
    daemon.kill()
    follows(["direct://"], DIRECT)


def test_the_portal_answers_as_the_daemon_does_in_each_mode(portal, client, port80, syslog, daemon):
    follow_every_mode(portal, client, port80, syslog, daemon, portal.lookup)


def test_the_portal_answers_for_each_url(portal, client, port80):
    port80.routes["/p.pac"] = """function FindProxyForURL(url, host) {
        return host == "a.example" ? "PROXY a:1" : "PROXY b:2; DIRECT"; }"""
    client.update("pacurl", pacurl="http://127.0.0.1/p.pac")
    wait_until(lambda: portal.lookup("http://a.example/") == ["http://a:1"], "the script answers")
    assert portal.lookup("https://b.example/") == ["http://b:2", "direct://"]
    assert portal.lookup("http://localhost/") == ["direct://"]


def test_a_sandboxed_program_that_has_only_the_portal_follows(portal, programs, client, port80, syslog,
                                                             daemon):
    # With this file, GLib and the portal treat every program in that root as sandboxed.
    programs.write("/.flatpak-info", SANDBOX)
    follow_every_mode(portal, client, port80, syslog, daemon, portal.fetch)
