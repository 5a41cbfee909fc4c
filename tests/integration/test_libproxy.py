"""Compares this tree's libproxy.so.1 with Debian's: the symbols, the environment variables that
each library reads, and programs that are linked with it.

Debian's library and its tool are unpacked below the build folder and not installed.
"""

import os
import re
import subprocess

import pytest
from support.bus import ADDRESS, wait_until
from support.own_network import hosts
from support.real_proxies import HTTP_PROXY, SOCKS_PROXY, by_network, by_script

pytestmark = pytest.mark.usefixtures("own_network")

LIMIT = 120  # seconds for any run
URL = "http://www.example.test/way"
NODES = {"px_proxy_factory_new", "px_proxy_factory_get_proxies", "px_proxy_factory_free_proxies",
         "px_proxy_factory_free"}


class Libproxy:
    def __init__(self, build):
        debian = os.path.join(build, "out", "tests", "libproxy")
        self.tool = os.path.join(debian, "usr", "bin", "proxy")
        found = subprocess.run(["find", debian, "-name", "libproxy.so.1"], capture_output=True,
                               text=True, check=True).stdout.split()
        self.debians = found[0]
        self.ours = os.path.join(build, "out", "lib", "libproxy.so.1")

    def ask(self, library, *urls, prefix=(), **variables):
        """The output of the tool for each URL, with this library and these variables."""
        done = subprocess.run(
            [*prefix, self.tool, *urls], timeout=LIMIT, capture_output=True, text=True,
            env={"LD_LIBRARY_PATH": os.path.dirname(library), "DBUS_SYSTEM_BUS_ADDRESS": ADDRESS,
                 "PATH": "/usr/bin:/bin", **variables})
        assert done.returncode == 0 and done.stderr == "", done.stderr
        return done.stdout.splitlines()


@pytest.fixture
def libproxy(build, sanitizer):
    if sanitizer:
        pytest.skip("Debian's tool cannot load a library that is built with a sanitizer")
    return Libproxy(build)


def symbols(library):
    """The symbols that a library defines, with their versions and kinds."""
    listed = subprocess.run(["objdump", "-T", library], capture_output=True, text=True, check=True)
    rows = re.findall(r"^[0-9a-f]{16} .{5}([ D][FO ]) (\S+)\s+[0-9a-f]{16}\s+(\S+)\s+(\S+)$",
                      listed.stdout, re.MULTILINE)
    return {name: (version, kind) for kind, section, version, name in rows if section != "*UND*"}


def soname(library):
    listed = subprocess.run(["objdump", "-p", library], capture_output=True, text=True, check=True)
    return re.search(r"SONAME\s+(\S+)", listed.stdout)[1]


def test_symbols_versions_and_file_names_are_those_of_debians_package(libproxy):
    ours, debians = symbols(libproxy.ours), symbols(libproxy.debians)
    interface = {name: entry for name, entry in debians.items()
                 if name.startswith(("px_", "LIBPROXY"))}
    assert set(interface) == NODES | {"LIBPROXY_0.4.16"}
    assert {name: ours[name] for name in interface} == interface
    marker = "_ZTVN8libproxy19pacrunner_extensionE"
    assert ours[marker] == debians[marker] == ("Base", "DO")
    assert set(ours) - set(interface) == {marker, "LIBPROXY_0.5.5", "px_proxy_factory_copy",
                                          "px_proxy_factory_get_type"}
    assert soname(libproxy.ours) == soname(libproxy.debians) == "libproxy.so.1"
    assert os.readlink(libproxy.ours) == os.readlink(libproxy.debians) == "libproxy.so.1.0.0"


