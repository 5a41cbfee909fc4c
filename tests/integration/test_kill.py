"""Tests that the file of the script is complete after the daemon was killed at any moment, and that
the daemon can start again."""

import contextlib
import os
import random
import signal
import time

import pytest
from support.bus import BusError, Client, wait_until
from support.daemon import Daemon, make_watched_files
from support.syslog_socket import ERR, INFO
from support.web import Held, response

PAC = "/tmp/proxymanager.pac"
TEMPORARY = PAC + ".tmp"
ROUNDS = 200
LIMIT = 60.0  # seconds; enough for a busy machine


def numbered(number):
    """A script of about 300 KB. Each line contains the script's number, so that a mixture of two
    scripts is found."""
    answer = f'function FindProxyForURL(url, host) {{ return "PROXY p{number}:1"; }}\n'
    return answer + f"// {number}\n" * (300_000 // len(f"// {number}\n"))


def content():
    try:
        with open(PAC) as file:
            return file.read()
    except FileNotFoundError:
        return None


def sent_until(body, bytes_sent, then):
    """A route that sends `bytes_sent` of the body's bytes, calls `then`, and sends the rest."""
    def route(connection, _):
        whole = response(body)
        cut = len(whole) - len(body) + bytes_sent
        connection.sendall(whole[:cut])
        then()
        connection.sendall(whole[cut:])
    return route


def children_here():
    """Process ids of the script workers and fetch processes of this test."""
    here, found = os.readlink("/proc/self/ns/mnt"), []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/comm") as comm:
                named = comm.read() in ("proxymanager-pa\n", "proxymanager-fe\n")
            if named and os.readlink(f"/proc/{pid}/ns/mnt") == here:
                found.append(int(pid))
        except OSError:
            pass  # the process has ended meanwhile
    return found


@pytest.mark.slow
def test_killed_at_two_hundred_moments_it_leaves_a_whole_script(build, bus, syslog, web):
    """Kills the daemon during download, installation and load. In every second round, a script is
    already loaded."""
    make_watched_files()
    seed = random.randrange(1 << 32)
    print("seed", seed)
    choice = random.Random(seed)
    before = None
    outcomes = {"old": 0, "new": 0, "half": 0}
    reload_takes = 0.02  # seconds from the last byte until the script is loaded; measured below
    for number in range(ROUNDS):
        syslog.clear()
        daemon = Daemon(build)
        with Client() as client:
            if number % 2:
                before = numbered(1000 + number)
                web.routes["/first.pac"] = response(before)
                began = time.monotonic()
                client.update("pacurl", pacurl=web.url("/first.pac"))
                syslog.wait(INFO, "PacParser-parsePacFile pac init", limit=LIMIT)
                reload_takes = time.monotonic() - began
                assert client.urls("http://a/") == ["pacurl", f"PROXY p{1000 + number}:1"]
            after = numbered(number)
            if choice.random() < 0.5:
                at = choice.randrange(len(after))
                web.routes["/x.pac"] = sent_until(after, at, daemon.kill)
                with contextlib.suppress(BusError):  # killed before the reply
                    client.update("pacurl", pacurl=web.url("/x.pac"))
                daemon.process.wait(LIMIT)
            else:
                web.routes["/x.pac"] = response(after)
                client.update("pacurl", pacurl=web.url("/x.pac"))
                time.sleep(choice.uniform(0, 1.5 * reload_takes))
            daemon.kill()
        daemon.close()
        found = content()
        assert found in (before, after), f"neither the old nor the new script: {found[:100]!r}"
        outcomes["new" if found == after else "old"] += 1
        outcomes["half"] += os.path.exists(TEMPORARY)
        before = found
    print(outcomes)
    # If one of these numbers is too small, the test did not kill the daemon at the right moments.
    assert outcomes["old"] > 10 and outcomes["new"] > 10 and outcomes["half"] > 10, outcomes
    wait_until(lambda: children_here() == [], "no child process outlives its daemon", LIMIT)
    syslog.clear()
    daemon = Daemon(build)
    with Client() as client:
        web.routes["/x.pac"] = response(numbered(ROUNDS))
        client.update("pacurl", pacurl=web.url("/x.pac"))
        syslog.wait(INFO, "PacParser-parsePacFile pac init", limit=LIMIT)
        assert client.urls("http://a/") == ["pacurl", f"PROXY p{ROUNDS}:1"]
    assert not os.path.exists(TEMPORARY)
    daemon.close()


def fetch_processes():
    return [pid for pid in children_here() if is_fetch_process(pid)]


def is_fetch_process(pid):
    with contextlib.suppress(OSError):
        with open(f"/proc/{pid}/comm") as comm:
            return comm.read() == "proxymanager-fe\n"
    return False


def test_a_daemon_killed_during_a_download_leaves_no_process(build, bus, syslog, web):
    make_watched_files()
    daemon = Daemon(build)
    web.routes["/x.pac"] = held = Held(numbered(1))
    with Client() as client:
        client.update("pacurl", pacurl=web.url("/x.pac"))
        web.wait("/x.pac")
        assert len(fetch_processes()) == 1
        daemon.kill()
    daemon.close()
    wait_until(lambda: fetch_processes() == [], "it ends with its daemon", LIMIT)
    held.release()


@pytest.mark.slow
def test_a_fetch_process_killed_at_two_hundred_moments_costs_its_download(daemon, client, syslog,
                                                                          web):
    seed = random.randrange(1 << 32)
    print("seed", seed)
    choice = random.Random(seed)
    first = numbered(1000)
    web.routes["/first.pac"] = response(first)
    client.update("pacurl", pacurl=web.url("/first.pac"))
    syslog.wait(INFO, "PacParser-parsePacFile pac init", limit=LIMIT)
    descriptors = len(os.listdir(f"/proc/{daemon.pid}/fd"))

    def kill_all():
        for pid in fetch_processes():
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)

    for number in range(ROUNDS):
        syslog.clear()
        text = numbered(number)
        web.routes["/x.pac"] = sent_until(text, choice.randrange(len(text)), kill_all)
        client.update("pacurl", pacurl=web.url("/x.pac"))
        syslog.wait(ERR, "PACFetcher-retrievePacFile PAC file download failed "
                         f"url:{web.url('/x.pac')}", limit=LIMIT)
        assert content() == first
        assert not os.path.exists(TEMPORARY)
        # The configuration changes, so that the configuration of the next round is new.
        client.update("off")
    assert fetch_processes() == []
    assert len(os.listdir(f"/proc/{daemon.pid}/fd")) <= descriptors
    client.update("pacurl", pacurl=web.url("/first.pac"))
    syslog.wait(INFO, "PacParser-parsePacFile pac init", limit=LIMIT)
    assert client.urls("http://a/") == ["pacurl", "PROXY p1000:1"]
