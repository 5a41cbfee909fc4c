"""Tests the bus policy of the packages, on a bus that denies everything else."""

import os
import subprocess

import pytest
from support.bus import ADDRESS, NAME, Bus, Client
from support.daemon import Daemon

POLICY = os.path.abspath(os.path.join(
    os.path.dirname(__file__), "../../packaging/dbus/com.zentu.ProxyManagerService.conf"))
STRANGER = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")


def request_name(*wrapper):
    return subprocess.run([*wrapper, "dbus-send", f"--bus={ADDRESS}", "--print-reply",
                           "--dest=org.freedesktop.DBus", "/", "org.freedesktop.DBus.RequestName",
                           f"string:{NAME}", "uint32:0"], capture_output=True, text=True, timeout=60)


@pytest.fixture
def system_bus(root):
    bus = Bus(extra='<policy context="default"><deny own="*"/></policy>'
                    f"<include>{POLICY}</include>")
    yield bus
    bus.close()


def test_nobody_else_can_own_the_name(system_bus, build, syslog):
    if os.geteuid() != 0:
        pytest.skip("needs a second user")
    refused = request_name(*STRANGER)
    assert refused.returncode != 0 and "AccessDenied" in refused.stderr, refused
    granted = request_name()
    assert granted.returncode == 0, granted
    daemon = Daemon(build)
    refused = request_name(*STRANGER)
    assert refused.returncode != 0 and "AccessDenied" in refused.stderr, "nor wait for it"
    with Client() as client:
        assert client.check_started()
    daemon.close()