PROXY = {"http_proxy": "http://p:1"}
# Pairs of variables and a URL for which both libraries give the same answer.
ALIKE = [
    ({}, "http://a/"),
    (PROXY, "http://a/"), (PROXY, "https://a/"), (PROXY, "ftp://a/"), (PROXY, "tcp://a:7"),
    (PROXY, "none://a:7"), (PROXY, "file:///a"), (PROXY, "a"), (PROXY, ""),
    ({"HTTP_PROXY": "http://p:1"}, "http://a/"),
    ({"http_proxy": "", "HTTP_PROXY": "http://p:1"}, "http://a/"),
    ({"http_proxy": "http://p:1/"}, "http://a/"), ({"http_proxy": "socks5://p"}, "http://a/"),
    ({"http_proxy": "http://u:x@p:1"}, "http://a/"), ({"http_proxy": "direct://"}, "http://a/"),
    ({**PROXY, "https_proxy": "http://s:1"}, "https://a/"),
    ({**PROXY, "ftp_proxy": "http://s:1"}, "ftp://a/"),
    ({**PROXY, "https_proxy": "http://s:1"}, "http://a/"),
    ({"all_proxy": "http://p:1"}, "http://a/"), ({"https_proxy": "http://p:1"}, "http://a/"),
    ({"http_proxy": "pac+http://127.0.0.1:9/"}, "http://a/"),
    ({**PROXY, "NO_PROXY": "a.o"}, "http://a.o/"),
    ({**PROXY, "no_proxy": "", "NO_PROXY": "a.o"}, "http://a.o/"),
] + [({**PROXY, "no_proxy": value}, "http://a.example.org/") for value in (
    "example.org", ".example.org", "*.example.org", "a.example.org", " a.example.org",
    "b,a.example.org", "b, a.example.org", "a.example.org:80", "a.example.org:81",
    ".example.org:80", ".example.org:81", "<local>", "mple.org", ".org", "*org", "x")
] + [({**PROXY, "no_proxy": value}, "http://10.1.2.3/") for value in (
    "10.0.0.0/8", "11.0.0.0/8", "10.1.2.3", "10.1.2.4", "10.1.2.0/255.255.255.0", "10.1.2.3:80",
    "10.")
] + [({**PROXY, "no_proxy": "<local>"}, url) for url in ("http://host/", "http://h.o/")]


def test_the_environment_is_read_as_debians_library_reads_it(libproxy):
    for variables, url in ALIKE:
        answers = [libproxy.ask(library, url, **variables)
                   for library in (libproxy.ours, libproxy.debians)]
        assert answers[0] == answers[1], (variables, url)


def test_the_tool_follows_every_mode(libproxy, client, port80, syslog, daemon):
    def answer():
        return libproxy.ask(libproxy.ours, URL, http_proxy="http://environment:1")

    assert answer() == ["http://environment:1"]  # the daemon starts in mode off
    client.update("manual", f"http://{HTTP_PROXY}")
    assert answer() == [f"http://{HTTP_PROXY}"]
    by_script(client, port80, f"SOCKS {SOCKS_PROXY}; PROXY {HTTP_PROXY}; DIRECT")
    assert answer() == [f"socks://{SOCKS_PROXY} http://{HTTP_PROXY} direct://"]
    hosts(**{"wpad.example.test": "127.0.0.1"})
    by_network(client, port80, syslog, "DIRECT")
    assert answer() == ["direct://"]
    daemon.kill()
    assert answer() == ["http://environment:1"]


def test_a_program_that_may_start_no_thread_gets_an_answer(libproxy, client):
    client.update("manual", f"http://{HTTP_PROXY}")
    # The limit is for the processes of a user; it does not apply to root.
    prefix = ["setpriv", "--reuid=65534", "--clear-groups", "prlimit", "--nproc=1"]
    assert libproxy.ask(libproxy.ours, URL, prefix=prefix) == ["direct://"]
    assert libproxy.ask(libproxy.ours, URL, prefix=prefix[:3]) == [f"http://{HTTP_PROXY}"]


# Asks for each URL of standard input on a separate thread, and prints each answer when it comes.
ASKS_AT_ONCE = """
import ctypes, sys, threading
library = ctypes.CDLL("libproxy.so.1")
library.px_proxy_factory_get_proxies.restype = ctypes.POINTER(ctypes.c_char_p)
def ask(url):
    proxies = library.px_proxy_factory_get_proxies(None, url.encode())
    print(url, proxies[0].decode(), flush=True)
for line in sys.stdin:
    threading.Thread(target=ask, args=(line.strip(),)).start()
"""
SLOW = """function FindProxyForURL(url, host) {
  while (host == "slow.test") {}
  return "PROXY fast:1";
}"""


