"""Fixtures: the relay with many real proxies, and programs that are unpacked and not installed."""

import pytest
from relay_world import World, browser_pages
from support.programs_root import ProgramsRoot


def pytest_addoption(parser):
    parser.addoption("--programs", required=True, help="what programs_root.sh has printed")


@pytest.fixture
def programs(own_network, request):
    programs = ProgramsRoot(request.config.getoption("--programs") + "/root")
    yield programs
    programs.close()


@pytest.fixture
def world(own_network, build, client, programs, port80, syslog):
    # The fixture `client` starts the daemon in the test's network.
    world = World(build, client, programs, port80, syslog)
    yield world
    world.close()


@pytest.fixture
def pages(world):
    return browser_pages()
