"""Tests downloads with the usual settings of the name service. The fetch process cannot open local
sockets. So modules that use a local service are not available, and the C library uses the next
module."""

import glob
import os
import shutil
import socket
import subprocess

import pytest
from support.web import Held, Web, script
from test_downloads import Downloads, online  # noqa: F401

SETTINGS = {
    "files dns": None,
    "resolve [!UNAVAIL=return] dns": "libnss_resolve",
    "mdns4_minimal [NOTFOUND=return] dns": "libnss_mdns4_minimal",
    "myhostname": "libnss_myhostname",
}


@pytest.fixture
def modules(root, build):
    """Puts the modules into a folder in which the C library looks for modules. The fetch process
    may read shared libraries there."""
    os.makedirs("/usr/local/lib", exist_ok=True)
    found = glob.glob(f"{build}/out/tests/name_services/**/libnss_*.so.2", recursive=True)
    assert len(found) >= 3, found
    for module in found:
        shutil.copy(module, "/usr/local/lib")
    subprocess.run(["ldconfig"], check=True)


def mapped(pid):
    with open(f"/proc/{pid}/maps") as maps:
        return maps.read()


def fetch_process(daemon):
    """Returns the child process that downloads, or None if there is no such process."""
    for task in os.listdir(f"/proc/{daemon.pid}/task"):
        with open(f"/proc/{daemon.pid}/task/{task}/children") as children:
            for pid in children.read().split():
                with open(f"/proc/{pid}/comm") as comm:
                    if comm.read() == "proxymanager-fe\n":
                        return pid
    return None


@pytest.mark.parametrize("setting", SETTINGS)
def test_names_are_looked_up_with_each_supported_setting(online, client, syslog, daemon,  # noqa: F811
                                                         modules, setting):
    with open("/etc/nsswitch.conf", "w") as file:
        file.write(f"hosts: {setting}\n")
    downloads = Downloads(online, client, syslog)
    host, web = "other.office.example", downloads.web
    own = Web("")
    if setting == "myhostname":  # this module resolves only the name of this machine
        host, web = socket.gethostname(), own
    held = web.routes["/new.pac"] = Held(script("PROXY new:1"))
    downloads.fetch(f"http://{host}:{web.port}/new.pac")
    web.wait("/new.pac")
    module = SETTINGS[setting]
    maps = mapped(fetch_process(daemon))
    assert module is None or module in maps, "the module was asked"
    held.release()
    downloads.answers("PROXY new:1")
    own.close()