def seconds_of_cpu(pid):
    with open(f"/proc/{pid}/stat") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


@pytest.mark.slow
def test_a_remembered_answer_does_not_wait_for_a_slow_script(libproxy, port80, client, daemon):
    port80.routes["/slow.pac"] = SLOW
    client.update("pacurl", pacurl="http://127.0.0.1/slow.pac")
    wait_until(lambda: len(client.urls(URL)) > 1, "the script answers")
    process = subprocess.Popen(["/usr/bin/python3", "-c", ASKS_AT_ONCE], text=True, stdin=subprocess.PIPE,
                               stdout=subprocess.PIPE, env=environment_of(libproxy))

    def ask(url):
        process.stdin.write(f"{url}\n")
        process.stdin.flush()

    try:
        ask("http://fast.test/")
        assert process.stdout.readline() == "http://fast.test/ http://fast:1\n"
        (worker,) = daemon.children()
        before = seconds_of_cpu(worker)
        ask("http://slow.test/")
        wait_until(lambda: seconds_of_cpu(worker) > before + 0.1, "the script runs")
        ask("http://fast.test/")
        assert process.stdout.readline() == "http://fast.test/ http://fast:1\n"
    finally:
        daemon.kill()  # the script still runs
        process.kill()
        process.communicate(timeout=LIMIT)


CLOSES_AND_OPENS = """
import _ctypes, ctypes, sys
for _ in range(20):
    library = ctypes.CDLL("libproxy.so.1")
    library.px_proxy_factory_new.restype = ctypes.c_void_p
    library.px_proxy_factory_get_proxies.restype = ctypes.POINTER(ctypes.c_char_p)
    factory = ctypes.c_void_p(library.px_proxy_factory_new())
    proxies = library.px_proxy_factory_get_proxies(factory, sys.argv[1].encode())
    print(proxies[0].decode())
    library.px_proxy_factory_free_proxies(proxies)
    library.px_proxy_factory_free(factory)
    _ctypes.dlclose(library._handle)
"""
HAS_A_TYPE = """
import ctypes
object = ctypes.CDLL("libgobject-2.0.so.0")
library = ctypes.CDLL("libproxy.so.1")
for function in (library.px_proxy_factory_get_type, library.px_proxy_factory_new,
                 object.g_boxed_copy):
    function.restype = ctypes.c_size_t
object.g_type_name.restype = ctypes.c_char_p
kind = ctypes.c_size_t(library.px_proxy_factory_get_type())
factory = ctypes.c_size_t(library.px_proxy_factory_new())
copy = ctypes.c_size_t(object.g_boxed_copy(kind, factory))
for one in (factory, copy):
    object.g_boxed_free(kind, one)
print(object.g_type_name(kind).decode(), library.px_proxy_factory_get_type() == kind.value)
"""


def environment_of(libproxy):
    return {"LD_LIBRARY_PATH": os.path.dirname(libproxy.ours), "DBUS_SYSTEM_BUS_ADDRESS": ADDRESS}


def python(libproxy, text, *arguments):
    done = subprocess.run(["/usr/bin/python3", "-c", text, *arguments], timeout=LIMIT,
                          capture_output=True, text=True, env=environment_of(libproxy))
    assert done.returncode == 0 and done.stderr == "", done.stderr
    return done.stdout.split()


def test_a_program_may_close_and_open_the_library(libproxy, client):
    client.update("manual", f"http://{HTTP_PROXY}")
    assert python(libproxy, CLOSES_AND_OPENS, URL) == [f"http://{HTTP_PROXY}"] * 20


def test_programs_of_the_later_release_find_glibs_type(libproxy):
    assert python(libproxy, HAS_A_TYPE) == ["pxProxyFactory", "True"]
