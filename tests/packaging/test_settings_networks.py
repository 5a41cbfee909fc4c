"""Tests the settings service with Debian's NetworkManager and ConnMan, in a clean, running system
with two links, each with a DHCP server. Each test continues from the state of the test before
it."""

import json
import os
import random
import time

import pytest
from machine import Inside, Refused
from managed import NETWORKS, PACKAGES, Managed
from support.bus import Client

BUS = "unix:path=/run/dbus/system_bus_socket"
DAEMON = "proxymanagerd.service"
UNIT = "proxymanager-settings.service"
TRIES = 5
# How many times the service is killed. With ./test.sh --settings-kills, it is killed more often.
KILLS = int(os.environ.get("PROXYMANAGER_SETTINGS_KILLS", "5"))
OFF = ("off", "", "")


class Caller(Client):
    def __init__(self):
        super().__init__(BUS)

    def has(self):
        return self.config()[:3]


class Fed(Managed):
    """A system in which network managers push to the settings service."""

    def __enter__(self):
        super().__enter__()
        self.install_packages()
        # systemd must start the service again, although the tests kill it often.
        for unit, lines in ((UNIT, "[Unit]\nStartLimitIntervalSec=0\n[Service]\nRestartSec=50ms\n"),
                            ("NetworkManager.service", "[Unit]\nStartLimitIntervalSec=0\n")):
            folder = self.root / f"etc/systemd/system/{unit}.d"
            folder.mkdir(parents=True)
            (folder / "test.conf").write_text(lines)
        self.run("systemctl", "daemon-reload")
        self.plug_in()
        self.caller = Inside(self, self.account("root"), Caller)
        return self

    def __exit__(self, *error):
        self.caller.close()
        super().__exit__(*error)

    def has(self):
        try:
            return self.caller.call("has")
        except Refused:
            return None  # the daemon is being started

    def follows(self, wanted, what):
        self.wait(lambda: self.has() == wanted, f"{what}: {wanted}, not {self.has()}\n{self.journal()}")

    def proxy(self, network, *settings):
        """Sets another proxy in a connection's profile, and activates it like an administrator.
        "nmcli device reapply" is not enough: this release of NetworkManager then pushes the old
        settings."""
        self.nmcli("connection", "modify", network, *settings)
        self.nmcli("connection", "up", network)

    def knows(self):
        return json.loads(self.run("proxymanagerctl", "settings", "--json").stdout)

    def is_back(self):
        """Waits until the service has handed over its configuration."""
        self.wait(lambda: '"handed_over_at": 1' in
                  self.run("proxymanagerctl", "settings", "--json", check=False).stdout, "it is back")

    def interface(self, name):
        self.run("ip", "link", "add", name, "type", "veth", "peer", "name", name + "-end", "netns", "home")
        self.run("ip", "-n", "home", "link", "set", name + "-end", "up")

    def kill(self, unit):
        self.run("systemctl", "kill", "--signal=KILL", unit, check=False)


def eth0(fed):
    return [entry for entry in fed.knows()["networks"] if entry["interface"] == "eth0"]


def url(network, number=0):
    """A URL at which nobody listens. The daemon still accepts the configuration."""
    return f"http://127.0.0.1:9/{network}{number}.pac"


def script(proxy):
    return f'function FindProxyForURL(url, host) {{ return "PROXY {proxy}:1"; }}'


@pytest.fixture(scope="session")
def fed(built):
    with Fed(list(built.values()), names=PACKAGES) as booted:
        yield booted


@pytest.fixture(autouse=True)
def said(fed):
    """The log of the services, for the report of a failed test."""
    yield
    print(fed.run("journalctl", "--no-pager", "-n", "60", "-u", "proxymanager*", "-u", "NetworkManager",
                  "-u", "connman", check=False).stdout)


def test_profiles_without_a_proxy_turn_nothing_on(fed):
    for network in NETWORKS:
        fed.nmcli("connection", "up", network)
    # NetworkManager has pushed both configurations.
    fed.wait(lambda: {entry["interface"] for entry in fed.knows()["networks"]} >= {"eth0", "eth1"},
             "both are pushed")
    assert all(entry["direct"] for entry in fed.knows()["networks"])
    assert fed.knows()["holder"] == "fallback"
    fed.follows(OFF, "mode off")


