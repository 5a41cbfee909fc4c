"""Tests the Python package with the real daemon: its answers, and HTTP libraries through real
proxies."""

import os
import re
import signal
import socket
import socketserver
import ssl
import subprocess
import threading

import pytest
from support.bus import ADDRESS, wait_until
from support.own_network import hosts
from support.real_proxies import (DIRECT, HTTP, HTTP_PROXY, PAGE, PASSWORD, PASSWORD_HTTP, PASSWORD_PROXY,
                                  PASSWORD_SOCKS, PASSWORD_SOCKS_PROXY, SITE, SITE_ADDRESS, SOCKS,
                                  SOCKS_PROXY, USER, RealProxies, by_network, by_script)
from support.web import script

# All tests have the mark slow, so that they do not run under sanitizers: Python cannot load a
# library that is built with them.
pytestmark = pytest.mark.usefixtures("own_network", "loadable")

LIMIT = 120  # seconds for any run
PACKAGE = os.path.abspath(os.path.join(os.path.dirname(__file__), "../../client/python"))
NOBODY = "127.0.0.1:9"
SECURE_PAGE = f"https://{SITE}/way"
# A certificate that programs trust in this test's /etc.
TRUSTED = "/etc/ssl/certs/ca-certificates.crt"

# Fetches each URL of standard input with the named library, and prints the page or the exception.
FETCHER = """
import sys, ssl
import proxymanager
library, refuse = sys.argv[1], len(sys.argv) > 2
client = proxymanager.Client(refuse=refuse, timeout=60, with_credentials=True)
trusted = "TRUSTED"
if library == "requests":
    import requests
    from proxymanager.requests import ProxyAdapter
    session = requests.Session()
    for scheme in ("http://", "https://"):
        session.mount(scheme, ProxyAdapter(client))
    def fetch(url):
        response = session.get(url, timeout=60, verify=trusted)
        response.raise_for_status()
        return response.text
elif library == "urllib":
    import urllib.request
    from proxymanager.urllib import ProxyHandler
    opener = urllib.request.build_opener(ProxyHandler(client))
    fetch = lambda url: opener.open(url, timeout=60).read().decode()
elif library == "urllib3":
    from proxymanager.urllib3 import PoolManager
    manager = PoolManager(client, ca_certs=trusted)
    def fetch(url):
        response = manager.request("GET", url, timeout=60)
        assert response.status == 200, response.status
        return response.data.decode()
elif library == "httpx":
    import httpx
    from proxymanager.httpx import ProxyTransport
    session = httpx.Client(transport=ProxyTransport(client, verify=trusted), follow_redirects=True, timeout=60)
    fetch = lambda url: session.get(url).raise_for_status() or session.get(url).text
else:
    import asyncio, httpx
    from proxymanager.httpx import AsyncProxyTransport
    loop = asyncio.new_event_loop()
    session = httpx.AsyncClient(transport=AsyncProxyTransport(client, verify=trusted), follow_redirects=True, timeout=60)
    def fetch(url):
        response = loop.run_until_complete(session.get(url))
        response.raise_for_status()
        return response.text
for line in sys.stdin:
    try:
        print(fetch(line.strip()), flush=True)
    except Exception as error:
        print(type(error).__name__, str(error).replace(chr(10), " "), flush=True)
""".replace("TRUSTED", TRUSTED)
LIBRARIES = ("requests", "urllib", "urllib3", "httpx", "async httpx")


@pytest.fixture
def loadable(sanitizer):
    if sanitizer:
        pytest.skip("Python cannot load a library that is built with a sanitizer")


