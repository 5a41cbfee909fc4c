"""Tests values of option 252 that real networks have, and values that an attacker would choose. A
real server sends them through each DHCP client to the daemon, and the log shows the result."""

import os

from clients import Dhclient, Dhcpcd, Udhcpc, contents, running, wait_for_text
from gateway import OFFICE
from support.bus import wait_until
from support.syslog_socket import ERR, NOTICE, WARNING

LEASE = "/usr/local/lumad/dhcp.conf"
URL = f"http://{OFFICE.address}/proxy.pac"
LONG = URL + "?" + "x" * (251 - len(URL) - 1)
METACHARACTERS = "http://h/$(touch /tmp/run)`touch /tmp/run`;touch /tmp/run|&<>'\"\\#*?{a,b}!~"

# The value that the server sends, and the part that the daemon uses.
VALUES = {
    "trailing_nul": (URL.encode() + b"\0", URL),
    "trailing_newline": (URL.encode() + b"\n", URL),
    # There are two bytes, because the server treats a single byte in hexadecimal as a text.
    "newlines_alone": (b"\n\n", ""),
    "quotes": (b'"' + URL.encode() + b'"', URL),
    "blanks": (b"  " + URL.encode() + b" ", URL),
    "blank_within": (b"http://h/a b", "http://h/a b"),
    "251_characters": (LONG.encode(), LONG),
    "255_characters": (LONG.encode() + b"yyyy", LONG),
    "metacharacters": (METACHARACTERS.encode(), METACHARACTERS),
    "bytes_above_127": (b"http://h/\xff\xfe", "http://h/\ufffd\ufffd"),
    "utf_8": ("http://h/é".encode(), "http://h/é"),
    "no_url": (b"not a url", "not a url"),
    "second_line": (b"http://h/\nwpad=http://evil/", "http://h/"),
    "control_characters": (b"http://\x1b[31mh\x07/\x7f", "http://[31mh/"),
}
GOOD = {URL, LONG}
# dhcpcd itself removes bytes that are not ASCII.
OF_DHCPCD = {"bytes_above_127": "http://h/", "utf_8": "http://h/"}


def takes_every_value(dhcp, client, gateway, syslog, exceptions=None):
    """Makes one lease after the other, each with one of the values. At the end, the daemon must
    still answer."""
    gateway.serve(OFFICE.address, "/proxy.pac", "PROXY first:1")
    client.update("wpad")
    syslog.wait(NOTICE, "PACFetcher-retrievePacFile wpad-dhcp opt252:")
    for name, (sent, taken) in VALUES.items():
        taken = (exceptions or {}).get(name, taken)
        syslog.clear()
        # An empty file differs from the next value. So the hook writes the file, and the daemon
        # notices the change.
        os.truncate(LEASE, 0)
        gateway.options(wpad=sent, search="")
        with running(dhcp):
            dhcp.start()
            wait_for_text(LEASE, "wpad=")
            syslog.wait(NOTICE, f"PACFetcher-retrievePacFile wpad-dhcp opt252:{taken}")
            outcome = ((NOTICE, f"PACFetcher-retrievePacFile PAC file download success url:{taken}")
                       if taken in GOOD else
                       (ERR, f"PACFetcher-retrievePacFile PAC file download failed url:{taken}"))
            syslog.wait(*outcome)
            if len(sent) > 251:
                syslog.wait(WARNING, "netservice: option 252 of 255 characters is cut to 251")
        assert not os.path.exists("/tmp/run"), name
        assert "evil" not in contents(LEASE), name
        assert client.check_started(), name
    wait_until(lambda: client.urls("http://www.example.org/") == ["wpad", "PROXY first:1"],
               "an answer by the last good script")


def test_dhclient_brings_every_value_unharmed(daemon, client, gateway, syslog, hooks):
    takes_every_value(Dhclient(hooks), client, gateway, syslog)


def test_udhcpc_brings_every_value_unharmed(daemon, client, gateway, syslog, hooks):
    takes_every_value(Udhcpc(hooks), client, gateway, syslog)


def test_dhcpcd_brings_every_value_unharmed(daemon, client, gateway, syslog, hooks):
    takes_every_value(Dhcpcd(hooks), client, gateway, syslog, OF_DHCPCD)
