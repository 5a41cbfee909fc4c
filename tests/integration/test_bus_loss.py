"""A bus that goes away."""

import itertools
import random
import threading
import time

import pytest
from conftest import make_watched_files
from support.bus import Bus, Client
from support.daemon import Daemon
from support.syslog_socket import ERR
from support.web import script

LOST = "bus: connection to the message bus lost, ending"


def test_a_lost_bus_is_one_line_and_an_end_with_1(daemon, bus, syslog, client):
    client.update("off")
    syslog.clear()
    bus.kill()
    assert daemon.wait(10) == 1
    assert syslog.errors() == [(ERR, LOST)]
    bus.start()  # for the fixture


@pytest.mark.slow
def test_a_hundred_killed_buses_are_each_noticed(build, syslog, web):
    """With callers and senders on other threads under way, at a random moment.

    In one half of the rounds nobody updates, so that the announcements go on; in the other each
    update makes the fetcher's thread say that the content is new.
    """
    web.routes["/1.pac"] = script("PROXY one:1")
    web.routes["/2.pac"] = script("PROXY two:1")
    make_watched_files()
    seed = random.randrange(1 << 32)
    print("seed", seed)
    choice = random.Random(seed)
    for number in range(100):
        syslog.clear()
        bus = Bus()
        daemon = Daemon(build)

        def call():
            try:
                with Client() as client:
                    for path in itertools.cycle(("/1.pac", "/2.pac")):
                        if number % 2:
                            client.update("pacurl", pacurl=web.url(path))
                        client.urls("http://a/")
            except Exception:
                pass  # the bus is gone

        callers = [threading.Thread(target=call) for _ in range(4)]
        for caller in callers:
            caller.start()
        time.sleep(choice.uniform(0, 0.05))
        bus.kill()
        assert daemon.wait(10) == 1
        syslog.wait(ERR, LOST)
        for caller in callers:
            caller.join(20)
            assert not caller.is_alive()
        daemon.close()