class Programs:
    """Runs Python programs that use the package of the tree and the library of the build."""

    def __init__(self, build):
        self.variables = {"PYTHONPATH": PACKAGE, "LD_LIBRARY_PATH": os.path.join(build, "out", "lib"),
                          "DBUS_SYSTEM_BUS_ADDRESS": ADDRESS, "PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8",
                          "PYTHONDONTWRITEBYTECODE": "1"}
        self._running = []

    def run(self, text, *arguments, **variables):
        """Runs the Python program `text`, and returns its output."""
        done = subprocess.run(["/usr/bin/python3", "-c", text, *arguments], timeout=LIMIT, text=True,
                              capture_output=True, env={**self.variables, **variables})
        assert done.returncode == 0 and done.stderr == "", done.stderr
        return done.stdout.splitlines()

    def start(self, text, *arguments, **variables):
        process = subprocess.Popen(["/usr/bin/python3", "-c", text, *arguments], text=True,
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   env={**self.variables, **variables})
        self._running.append(process)
        return process

    def fetchers(self, *arguments, **variables):
        return [self.start(FETCHER, library, *arguments, **variables) for library in LIBRARIES]

    def close(self):
        for process in self._running:
            process.stdin.close()
            process.wait(LIMIT)
            process.stdout.close()


@pytest.fixture
def programs(build):
    programs = Programs(build)
    yield programs
    programs.close()


def fetch(fetchers, url=PAGE):
    """The output of each program for the URL, by HTTP library."""
    for process in fetchers:
        process.stdin.write(f"{url}\n")
        process.stdin.flush()
    return {library: process.stdout.readline().rstrip("\n") for library, process in zip(LIBRARIES, fetchers)}


def follow(fetchers, way, url=PAGE):
    """Waits until all programs fetch by this way: the signal of a change reaches each program a
    moment later."""
    wait_until(lambda: fetch(fetchers, url) == dict.fromkeys(LIBRARIES, way), f"all fetch {url} {way}")


@pytest.mark.slow
def test_each_library_follows_every_mode(programs, proxies, client, port80, syslog, daemon, bus):
    fetchers = programs.fetchers(http_proxy=f"http://{NOBODY}", no_proxy=SITE)
    follow(fetchers, DIRECT)  # the daemon starts in mode off
    client.update("manual", f"http://{HTTP_PROXY}")
    follow(fetchers, HTTP)
    follow(fetchers, HTTP, SECURE_PAGE)
    client.update("manual", f"socks5h://{SOCKS_PROXY}")
    follow(fetchers, SOCKS)
    follow(fetchers, SOCKS, SECURE_PAGE)
    by_script(client, port80, "DIRECT")
    follow(fetchers, DIRECT)
    by_network(client, port80, syslog, f"PROXY {HTTP_PROXY}")
    follow(fetchers, HTTP)
    daemon.kill()
    follow(fetchers, DIRECT)
    bus.kill()
    follow(fetchers, DIRECT)


@pytest.mark.slow
def test_without_an_answer_the_environment_holds(programs, proxies, client, daemon):
    fetchers = programs.fetchers(http_proxy=f"http://{HTTP_PROXY}")
    follow(fetchers, HTTP)
    client.update("manual", f"socks5h://{SOCKS_PROXY}")
    follow(fetchers, SOCKS)
    daemon.kill()
    follow(fetchers, HTTP)


@pytest.mark.slow
def test_a_client_that_refuses_lets_no_request_go_without_an_answer(programs, proxies, client, port80, daemon):
    fetchers = programs.fetchers("refuse", http_proxy=f"http://{HTTP_PROXY}")
    by_script(client, port80, "PROXY -unusable:1")
    assert {said.split()[0] for said in fetch(fetchers).values()} == {"NoAnswer"}
    daemon.kill()
    wait_until(lambda: {said.split()[0] for said in fetch(fetchers).values()} == {"Unavailable"},
               "all notice that the daemon has ended")
    assert not proxies.has_been_asked_by("python-requests")


