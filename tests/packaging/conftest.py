import glob
import os
import pathlib
import sys

import pytest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "integration"))

from machine import Machine  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--folder", required=True, help="where build_packages.sh put the packages")


@pytest.fixture(scope="session")
def packages(request):
    found = glob.glob(request.config.getoption("--folder") + "/out/*.deb")
    return [file for file in found if "dbgsym" not in file]


@pytest.fixture(scope="session")
def machine(request, packages):
    assert os.geteuid() == 0, "these tests need root: they boot a system"
    with Machine(request.config.getoption("--folder"), packages) as booted:
        yield booted
