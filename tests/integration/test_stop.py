"""Tests the end of the daemon under load."""

import itertools
import threading

import pytest
from support.bus import LIMIT, BusError, Client
from support.daemon import Daemon, make_watched_files
from support.syslog_socket import INFO
from support.web import Held, script


ANSWERS = (["pacurl"], ["pacurl", "PROXY p:1"], ["wpad"], ["wpad", "PROXY p:1"], ["manual", "p:1"],
           ["off", ""], ["off"])


def stop_under_load(build, web, times):
    """Starts and stops a daemon, `times` times, while clients send queries and updates. Each answer
    must be that of a running service, or the default answer."""
    web.routes["/x.pac"] = script("PROXY p:1")
    wrong = []
    for _ in range(times):
        daemon = Daemon(build)
        ready = threading.Barrier(5)

        def update():
            try:
                with Client() as client:
                    ready.wait(LIMIT)
                    for mode in itertools.cycle(("pacurl", "manual", "wpad", "off")):
                        result = client.update(mode, proxyurl="p:1", pacurl=web.url("/x.pac"))
                        if result not in (0, -1):
                            wrong.append(result)
            except (BusError, TimeoutError):
                pass  # the daemon has ended, so its name has no owner

        def ask():
            try:
                with Client() as client:
                    ready.wait(LIMIT)
                    while True:
                        urls = client.urls("http://a/")
                        if urls not in ANSWERS:
                            wrong.append(urls)
                        config = client.config()
                        if config not in (("pacurl", "", web.url("/x.pac"), "n", "", ""),
                                          ("manual", "p:1", "", "n", "", ""),
                                          ("wpad", "", "", "n", "", ""),
                                          ("off", "", "", "n", "", ""),
                                          ("off", "", "", "", "", "")):
                            wrong.append(config)
            except (BusError, TimeoutError):
                pass  # the daemon has ended, so its name has no owner

        clients = [threading.Thread(target=target) for target in (ask, update, ask, update)]
        for client in clients:
            client.start()
        ready.wait(LIMIT)
        assert daemon.stop() == 0
        for client in clients:
            client.join(LIMIT)
        daemon.close()
    assert wrong == []


def test_it_ends_in_order_under_load(build, bus, syslog, web):
    make_watched_files()
    stop_under_load(build, web, 5)


@pytest.mark.slow
def test_it_ends_in_order_under_load_fifty_times(build, bus, syslog, web):
    make_watched_files()
    stop_under_load(build, web, 50)


def test_a_download_in_flight_is_waited_for(daemon, client, web, syslog):
    web.routes["/slow.pac"] = held = Held(script("DIRECT"))
    client.update("pacurl", pacurl=web.url("/slow.pac"))
    web.wait("/slow.pac")
    stopped = threading.Thread(target=lambda: daemon.stop())
    stopped.start()
    syslog.wait(INFO, "PACFetcher-stop called")
    # Until the download has ended, calls get the default answers, as from a daemon without a
    # service.
    assert client.urls("http://a/") == ["off"]
    assert client.config() == ("off", "", "", "", "", "")
    assert client.update("off") == -1
    assert client.check_started()
    assert daemon.process.poll() is None
    held.release()
    stopped.join(LIMIT)
    assert daemon.process.returncode == 0
