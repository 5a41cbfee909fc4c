"""Tests a device with two links. Each link has a lease, and the default route decides which lease
is in force."""

import os

import pytest
from clients import Dhclient, Dhcpcd, Udhcpc, contents, running, wait_for_text
from gateway import HOME, OFFICE, Gateway
from lan import ip
from support.bus import wait_until

LEASE = "/usr/local/lumad/dhcp.conf"
RESOLVER = "/tmp/.resolv.conf.dnsmasq"
KEPT = "/run/proxymanager/leases"
FLAPS = 10


@pytest.fixture
def office(device):
    gateway = Gateway(OFFICE, "eth0", "office", router=True)
    gateway.options(wpad="http://office.example/proxy.pac")
    yield gateway
    gateway.close()


@pytest.fixture
def home(device):
    gateway = Gateway(HOME, "eth1", "home", router=True)
    gateway.options(wpad="http://home.example/proxy.pac")
    yield gateway
    gateway.close()


def counts(network, interface):
    """Waits until the daemon's files have the values of this network."""
    wait_for_text(LEASE, f"interface='{interface}'\ndomain='{network.domain}'\nwpad='http://")
    wait_until(lambda: contents(RESOLVER) == f"search {network.domain}\n", "the search list")


def comes_back_with_the_others_end(first, second, office, home):
    """`first` has the better default route as long as it has a lease."""
    second.start()
    counts(HOME, "eth1")
    first.start()
    counts(OFFICE, "eth0")
    first.release()
    counts(HOME, "eth1")
    assert os.listdir(KEPT) == ["eth1"]


def test_the_end_of_dhclients_better_lease_brings_back_the_other(hooks, office, home):
    with (running(Dhclient(hooks, "eth0", metric=100)) as first,
          running(Dhclient(hooks, "eth1", metric=200)) as second):
        comes_back_with_the_others_end(first, second, office, home)
        first.start()
        counts(OFFICE, "eth0")
        # The end of the lease with the worse route changes nothing.
        before = [os.stat(path).st_mtime_ns for path in (LEASE, RESOLVER)]
        second.release()
        wait_until(lambda: os.listdir(KEPT) == ["eth0"], "the other lease is forgotten")
        assert [os.stat(path).st_mtime_ns for path in (LEASE, RESOLVER)] == before


def test_the_end_of_udhcpcs_lease_with_the_route_brings_back_the_other(hooks, office, home):
    with running(Udhcpc(hooks, "eth0")) as first, running(Udhcpc(hooks, "eth1")) as second:
        # The script of this client gives the default route to the first link.
        first.start()
        counts(OFFICE, "eth0")
        second.start()
        wait_until(lambda: sorted(os.listdir(KEPT)) == ["eth0", "eth1"], "both leases are kept")
        counts(OFFICE, "eth0")
        first.release()
        counts(HOME, "eth1")
        first.renew()
        counts(OFFICE, "eth0")


def test_a_cable_that_flaps_under_dhcpcd_leaves_the_lease_that_is_there(hooks, office, home):
    with running(Dhcpcd(hooks, "eth0", "eth1")) as dhcp:
        dhcp.start()
        wait_until(lambda: os.path.isdir(KEPT) and sorted(os.listdir(KEPT)) == ["eth0", "eth1"],
                   "both leases are kept")
        counts(OFFICE, "eth0")
        for _ in range(FLAPS):
            office.cable("down")
            office.cable("up")
        counts(OFFICE, "eth0")
        office.cable("down")
        counts(HOME, "eth1")
        office.cable("up")
        counts(OFFICE, "eth0")


def test_a_bridges_lease_counts_by_the_bridges_name(hooks, office, home):
    ip("link", "add", "br0", "type", "bridge")
    ip("link", "set", "eth0", "master", "br0")
    ip("link", "set", "eth0", "up")
    with running(Udhcpc(hooks, "br0")) as bridge, running(Udhcpc(hooks, "eth1")) as other:
        bridge.start()
        counts(OFFICE, "br0")
        other.start()
        wait_until(lambda: sorted(os.listdir(KEPT)) == ["br0", "eth1"], "both leases are kept")
        counts(OFFICE, "br0")
        # If an interface does not exist any more, its lease is removed, even if its client has
        # not reported the end.
        ip("link", "del", "br0")
        other.renew()
        counts(HOME, "eth1")
