import glob
import os
import pathlib
import sys

import pytest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "integration"))

from machine import Machine  # noqa: E402


SKIPPED = 77  # CTest's number for a test that could not be made


def what_this_machine_lacks():
    if os.geteuid() != 0:
        return "only root can boot a system in namespaces"
    if not any(line.split()[2] == "cgroup2" for line in open("/proc/self/mounts")):
        return "a system in namespaces needs a cgroup2 hierarchy"
    return None


def pytest_addoption(parser):
    parser.addoption("--folder", required=True, help="where build_packages.sh put the packages")


def pytest_sessionstart(session):
    """Says why where this machine does not let a system be booted."""
    lacking = what_this_machine_lacks()
    if lacking:
        # Where everything is to be tested, a test that is not made has failed.
        required = os.environ.get("CI", "") not in ("", "0", "false")
        pytest.exit(lacking, returncode=1 if required else SKIPPED)


@pytest.fixture(scope="session")
def packages(request):
    found = glob.glob(request.config.getoption("--folder") + "/out/*.deb")
    return [file for file in found if "dbgsym" not in file]


@pytest.fixture(scope="session")
def machine(request, packages):
    with Machine(request.config.getoption("--folder"), packages) as booted:
        yield booted
