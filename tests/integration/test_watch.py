"""Tests that the daemon watches the files that exist at its start, as long as they exist."""

import os
import re

from support.bus import wait_until
from support.daemon import Daemon, make_watched_files
from support.syslog_socket import ERR, INFO
from support.watched import append_and_settle

LEASE = "/usr/local/lumad/dhcp.conf"
RESOLVER = "/tmp/.resolv.conf.dnsmasq"
WATCH = "PACFetcher-dhcpCfgWatchThreadFunc"
EVENT = 16  # bytes
APPENDED = 2 * EVENT  # the change and the closing


def bytes_read(syslog):
    """Returns how many bytes of events the daemon has read since its start, as its log shows."""
    return sum(int(length) for length in
               re.findall(rf"^{WATCH} read len:(\d+)$", "\n".join(syslog.texts()), re.MULTILINE))


def write(path):
    with open(path, "w") as file:
        file.write("wpad=http://127.0.0.1:1/\n")


def test_a_file_that_comes_after_the_start_is_not_watched(build, bus, syslog):
    make_watched_files()
    os.remove(LEASE)
    daemon = Daemon(build)
    syslog.wait(ERR, f"{WATCH} error setting up watch on path:{LEASE}")
    syslog.wait_match(INFO, r"PACFetcher-wait_for_changes fd:\d+, interval:1800")
    write(LEASE)
    append_and_settle(RESOLVER, "\n", syslog)
    assert bytes_read(syslog) == APPENDED
    daemon.close()


def test_a_file_that_another_replaced_is_not_watched_any_more(daemon, syslog):
    syslog.wait_match(INFO, r"PACFetcher-wait_for_changes fd:\d+, interval:1800")
    write(LEASE + ".new")
    os.rename(LEASE + ".new", LEASE)
    replaced = 2 * EVENT  # events: the old file has lost its last link, and its watch has ended
    wait_until(lambda: bytes_read(syslog) >= replaced, "the change of names is read")
    write(LEASE)
    append_and_settle(RESOLVER, "\n", syslog)
    assert bytes_read(syslog) == replaced + APPENDED