def test_a_profiles_script_url_is_followed_within_two_seconds(fed):
    times = []
    for number in range(TRIES):
        fed.proxy("office", "proxy.method", "auto", "proxy.pac-url", url("office", number))
        begin = time.monotonic()
        fed.follows(("pacurl", "", url("office", number)), "the profile's URL")
        times.append(time.monotonic() - begin)
        if times[-1] < 2:
            return
    raise AssertionError(times)


def test_a_profiles_script_answers_and_goes_with_its_default_route(fed):
    # Like a VPN: a second default route with a lower metric.
    fed.interface("tunnel0")
    fed.nmcli("connection", "add", "type", "ethernet", "con-name", "tunnel", "ifname", "tunnel0",
              "autoconnect", "no", "ipv6.method", "disabled", "ipv4.method", "manual",
              "ipv4.addresses", "10.9.0.1/24", "ipv4.gateway", "10.9.0.2", "ipv4.route-metric", "50",
              "proxy.method", "auto", "proxy.pac-script", script("pushed.example"))
    fed.nmcli("connection", "up", "tunnel")
    fed.wait(lambda: fed.caller.call("urls", "http://h.example/") == ["pacurl", "PROXY pushed.example:1"],
             "the pushed script answers")
    assert fed.has()[2].startswith("http://127.0.0.1:850/")
    fed.nmcli("connection", "down", "tunnel")
    fed.follows(("pacurl", "", eth0(fed)[0]["pac_url"]), "the tunnel is down")


def test_what_a_reapply_pushes_is_what_is_shown(fed):
    fed.nmcli("connection", "modify", "office", "proxy.pac-url", url("office"))
    before = eth0(fed)
    fed.nmcli("device", "reapply", "eth0")
    # The service keeps the same URL, or has the new URL of the profile if NetworkManager pushes it.
    fed.wait(lambda: len(eth0(fed)) == 1 and (eth0(fed) == before or
                                              eth0(fed)[0]["pac_url"] == url("office")), "one of both")


def test_a_url_goes_before_a_script_and_one_of_the_lease_does_too(fed):
    fed.proxy("office", "proxy.pac-url", url("office"), "proxy.pac-script", script("pushed.example"))
    fed.follows(("pacurl", "", url("office")), "the profile's URL")
    # If the profile has no URL, the URL of option 252 is used. This URL has priority over the
    # profile's script.
    fed.proxy("office", "proxy.pac-url", "")
    fed.follows(("pacurl", "", "http://office.example/proxy.pac"), "the lease's URL")


def test_the_default_route_decides_also_if_a_link_or_a_tunnel_comes_and_goes(fed):
    fed.proxy("office", "proxy.pac-url", url("office"), "proxy.pac-script", "")
    fed.proxy("home", "proxy.method", "auto", "proxy.pac-url", url("home"))
    fed.follows(("pacurl", "", url("office")), "the lower metric")
    # NetworkManager waits some seconds before it treats a carrier as lost.
    fed.cable("office", "down")
    fed.follows(("pacurl", "", url("home")), "the other link")
    fed.cable("office", "up")
    fed.nmcli("connection", "up", "office")
    fed.follows(("pacurl", "", url("office")), "the lower metric again")
    fed.proxy("tunnel", "proxy.pac-url", url("tunnel"), "proxy.pac-script", "")
    fed.follows(("pacurl", "", url("tunnel")), "the tunnel")
    fed.nmcli("connection", "down", "tunnel")
    fed.follows(("pacurl", "", url("office")), "the tunnel is down")
    # A connection that NetworkManager did not make, and that has no proxy, does not change the
    # configuration.
    fed.interface("foreign")
    fed.run("ip", "address", "add", "10.8.0.1/24", "dev", "foreign")
    fed.run("ip", "link", "set", "foreign", "up")
    fed.run("ip", "route", "add", "default", "dev", "foreign", "metric", "10")
    fed.proxy("office", "proxy.pac-url", url("office", 1))
    fed.follows(("pacurl", "", url("office", 1)), "the office under a foreign route")
    fed.run("ip", "link", "delete", "foreign")


