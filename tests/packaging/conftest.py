"""Fixtures: a clean, running system with the packages that are tested."""

import glob
import os

import pytest

from machine import Machine
from support.skipping import refuse_or_skip


def what_this_machine_lacks():
    if os.geteuid() != 0:
        return "only root can boot a system in namespaces"
    if not any(line.split()[2] == "cgroup2" for line in open("/proc/self/mounts")):
        return "a system in namespaces needs a cgroup2 hierarchy"
    return None


def pytest_addoption(parser):
    parser.addoption("--folder", required=True, help="where build_packages.sh put the packages")


def pytest_sessionstart(session):
    refuse_or_skip(what_this_machine_lacks())


@pytest.fixture
def root():
    """The root of the machine: these tests boot a separate system."""


@pytest.fixture(scope="session")
def built(request):
    """The files of the packages, by the packages' names."""
    found = glob.glob(request.config.getoption("--folder") + "/out/*.deb")
    return {os.path.basename(file).partition("_")[0]: file for file in sorted(found)
            if "dbgsym" not in file}


@pytest.fixture(scope="session")
def packages(built):
    # The settings service would configure the daemon, but here the tests do that.
    return [file for name, file in built.items()
            if name not in ("proxymanager-settings", "proxymanager-relay")]


@pytest.fixture(scope="session")
def machine(packages):
    with Machine(packages) as booted:
        yield booted
