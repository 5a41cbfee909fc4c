"""Tests downloads from servers that behave well or badly, as real servers do. After each download,
the old script or the complete new one answers, no temporary file is left, and the log shows what
happened."""

import gzip
import os
import shutil
import socket
import time

import pytest
from gateway import trusted_authority
from support.bus import wait_until
from support.syslog_socket import DEBUG, ERR, NOTICE
from support.web import reset, response, script

PAC = "/tmp/proxymanager.pac"
LIMIT = 512000  # bytes of a script
SECONDS = 30  # the time limit of a transfer


@pytest.fixture
def online(gateway, daemon):
    gateway.connect_device()
    gateway.name("secure.office.example")
    gateway.name("other.office.example")
    gateway.name("xn--bcher-kva.office.example")
    return gateway


class Downloads:
    """A daemon in mode pacurl with a script that answers PROXY old:1."""

    def __init__(self, gateway, client, syslog):
        self.web, self.client, self.syslog = gateway.web(), client, syslog
        self.old = script("PROXY old:1")
        self.web.routes["/old.pac"] = self.old
        self.fetch(self.url("/old.pac"))
        self._outcome("success", self.url("/old.pac"))
        self.answers("PROXY old:1")

    def url(self, path):
        return self.web.base + path

    def fetch(self, url):
        self.syslog.clear()
        self.client.update("pacurl", pacurl=url)

    def answers(self, proxy):
        wait_until(lambda: self.client.urls("http://a/") == ["pacurl", proxy], proxy)

    def _outcome(self, outcome, url, limit=60):
        level = NOTICE if outcome == "success" else ERR
        self.syslog.wait(level, f"PACFetcher-retrievePacFile PAC file download {outcome} url:{url}",
                         limit=limit)

    def fails(self, url, transferred, code, limit=60):
        """Asserts that the old script stays. `transferred`: whether the transfer itself
        succeeded."""
        self.fetch(url)
        self._outcome("failed", url, limit)
        self.syslog.wait(DEBUG, f"PACFetcher-fileDownload result success:{transferred}, code:{code}")
        with open(PAC) as file:
            assert file.read() == self.old, url
        # The file is removed immediately after the line for which the test waits.
        wait_until(lambda: not os.path.exists(PAC + ".tmp"), "no temporary file")
        self.answers("PROXY old:1")

    def installs(self, url, text, answer, code=200):
        self.fetch(url)
        self._outcome("success", url)
        self.syslog.wait(DEBUG, f"PACFetcher-fileDownload result success:true, code:{code}")
        with open(PAC) as file:
            assert file.read() == text, url
        assert not os.path.exists(PAC + ".tmp"), url
        self.answers(answer)
        self.fetch(self.url("/old.pac"))
        self._outcome("success", self.url("/old.pac"))
        self.answers("PROXY old:1")


@pytest.fixture
def downloads(online, client, syslog):
    return Downloads(online, client, syslog)


def redirect(target):
    return response(status="302 Found", headers=[f"Location: {target}"])


def padded(length):
    text = script("PROXY big:1")
    return text + "//" + "x" * (length - len(text) - 2)


def unannounced(text):
    return response(text, length=False)


def test_redirects_are_followed_five_times_and_never_off_the_web(downloads):
    routes = downloads.web.routes
    new = script("PROXY new:1")
    routes["/0"] = new
    for number in range(1, 7):
        routes[f"/{number}"] = redirect(f"/{number - 1}")
    downloads.installs(downloads.url("/5"), new, "PROXY new:1")
    downloads.fails(downloads.url("/6"), "false", 302)
    routes["/loop"] = redirect("/loop")
    downloads.fails(downloads.url("/loop"), "false", 302)
    open("/tmp/local.pac", "w").write(new)
    data = "data:text/plain,function%20FindProxyForURL(){}"
    for target in ("file:///tmp/local.pac", f"gopher://{downloads.web.base[7:]}/1/0",
                   "ftp://127.0.0.1/x", data):
        routes["/off"] = redirect(target)
        downloads.fails(downloads.url("/off"), "false", 302)
        downloads.fails(target, "false", 0)


def test_a_script_has_512000_bytes_at_most_announced_or_not(downloads):
    routes = downloads.web.routes
    for kind in (response, unannounced):
        routes["/fits"] = kind(padded(LIMIT))
        downloads.installs(downloads.url("/fits"), padded(LIMIT), "PROXY big:1")
        routes["/large"] = kind(padded(LIMIT + 1))
        downloads.fails(downloads.url("/large"), "false", 200)


def test_an_endless_body_is_hung_up_on_within_a_second(downloads):
    hung_up = []

    def endless(connection, _):
        connection.sendall(response(length=False))
        sent, past = 0, None
        try:
            while True:
                connection.sendall(b"x" * 8192)
                sent += 8192
                past = past or (time.monotonic() if sent > LIMIT else None)
        finally:
            hung_up.append(time.monotonic() - past if past else 0)

    downloads.web.routes["/endless"] = endless
    # The test tries the download up to three times, because the machine may be busy.
    for tries in range(1, 4):
        downloads.fails(downloads.url("/endless"), "false", 200)
        wait_until(lambda: len(hung_up) == tries, "the server sees its connection go")
        if min(hung_up) < 1:
            break
    assert min(hung_up) < 1


