"""Tests the hooks with Debian's NetworkManager in a clean, running system: two links, each with a
DHCP server; a bridge; a cable that is unplugged and plugged. Each test continues from the state of
the test before it."""

import pytest
from managed import NETWORKS, PACKAGES, Managed

LEASE = "/usr/local/lumad/dhcp.conf"
RESOLVER = "/tmp/.resolv.conf.dnsmasq"
EVENTS = "/var/log/dispatched"
FLAPS = 10


def lease_of(network, interface=None):
    return (f"interface='{interface or NETWORKS[network][0]}'\ndomain='{network}.example'\n"
            f"wpad='http://{network}.example/proxy.pac'\n")


class Dispatching(Managed):
    """A system that logs the dispatched events."""

    def plug_in(self):
        # This hook runs last and logs a line. When the line is in the log, the hook of the
        # package has ended.
        last = self.root / "etc/NetworkManager/dispatcher.d/90-log"
        last.write_text(f'#!/bin/sh\necho "$1 $2" >>{EVENTS}\n')
        last.chmod(0o755)
        (self.root / EVENTS[1:]).touch()
        super().plug_in()

    def events(self):
        return (self.root / EVENTS[1:]).read_text().splitlines()

    def counts(self, network, interface=None):
        """Waits until the daemon's files have the values of this network."""
        self.wait(lambda: self.text(LEASE) == lease_of(network, interface),
                  f"the lease of {network}")
        self.wait(lambda: self.text(RESOLVER) == f"search {network}.example\n",
                  f"the search list of {network}")


@pytest.fixture(scope="session")
def managed(built, packages):
    with Dispatching(packages, names=PACKAGES, others=built.values()) as booted:
        booted.install_packages()
        booted.plug_in()
        yield booted


@pytest.fixture(autouse=True)
def said(managed, request):
    """The log of NetworkManager, for the report of a failed test."""
    yield
    print(managed.run("journalctl", "--no-pager", "-n", "40", "-u", "NetworkManager*",
                      check=False).stdout, managed.events()[-20:])


def test_the_lease_of_the_default_route_counts_and_its_end_brings_back_the_other(managed):
    managed.nmcli("connection", "up", "home")
    managed.counts("home")
    managed.nmcli("connection", "up", "office")
    managed.counts("office")
    managed.nmcli("connection", "up", "home")
    managed.counts("office")
    managed.nmcli("connection", "down", "office")
    managed.counts("home")
    managed.nmcli("connection", "up", "office")
    managed.counts("office")
    # With another metric, another route is the default route.
    managed.nmcli("connection", "modify", "home", "ipv4.route-metric", "50")
    managed.nmcli("connection", "up", "home")
    managed.counts("home")
    managed.nmcli("connection", "modify", "home", "ipv4.route-metric", "200")
    managed.nmcli("connection", "up", "home")
    managed.counts("office")


def test_an_interface_without_a_lease_changes_nothing(managed):
    managed.counts("office")
    before = managed.run("stat", "--format=%y", LEASE, RESOLVER).stdout
    # One interface is like that of a container engine, and one has a fixed address.
    managed.run("ip", "link", "add", "docker0", "type", "bridge")
    managed.run("ip", "address", "add", "172.17.0.1/16", "dev", "docker0")
    managed.run("ip", "link", "set", "docker0", "up")
    managed.run("ip", "link", "add", "fixed0", "type", "veth", "peer", "name", "other", "netns", "home")
    managed.run("ip", "-n", "home", "link", "set", "other", "up")
    managed.nmcli("connection", "add", "type", "ethernet", "con-name", "fixed", "ifname", "fixed0",
                  "autoconnect", "no", "ipv4.method", "manual", "ipv4.addresses", "10.9.0.1/24",
                  "ipv6.method", "disabled")
    managed.nmcli("connection", "up", "fixed")
    for event in ("docker0 up", "fixed0 up"):
        managed.wait(lambda: event in managed.events(), f"the event {event}")
    managed.nmcli("connection", "down", "fixed")
    managed.wait(lambda: "fixed0 down" in managed.events(), "the end of fixed0")
    managed.counts("office")
    assert managed.run("stat", "--format=%y", LEASE, RESOLVER).stdout == before


def test_a_cable_that_flaps_ends_with_the_lease_of_the_link_that_is_there(managed):
    for _ in range(FLAPS):
        managed.cable("office", "down")
        managed.cable("office", "up")
    managed.nmcli("connection", "up", "office")
    managed.counts("office")
    # NetworkManager waits some seconds before it treats a carrier as lost.
    managed.cable("office", "down")
    managed.counts("home")
    managed.cable("office", "up")
    managed.nmcli("connection", "up", "office")
    managed.counts("office")


def test_a_bridge_with_a_lease_counts_as_its_default_route_says(managed):
    managed.nmcli("connection", "down", "office")
    managed.counts("home")
    managed.nmcli("connection", "add", "type", "bridge", "con-name", "br0", "ifname", "br0",
                  "bridge.stp", "no", "ipv6.method", "disabled", "ipv4.route-metric", "100")
    managed.nmcli("connection", "add", "type", "ethernet", "con-name", "br0-eth0", "ifname", "eth0",
                  "master", "br0")
    managed.nmcli("connection", "up", "br0-eth0")
    managed.counts("office", "br0")
    # When both leases have ended, no values are left.
    managed.nmcli("connection", "down", "br0")
    managed.counts("home")
    managed.nmcli("connection", "down", "home")
    managed.wait(lambda: managed.text(LEASE) == "interface='eth1'\ndomain=''\nwpad=''\n",
                 "an empty lease")
    assert managed.text(RESOLVER) == ""
