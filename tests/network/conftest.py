"""Fixtures: a device and a gateway, each in a network of its own with one cable between them.

What the tests of the daemon as a process have is here too: own root, syslog, bus, daemon.
"""

import glob
import importlib.util
import os
import subprocess
import sys

import pytest

_HERE = os.path.dirname(os.path.abspath(__file__))
_INTEGRATION = os.path.join(_HERE, "..", "integration")
sys.path[:0] = [_HERE, _INTEGRATION]
_spec = importlib.util.spec_from_file_location("integration_fixtures",
                                               os.path.join(_INTEGRATION, "conftest.py"))
_fixtures = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(_fixtures)
# Fixtures count where they are names of this file.
build, sanitizer, root = _fixtures.build, _fixtures.sanitizer, _fixtures.root
syslog, bus, daemon = _fixtures.syslog, _fixtures.bus, _fixtures.daemon
client, signals = _fixtures.client, _fixtures.signals

from gateway import Gateway  # noqa: E402
from lan import device_network  # noqa: E402
from support.own_root import mount_empty  # noqa: E402

SKIPPED = 77  # CTest's number for a test that could not be made


def pytest_addoption(parser):
    _fixtures.pytest_addoption(parser)
    parser.addoption("--libexec", required=True, help="where the hooks look for their program")


def pytest_configure(config):
    config.addinivalue_line("markers", "slow: takes longer than a sanitizer run has patience for")


def pytest_sessionstart(session):
    """Says why where the machine does not let these tests make their networks."""
    try:
        trial = subprocess.run(
            ["unshare", "--mount", "--net", "ip", "link", "add", "veth0", "type",
             "veth", "peer", "name", "veth1"],
            capture_output=True, text=True)
        trouble = trial.stderr.strip() if trial.returncode else ""
    except OSError as error:
        trouble = str(error)
    if trouble:
        # Where everything is to be tested, a test that is not made has failed.
        required = os.environ.get("CI", "") not in ("", "0", "false")
        pytest.exit("these tests make mount and network namespaces with a pair of virtual "
                    f"interfaces, which this machine does not allow: {trouble}",
                    returncode=1 if required else SKIPPED)


@pytest.fixture
def hooks(root, build, request):
    """The hooks' folder; the program that they call stands where they look for it."""
    libexec = request.config.getoption("--libexec")
    if os.path.isdir(libexec):
        mount_empty(libexec, "mode=0755")
    os.makedirs(libexec, exist_ok=True)
    os.symlink(f"{build}/out/libexec/proxymanager-lease", f"{libexec}/proxymanager-lease")
    return f"{build}/out/share/proxymanager/hooks"


@pytest.fixture(autouse=True)
def device(root):
    """This thread, and what it starts, are the device."""
    with device_network():
        yield


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    report = yield
    item.failed = getattr(item, "failed", False) or report.get_result().failed


@pytest.fixture
def gateway(device, request):
    gateway = Gateway()
    yield gateway
    if getattr(request.node, "failed", False):
        for log in glob.glob("/run/*.log"):
            with open(log, errors="replace") as file:
                print(f"---- {log}", *file.readlines()[-40:], sep="\n", file=sys.stderr)
    gateway.close()
