"""Tests the examples for Go, Java and Node, and the libraries of these languages through the relay,
as the pages in docs/programs describe them."""

import http.server
import socket
import threading

import pytest
from support.bus import wait_until
from support.real_proxies import (DIRECT, HTTP, HTTP_PROXY, PAGE, PASSWORD, PASSWORD_HTTP, PASSWORD_PROXY, SITE,
                                  SITE_ADDRESS, SOCKS, SOCKS_PROXY, USER, by_network, by_script)
from support.relay import Relay

pytestmark = pytest.mark.usefixtures("own_network")

SECURE_PAGE = f"https://{SITE}/way"
NOBODY = "127.0.0.1:9"
RELAY = "http://127.0.0.1:3128"
TO_RELAY = [f"-D{scheme}.proxy{what}" for scheme in ("http", "https")
            for what in ("Host=127.0.0.1", "Port=3128")]


@pytest.fixture
def relay(build, proxies, client):
    relay = Relay(build).start()
    yield relay
    relay.stop()


def follow(fetch, client, port80, syslog, daemon, socks=True):
    """Checks in each mode that `fetch` uses the proxy of the mode, for http and for https."""
    def both(way):
        assert (fetch(PAGE), fetch(SECURE_PAGE)) == (way, way)

    both(DIRECT)  # the daemon starts in mode off
    client.update("manual", f"http://{HTTP_PROXY}")
    both(HTTP)
    if socks:
        by_script(client, port80, f"SOCKS {SOCKS_PROXY}; DIRECT")
        both(SOCKS)
    by_network(client, port80, syslog, f"PROXY {HTTP_PROXY}")
    both(HTTP)
    by_script(client, port80, "DIRECT")
    both(DIRECT)


def test_the_example_in_go_asks_for_each_url(programs, client, port80, syslog, daemon):
    go = {"GO111MODULE": "off", "GOPATH": "/usr/share/gocode", "GOCACHE": "/tmp/go"}
    programs.ask("go", "vet", "/opt/examples/ask.go", **go)
    programs.ask("go", "build", "-o", "/opt/ask", "/opt/examples/ask.go", **go)
    follow(lambda url: programs.ask("/opt/ask", url), client, port80, syslog, daemon)
    for manual, way in ((HTTP_PROXY, HTTP), (f"socks5h://{SOCKS_PROXY}", SOCKS), (f"socks://{SOCKS_PROXY}", SOCKS),
                        ("", DIRECT)):
        client.update("manual", manual)
        assert programs.ask("/opt/ask", PAGE) == way, manual
    client.update("manual", f"http://{HTTP_PROXY}")
    assert programs.ask("/opt/ask", f"http://{SITE_ADDRESS}/way") == DIRECT  # an address of this machine
    client.update("manual", f"socks4://{SOCKS_PROXY}")
    status, output, errors = programs.status("/opt/ask", PAGE)
    assert (status, output) == (1, "") and "Go has no socks4" in errors
    daemon.kill()
    assert programs.ask("/opt/ask", PAGE, http_proxy=f"http://{HTTP_PROXY}") == HTTP


def test_go_follows_through_the_relay(programs, client, port80, relay):
    go = {"GO111MODULE": "off", "GOPATH": "/usr/share/gocode", "GOCACHE": "/tmp/go"}
    programs.write("/opt/get.go", """package main
import ("io"; "net/http"; "os")
func main() {
    response, err := http.Get(os.Args[1])
    if err != nil { panic(err) }
    io.Copy(os.Stdout, response.Body)
}
""")
    programs.ask("go", "build", "-o", "/opt/get", "/opt/get.go", **go)
    client.update("manual", f"socks5h://{SOCKS_PROXY}")
    wait_until(lambda: programs.ask("/opt/get", PAGE, http_proxy=RELAY) == SOCKS, "the relay follows")
    assert programs.ask("/opt/get", SECURE_PAGE, https_proxy=RELAY) == SOCKS


