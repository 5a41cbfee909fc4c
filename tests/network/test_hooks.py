"""Calls the hooks of clients that these tests do not run, with the variables that the clients'
documents name."""

import os
import subprocess

from clients import contents
from lan import ip

LEASE = "/usr/local/lumad/dhcp.conf"
RESOLVER = "/tmp/.resolv.conf.dnsmasq"
URL = "http://wpad.example/$(touch /tmp/run)'x"
EMPTY = "interface='eth0'\ndomain=''\nwpad=''\n"


def run(hook, *words, **variables):
    done = subprocess.run([hook, *words], env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", **variables},
                          capture_output=True, text=True)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert not os.path.exists("/tmp/run")


def expect_full():
    quoted = URL.replace("'", "'\\''")
    assert contents(LEASE) == f"interface='eth0'\ndomain='a.example'\nwpad='{quoted}'\n"
    assert contents(RESOLVER) == "search a.example b.example\n"


def expect_empty():
    assert contents(LEASE) == EMPTY
    assert contents(RESOLVER) == ""


def networkmanager(hooks, *words, **variables):
    run(f"{hooks}/networkmanager", *words, **variables)


OF_NETWORKMANAGER = {"DHCP4_IP_ADDRESS": "10.77.1.50", "DHCP4_WPAD": URL, "DHCP4_DOMAIN_NAME": "a.example",
                     "DHCP4_DOMAIN_SEARCH": "a.example b.example"}


def test_networkmanager_brings_its_lease_and_takes_it_away(hooks):
    networkmanager(hooks, "eth0", "up", **OF_NETWORKMANAGER)
    expect_full()
    networkmanager(hooks, "eth0", "down")
    expect_empty()
    networkmanager(hooks, "eth0", "dhcp4-change", **OF_NETWORKMANAGER)
    expect_full()


def test_networkmanagers_domains_serve_where_the_lease_has_no_search_list(hooks):
    networkmanager(hooks, "eth0", "up", DHCP4_IP_ADDRESS="10.77.1.50",
                   DHCP4_DOMAIN_NAME="a.example", IP4_DOMAINS="c.example d.example")
    assert contents(RESOLVER) == "search c.example d.example\n"


def test_what_else_networkmanager_tells_changes_nothing(hooks):
    ip("link", "add", "eth0", "type", "veth", "peer", "name", "eth1")
    networkmanager(hooks, "eth0", "up", **OF_NETWORKMANAGER)
    for words in (("eth1", "down"), ("eth0", "connectivity-change"), ("eth0", "pre-down"),
                  ("none", "hostname"), ("", "up"), ("docker0", "up"), ("lo", "up"),
                  ("eth0", "dhcp4-change")):
        networkmanager(hooks, *words)
        expect_full()


def networkd_lease(text):
    os.makedirs("/run/systemd/netif/leases", exist_ok=True)
    index = ip("link", "show", "eth0").split(":")[0]
    with open(f"/run/systemd/netif/leases/{index}", "w") as file:
        file.write("# This is private data. Do not parse.\nADDRESS=10.77.1.50\n" + text)


def networkd(hooks, state, interface="eth0"):
    # /sys shows the network of the process that mounted it.
    run("unshare", "--mount", "sh", "-c", 'mount -t sysfs sysfs /sys && exec "$0"',
        f"{hooks}/networkd-dispatcher", IFACE=interface, OperationalState=state,
        AdministrativeState="configured")


def test_systemd_networkd_brings_its_lease_and_takes_it_away(hooks, gateway):
    networkd_lease(f"DOMAINNAME=a.example\nDOMAIN_SEARCH_LIST=a.example b.example\n"
                   f"OPTION_252={(URL + chr(0)).encode().hex()}\n")
    networkd(hooks, "routable")
    expect_full()
    networkd(hooks, "no-carrier")
    expect_empty()
    networkd(hooks, "routable")
    expect_full()
    networkd(hooks, "off", interface="eth1")
    expect_full()