@pytest.mark.slow
def test_proxies_are_tried_in_the_order_of_the_answer(programs, proxies, client, port80):
    fetchers = programs.fetchers()
    by_script(client, port80, f"PROXY {NOBODY}; SOCKS {NOBODY}; PROXY {HTTP_PROXY}; DIRECT")
    follow(fetchers, HTTP)
    follow(fetchers, HTTP, SECURE_PAGE)
    by_script(client, port80, f"PROXY {NOBODY}; PROXY -unusable:1; SOCKS {SOCKS_PROXY}; DIRECT")
    follow(fetchers, SOCKS)
    by_script(client, port80, f"PROXY {NOBODY}; DIRECT")
    follow(fetchers, DIRECT)
    by_script(client, port80, f"PROXY {NOBODY}")
    failures = {"requests": "ProxyError", "urllib": "URLError", "urllib3": "MaxRetryError",
                "httpx": "ConnectError", "async httpx": "ConnectError"}
    wait_until(lambda: {library: said.split()[0] for library, said in fetch(fetchers).items()} == failures,
               "none goes elsewhere")


@pytest.mark.slow
def test_a_proxy_that_answers_is_the_last_one_tried(programs, proxies, client, port80):
    fetchers = programs.fetchers()
    # This proxy requires a password, for http and for tunnels.
    by_script(client, port80, f"PROXY {PASSWORD_PROXY}; DIRECT")
    for url in (PAGE, SECURE_PAGE):
        assert all("401" in said or "407" in said for said in fetch(fetchers, url).values())


@pytest.mark.slow
def test_the_password_of_a_manual_proxy_reaches_it_from_python(programs, proxies, client):
    fetchers = programs.fetchers()
    client.update("manual", f"http://{PASSWORD_PROXY}", auth=True, user=USER, password=PASSWORD)
    follow(fetchers, PASSWORD_HTTP)
    follow(fetchers, PASSWORD_HTTP, SECURE_PAGE)
    client.update("manual", f"socks5h://{USER}:{PASSWORD}@{PASSWORD_SOCKS_PROXY}")
    follow(fetchers, PASSWORD_SOCKS)


class Server(socketserver.ThreadingTCPServer):
    """A server of this test. It runs until close()."""
    allow_reuse_address = daemon_threads = True

    def __init__(self, endpoint, handle):
        host, port = endpoint.split(":")
        super().__init__((host, int(port)), type("Handler", (socketserver.BaseRequestHandler,), {"handle": handle}))
        self._thread = threading.Thread(target=self.serve_forever)
        self._thread.start()

    def handle_error(self, request, address):
        pass  # a client that ends its connection early

    def close(self):
        self.shutdown()
        self._thread.join()
        self.server_close()


def refuse_by_socks(handler):
    """Answers as a SOCKS proxy whose rules do not allow the connection."""
    connection = handler.request
    methods = connection.recv(2)[1]
    connection.recv(methods)
    connection.sendall(b"\x05\x00")
    connection.recv(1024)
    connection.sendall(b"\x05\x02\x00\x01" + bytes(6))


def copy_bytes(source, sink):
    try:
        while part := source.recv(65536):
            sink.sendall(part)
        sink.shutdown(socket.SHUT_WR)
    except OSError:
        pass


