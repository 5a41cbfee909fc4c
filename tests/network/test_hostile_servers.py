"""Tests servers that attack their clients. Each server can spoil only its own download. The
daemon's private memory (read before, during and after the download) grows by 256 KiB at most. The
fetch process has ended after 30.5 s at most. The next download works."""

import contextlib
import gzip
import itertools
import socket
import ssl
import threading
import time

import pytest
from gateway import trusted_authority
from support.syslog_socket import ERR
from support.web import response, script
from test_downloads import Downloads, online  # noqa: F401

GROWTH = 256 << 10  # bytes
MOST = 30.5  # seconds


def private_bytes(pid):
    """The memory that the daemon itself has written. Pages of files are left out, because other
    programs decide whether such pages are private or shared."""
    with open(f"/proc/{pid}/smaps_rollup") as file:
        return sum(int(line.split()[1]) << 10 for line in file if line.startswith("Private_Dirty"))


def sending(*parts):
    """Each part is bytes, sent once, or an iterator, which is sent to its end."""
    def route(connection, _):
        with contextlib.suppress(OSError):
            for part in parts:
                for piece in (part,) if isinstance(part, bytes) else part:
                    connection.sendall(piece)
    return route


def for_ever(piece):
    return itertools.repeat(piece)


HEAD = b"HTTP/1.1 200 OK\r\n"
CHUNKED = HEAD + b"Transfer-Encoding: chunked\r\n\r\n"
KILO = b"x" * 1000


def drip():
    while True:
        yield b"/"
        time.sleep(0.2)


def compressed(text):
    return response(gzip.compress(text), headers=["Content-Encoding: gzip"])


ROUTES = {
    # Decoded, this would be 100 MB. But the daemon never decodes it: it accepts no compressed
    # scripts.
    "gzip_bomb": lambda: compressed(script("PROXY bomb:1").encode() + b"/" * (100 << 20)),
    "gzip_of_a_script": lambda: compressed(script("PROXY bomb:1").encode()),
    "endless_trailers": lambda: sending(CHUNKED + b"1\r\nx\r\n0\r\n",
                                        for_ever(b"Trailer: " + KILO + b"\r\n")),
    "endless_headers": lambda: sending(HEAD, for_ever(b"Header: " + KILO + b"\r\n")),
    "endless_header_line": lambda: sending(HEAD + b"Header: ", for_ever(KILO)),
    "endless_early_answers": lambda: sending(for_ever(b"HTTP/1.1 102 Processing\r\n\r\n" * 100)),
    "endless_chunk_extension": lambda: sending(CHUNKED + b"1;", for_ever(KILO * 64)),
    "endless_empty_chunk_size": lambda: sending(CHUNKED, for_ever(b"0" * 64000)),
    "huge_cookie": lambda: sending(HEAD + b"Set-Cookie: a=", b"c" * (10 << 20), b"\r\n\r\n"),
    "redirect_ring": lambda: response(status="302 Found", headers=["Location: /hostile"]),
    "silence": lambda: sending(b"", (time.sleep(60) or b"" for _ in range(1))),
    "drip": lambda: sending(HEAD + b"\r\n", drip()),
}


@pytest.fixture
def downloads(online, client, syslog):  # noqa: F811
    return Downloads(online, client, syslog)


class Watched:
    """Reads the daemon's private memory every 50 ms."""

    def __init__(self, pid):
        self.before = self.most = private_bytes(pid)
        self._pid, self._done = pid, threading.Event()
        self._thread = threading.Thread(target=self._run)

    def _run(self):
        while not self._done.wait(0.05):
            self.most = max(self.most, private_bytes(self._pid))

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._done.set()
        self._thread.join()


def costs_its_own_download(downloads, daemon, url, name, capsys):
    # The first download and the first question happen before the measurement.
    downloads.fetch(downloads.url("/old.pac"))
    downloads.answers("PROXY old:1")
    with Watched(daemon.pid) as memory:
        begin = time.monotonic()
        downloads.fetch(url)
        downloads.syslog.wait(ERR, f"PACFetcher-retrievePacFile PAC file download failed url:{url}",
                              limit=90)
        seconds = time.monotonic() - begin
    after = private_bytes(daemon.pid)
    with capsys.disabled():
        print(f"\n{name}: {seconds:.1f} s, daemon {memory.before >> 10} KiB before, "
              f"{(memory.most - memory.before) >> 10} KiB more during, "
              f"{(after - memory.before) >> 10} KiB more after")
    assert memory.most - memory.before <= GROWTH
    assert after - memory.before <= GROWTH
    downloads.installs(downloads.url("/new.pac"), script("PROXY new:1"), "PROXY new:1")
    return seconds


@pytest.mark.slow
@pytest.mark.parametrize("name", ROUTES)
def test_a_hostile_server_costs_its_own_download(downloads, daemon, capsys, name):
    downloads.web.routes["/hostile"] = ROUTES[name]()
    downloads.web.routes["/new.pac"] = script("PROXY new:1")
    url = downloads.url("/hostile")
    # The test tries this up to three times, because the machine may pause.
    for _ in range(3):
        seconds = costs_its_own_download(downloads, daemon, url, name, capsys)
        if seconds < MOST:
            break
    assert seconds < MOST


@pytest.mark.slow
def test_a_certificate_chain_of_10_mb_costs_its_own_download(downloads, daemon, capsys):
    downloads.web.routes["/new.pac"] = script("PROXY new:1")
    authority = trusted_authority()
    with open(f"{authority.folder}/good.pem") as file:
        certificate = file.read()
    size = len(ssl.PEM_cert_to_DER_cert(certificate))
    chain = f"{authority.folder}/chain.pem"
    with open(chain, "w") as file:
        file.write(certificate * ((10 << 20) // size + 1))
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(chain, f"{authority.folder}/good.key")
    shaken = []
    with socket.create_server(("127.0.0.1", 0)) as server:
        def accept():
            with contextlib.suppress(OSError):
                while True:
                    connection = server.accept()[0]
                    connection.settimeout(60)
                    with contextlib.suppress(OSError):
                        shaken.append(True)
                        context.wrap_socket(connection, server_side=True).close()
        threading.Thread(target=accept, daemon=True).start()
        url = f"https://127.0.0.1:{server.getsockname()[1]}/x.pac"
        assert costs_its_own_download(downloads, daemon, url, "certificates", capsys) < MOST
        assert shaken, "the child got the certificates"
        server.shutdown(socket.SHUT_RDWR)


@pytest.mark.slow
def test_a_tls_server_that_stalls_in_the_handshake_costs_its_own_download(downloads, daemon, capsys):
    downloads.web.routes["/new.pac"] = script("PROXY new:1")
    held = []
    with socket.create_server(("127.0.0.1", 0)) as server:
        def accept():
            with contextlib.suppress(OSError):
                while True:
                    held.append(server.accept()[0])
        threading.Thread(target=accept, daemon=True).start()
        url = f"https://127.0.0.1:{server.getsockname()[1]}/x.pac"
        for _ in range(3):
            seconds = costs_its_own_download(downloads, daemon, url, "stalled handshake", capsys)
            if seconds < MOST:
                break
        assert seconds < MOST
        server.shutdown(socket.SHUT_RDWR)
    for connection in held:
        connection.close()
