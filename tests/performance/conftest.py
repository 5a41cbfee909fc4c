"""Fixtures: those of the integration tests, and what the build was made with."""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../integration"))

from support.bus import Bus  # noqa: E402
from support.own_root import own_root  # noqa: E402

import pytest  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--build", required=True, help="the build folder")
    parser.addoption("--sanitizer", default="", help="here always empty")
    parser.addoption("--compiler", required=True, help="name, version and machine")
    parser.addoption("--record", action="store_true", help="write what is counted instead")


SKIPPED = 77  # CTest's number for a test that could not be made


def pytest_terminal_summary(terminalreporter):
    for report in terminalreporter.stats.get("skipped", ()):
        terminalreporter.write_line(report.longrepr[2])


def pytest_sessionfinish(session, exitstatus):
    counts = session.config.pluginmanager.get_plugin("terminalreporter").stats
    if exitstatus == 0 and counts.get("skipped") and not counts.get("passed"):
        session.exitstatus = SKIPPED


@pytest.fixture
def build(request):
    return os.path.abspath(request.config.getoption("--build"))


@pytest.fixture(autouse=True)
def root(build):
    tree = os.path.abspath(os.path.join(os.path.dirname(__file__), "../.."))
    with own_root(tree, build):
        yield


@pytest.fixture
def bus(root):
    bus = Bus()
    yield bus
    bus.close()
