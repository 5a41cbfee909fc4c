"""Fixtures of every Python test: a separate root, syslog socket, message bus and daemon.

The conftest.py of a folder adds fixtures for this folder.
"""

import contextlib
import os

import pytest

from support import own_network as network
from support.bus import ADDRESS, Bus, Client, Signals
from support.ctl import Ctl
from support.daemon import Daemon, make_watched_files, trace
from support.own_root import own_root
from support.real_proxies import RealProxies
from support.relay import Relay
from support.relay_peers import Origin
from support.relay_requests import HOST
from support.syslog_socket import Syslog
from support.systemd import Systemd
from support.web import Web


def pytest_addoption(parser):
    parser.addoption("--build", required=True, help="the build folder")
    parser.addoption("--sanitizer", default="", help="address or thread if the build has one")


@pytest.fixture(scope="session")
def build(request):
    return os.path.abspath(request.config.getoption("--build"))


@pytest.fixture(scope="session")
def sanitizer(request):
    return request.config.getoption("--sanitizer")


@pytest.fixture(autouse=True)
def root(build):
    tree = os.path.abspath(os.path.join(os.path.dirname(__file__), ".."))
    with own_root(tree, build):
        yield


@pytest.fixture
def own_network(root):
    with network.own_network():
        yield


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


@pytest.fixture
def daemon(build, syslog, bus):
    make_watched_files()
    daemon = Daemon(build)
    yield daemon
    daemon.close()


@pytest.fixture
def systemd(build, syslog, bus):
    """Takes the place of systemd, to which a running daemon reports its status."""
    make_watched_files()
    systemd = Systemd()
    daemon = Daemon(build, environment=systemd.environment)
    systemd.process = daemon.pid
    yield systemd
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
def ctl(build, root):
    """Runs proxymanagerctl on this test's bus."""
    return Ctl(os.path.join(build, "out", "bin", "proxymanagerctl"), ADDRESS)


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


@pytest.fixture
def origin(own_network):
    network.hosts(HOST)
    with contextlib.closing(Origin()) as origin:
        yield origin


@pytest.fixture
def relay(build, own_network, syslog):
    relay = Relay(build)
    yield relay
    relay.stop()
