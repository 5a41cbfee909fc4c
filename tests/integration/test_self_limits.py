"""Tests the daemon's output when a person starts it, and the limits that it always sets for
itself."""

import os
import pty
import re
import signal
import subprocess

import pytest
from support.bus import Client, wait_until
from support.daemon import Daemon
from support.web import script

MIB = 1 << 20


def run(daemon, *arguments, **options):
    return subprocess.run([daemon.path, *arguments], capture_output=True, text=True, timeout=60,
                          env=daemon.environment, **options)


def on_a_terminal(daemon, *arguments):
    """Runs the daemon with a terminal as stderr. @return the text on the terminal, and the
    status"""
    master, slave = pty.openpty()
    with subprocess.Popen([daemon.path, *arguments], stdin=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL, stderr=slave,
                          env=daemon.environment) as process:
        os.close(slave)
        status = process.wait(60)
    text = b""
    try:
        while piece := os.read(master, 4096):
            text += piece
    except OSError:  # no program has the terminal open any more
        pass
    os.close(master)
    return text.decode(), status


def test_help_and_version_are_printed_without_a_bus_and_end(bus, build):
    daemon = Daemon(build, address="unix:path=/run/no_such_bus", start=False)
    shown = run(daemon, "--help")
    assert shown.returncode == 0 and shown.stderr == ""
    assert shown.stdout.startswith("usage: proxymanagerd [--help | --version]\n")
    shown = run(daemon, "--version")
    assert shown.returncode == 0 and re.fullmatch(r"proxymanagerd [0-9.]+\n", shown.stdout)
    assert not os.path.exists("/run/proxymanagerd.pid")


def test_a_version_that_cannot_be_written_is_a_failure(bus, build):
    daemon = Daemon(build, start=False)
    with open("/dev/full", "w") as full:
        assert subprocess.run([daemon.path, "--version"], stdout=full,
                              timeout=60).returncode == 1


def test_a_start_that_fails_shows_one_line_on_a_terminal(daemon, build):
    text, status = on_a_terminal(Daemon(build, start=False))
    assert status == 1
    assert text == ("proxymanagerd: another instance runs, or its run file cannot be taken; "
                    "the log has more\r\n")


def test_a_start_without_a_bus_shows_one_line_on_a_terminal(bus, build):
    daemon = Daemon(build, address="unix:path=/run/no_such_bus", start=False)
    text, status = on_a_terminal(daemon)
    assert status == 1
    assert re.fullmatch(r"proxymanagerd: the service cannot start: [^\n]+\r\n", text)
    assert run(daemon).stderr == "", "a supervisor has the log"



def test_a_daemon_writes_no_core_though_its_supervisor_allows_one(bus, build):
    daemon = Daemon(build, start=False, wrapper=["prlimit", "--core=unlimited"]).start()
    limits = open(f"/proc/{daemon.pid}/limits").read()
    assert re.search(r"^Max core file size +0 +0 ", limits, re.MULTILINE)
    daemon.signal(signal.SIGSEGV)
    _, status = os.waitpid(daemon.pid, 0)
    assert os.WIFSIGNALED(status) and not os.WCOREDUMP(status)


def test_the_script_is_for_all_to_read_whatever_mask_the_supervisor_has(bus, build, web):
    web.routes["/x.pac"] = script("DIRECT")
    daemon = Daemon(build, start=False,
                    wrapper=["sh", "-c", 'umask 077 && exec "$@"', "sh"]).start()
    with Client() as client:
        client.update("pacurl", pacurl=web.url("/x.pac"))
    wait_until(lambda: os.path.exists("/tmp/proxymanager.pac"), "the script is there")
    assert os.stat("/tmp/proxymanager.pac").st_mode & 0o777 == 0o644
    assert daemon.stop() == 0


def private_memory(pid):
    """The private memory of the process in bytes."""
    with open(f"/proc/{pid}/smaps_rollup") as rollup:
        return 1024 * sum(int(line.split()[1]) for line in rollup if line.startswith("Private_"))


def test_memory_of_long_calls_is_given_back(daemon, client):
    if os.environ.get("ASAN_OPTIONS") or os.environ.get("TSAN_OPTIONS"):
        pytest.skip("the sanitizer brings an allocator of its own")
    client.urls("http://first.example/")
    before = private_memory(daemon.pid)
    for letter in "ab":
        client.urls("http://" + letter * (31 * MIB) + "/")
    wait_until(lambda: private_memory(daemon.pid) - before < MIB, "the memory is given back")
