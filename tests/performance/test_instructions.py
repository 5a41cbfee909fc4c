"""Counts the instructions of the most frequent code paths, so that a regression is found on any
machine.

Callgrind counts them; times would depend on the machine. A count may differ from that in
instructions.json by a tenth. A higher count is a regression. A lower count is an improvement:
record it, so that a later regression is found. The counts are valid only for one compiler. With any
other compiler, the tests are skipped with this reason.

To record new counts, after you have found the reason for the change:
  cd tests/performance && pytest --build=BUILD --compiler="GNU 12.2.0 x86_64" --record .
"""

import json
import os
import re
import subprocess

import pytest

from support.bus import Client
from support.daemon import Daemon

_COUNTS = os.path.join(os.path.dirname(__file__), "instructions.json")
MARGIN = 0.10
TIMES = 500
LIMIT = 240.0
STUB = "com::zentu::ProxyManagerServiceInterface_adaptor::_getProxyurl_stub(DBus::CallMessage const&)"


def callgrind(function):
    return ["valgrind", "--tool=callgrind", f"--toggle-collect={function}", "--collect-atstart=no",
            "--callgrind-out-file=/tmp/callgrind.out"]


def counted():
    """The count that callgrind has written at the end of the program."""
    with open("/tmp/callgrind.out") as file:
        return int(re.search(r"^(?:totals|summary): (\d+)", file.read(), re.MULTILINE)[1])


def instructions_of(build, path):
    """The number of instructions for one round of a code path of the program hot_paths (an
    average)."""
    subprocess.run(callgrind("hot_path") + [f"{build}/out/tests/hot_paths", path, str(TIMES)],
                   check=True, timeout=LIMIT, capture_output=True)
    return counted() / (TIMES + 1)


def judge(request, path, count):
    compiler = request.config.getoption("--compiler")
    with open(_COUNTS) as file:
        kept = json.load(file)
    if request.config.getoption("--record"):
        kept.setdefault(compiler, {})[path] = round(count)
        with open(_COUNTS, "w") as file:
            json.dump(kept, file, indent=2, sort_keys=True)
            file.write("\n")
        return
    if compiler not in kept:
        pytest.skip(f"no counts for {compiler}: they are of {', '.join(kept)}")
    expected = kept[compiler][path]
    change = count / expected - 1
    print(f"{path}: {count:.0f} instructions, {change:+.1%}")
    assert abs(change) <= MARGIN, (
        f"{path} takes {count:.0f} instructions, not {expected} ({change:+.1%})")


@pytest.mark.slow
def test_an_answer_from_the_cache(request, build):
    judge(request, "cached_answer", instructions_of(build, "cached_answer"))


@pytest.mark.slow
def test_the_parsing_of_a_result(request, build):
    judge(request, "parsed_result", instructions_of(build, "parsed_result"))


@pytest.mark.slow
def test_the_cleaning_of_a_url(request, build):
    judge(request, "cleaned_url", instructions_of(build, "cleaned_url"))


@pytest.mark.slow
def test_an_evaluation_of_sixty_rules(request, build):
    judge(request, "evaluation", instructions_of(build, "evaluation"))


@pytest.mark.slow
def test_a_call_on_the_bus(request, build, bus):
    for path in ("/usr/local/lumad/dhcp.conf", "/tmp/.resolv.conf.dnsmasq"):
        open(path, "w").close()
    os.makedirs("/etc/proxymanagerd")
    with open("/etc/proxymanagerd/trace.conf", "w") as file:
        file.write("baseseverity=3\n")
    daemon = Daemon(build, wrapper=callgrind(STUB))
    with Client() as client:
        client.update("manual", proxyurl="http://proxy.example.org:8080")
        for _ in range(TIMES):
            client.urls("http://www.example.org/index.html")
    assert daemon.stop() == 0
    daemon.close()
    judge(request, "bus_call", counted() / TIMES)
