"""Tests that the daemon maps some libraries only when it needs them."""

import os
import subprocess

import pytest

from support.bus import Client, wait_until
from support.daemon import Daemon, make_watched_files
from support.own_network import hosts
from support.own_root import MS_BIND, mount, unmount
from support.syslog_socket import ERR, INFO
from support.watched import append_and_settle
from support.web import script

URL = "http://www.example.org/"
CANDIDATES = "PACFetcher-wpadUrlCandidatesFromDomain wpad-dns candidates size:"
LOADED = "PacParser-parsePacFile pac init"
# The libraries for scripts that look up names, for names beyond ASCII, and for mode wpad.
SELDOM = ("libcares.so.2", "libidn2.so.0", "libpsl.so.5")
RESOLVER = "/tmp/.resolv.conf.dnsmasq"
# Only the fetch process uses these libraries. The daemon's digest of scripts is linked statically.
NEVER = ("libcurl.so.4", "libssl.so.3", "libcrypto.so.3")


def mapped(daemon, libraries):
    """The libraries of `libraries` that the daemon has mapped."""
    with open(f"/proc/{daemon.pid}/maps") as maps:
        text = maps.read()
    return [library for library in libraries if f"/{library}" in text]


def path_of(library):
    """The path at which the loader finds the library."""
    for line in os.popen("ldconfig -p"):
        if line.split(" ", 1)[0].strip() == library:
            return os.path.realpath(line.rsplit("=> ", 1)[1].strip())
    raise AssertionError(f"no {library} on this machine")


@pytest.fixture
def hidden_library(root):
    """Hides a library. Programs that have mapped the library already keep it. Returns a function
    that shows the library again."""
    def hide(library):
        path = path_of(library)
        with open("/tmp/empty", "w"):
            pass
        mount("/tmp/empty", path, flags=MS_BIND)
        return lambda: unmount(path)
    return hide


def test_a_plain_script_maps_no_library(daemon, client, web, syslog):
    client.update("manual", proxyurl="http://proxy.example.org:3128")
    assert client.urls(URL) == ["manual", "http://proxy.example.org:3128"]
    client.update("off")
    assert client.urls(URL) == ["off", ""]
    assert mapped(daemon, SELDOM + NEVER) == []
    web.routes["/x.pac"] = script("PROXY p:1")
    client.update("pacurl", pacurl=web.url("/x.pac"))
    syslog.wait(INFO, LOADED)
    assert client.urls(URL) == ["pacurl", "PROXY p:1"]
    assert mapped(daemon, SELDOM + NEVER) == []


def test_mode_wpad_maps_the_library_of_public_suffixes(own_network, daemon, client, syslog):
    append_and_settle(RESOLVER, "search corp.example.org\n", syslog)
    client.update("wpad")
    syslog.wait(INFO, CANDIDATES + "2")
    assert mapped(daemon, SELDOM[2:]) == ["libpsl.so.5"]


def test_without_the_library_of_public_suffixes_no_server_of_the_domain_is_asked(
        own_network, bus, build, syslog, hidden_library):
    show = hidden_library("libpsl.so.5")
    make_watched_files()
    daemon = Daemon(build)
    with Client() as client:
        append_and_settle(RESOLVER, "search corp.example.org\n", syslog)
        client.update("wpad")
        syslog.wait_match(ERR, r"on_demand: no libpsl\.so\.5: .+")
        syslog.wait(INFO, CANDIDATES + "0")
        show()
        client.update("off")
        client.update("wpad")
        syslog.wait(INFO, CANDIDATES + "2")
    assert daemon.stop() == 0
    daemon.close()


def test_a_script_that_looks_a_name_up_maps_the_library_for_it(own_network, daemon, client, web,
                                                               syslog):
    hosts("known.example")
    web.routes["/x.pac"] = ('function FindProxyForURL(url, host) '
                            '{ return dnsResolve("known.example") ? "PROXY a:1" : "PROXY b:1"; }')
    client.update("pacurl", pacurl=web.url("/x.pac"))
    syslog.wait(INFO, LOADED)
    assert client.urls(URL) == ["pacurl", "PROXY a:1"]
    assert mapped(daemon, SELDOM) == ["libcares.so.2"]


def test_libcurl_is_never_mapped_whatever_is_downloaded_and_asked(build, daemon, client, web, syslog):
    needed = subprocess.run(["readelf", "-d", f"{build}/out/sbin/proxymanagerd"],
                            capture_output=True, text=True, check=True).stdout
    assert "NEEDED" in needed and "libcurl" not in needed and "libcrypto" not in needed
    for number in range(10):
        web.routes[f"/{number}.pac"] = script(f"PROXY p:{number + 1}")
        client.update("pacurl", pacurl=web.url(f"/{number}.pac"))
        wait_until(lambda: client.urls(f"http://h{number}.example/") ==
                   ["pacurl", f"PROXY p:{number + 1}"], "the new script answers")
    assert mapped(daemon, NEVER) == []


def test_without_libcurl_the_download_fails_and_the_daemon_goes_on(build, bus, syslog, web,
                                                                   hidden_library):
    show = hidden_library("libcurl.so.4")
    make_watched_files()
    daemon = Daemon(build)
    with Client() as client:
        client.update("pacurl", pacurl=web.url("/x.pac"))
        syslog.wait_match(ERR, r"fetcher: no download: the fetch process ended without a result \(exit 127\)")
        syslog.wait_match(ERR, r"PACFetcher-fileDownload failed to initialize curl handle! url:.+")
        assert client.urls(URL) == ["pacurl"]
        assert web.requests == []
        client.update("manual", proxyurl="http://proxy.example.org:3128")
        assert client.urls(URL) == ["manual", "http://proxy.example.org:3128"]
        # The library becomes available again.
        show()
        web.routes["/x.pac"] = script("PROXY p:1")
        client.update("pacurl", pacurl=web.url("/x.pac"))
        syslog.wait(INFO, LOADED)
        assert client.urls(URL) == ["pacurl", "PROXY p:1"]
    assert daemon.stop() == 0
    daemon.close()