@pytest.fixture
def java(programs):
    """Compiles the example and the program `Get`. Returns a function that runs one of them for a URL,
    with the given options of Java."""
    programs.ask("keytool", "-importcert", "-noprompt", "-file", "/run/site.pem", "-alias", "site",
                 "-keystore", "/tmp/trusted", "-storepass", "secret")
    programs.ask("javac", "-Xlint:-deprecation", "-d", "/opt", "/opt/examples/Ask.java")
    programs.write("/opt/Get.java", """public class Get {
    public static void main(String[] urls) throws Exception {
        new java.net.URL(urls[0]).openStream().transferTo(System.out);
        System.out.flush();
    }
}
""")
    programs.ask("javac", "-d", "/opt", "/opt/Get.java")
    return lambda url, name="Ask", options=(): programs.ask(
        "java", "-Djavax.net.ssl.trustStore=/tmp/trusted", "-Djavax.net.ssl.trustStorePassword=secret", *options, "-cp", "/opt", name, url)


def test_the_example_in_java_asks_for_each_url(java, programs, client, port80, syslog, daemon):
    follow(java, client, port80, syslog, daemon)
    by_script(client, port80, f"PROXY {NOBODY}; PROXY {HTTP_PROXY}; DIRECT")
    assert java(PAGE) == HTTP
    # The default ports are 80, where nobody listens, and 1080.
    by_script(client, port80, f"PROXY 127.0.0.7; SOCKS {SOCKS_PROXY.split(':')[0]}; DIRECT")
    assert java(PAGE) == SOCKS
    client.update("manual", f"http://{USER}:{PASSWORD}@{HTTP_PROXY}")
    assert java(PAGE) == HTTP
    client.update("manual", f"https://{HTTP_PROXY}")
    with pytest.raises(AssertionError, match="Java can use no proxy of the answer"):
        java(PAGE)
    daemon.kill()
    assert java(PAGE) == DIRECT


def test_java_follows_through_the_relay(java, client, relay):
    client.update("manual", f"socks5h://{SOCKS_PROXY}")
    wait_until(lambda: java(PAGE, "Get", TO_RELAY) == SOCKS, "the relay follows")
    assert java(SECURE_PAGE, "Get", TO_RELAY) == SOCKS


class Proxy6(http.server.ThreadingHTTPServer):
    """A proxy with an IPv6 address. It answers with the URL that it is asked for."""
    address_family = socket.AF_INET6

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            self.send_response(200)
            self.end_headers()
            self.wfile.write(f"by IPv6 to {self.path}".encode())

        def log_message(self, *_):
            pass

    def __init__(self):
        super().__init__(("::1", 0), self.Handler)
        self._thread = threading.Thread(target=self.serve_forever)
        self._thread.start()

    def __exit__(self, *_):
        self.shutdown()
        self._thread.join()
        self.server_close()


def test_the_example_in_node_asks_for_each_url(programs, client, port80, syslog, daemon):
    def fetch(url):
        return programs.ask("node", "/opt/examples/ask.mjs", url)

    follow(fetch, client, port80, syslog, daemon, socks=False)
    by_script(client, port80, f"SOCKS {SOCKS_PROXY}")
    status, output, errors = programs.status("node", "/opt/examples/ask.mjs", PAGE)
    assert (status, output) == (1, "") and "Node has no socks5h:" in errors
    client.update("manual", f"http://{USER}:{PASSWORD}@{PASSWORD_PROXY}")
    assert (fetch(PAGE), fetch(SECURE_PAGE)) == (PASSWORD_HTTP, PASSWORD_HTTP)
    with Proxy6() as proxy:
        client.update("manual", f"http://[::1]:{proxy.server_address[1]}")
        assert fetch(PAGE) == f"by IPv6 to {PAGE}"
    daemon.kill()
    assert fetch(PAGE) == DIRECT


def test_undici_of_node_follows_through_the_relay(programs, client, relay):
    def fetch(url):
        return programs.ask("node", "/opt/examples/relay.cjs", url)

    client.update("manual", f"http://{HTTP_PROXY}")
    wait_until(lambda: fetch(SECURE_PAGE) == HTTP, "the relay follows")
    client.update("manual", f"socks5h://{SOCKS_PROXY}")
    wait_until(lambda: fetch(PAGE) == SOCKS, "the relay follows")
    assert fetch(SECURE_PAGE) == SOCKS
