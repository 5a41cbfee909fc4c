"""A bus that goes away."""

import random
import threading
import time

import pytest
from conftest import make_watched_files
from support.bus import Bus, Client
from support.daemon import Daemon
from support.syslog_socket import ERR

LOST = "bus: connection to the message bus lost, ending"


def test_a_lost_bus_is_one_line_and_an_end_with_1(daemon, bus, syslog, client):
    client.update("off")
    syslog.clear()
    bus.kill()
    assert daemon.wait(10) == 1
    assert [line for line in syslog.lines() if line.level == ERR] == [(ERR, LOST)]
    bus.start()  # for the fixture


@pytest.mark.slow
def test_a_hundred_killed_buses_are_each_noticed(build, syslog):
    """With callers, announcements and updates under way, at a random moment."""
    make_watched_files()
    seed = random.randrange(1 << 32)
    print("seed", seed)
    choice = random.Random(seed)
    for _ in range(100):
        bus = Bus()
        daemon = Daemon(build)

        def call():
            try:
                with Client() as client:
                    while True:
                        client.update("manual", proxyurl="p:1")
                        client.urls("http://a/")
            except Exception:
                pass  # the bus is gone

        callers = [threading.Thread(target=call) for _ in range(4)]
        for caller in callers:
            caller.start()
        time.sleep(choice.uniform(0, 0.05))
        bus.kill()
        assert daemon.wait(10) == 1
        for caller in callers:
            caller.join(20)
            assert not caller.is_alive()
        daemon.close()
