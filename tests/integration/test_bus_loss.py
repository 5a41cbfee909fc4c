"""Tests the end of the message bus while the daemon runs."""

import itertools
import os
import random
import threading
import time

import pytest
from support.bus import LIMIT, Bus, Client, Signals
from support.daemon import Daemon, make_watched_files, wait_until_none_runs
from support.syslog_socket import ERR, INFO
from support.web import script

# The daemon ends at once and does not join its threads. The thread sanitizer must not report them.
AT_ONCE = {"TSAN_OPTIONS": os.environ.get("TSAN_OPTIONS", "") + ":report_thread_leaks=0"}
LOST = "bus: connection to the message bus lost, ending"


def test_a_lost_bus_is_one_line_and_an_end_with_1(build, bus, syslog):
    make_watched_files()
    daemon = Daemon(build, environment=AT_ONCE)
    with Client() as client:
        client.update("off")
    syslog.clear()
    bus.kill()
    assert daemon.wait() == 1
    assert syslog.errors() == [(ERR, LOST)]
    daemon.close()
    bus.start()  # the fixture ends a running bus


def test_after_a_lost_bus_it_starts_with_the_new_one(build, bus, syslog, web):
    """The new daemon finds the file of the old script. But it has no configuration, and announces
    this."""
    web.routes["/x.pac"] = script("PROXY p:1")
    make_watched_files()
    first = Daemon(build, environment=AT_ONCE)
    with Client() as client:
        client.update("pacurl", pacurl=web.url("/x.pac"))
        syslog.wait(INFO, "PacParser-parsePacFile pac init")
    bus.kill()
    assert first.wait() == 1
    first.close()
    wait_until_none_runs()
    bus.start()
    signals = Signals()
    second = Daemon(build)
    assert signals.wait("ProxyMgrStateEvent") == (1,)
    with Client() as client:
        assert client.urls("http://a/") == ["off", ""]
        client.update("pacurl", pacurl=web.url("/x.pac"))
        syslog.wait(INFO, "PacParser-parsePacFile pac init", 2)
        assert client.urls("http://a/") == ["pacurl", "PROXY p:1"]
    signals.close()
    second.close()


@pytest.mark.slow
def test_a_hundred_killed_buses_are_each_noticed(build, syslog, web):
    """The bus ends at a random moment, while other threads call and send.

    In one half of the rounds there is no update, so the announcements continue. In the other half,
    each update makes the fetcher's thread signal that the content is new.
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
        daemon = Daemon(build, environment=AT_ONCE)

        def call():
            try:
                with Client() as client:
                    for path in itertools.cycle(("/1.pac", "/2.pac")):
                        if number % 2:
                            client.update("pacurl", pacurl=web.url(path))
                        client.urls("http://a/")
            except Exception:
                pass  # the bus has ended

        callers = [threading.Thread(target=call) for _ in range(4)]
        for caller in callers:
            caller.start()
        time.sleep(choice.uniform(0, 0.05))
        bus.kill()
        assert daemon.wait() == 1
        syslog.wait(ERR, LOST)
        for caller in callers:
            caller.join(LIMIT)
            assert not caller.is_alive()
        daemon.close()
        wait_until_none_runs()
