"""Those who may talk to the daemon and mean it harm."""

import measure
import pytest
from abuser import call
from conftest import make_watched_files, trace
from deaf_bus import DeafBus
from support.daemon import Daemon

# Sockets hold some 200 KiB in each direction, and one read brings 2 KiB of calls.
TAKEN_AT_MOST = 2 << 20  # bytes of calls
MUCH = 100_000  # calls, 40 MB of them
GROWTH = 1024  # KiB; the queue of the answers to MUCH calls is 30 times that


@pytest.fixture
def deaf_bus(root):
    bus = DeafBus()
    yield bus
    bus.close()


@pytest.fixture
def quiet(root):
    """The daemon logs errors alone: its lines are not what these tests are about."""
    trace("baseseverity=3\n")
    make_watched_files()


def test_a_bus_that_does_not_read_is_not_read_either(build, quiet, deaf_bus, sanitizer):
    bus, daemon = deaf_bus, Daemon(build, address=deaf_bus.address, start=False).spawn()
    bus.accept()
    question = call("getProxyurl", "s", ("http://a.example/" + "x" * 200,)).serialise(1)
    bus.ask(question, 1)
    bus.answers(1)
    before = measure.private_dirty(daemon.pid)
    asked = bus.ask(question, MUCH)
    growth = measure.private_dirty(daemon.pid) - before
    print(f"{asked} calls taken, {asked * len(question) >> 10} KiB, growth {growth} KiB")
    assert asked * len(question) < TAKEN_AT_MOST
    if not sanitizer:
        assert growth < GROWTH
    # When the bus reads again nothing is lost.
    answers = bus.answers(asked)
    serials = [serial for serial, _ in answers]
    assert serials == list(range(serials[0], serials[0] + asked))
    assert all(body == (["off", ""],) for _, body in answers)
    daemon.kill()
