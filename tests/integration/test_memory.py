"""Measures the memory that the daemon needs on a device on which only the message bus shares
libraries with it. The limits are a little above the aims of docs/performance.md, because the kernel
also maps neighbours of used pages."""

import time

import pytest
from support.bus import wait_until
from support.memory import unshared

OFF = 3.45e6  # bytes, in mode off
TOGETHER = 5.1e6  # with the worker and a script of 60 rules
URL = "http://www.example.org/index.html"


def sixty_rules():
    rules = "".join(f'  if (dnsDomainIs(host, ".d{number}.example") || shExpMatch(url, "*{number}*x"))'
                    f' return "PROXY p{number}:8080";\n' for number in range(60))
    return f'function FindProxyForURL(url, host) {{\n{rules}  return "PROXY p:8080; DIRECT";\n}}\n'


@pytest.fixture
def measured(bus, daemon, sanitizer):
    if sanitizer:
        pytest.skip("sanitizers need memory of their own")
    if unshared(bus.process.pid, daemon.pid) == 0:
        pytest.skip("this machine does not show which pages processes share")

    def least(*pids):
        """The smallest of five readings, in bytes. The readings differ, because the kernel moves
        pages while other programs need memory."""
        readings = []
        for _ in range(5):
            readings.append(unshared(bus.process.pid, *pids) * 1024)
            time.sleep(0.05)
        return min(readings)
    return least


def test_the_private_memory_of_the_daemon_and_its_worker_has_a_limit(measured, daemon, client, web):
    client.update("off")
    for _ in range(100):
        client.urls(URL)
    off = measured(daemon.pid)
    web.routes["/p.pac"] = sixty_rules()
    client.update("pacurl", pacurl=web.url("/p.pac"))
    wait_until(lambda: client.urls(URL) == ["pacurl", "PROXY p:8080", "DIRECT"], "the script answers")
    wait_until(lambda: len(daemon.children()) == 1, "the worker alone runs")
    together = measured(daemon.pid, *daemon.children())
    print(f"mode off {off / 1e6:.2f} MB, with the worker {together / 1e6:.2f} MB")
    assert off <= OFF
    assert together <= TOGETHER
