"""Fixtures: each test has its own root, syslog socket, message bus and daemon."""

import os
import sys

import pytest

sys.path.insert(0, os.path.dirname(__file__))

from support.bus import Bus, Client, Signals  # noqa: E402
from support.daemon import Daemon  # noqa: E402
from support import own_network as network  # noqa: E402
from support.own_root import own_root  # noqa: E402
from support.real_proxies import RealProxies  # noqa: E402
from support.syslog_socket import Syslog  # noqa: E402
from support.web import Web  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--build", required=True, help="the build folder")
    parser.addoption("--sanitizer", default="", help="address or thread where the build has one")


def pytest_configure(config):
    config.addinivalue_line("markers", "slow: left out under sanitizers")


@pytest.fixture(scope="session")
def build(request):
    return os.path.abspath(request.config.getoption("--build"))


@pytest.fixture(scope="session")
def sanitizer(request):
    return request.config.getoption("--sanitizer")


@pytest.fixture(autouse=True)
def root(build):
    tree = os.path.abspath(os.path.join(os.path.dirname(__file__), "../.."))
    with own_root(tree, build):
        yield


@pytest.fixture
def own_network(root):
    with network.own_network():
        yield


def trace(text):
    """Writes the trace file, so that lines of LOG_DEBUG are said from the start."""
    os.makedirs("/etc/proxymanagerd", exist_ok=True)
    with open("/etc/proxymanagerd/trace.conf", "w") as file:
        file.write(text)


@pytest.fixture
def syslog(root):
    trace("baseseverity=7\n")
    log = Syslog()
    yield log
    log.close()


@pytest.fixture
def bus(root):
    bus = Bus()
    yield bus
    bus.close()


def make_watched_files():
    for path in ("/usr/local/lumad/dhcp.conf", "/tmp/.resolv.conf.dnsmasq"):
        open(path, "w").close()


@pytest.fixture
def daemon(build, syslog, bus):
    make_watched_files()
    daemon = Daemon(build)
    yield daemon
    daemon.close()


@pytest.fixture
def client(daemon):
    with Client() as client:
        yield client


@pytest.fixture
def signals(bus):
    signals = Signals()
    yield signals
    signals.close()


@pytest.fixture
def web(root):
    web = Web()
    yield web
    web.close()


@pytest.fixture
def port80(own_network):
    web = Web("127.0.0.1", 80)
    yield web
    web.close()


@pytest.fixture
def proxies(own_network):
    proxies = RealProxies()
    yield proxies
    proxies.close()