def add_tls(handler):
    """Accepts a TLS connection and forwards it to the HTTP proxy."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain("/run/site.pem", "/run/site.key")
    host, port = HTTP_PROXY.split(":")
    with context.wrap_socket(handler.request, server_side=True) as client, \
            socket.create_connection((host, int(port))) as proxy:
        back = threading.Thread(target=copy_bytes, args=(proxy, client), daemon=True)
        back.start()
        copy_bytes(client, proxy)
        back.join(LIMIT)


@pytest.mark.slow
def test_a_socks_proxy_that_refuses_is_the_last_one_tried(programs, proxies, client, port80):
    fetchers = programs.fetchers()
    refusing = Server("127.0.0.12:1080", refuse_by_socks)
    try:
        for proxy in ("127.0.0.12:1080", PASSWORD_SOCKS_PROXY):  # without a password
            by_script(client, port80, f"SOCKS {proxy}; DIRECT")
            for url in (PAGE, SECURE_PAGE):
                said = fetch(fetchers, url)
                assert DIRECT not in said.values(), said
        client.update("manual", f"socks5h://{USER}:wrong@{PASSWORD_SOCKS_PROXY}")
        wait_until(lambda: len(client.urls(PAGE)) > 1, "the daemon has the proxy")
        assert not {DIRECT, PASSWORD_SOCKS} & set(fetch(fetchers).values())
    finally:
        refusing.close()


@pytest.mark.slow
def test_a_failed_tls_handshake_with_the_server_leads_to_no_other_proxy(programs, proxies, client, port80):
    hosts(**{SITE: SITE_ADDRESS, "other.example.test": SITE_ADDRESS})  # the certificate does not have this name
    fetchers = programs.fetchers()
    by_script(client, port80, f"PROXY {HTTP_PROXY}; PROXY {PASSWORD_PROXY}")
    for library, said in fetch(fetchers, "https://other.example.test/way").items():
        assert "407" not in said and said != HTTP, (library, said)


@pytest.mark.slow
def test_a_proxy_that_expects_tls_is_used_or_left_out_as_the_page_says(programs, proxies, client):
    fetchers = programs.fetchers()
    proxy = Server(f"{SITE_ADDRESS}:8443", add_tls)
    try:
        client.update("manual", f"https://{SITE}:8443")
        wait_until(lambda: fetch(fetchers)["requests"] == HTTP, "requests follows")
        cannot = "no proxy of the answer can be used"
        for url, without in ((PAGE, {"urllib"}), (SECURE_PAGE, {"urllib", "httpx"})):
            for library, said in fetch(fetchers, url).items():
                assert cannot in said if library in without else said == HTTP, (library, url, said)
    finally:
        proxy.close()


BY_HOST = f"""function FindProxyForURL(url, host) {{
  return host == "first.example.test" ? "PROXY {HTTP_PROXY}" : "SOCKS {SOCKS_PROXY}";
}}"""


@pytest.fixture
def redirecting_proxies(own_network):
    proxies = RealProxies(locations=f"""location = /first {{ return 302 http://{SITE}/way; }}
        location = /lost {{ return 307 http://lost.example.test/; }}""")
    hosts(**{"first.example.test": SITE_ADDRESS, SITE: SITE_ADDRESS})
    yield proxies
    proxies.close()


@pytest.mark.slow
def test_each_url_is_asked_for_also_after_a_redirect(programs, redirecting_proxies, client, port80):
    port80.routes["/p.pac"] = BY_HOST
    client.update("pacurl", pacurl="http://127.0.0.1/p.pac")
    wait_until(lambda: len(client.urls(PAGE)) > 1, "the script answers")
    fetchers = programs.fetchers()
    follow(fetchers, SOCKS, "http://first.example.test/first")
    with open("/run/nginx.access") as log:
        asked = re.findall(r'^(\S+) .*"GET (\S+) ', log.read(), re.MULTILINE)
    assert {way for way, path in asked if path == "/first"} == {"127.0.0.8"}


LOST = f"""function FindProxyForURL(url, host) {{
  return host == "lost.example.test" ? "PROXY {NOBODY}" : "PROXY {HTTP_PROXY}; SOCKS {SOCKS_PROXY}";
}}"""


@pytest.mark.slow
def test_a_request_is_not_repeated_if_its_redirect_cannot_be_followed(programs, redirecting_proxies, client, port80):
    port80.routes["/p.pac"] = LOST
    client.update("pacurl", pacurl="http://127.0.0.1/p.pac")
    wait_until(lambda: len(client.urls(PAGE)) > 1, "the script answers")
    fetchers = programs.fetchers()
    fetch(fetchers, f"http://{SITE}/lost")
    fetch(fetchers)  # after this, all earlier requests are in the log
    with open("/run/nginx.access") as log:
        asked = re.findall(r'^(\S+) .*"GET /lost ', log.read(), re.MULTILINE)
    assert asked == ["127.0.0.8"] * len(LIBRARIES)


ASKER = """
import proxymanager, sys
with proxymanager.Client(timeout=60) as client:
    answer = client.ask(sys.argv[1])
    print(answer.mode, proxymanager.__version__)
    for entry in client.proxies(sys.argv[1]):
        print(entry.kind.name, *entry[1:], sep="|")
"""


@pytest.mark.slow
def test_an_answer_has_its_mode_and_entries(programs, client, port80):
    port80.routes["/p.pac"] = script("PROXY a:1; PROXY -unusable:1; SOCKS b; DIRECT")
    client.update("pacurl", pacurl="http://127.0.0.1/p.pac")
    wait_until(lambda: len(client.urls(PAGE)) > 1, "the script answers")
    assert programs.run(ASKER, "http://www.example.org/") == [
        "pacurl 0.1.0", "HTTP|PROXY a:1|http://a:1|http||a|1", "UNUSABLE|PROXY -unusable:1|||||0",
        "SOCKS5H|SOCKS b|socks5h://b:1080|socks5h||b|1080", "DIRECT|DIRECT|direct://|direct|||0"]
    assert programs.run(ASKER, "http://localhost/")[0] == "local 0.1.0"


RAISED = """
import proxymanager, sys
client = proxymanager.Client(timeout=float(sys.argv[2]))
try:
    client.proxies(eval(sys.argv[1]))
except Exception as error:
    kinds = (proxymanager.Error, proxymanager.Unavailable, TimeoutError, ValueError)
    print(type(error).__name__, *(kind.__name__ for kind in kinds if isinstance(error, kind)), sep=" ")
    print(repr(getattr(error, "status", None)), getattr(error, "name", ""), str(error), sep="|")
client.close()
client.close()
try:
    client.proxies("http://www.example.org/")
except ValueError as error:
    print(error)
"""
ANY = "'http://www.example.org/'"


@pytest.mark.slow
def test_a_question_without_an_answer_raises_why(programs, client, daemon, bus):
    closed = "the client is closed"
    for url in ("'http://a/' + 'a' * 65536", "'http://a/\\0b'", "'http://\\ud800/'"):
        kind, status, last = programs.run(RAISED, url, "60")
        assert (kind, last) == ("BadArgument Error ValueError", closed)
        assert status.startswith("<Status.BAD_ARGUMENT: 7>||")
    daemon.signal(signal.SIGSTOP)
    try:
        kind, status, last = programs.run(RAISED, ANY, "0.2")
        assert kind == "TooSlow Error TimeoutError" and status.startswith("<Status.TOO_SLOW: 4>|")
        assert programs.run(RAISED, ANY, "0")[0] == kind
    finally:
        daemon.signal(signal.SIGCONT)
    daemon.kill()
    kind, status, last = programs.run(RAISED, ANY, "60")
    assert kind == "Unavailable Error Unavailable"
    assert status.startswith("<Status.NO_DAEMON: 2>|org.freedesktop.DBus.Error.")
    assert "the daemon does not run" in status
    bus.kill()
    assert programs.run(RAISED, ANY, "60")[1].startswith("<Status.NO_BUS: 1>||")
    for wrong in ("-1", "nan"):
        done = subprocess.run(["/usr/bin/python3", "-c", RAISED, ANY, wrong], capture_output=True, text=True,
                              env=programs.variables, timeout=LIMIT)
        assert done.returncode == 1 and "a timeout is 0 or more seconds" in done.stderr


FORKS = """
import os, proxymanager, sys
client = proxymanager.Client(timeout=60)
print(client.proxies(sys.argv[1])[0].url, flush=True)
child = os.fork()
print(client.proxies(sys.argv[1])[0].url, flush=True)
if not child:
    client.close()
    os._exit(0)
print(os.waitpid(child, 0)[1])
print(client.proxies(sys.argv[1])[0].url, flush=True)
"""
SHARED = """
import proxymanager, sys, threading
client = proxymanager.Client(timeout=60)
answers, begin = [], threading.Barrier(16)
def ask(number):
    begin.wait()
    for question in range(50):
        answers.append(client.proxies(f"http://{number}.example.org/{question}")[0].url)
threads = [threading.Thread(target=ask, args=(number,)) for number in range(16)]
for thread in threads: thread.start()
for thread in threads: thread.join()
print(len(answers), *set(answers))
"""
CLOSES = """
import proxymanager, sys, threading
client = proxymanager.Client(timeout=60)
def ask():
    try:
        print(client.proxies("http://www.example.org/")[0].url, flush=True)
    except proxymanager.Error as error:
        print(error.status.name, flush=True)
thread = threading.Thread(target=ask)
thread.start()
while not client._questions:
    pass
client.close()
print("closed", flush=True)
thread.join()
"""


@pytest.mark.slow
def test_a_forked_process_and_many_threads_use_one_client(programs, client):
    client.update("manual", "http://p.example:1")
    assert programs.run(FORKS, "http://www.example.org/") == ["http://p.example:1"] * 3 + [
        "0", "http://p.example:1"]
    assert programs.run(SHARED) == ["800 http://p.example:1"]


@pytest.mark.slow
def test_close_waits_for_no_thread_and_ends_no_question(programs, client, daemon):
    client.update("manual", "http://p.example:1")
    daemon.signal(signal.SIGSTOP)
    try:
        process = programs.start(CLOSES)
        assert process.stdout.readline() == "closed\n"
    finally:
        daemon.signal(signal.SIGCONT)
    assert process.stdout.readline() == "http://p.example:1\n"


POOLS = """
from proxymanager._ways import Pools
made = []
pools = Pools(lambda way: made.append(way) or way)
for way in range(32):
    pools.get(way)
pools.get(0)
print(len(made))
pools.get(32)
pools.get(0)
print(len(made))
pools.get(1)
print(len(made), len(pools.take_all()))
"""


@pytest.mark.slow
def test_connections_to_the_last_32_proxies_are_kept(programs):
    assert programs.run(POOLS) == ["32", "33", "34 32"]


FORKED_POOLS = """
import os, signal, threading
from proxymanager._ways import Pools
makes, forked = threading.Event(), threading.Event()
def make(way):
    if way == "slow":
        makes.set()
        forked.wait()
    return way
pools = Pools(make)
pools.get("of the parent")
thread = threading.Thread(target=pools.get, args=("slow",))
thread.start()
makes.wait()
child = os.fork()
if not child:
    signal.alarm(20)
    os._exit(0 if pools.get("a") == "a" and pools.take_all() == ["a"] else 1)
print(os.waitpid(child, 0)[1])
forked.set()
thread.join()
print(pools.take_all())
"""


@pytest.mark.slow
def test_a_forked_process_makes_its_own_connections(programs):
    assert programs.run(FORKED_POOLS) == ["0", "['of the parent', 'slow']"]


SESSIONS = """
import pickle, proxymanager, requests, sys
from proxymanager.requests import ProxyAdapter
def session(adapter):
    made = requests.Session()
    made.mount("http://", adapter)
    return made
client = proxymanager.Client(timeout=60)
for adapter in (ProxyAdapter(), ProxyAdapter(client)):
    first = session(adapter)
    print(pickle.loads(pickle.dumps(first)).get(sys.argv[1], timeout=60).text)
    first.close()
    print(first.get(sys.argv[1], timeout=60).text)
print(client.ask(sys.argv[1]).mode)
adapter = ProxyAdapter(client)
for port in range(40):
    adapter.proxy_manager_for(f"http://127.0.0.1:{port}")
    adapter.proxy_manager_for(f"socks5h://127.0.0.1:{port}")
print(len(adapter._managers.take_all()), len(adapter.proxy_manager))
"""


@pytest.mark.slow
def test_a_session_of_requests_can_be_pickled_and_used_after_its_end(programs, proxies, client):
    client.update("manual", f"http://{HTTP_PROXY}")
    assert programs.run(SESSIONS, PAGE) == [HTTP] * 4 + ["manual", "32 0"]
