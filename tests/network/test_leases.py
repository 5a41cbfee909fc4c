"""Tests that the daemon follows the leases of each DHCP client, without any call on the bus."""

import os

from clients import Dhclient, Dhcpcd, Udhcpc, contents, running, wait_for_text
from gateway import HOME, OFFICE
from support.bus import wait_until
from support.syslog_socket import NOTICE

LEASE = "/usr/local/lumad/dhcp.conf"
RESOLVER = "/tmp/.resolv.conf.dnsmasq"


def answer_comes(client, proxy):
    """Waits until the answers are those of the new script."""
    wait_until(lambda: client.urls("http://www.example.org/") == ["wpad", proxy],
               f"the answer {proxy}", pause=0.05)


def follows_leases(dhcp, client, gateway, signals, syslog):
    """The same steps for each client: two leases with option 252, one without, and another
    network."""
    watched = {path: os.stat(path).st_ino for path in (LEASE, RESOLVER)}
    office, home = (f"http://{network.address}/proxy.pac" for network in (OFFICE, HOME))
    gateway.serve(OFFICE.address, "/proxy.pac", "PROXY first:1")
    gateway.serve(OFFICE.address, "/other.pac", "PROXY second:1")
    gateway.serve("wpad.office.example", "/wpad.dat", "PROXY named:1")
    gateway.serve("wpad.lab.home.example", "/wpad.dat", "PROXY home:1")
    client.update("wpad")
    gateway.options(wpad=office, renew=3)
    dhcp.start()
    answer_comes(client, "PROXY first:1")
    wait_for_text(LEASE, f"interface='eth0'\ndomain='{OFFICE.domain}'\nwpad='{office}'\n")
    wait_for_text(RESOLVER, f"search {OFFICE.domain}\n")

    signals.clear()
    gateway.options(wpad=office.replace("proxy", "other"), renew=3)
    dhcp.renew()
    signals.wait("notifyClearcache")
    answer_comes(client, "PROXY second:1")

    signals.clear()
    gateway.name("wpad.office.example")
    gateway.options(renew=3)
    dhcp.renew()
    signals.wait("notifyClearcache")
    answer_comes(client, "PROXY named:1")
    syslog.wait(NOTICE, "PACFetcher-retrievePacFile wpad-dhcp opt252:")
    wait_for_text(LEASE, "wpad=''\n")

    def plug():
        gateway.become(HOME)
        gateway.name("wpad.lab.home.example")

    signals.clear()
    dhcp.replug(plug)
    signals.wait("notifyClearcache")
    answer_comes(client, "PROXY home:1")
    wait_for_text(RESOLVER, f"search {HOME.domain}\n")
    assert watched == {path: os.stat(path).st_ino for path in watched}, "the watched files are new"
    assert signals.count("notifyProxyConfigupdated") == 0


def ends_its_lease(dhcp, gateway):
    """Ends a lease, and checks that its values are removed."""
    gateway.options(wpad=f"http://{OFFICE.address}/proxy.pac")
    dhcp.start()
    wait_for_text(LEASE, "proxy.pac")
    wait_for_text(RESOLVER, OFFICE.domain)
    watched = {path: os.stat(path).st_ino for path in (LEASE, RESOLVER)}
    dhcp.release()
    wait_for_text(LEASE, "interface='eth0'\ndomain=''\nwpad=''\n")
    wait_until(lambda: contents(RESOLVER) == "", "an empty resolver file")
    assert watched == {path: os.stat(path).st_ino for path in watched}


def test_the_daemon_follows_dhclient(daemon, client, gateway, signals, syslog, hooks):
    with running(Dhclient(hooks)) as dhcp:
        follows_leases(dhcp, client, gateway, signals, syslog)


def test_the_daemon_follows_udhcpc(daemon, client, gateway, signals, syslog, hooks):
    with running(Udhcpc(hooks)) as dhcp:
        follows_leases(dhcp, client, gateway, signals, syslog)


def test_the_daemon_follows_dhcpcd(daemon, client, gateway, signals, syslog, hooks):
    with running(Dhcpcd(hooks)) as dhcp:
        follows_leases(dhcp, client, gateway, signals, syslog)


def test_a_lease_that_dhclient_gives_back_leaves_no_values(gateway, hooks):
    with running(Dhclient(hooks)) as dhcp:
        ends_its_lease(dhcp, gateway)


def test_a_lease_that_udhcpc_gives_back_leaves_no_values(gateway, hooks):
    with running(Udhcpc(hooks)) as dhcp:
        ends_its_lease(dhcp, gateway)


def test_a_lease_that_dhcpcd_gives_back_leaves_no_values(gateway, hooks):
    with running(Dhcpcd(hooks)) as dhcp:
        ends_its_lease(dhcp, gateway)


def test_a_lease_renewed_with_the_same_values_touches_nothing(daemon, client, gateway, syslog,
                                                              hooks):
    gateway.serve(OFFICE.address, "/proxy.pac", "PROXY first:1")
    gateway.options(wpad=f"http://{OFFICE.address}/proxy.pac")
    client.update("wpad")
    with running(Udhcpc(hooks)) as dhcp:
        dhcp.start()
        answer_comes(client, "PROXY first:1")
        before = [os.stat(path).st_mtime_ns for path in (LEASE, RESOLVER)]
        seen = dhcp.count("renew")
        dhcp.renew()
        wait_until(lambda: dhcp.count("renew") > seen, "the renewed lease")
        assert [os.stat(path).st_mtime_ns for path in (LEASE, RESOLVER)] == before