def test_systemd_networkd_without_a_lease_has_no_values(hooks, gateway):
    networkd_lease(f"DOMAINNAME=a.example\nOPTION_252={URL.encode().hex()}\n")
    networkd(hooks, "routable")
    assert contents(RESOLVER) == "search a.example\n"
    os.remove("/run/systemd/netif/leases/" + ip("link", "show", "eth0").split(":")[0])
    networkd(hooks, "routable")
    expect_empty()


def test_a_second_interfaces_lease_takes_the_place_and_the_firsts_end_changes_nothing(hooks):
    ip("link", "add", "eth0", "type", "veth", "peer", "name", "eth1")
    networkmanager(hooks, "eth0", "up", **OF_NETWORKMANAGER)
    networkmanager(hooks, "eth1", "up", DHCP4_IP_ADDRESS="10.77.1.60",
                   DHCP4_WPAD="http://second.example/", DHCP4_DOMAIN_NAME="second.example")
    after = "interface='eth1'\ndomain='second.example'\nwpad='http://second.example/'\n"
    assert contents(LEASE) == after
    networkmanager(hooks, "eth0", "down")
    assert contents(LEASE) == after


def test_any_hook_ends_the_lease_of_an_interface_that_is_gone(hooks, request):
    program = f"{request.config.getoption('--libexec')}/proxymanager-lease"
    urls = {name: f"http://{name}.example/" for name in ("usb0", "usb1")}
    for name, url in urls.items():
        ip("link", "add", name, "type", "veth", "peer", "name", f"{name}-peer")
        run(program, "plain", name, url, "", "")
    assert urls["usb1"] in contents(LEASE)
    for gone, left in (("usb1", urls["usb0"]), ("usb0", "wpad=''")):
        ip("link", "del", gone)
        run(program, "end", "lo")
        assert left in contents(LEASE), gone
    with open(LEASE, "w") as file:
        file.write("another program's")
    run(program, "end", "lo")
    assert contents(LEASE) == "another program's"


def test_udhcpcs_word_for_a_bad_name_is_none(hooks):
    run(f"{hooks}/udhcpc", "bound", UDHCPC_SCRIPT="true", interface="eth0", domain="bad")
    assert contents(RESOLVER) == ""


def test_udhcpcs_other_script_decides_the_outcome(hooks):
    done = subprocess.run([f"{hooks}/udhcpc", "bound"], env={
        "PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "UDHCPC_SCRIPT": "false", "interface": "eth0",
        "wpad": "http://a/"})
    assert done.returncode == 1
    assert "wpad='http://a/'" in contents(LEASE)


def test_a_planted_resolver_file_is_not_written_and_the_lease_is(hooks):
    with open("/tmp/victim", "w") as victim:
        victim.write("victim")
    os.symlink("/tmp/victim", RESOLVER)
    done = subprocess.run([f"{hooks}/networkmanager", "eth0", "up"],
                          env={"PATH": "/usr/bin:/bin", **OF_NETWORKMANAGER}, capture_output=True,
                          text=True)
    assert f"netservice: {RESOLVER} not written: Too many levels of symbolic links" in done.stderr
    assert contents("/tmp/victim") == "victim"
    assert "domain='a.example'" in contents(LEASE)


def test_the_program_says_how_it_is_called(hooks, request):
    program = f"{request.config.getoption('--libexec')}/proxymanager-lease"
    for words in ((), ("plain", "eth0"), ("end",), ("octal", "eth0", "", "", "")):
        done = subprocess.run([program, *words], capture_output=True, text=True)
        assert (done.returncode, done.stdout) == (64, ""), words
        assert done.stderr.startswith("usage: proxymanager-lease "), words
    for name in ("../eth0", "", "an-interface-of-more-than-15-bytes"):
        done = subprocess.run([program, "plain", name, "", "", ""], capture_output=True, text=True)
        assert done.returncode == 64
        assert "netservice: not the name of a network interface" in done.stderr
    assert not os.path.exists(LEASE)
    done = subprocess.run([program, "--help"], capture_output=True, text=True)
    assert done.returncode == 0 and done.stdout.startswith("usage: ")