def test_compressed_bodies_that_nobody_asked_for_stay_compressed(downloads):
    routes, coded = downloads.web.routes, ["Content-Encoding: gzip"]
    routes["/gzip"] = response(gzip.compress(script("PROXY zip:1").encode()), headers=coded)
    downloads.fails(downloads.url("/gzip"), "true", 200)
    bomb = gzip.compress(b"/" * (200 << 20), compresslevel=9)
    assert len(bomb) < LIMIT
    routes["/bomb"] = response(bomb, headers=coded)
    downloads.fails(downloads.url("/bomb"), "true", 200)
    assert not any("accept-encoding" in head.lower() for _, head in downloads.web.requests)


def test_bodies_that_end_early_or_are_none_leave_the_script(downloads):
    routes = downloads.web.routes
    text = script("PROXY cut:1")
    head = response(text + "//more")[:-len("//more")]
    routes["/cut"] = head
    downloads.fails(downloads.url("/cut"), "false", 200)

    def resetting(connection, _):
        connection.sendall(head)
        reset(connection)

    routes["/reset"] = resetting
    downloads.fails(downloads.url("/reset"), "false", 200)
    routes["/nothing"] = response(status="204 No Content", length=False)
    downloads.fails(downloads.url("/nothing"), "true", 204)
    downloads.fails(downloads.url("/missing"), "true", 404)


def test_old_protocols_and_error_pages_may_bring_a_script(downloads):
    text = script("PROXY new:1")
    downloads.web.routes["/1.0"] = f"HTTP/1.0 200 OK\r\n\r\n{text}".encode()
    downloads.installs(downloads.url("/1.0"), text, "PROXY new:1")
    downloads.web.routes["/404"] = response(text, status="404 Not Found")
    downloads.installs(downloads.url("/404"), text, "PROXY new:1", code=404)


def test_servers_have_to_be_who_they_say(online, client, syslog):
    authority = trusted_authority()
    online.start_nginx(authority)
    for host in ("secure.office.example", "other.office.example"):
        online.serve(host, "/x.pac", "PROXY secure:1")
    downloads = Downloads(online, client, syslog)
    downloads.installs("https://secure.office.example/x.pac", script("PROXY secure:1"),
                       "PROXY secure:1")
    for refused in ("https://other.office.example/x.pac",  # the name of another server
                    "https://secure.office.example:8443/x.pac",  # expired
                    "https://secure.office.example:9443/x.pac"):  # an unknown CA
        downloads.fails(refused, "false", 0)


def test_certificates_may_be_a_link_to_another_place(online, client, syslog):
    online.start_nginx(trusted_authority())
    online.serve("secure.office.example", "/x.pac", "PROXY secure:1")
    bundle = "/etc/ssl/certs/ca-certificates.crt"
    os.makedirs("/run/certificates")
    shutil.move(bundle, "/run/certificates/all.pem")
    os.symlink("/run/certificates/all.pem", bundle)
    Downloads(online, client, syslog).installs("https://secure.office.example/x.pac",
                                               script("PROXY secure:1"), "PROXY secure:1")


def test_addresses_and_names_of_all_kinds(online, client, syslog):
    text = script("PROXY new:1")
    address = f"[{online.network.address6}]"
    for host in (address, "xn--bcher-kva.office.example"):
        online.serve(host, "/x.pac", "PROXY new:1")
    downloads = Downloads(online, client, syslog)
    downloads.installs(f"http://{address}/x.pac", text, "PROXY new:1")
    downloads.installs("http://xn--bcher-kva.office.example/x.pac", text, "PROXY new:1")
    downloads.installs("http://bücher.office.example/x.pac", text, "PROXY new:1")
    downloads.fails("http://nowhere.office.example/x.pac", "false", 0)


def test_addresses_of_one_link_are_reached_by_the_name_and_the_number_of_the_link(online, client,
                                                                                   syslog):
    address = online.link_address()
    index = socket.if_nametoindex("eth0")
    for host in (f"[{address}]", "other.office.example"):
        online.serve(host, "/x.pac", "PROXY link:1")
    downloads, text = Downloads(online, client, syslog), script("PROXY link:1")
    for zone in ("eth0", index):
        with open("/etc/resolv.conf", "w") as file:
            file.write(f"nameserver {address}%{zone}\noptions timeout:5 attempts:2\n")
        downloads.installs("http://other.office.example/x.pac", text, "PROXY link:1")
        downloads.installs(f"http://[{address}%25{zone}]/x.pac", text, "PROXY link:1")


@pytest.mark.slow
def test_a_dripping_server_has_30_seconds_and_the_old_script_answers_meanwhile(downloads):
    def drip(connection, _):
        connection.sendall(response(length=False))
        while True:
            connection.sendall(b"/")
            time.sleep(0.2)

    downloads.web.routes["/drip"] = drip
    begin = time.monotonic()
    downloads.fetch(downloads.url("/drip"))
    downloads.web.wait("/drip")
    for host in range(20):
        assert downloads.client.urls(f"http://h{host}/") == ["pacurl", "PROXY old:1"]
    assert time.monotonic() - begin < SECONDS - 1, "they were answered while it dripped"
    downloads.syslog.wait(ERR, "PACFetcher-retrievePacFile PAC file download failed "
                               f"url:{downloads.url('/drip')}", limit=SECONDS + 15)
    assert SECONDS - 1 < time.monotonic() - begin < SECONDS + 15
    downloads.syslog.wait(DEBUG, "PACFetcher-fileDownload result success:false, code:200")
    wait_until(lambda: not os.path.exists(PAC + ".tmp"), "no temporary file")
    downloads.answers("PROXY old:1")
