"""Fixtures: a device and a gateway, each in its own network namespace, with one cable between
them."""

import glob
import os
import subprocess
import sys

import pytest

from gateway import Gateway
from lan import device_network
from support.own_root import mount_empty
from support.skipping import refuse_or_skip

# Servers and DHCP clients are in folders that are not in the PATH of an ordinary user.
os.environ["PATH"] += ":/usr/local/sbin:/usr/sbin:/sbin"


def pytest_addoption(parser):
    parser.addoption("--libexec", required=True, help="where the hooks look for their program")


def pytest_sessionstart(session):
    """Skips these tests if the machine does not allow them to make their networks. If CI is set,
    they fail."""
    try:
        trial = subprocess.run(
            ["unshare", "--mount", "--net", "ip", "link", "add", "veth0", "type",
             "veth", "peer", "name", "veth1"],
            capture_output=True, text=True)
        trouble = trial.stderr.strip() if trial.returncode else ""
    except OSError as error:
        trouble = str(error)
    if trouble:
        trouble = ("these tests make mount and network namespaces with a pair of virtual "
                   f"interfaces, which this machine does not allow: {trouble}")
    refuse_or_skip(trouble)


@pytest.fixture
def hooks(root, build, request):
    """The folder of the hooks. The hooks contain the path of the program that they call. The
    fixture makes a link to the program at this path."""
    libexec = request.config.getoption("--libexec")
    if os.path.isdir(libexec):
        mount_empty(libexec, "mode=0755")
    os.makedirs(libexec, exist_ok=True)
    os.symlink(f"{build}/out/libexec/proxymanager-lease", f"{libexec}/proxymanager-lease")
    return f"{build}/out/share/proxymanager/hooks"


@pytest.fixture(autouse=True)
def device(root):
    """This thread, and the processes that it starts, are in the device's network."""
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