def test_a_network_manager_that_is_killed_leaves_nothing_and_feeds_again(fed):
    # systemd must not restart NetworkManager before the test has seen that it ended.
    fed.run("systemctl", "mask", "--runtime", "NetworkManager")
    fed.kill("NetworkManager")
    fed.follows(OFF, "nobody feeds it")
    fed.run("systemctl", "unmask", "--runtime", "NetworkManager")
    fed.run("systemctl", "restart", "NetworkManager")
    fed.nmcli("connection", "up", "office")
    fed.follows(("pacurl", "", url("office", 1)), "it feeds again")


def test_a_restart_of_the_service_never_gives_the_daemon_something_else(fed):
    fed.follows(("pacurl", "", url("office", 1)), "the office")
    since = fed.run("date", "+%F %T").stdout.strip()
    fed.run("systemctl", "restart", UNIT)
    fed.is_back()
    assert fed.has() == ("pacurl", "", url("office", 1))
    log = fed.run("journalctl", "--no-pager", "-u", UNIT, f"--since={since}").stdout
    log = log.rpartition(" Stopped ")[2]  # --since counts in whole seconds, so there may be earlier lines
    assert "mode pacurl" in log and "mode off" not in log, log


def test_the_service_killed_at_any_moment_ends_with_the_right_source(fed):
    moments = random.Random(4)
    saved = fed.root / "etc/proxymanager/settings.d/50-test.conf"
    for number in range(KILLS):
        wanted = ("pacurl", "", url("office", 100 + number))
        source = number % 3
        if source == 0:
            fed.proxy("office", "proxy.pac-url", url("office", 100 + number))
        elif source == 1:
            saved.with_suffix(".new").write_text(f'mode = "pacurl"\npac-url = "{wanted[2]}"\n')
            saved.with_suffix(".new").rename(saved)
        else:
            saved.unlink(missing_ok=True)
            wanted = ("pacurl", "", url("office", 100 + number - 2))
        time.sleep(moments.uniform(0, 0.4))  # a random moment
        fed.kill(UNIT)
        fed.follows(wanted, f"kill {number}")
        assert fed.run("systemctl", "is-failed", UNIT, check=False).stdout.strip() != "failed"
    saved.unlink(missing_ok=True)


def test_connman_feeds_the_service(fed):
    fed.run("systemctl", "stop", "NetworkManager")
    fed.follows(OFF, "nobody feeds it")
    for interface, _, _ in NETWORKS.values():
        fed.run("ip", "address", "flush", "dev", interface)
    fed.run("systemctl", "start", "connman")
    wired = fed.wait(lambda: services(fed), "ConnMan has a link")[0]
    fed.run("connmanctl", "config", wired, "--ipv4", "manual", "10.77.1.40", "255.255.255.0", "10.77.1.1")
    fed.wait(lambda: wired in services(fed, "RO"), "ConnMan is connected")
    fed.run("connmanctl", "config", wired, "--proxy", "auto", url("connman"))
    fed.follows(("pacurl", "", url("connman")), "ConnMan's URL")
    fed.run("connmanctl", "config", wired, "--proxy", "manual", "http://proxy.example:3128")
    fed.follows(("manual", "http://proxy.example:3128", ""), "ConnMan's proxy")
    fed.run("connmanctl", "config", wired, "--proxy", "manual", "http://proxy.example:3128", "--excludes",
            "intern.example")
    fed.wait(lambda: fed.caller.call("urls", "http://h.example/") ==
             ["pacurl", "PROXY proxy.example:3128"], "the made script answers")
    assert fed.caller.call("urls", "http://a.intern.example/") == ["pacurl", "DIRECT"]
    fed.kill(UNIT)
    fed.is_back()
    fed.wait(lambda: fed.caller.call("urls", "http://a.intern.example/") == ["pacurl", "DIRECT"], "the same")
    fed.run("connmanctl", "config", wired, "--proxy", "direct")
    fed.follows(OFF, "direct is ignored")
    fed.run("connmanctl", "config", wired, "--proxy", "auto", url("connman"))
    fed.follows(("pacurl", "", url("connman")), "ConnMan's URL again")
    fed.kill("connman")
    fed.run("systemctl", "stop", "connman")
    fed.follows(OFF, "nobody feeds it")


def services(fed, states=""):
    """Returns the identifiers of ConnMan's services that are in one of these states. If `states` is
    empty, returns the identifiers of all services."""
    lines = fed.run("connmanctl", "services", check=False).stdout.splitlines()
    return [line.split()[-1] for line in lines if not states or line[2:3] in states]
