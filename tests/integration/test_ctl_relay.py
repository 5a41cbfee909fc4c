"""Tests proxymanagerctl relay, and the row "relay" of status, with a stand-in for systemd."""

import os

import pytest
from support.ctl import ANSWERED, DENIED, NO_PROXY, OUTPUT, UNAVAILABLE, rows, said
from support.stand_in import StandIn

SYSTEMD = "org.freedesktop.systemd1"
LINKS = ["/etc/profile.d/proxymanager-relay.sh", "/etc/environment.d/60-proxymanager-relay.conf",
         "/etc/apt/apt.conf.d/60proxymanager-relay"]
FOLDERS = [os.path.dirname(link) for link in LINKS]
STRANGER = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")


class Systemd:
    """A stand-in for systemd with one unit. The unit's properties do not change during a run of
    the program."""

    def __init__(self):
        self.replies = {}
        self._stand_in = StandIn(self.replies, SYSTEMD)

    def unit(self, load="loaded", file="enabled", active="active", listens="127.0.0.1:3128"):
        text = lambda value: ("v", (("s", value),))
        self.replies["Get"] = [text(load), text(file), text(active),
                               ("v", (("a(ss)", [("Stream", "[::1]:3128"), ("Stream", listens)]),))]

    def close(self):
        self._stand_in.close()


@pytest.fixture
def systemd(bus):
    for folder in FOLDERS:
        os.makedirs(folder, exist_ok=True)
    systemd = Systemd()
    yield systemd
    systemd.close()


def present():
    return [link for link in LINKS if os.path.lexists(link)]


def test_enable_makes_links_that_disable_removes(ctl, systemd):
    systemd.unit()
    result = ctl("relay", "enable")
    assert (result.status, result.output.split(), result.errors) == (ANSWERED, LINKS, "")
    with open(LINKS[0]) as file:
        assert f"no_proxy={NO_PROXY}\n" in file.read()
    with open(LINKS[1]) as file:
        assert f"NO_PROXY={NO_PROXY}\n" in file.read()
    result = ctl("relay", "disable")
    assert (result.status, result.output.split()) == (ANSWERED, LINKS)
    assert present() == []
    assert ctl("relay", "disable").output == ""


@pytest.mark.parametrize("unit, why", [
    ({"load": "not-found"}, "the relay is not installed"),
    ({"active": "failed"}, "proxymanager-relay.socket is not active"),
    ({"file": "disabled"}, "proxymanager-relay.socket is not enabled"),
    ({"listens": "127.0.0.1:3129"}, "does not listen at 127.0.0.1:3128")])
def test_enable_is_refused_while_another_program_could_have_the_port(ctl, systemd, unit, why):
    systemd.unit(**unit)
    status, complaint = said(ctl("relay", "enable"))
    assert status == UNAVAILABLE and why in complaint
    assert present() == []


def test_enable_leaves_a_file_of_somebody_else_alone(ctl, systemd):
    with open(LINKS[2], "w") as file:
        file.write("mine")
    systemd.unit()
    status, complaint = said(ctl("relay", "enable"))
    assert status == OUTPUT and complaint.startswith(f"{LINKS[2]}: it is there")
    assert present() == [LINKS[2]]
    assert ctl("relay", "disable").output == ""
    assert present() == [LINKS[2]]


def test_enable_does_without_folders_that_are_not_there(ctl, systemd):
    os.rename("/etc/apt", "/etc/no-apt")
    systemd.unit()
    assert ctl("relay", "enable").output.split() == LINKS[:2] == present()


def test_only_root_may(ctl, bus, build):
    for what in ("enable", "disable"):
        status, complaint = said(ctl("relay", what, wrapper=STRANGER))
        assert (status, complaint) == (DENIED, "only root may set the proxy of all programs")


def test_status_shows_what_leads_where(ctl, systemd):
    def told(**unit):
        systemd.unit(**unit)
        return rows(ctl("status").output)["relay"]

    assert told(load="not-found") == "not installed"
    assert told(active="inactive") == "installed, its socket unit is not active"
    assert told() == "at 127.0.0.1:3128, not the default of programs"
    systemd.unit()
    ctl("relay", "enable")
    assert told() == "at 127.0.0.1:3128, the default of programs"
    systemd.unit()
    assert ctl("status", "--json").json["relay"] == {
        "default": True, "installed": True, "enabled": True, "active": True}
    disable = 'the default of programs, but {}; run "proxymanagerctl relay disable"'
    assert told(load="not-found") == disable.format("it is not installed")
    assert told(active="inactive") == disable.format("its socket unit is not active")
    assert told(listens="127.0.0.1:1") == disable.format(
        "its socket unit does not listen at 127.0.0.1:3128")
    systemd.replies["Get"] = "org.freedesktop.DBus.Error.Failed"
    assert rows(ctl("status").output)["relay"].startswith(
        "the default of programs; systemd cannot be asked: why")
