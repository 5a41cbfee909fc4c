"""Tests the daemon of docs/examples/own_netservice, whose lease comes from the device's own file.

The check AnotherProjectCanAddThisTree builds this daemon.
"""

import os

import pytest
from support.daemon import Daemon, make_watched_files
from support.syslog_socket import INFO, NOTICE
from support.web import script

UPLINKS = "/run/uplinks/leases"
LEASE = "/usr/local/lumad/dhcp.conf"


@pytest.fixture
def daemon(build, syslog, bus):
    make_watched_files()
    os.mkdir(os.path.dirname(UPLINKS))
    daemon = Daemon(build.rstrip("/") + "-embed/device/proxymanager")
    yield daemon
    daemon.close()


def write_uplinks(*lines):
    with open(UPLINKS, "w") as file:
        file.write("\n".join(lines) + "\n")


@pytest.mark.slow
def test_the_script_comes_from_where_the_devices_own_lease_says(client, syslog, web):
    web.routes["/mobile.pac"] = script("PROXY mobile:1")
    web.routes["/office.pac"] = script("PROXY office:1")
    web.routes["/lease.pac"] = script("PROXY lease:1")
    with open(LEASE, "w") as lease:
        lease.write(f"wpad='{web.url('/lease.pac')}'\n")
    write_uplinks("wan0 down " + web.url("/office.pac"), "wwan0 up " + web.url("/mobile.pac"))
    client.update("wpad")
    syslog.wait(INFO, "PacParser-parsePacFile pac init")
    assert client.urls("http://a/") == ["wpad", "PROXY mobile:1"]
    assert "/lease.pac" not in web.paths()


@pytest.mark.slow
def test_a_touch_of_the_watched_lease_file_makes_the_daemon_look_again(client, syslog, web):
    web.routes["/office.pac"] = script("PROXY office:1")
    write_uplinks("wan0 up -")
    client.update("wpad")
    syslog.wait(NOTICE, "PACFetcher-retrievePacFile wpad-dhcp opt252:")
    syslog.wait_match(INFO, r"PACFetcher-wait_for_changes fd:\d+, interval:1800")
    write_uplinks("wan0 up " + web.url("/office.pac"))
    os.utime(LEASE)
    syslog.wait(INFO, "PacParser-parsePacFile pac init")
    assert client.urls("http://a/") == ["wpad", "PROXY office:1"]
