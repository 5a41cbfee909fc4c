"""Measures the memory that the settings service needs on a device on which only the message bus and
the daemon share libraries with it."""

import time

import pytest
from support.bus import wait_until
from support.memory import unshared
from support.settings_service import NetworkManager, SettingsService, link, write_settings
from support.web import script

LIMIT = 2e6  # bytes
LONGEST = 512_000  # bytes of a script


@pytest.fixture
def settings(build, own_network, syslog, bus, sanitizer):
    if sanitizer:
        pytest.skip("sanitizers need memory of their own")
    service = SettingsService(build)
    yield service
    service.stop()


@pytest.fixture
def measured(bus, daemon, settings):
    def least():
        """The smallest of some readings, in bytes. The readings differ, because the kernel moves
        pages while other programs need memory."""
        readings = []
        for _ in range(5):
            others = (daemon.pid, *daemon.children())
            both = unshared(bus.process.pid, *others, settings.process.pid)
            readings.append((both - unshared(bus.process.pid, *others)) * 1024)
            time.sleep(0.05)
        if both == 0:
            pytest.skip("this machine does not show which pages processes share")
        return min(readings)
    return least


def test_the_services_private_memory_has_a_limit_with_and_without_a_script(settings, daemon, client,
                                                                          measured):
    write_settings('mode = "manual"\nproxy-url = "http://a.example:1"\n')
    settings.start()
    wait_until(lambda: client.config()[0] == "manual", "the file is used")
    alone = measured()
    write_settings("")
    link("eth", 100)
    manager = NetworkManager()
    manager.create(Method="auto", Interface="eth", Script=script("PROXY p:1") + "//")
    wait_until(lambda: client.urls("http://h.example/") == ["pacurl", "PROXY p:1"], "the script answers")
    serving = measured()
    print(f"without a script {alone / 1e6:.2f} MB, with a script {serving / 1e6:.2f} MB")
    assert alone < LIMIT and serving < LIMIT
    manager.close()


def test_a_long_script_costs_its_own_length_and_the_memory_comes_back(settings, daemon, client, measured):
    settings.start()
    link("eth", 100)
    before = measured()
    for number in range(5):
        manager = NetworkManager()
        text = script(f"PROXY p{number}:1")
        manager.create(Method="auto", Interface="eth", Script=text + " " * (LONGEST - len(text)))
        wait_until(lambda: client.urls("http://h.example/") == ["pacurl", f"PROXY p{number}:1"],
                   "the script answers")
        manager.close()
    wait_until(lambda: client.config()[0] == "off", "the last one is gone")
    assert measured() < before + LONGEST
