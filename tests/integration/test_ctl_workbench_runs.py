"""The commands of the workbench while they run: their progress, their interruption, their limits."""

import json
import os
import signal
import subprocess
import time

import pytest
from support.bus import wait_until
from support.ctl import ANSWERED, REFUSED, Ctl
from support.threads import of_threads

# The parser needs most of a second for these rules.
LARGE = "function FindProxyForURL(url, host) {\n" + "".join(
    f'  if (dnsDomainIs(host, ".d{number}.example")) return "PROXY p{number}:1";\n'
    for number in range(7000)) + '  return "DIRECT";\n}\n'
# Answers the first URL late.
LATE = """\
function FindProxyForURL(url, host) {
  if (host == "late") for (var end = Date.now() + TIME; Date.now() < end;) "x".repeat(1e6);
  return "DIRECT";
}
"""
# Answers late for a host that is only in the made URLs.
MISSED = """\
function FindProxyForURL(url, host) {
  if (host == "missed.example") {
    for (var end = Date.now() + 1200; Date.now() < end;) "x".repeat(1e6);
    return "PROXY p:1";
  }
  return "DIRECT";
}
"""
ENDLESS = """\
function FindProxyForURL(url, host) {
  alert("asked");
  while (true) {}
}
"""


def program(build):
    return os.path.join(build, "out", "bin", "proxymanagerctl")


@pytest.fixture
def ctl(build):
    return Ctl(program(build))


@pytest.fixture
def to_file(build):
    """Runs the program with its standard output in the file /tmp/output."""
    return Ctl(program(build), wrapper=["sh", "-c", 'exec "$0" "$@" > /tmp/output'])


def write(name, content):
    with open(os.path.join("/tmp", name), "w", encoding="utf-8") as file:
        file.write(content)
    return os.path.join("/tmp", name)


def workers_of(pid):
    return [int(worker) for text in of_threads(pid, "children").values() for worker in text.split()]


def runs(pid):
    try:
        with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
            return stat.read().rpartition(")")[2].split()[0] != "Z"
    except OSError:
        return False


def late(milliseconds):
    return write("s.pac", LATE.replace("TIME", str(milliseconds)))


# The words of each command, and the number of evaluations of the first URL before it is counted.
COUNTED = {"cover": (["cover", "/tmp/s.pac"], 2), "diff": (["diff", "/tmp/s.pac", "/tmp/s.pac"], 4),
           "bench": (["bench", "/tmp/s.pac", "--json"], 1),
           "eval": (["eval", "/tmp/s.pac", "--host", "late"], 1),
           "explain": (["explain", "/tmp/s.pac", "--host", "late"], 2)}


@pytest.mark.parametrize("command", COUNTED)
def test_a_terminal_sees_the_number_of_urls_until_the_output(to_file, command):
    words, evaluations = COUNTED[command]
    late(1200 // evaluations)
    terminal = to_file.on_terminal("pac", *words, "http://late/", "http://b/")
    seen = terminal.output.wait("\r\x1b\\[K1 of (2|4) URLs\r")
    assert seen.group(1) == ("4" if command == "bench" else "2")
    status, rest = terminal.end()
    assert status == ANSWERED
    assert rest.endswith("\r\x1b[K") and "\n" not in rest
    with open("/tmp/output", encoding="utf-8") as output:
        assert "URLs\r" not in output.read()


def test_a_terminal_sees_the_number_of_cases(to_file):
    late(1200)
    write("cases", "http://late/ -> DIRECT\nhttp://b/ -> DIRECT\n")
    terminal = to_file.on_terminal("pac", "test", "/tmp/s.pac", "/tmp/cases")
    terminal.output.wait("\r\x1b\\[K1 of 2 URLs\r")
    assert terminal.end()[0] == ANSWERED


def test_a_terminal_sees_the_number_of_made_urls(to_file):
    """The rule that no given URL reaches answers late, and URLs are made for it."""
    path = write("s.pac", MISSED)
    terminal = to_file.on_terminal("pac", "cover", path, "http://b/")
    terminal.output.wait("\r\x1b\\[K[0-9]+ of [0-9]+ URLs\r")
    assert terminal.end()[0] == ANSWERED


@pytest.mark.parametrize("command", ["eval", "explain"])
def test_the_progress_is_gone_before_the_output_comes(ctl, command):
    late(1200)
    terminal = ctl.on_terminal("pac", command, "/tmp/s.pac", "--json", "--host", "late", "http://late/")
    terminal.output.wait("1 of 1 URLs\r\r\x1b\\[K")
    status, output = terminal.end()
    assert status == ANSWERED
    assert len(json.loads(output)) == 1


def test_nothing_but_a_terminal_sees_the_progress(ctl, to_file):
    path = late(600)
    words = ("pac", "cover", path, "http://late/", "http://b/")
    assert ctl(*words).errors == ""
    assert to_file.on_terminal(*words, environment={"TERM": "dumb"}).end() == (ANSWERED, "")
    # On a terminal, the explanations themselves show the progress.
    assert "of 2 URLs" not in ctl.on_terminal("pac", "explain", path, *words[3:]).end()[1]


@pytest.mark.parametrize("words", [["cover", "--format", "html"], ["explain", "--json"]], ids=lambda words: words[0])
def test_an_interrupted_command_leaves_no_worker_and_no_output(to_file, words):
    path = write("s.pac", ENDLESS)
    terminal = to_file.on_terminal("pac", words[0], path, *words[1:], "http://a/", "http://b/")
    terminal.output.wait("alert: asked")
    workers = workers_of(terminal.pid)
    assert workers
    # A stopped process cannot end by itself, so only a kill ends it.
    for worker in workers:
        os.kill(worker, signal.SIGSTOP)
    terminal.type("\x03")
    assert terminal.end()[0] == -signal.SIGINT
    wait_until(lambda: not any(runs(worker) for worker in workers), "no worker runs")
    assert os.path.getsize("/tmp/output") == 0


@pytest.mark.slow
def test_a_parser_that_does_not_answer_ends_after_its_time(build):
    path = write("s.pac", LARGE)
    begun = time.monotonic()
    command = subprocess.Popen([program(build), "pac", "explain", path, "http://a/", "--offline"],
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def parsers():
        found = []
        for worker in workers_of(command.pid):
            with open(f"/proc/{worker}/environ", "rb") as environment:
                if b"PROXYMANAGER_WORKBENCH=parse" in environment.read():
                    found.append(worker)
        return found

    wait_until(parsers, "a parser runs", pause=0.001)
    (parser,) = parsers()
    os.kill(parser, signal.SIGSTOP)
    output, errors = command.communicate(timeout=60)
    took = time.monotonic() - begun
    assert (command.returncode, output) == (REFUSED, b"")
    assert errors == b"proxymanagerctl: /tmp/s.pac: the script worker did not answer in time\n"
    assert 10 <= took < 20
    assert not runs(parser)
