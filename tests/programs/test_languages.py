"""The examples for Go, Java and Node, and their libraries through the relay, as the pages show them."""

import pytest
from support.bus import wait_until
from support.real_proxies import (DIRECT, HTTP, HTTP_PROXY, PAGE, SITE, SOCKS, SOCKS_PROXY, by_network,
                                  by_script)
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
    """What `fetch` gets for http and https comes by the way of each mode."""
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
    """Runs the example with these options."""
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
    daemon.kill()
    assert java(PAGE) == DIRECT


def test_java_follows_through_the_relay(java, client, relay):
    client.update("manual", f"socks5h://{SOCKS_PROXY}")
    wait_until(lambda: java(PAGE, "Get", TO_RELAY) == SOCKS, "the relay follows")
    assert java(SECURE_PAGE, "Get", TO_RELAY) == SOCKS


def test_the_example_in_node_asks_for_each_url(programs, client, port80, syslog, daemon):
    def fetch(url):
        return programs.ask("node", "/opt/examples/ask.mjs", url)

    follow(fetch, client, port80, syslog, daemon, socks=False)
    by_script(client, port80, f"SOCKS {SOCKS_PROXY}")
    status, output, errors = programs.status("node", "/opt/examples/ask.mjs", PAGE)
    assert (status, output) == (1, "") and "Node has no socks5h:" in errors


def test_undici_of_node_follows_through_the_relay(programs, client, relay):
    def fetch(url):
        return programs.ask("node", "/opt/examples/relay.cjs", url)

    client.update("manual", f"http://{HTTP_PROXY}")
    wait_until(lambda: fetch(SECURE_PAGE) == HTTP, "the relay follows")
    client.update("manual", f"socks5h://{SOCKS_PROXY}")
    wait_until(lambda: fetch(PAGE) == SOCKS, "the relay follows")
    assert fetch(SECURE_PAGE) == SOCKS
