"""Tests headless Chromium and Firefox in each mode, with a page of fifty resources and a websocket.
The browser gets the relay as a fixed proxy, or through the relay's own script."""

import base64
import hashlib
import os
import signal
import socketserver
import subprocess
import sys
import tempfile
import threading

import pytest
from relay_world import ADDRESSES, DONE, MODES, RESOURCES, SOCKET_AT
from support.bus import wait_until
from support.real_proxies import HTTP_PROXY

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../browsers"))
import chromium  # noqa: E402
import firefox  # noqa: E402

WANTED = f"{RESOURCES} scripts, websocket"


class Echo(socketserver.BaseRequestHandler):
    """A websocket server that sends one short message back."""

    def handle(self):
        stream = self.request.makefile("rb")
        key = None
        while (line := stream.readline().strip()):
            name, _, value = line.partition(b":")
            if name.lower() == b"sec-websocket-key":
                key = value.strip()
        accept = base64.b64encode(
            hashlib.sha1(key + b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11").digest())
        self.request.sendall(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
                             b"Connection: Upgrade\r\nSec-WebSocket-Accept: " + accept + b"\r\n\r\n")
        head = stream.read(2)
        length = head[1] & 0x7F
        mask, data = stream.read(4), stream.read(length)
        plain = bytes(byte ^ mask[at % 4] for at, byte in enumerate(data))
        self.request.sendall(bytes((0x81, length)) + plain)
        stream.read(1)  # until the browser ends


@pytest.fixture
def websocket(world):
    class Server(socketserver.ThreadingTCPServer):
        allow_reuse_address = daemon_threads = True
    server = Server(SOCKET_AT, Echo)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    yield
    server.shutdown()
    server.server_close()


def chromium_shows(world, url, *options):
    """Runs Chromium until the page has loaded everything. The test waits for the page's last request,
    because Chromium's own options for waiting ignore websockets."""
    with tempfile.TemporaryDirectory(prefix="chromium.", ignore_cleanup_errors=True) as folder:
        browser = subprocess.Popen(
            [chromium.PROGRAM, *chromium.OPTIONS, *options, f"--user-data-dir={folder}/profile",
             "--remote-debugging-port=0", url], env={**os.environ, "HOME": folder},
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            start_new_session=True)
        try:
            wait_until(lambda: world.proxies.asked_from(DONE), "the page is done", pause=0.2)
        finally:
            os.killpg(browser.pid, signal.SIGKILL)
            browser.wait()


PAGE_TEXT = """
const done = arguments[arguments.length - 1];
const look = () => document.title == "begun" || document.title == "" ? setTimeout(look, 50)
                                                                     : done(document.body.textContent);
look();
"""


def in_firefox(url, **preferences):
    return firefox.evaluate(url, PAGE_TEXT, {"network.proxy.allow_hijacking_localhost": True,
                                             **preferences})


@pytest.mark.parametrize("mode", MODES)
def test_chromium_shows_the_page_with_the_relay_as_its_proxy(world, pages, websocket, mode):
    way = world.mode(mode)
    chromium_shows(world, "http:" + pages, "--proxy-server=127.0.0.1:3128")
    assert world.proxies.asked_from("/page/") == {ADDRESSES[way]}


def test_chromium_follows_the_relays_own_script(world, pages, websocket):
    way = world.mode("pacurl")
    chromium_shows(world, "http:" + pages, "--proxy-pac-url=http://127.0.0.1:3128/proxy.pac")
    assert world.proxies.asked_from("/page/") == {ADDRESSES[way]}


@pytest.mark.parametrize("mode", MODES)
def test_firefox_shows_the_page_with_the_relay_as_its_proxy(world, pages, websocket, mode):
    way = world.mode(mode)
    by_hand = {"network.proxy.type": 1, "network.proxy.share_proxy_settings": True}
    for kind in ("http", "ssl"):
        by_hand |= {f"network.proxy.{kind}": "127.0.0.1", f"network.proxy.{kind}_port": 3128}
    assert in_firefox("http:" + pages, **by_hand) == WANTED
    assert world.proxies.asked_from("/page/") == {ADDRESSES[way]}


def test_firefox_follows_the_relays_own_script(world, pages, websocket):
    way = world.mode("pacurl")
    assert in_firefox("http:" + pages, **{
        "network.proxy.type": 2,
        "network.proxy.autoconfig_url": "http://127.0.0.1:3128/proxy.pac"}) == WANTED
    assert world.proxies.asked_from("/page/") == {ADDRESSES[way]}


def in_chromium(url, *options):
    """The output of Chromium for the page."""
    with tempfile.TemporaryDirectory(prefix="chromium.", ignore_cleanup_errors=True) as folder:
        return subprocess.run(
            [chromium.PROGRAM, *chromium.OPTIONS, *options, f"--user-data-dir={folder}/profile", url],
            env={**os.environ, "HOME": folder}, stdin=subprocess.DEVNULL, capture_output=True,
            text=True, timeout=chromium.LIMIT, check=True).stdout


def test_chromium_shows_the_relays_own_page(world, build):
    """This test writes relay-page.png to the build folder. docs/relay-page.png is a copy of that
    file."""
    world.mode("pacurl")
    world.run("curl", "-sS", "https://nobody.example.test/", check=False)
    page = "http://127.0.0.1:3128/?url=https%3A%2F%2Fwww.example.org%2F"
    text = in_chromium(page, "--dump-dom")
    for part in ("<td>pacurl</td>", f"<li>http://{HTTP_PROXY}</li>", "127.0.0.1:9</th>",
                 'class="failed"'):
        assert part in text, part
    picture = os.path.join(build, "relay-page.png")
    in_chromium(page, f"--screenshot={picture}", "--window-size=1000,760", "--hide-scrollbars")
    with open(picture, "rb") as file:
        assert file.read(8) == b"\x89PNG\r\n\x1a\n"
