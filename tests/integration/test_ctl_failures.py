"""Tests proxymanagerctl when the bus or the daemon fails, or when an answer is late."""

import os
import signal
import socket
import time

import pytest
from support.bus import ADDRESS, NAME, Bus, Client, wait_until
from support.ctl import (ANSWERED, COMMANDS, LIMIT, PROTOCOL, START_IT, TRY_AGAIN, UNAVAILABLE,
                         USAGE, commands, rows, said)
from support.deaf_bus import DeafBus
from support.stand_in import HOLD, StandIn
from support.web import Held, script


def test_a_daemon_that_does_not_run_is_told_in_one_line(ctl, bus):
    for name, arguments in commands("status", "watch"):
        assert said(ctl(name, *arguments)) == (
            UNAVAILABLE, f"proxymanagerd does not run; {START_IT}"), name


@pytest.fixture
def starting_bus(build, syslog):
    """Makes a bus that starts a program of the test when somebody calls the daemon."""
    made = []

    def make(command):
        os.makedirs("/run/services", exist_ok=True)
        with open(f"/run/services/{NAME}.service", "w") as file:
            file.write(f"[D-BUS Service]\nName={NAME}\nExec={command}\nUser=root\n")
        made.append(Bus("<servicedir>/run/services</servicedir>"))

    yield make
    for bus in made:
        bus.close()


def test_the_bus_starts_the_daemon_for_what_needs_it(ctl, starting_bus, build):
    started = "/run/started"
    with open("/run/start", "w") as file:
        file.write(f"#!/bin/sh\necho $$ > {started}\n"
                   f"DBUS_SYSTEM_BUS_ADDRESS={ADDRESS} exec {build}/out/sbin/proxymanagerd\n")
    os.chmod("/run/start", 0o755)
    starting_bus("/run/start")
    result = ctl("status")
    assert result.status == UNAVAILABLE and rows(result.output)["running"] == f"no; {START_IT}"
    watch = ctl.start("watch")
    watch.output.wait("daemon +does not run")
    assert not os.path.exists(started)
    try:
        assert ctl("get", "--format", "raw", "http://a/", "--timeout", str(LIMIT)).status == ANSWERED
        watch.output.wait("daemon +runs")
        assert watch.end(signal.SIGINT) == (ANSWERED, "")
    finally:
        with open(started) as file:
            os.kill(int(file.read()), signal.SIGKILL)


def test_a_daemon_that_the_bus_cannot_start_is_told_in_one_line(ctl, starting_bus):
    starting_bus("/bin/false")
    for name, arguments in commands("status", "watch"):
        assert said(ctl(name, *arguments)) == (
            UNAVAILABLE, f"proxymanagerd does not run and the bus cannot start it (Process {NAME} "
            f"exited with status 1); {START_IT}"), name


def test_a_bus_that_is_not_there_is_told_in_one_line(ctl, build):
    for name, arguments in commands("status"):
        assert said(ctl(name, *arguments)) == (
            UNAVAILABLE, f"there is no message bus at {ADDRESS} (No such file or directory); start "
            "it, or name another in DBUS_SYSTEM_BUS_ADDRESS"), name
    ctl.bus = "unix:\x1b=1"
    assert said(ctl("config")) == (
        USAGE, r"unix:\x1b=1 is no address of a message bus; look at DBUS_SYSTEM_BUS_ADDRESS")
    ctl.bus = "tcp:host=127.0.0.1,port=1"
    assert said(ctl("config"))[0] == UNAVAILABLE
    for unset in (None, ""):
        ctl.bus = unset
        assert said(ctl("config"))[1].startswith(
            "there is no message bus at unix:path=/run/dbus/system_bus_socket (No such file")


@pytest.mark.slow  # waits for a limit of 10 s
def test_a_bus_that_does_not_answer_is_told_in_one_line(ctl, root):
    line = f"the message bus at {ADDRESS} does not answer; try again, or restart it"
    with socket.socket(socket.AF_UNIX) as silent:
        silent.bind("/run/test_bus")
        silent.listen()
        calls = {name: ctl.start(name, *arguments) for name, arguments in COMMANDS.items()}
        for name, call in calls.items():
            output = call.output.rest()
            assert call.end() == (TRY_AGAIN, "" if name == "status" else f"proxymanagerctl: {line}\n")
            assert name != "status" or rows(output)["running"] == f"unknown: {line}"


@pytest.mark.slow  # waits for a limit of 10 s
def test_a_bus_that_greets_and_then_does_not_answer_is_told_in_one_line(ctl, root):
    bus = DeafBus("/run/test_bus")
    call = ctl.start("watch", "--timeout", "60")
    bus.accept(last="Hello")
    assert call.end() == (TRY_AGAIN, f"proxymanagerctl: the message bus at {ADDRESS} does not "
                          "answer; try again, or restart it\n")
    bus.close()


def test_the_time_limit_of_a_call_limits_a_silent_bus(ctl, root):
    with socket.socket(socket.AF_UNIX) as bus:
        bus.bind("/run/test_bus")
        bus.listen(16)  # the socket never accepts a connection
        begin = time.monotonic()
        for arguments in (["get", "http://a/"], ["status"], ["wait", "--configured"]):
            assert ctl(*arguments, "--timeout", "0.1").status == TRY_AGAIN, arguments
        assert time.monotonic() - begin < 10, "each waits for 1 s"


def test_a_slow_answer_is_told_in_one_line(ctl, daemon):
    daemon.signal(signal.SIGSTOP)
    slow = "proxymanagerd has not answered within 0.1 s, maybe because it loads a script; "
    ask = slow + "try again, or give it more time with --timeout"
    change = slow + ('the change may still be made, look with "proxymanagerctl config", or give it '
                     "more time with --timeout")
    try:
        for name, arguments in commands("status", "watch"):
            line = ask if name in ("get", "config", "exec") else change
            assert said(ctl(name, *arguments[:1], "--timeout", "0.1", *arguments[1:])) == (
                TRY_AGAIN, line), name
        result = ctl("status", "--timeout", "0.1")
        assert (result.status, result.errors) == (TRY_AGAIN, "")
        assert rows(result.output)["answers"] == f"no: {ask}"
        assert ctl("status", "--json", "--timeout", "0.1").json["unknown"]["mode"] == ask
    finally:
        daemon.signal(signal.SIGCONT)


def test_a_change_is_made_though_it_was_given_up(ctl, client, daemon):
    client.update("manual", proxyurl="http://proxy.example.org:3128")

    def given_up_after(seconds):
        """Whether the change was made. On a slow machine, the time limit may end the command
        before it sends the change."""
        daemon.signal(signal.SIGSTOP)
        try:
            assert ctl("off", "--timeout", str(seconds)).status == TRY_AGAIN
        finally:
            daemon.signal(signal.SIGCONT)
        return client.config()[0] == "off"

    assert any(given_up_after(seconds) for seconds in (0.3, 1, 3, 10))


def test_a_short_time_does_not_suffice_to_hear_that_a_daemon_waits(ctl, client):
    client.update("off")
    results = []

    def in_time():
        results.append(ctl("status", "--timeout", "4.9"))
        return results[-1].status != TRY_AGAIN

    wait_until(in_time, "an answer where the machine does not stand still for so long")
    (*_, result) = results
    assert result.status == ANSWERED
    assert rows(result.output)["configured"] == \
        "unknown: --timeout leaves less than the 5 s that it takes to hear of it"


@pytest.fixture
def stand_in(bus):
    made = []

    def make(**replies):
        for old in made:
            old.close()
        made.append(StandIn(replies))
        with Client() as client:
            wait_until(lambda: client.owner() is not None, "the name is owned")
        return made[-1]

    yield make
    for last in made:
        last.close()


def test_a_daemon_that_is_about_to_end_is_told_in_one_line(ctl, stand_in):
    stand_in(checkServicestarted=("b", (True,)), getProxyurl=("as", (["off"],)),
             getProxyconfig=("(ssssss)", (("off", "", "", "", "", ""),)),
             updateProxyconfig=("i", (-1,)))
    ending = "proxymanagerd is about to end and does nothing more; try again when it is back"
    for name, arguments in commands("status", "watch"):
        assert said(ctl(name, *arguments)) == (TRY_AGAIN, ending), name
    for started in (True, False):
        stand_in(checkServicestarted=("b", (started,)),
                 getProxyconfig=("(ssssss)", (("manual" if not started else "off", "", "",
                                               "" if started else "n", "", ""),)))
        result = ctl("status")
        assert result.status == TRY_AGAIN and rows(result.output)["answers"] == f"no: {ending}"


def test_somebody_else_with_the_daemons_name_is_told_in_one_line(ctl, stand_in):
    line = ("the program that owns the name of proxymanagerd cannot do this ({}); look who it is with "
            f'"busctl status {NAME}"')
    stand_in(getProxyurl=("i", (1,)), getProxyconfig=("as", ([],)), updateProxyconfig=("s", ("",)))
    for name, arguments in commands("status", "watch"):
        assert said(ctl(name, *arguments)) == (
            PROTOCOL, line.format("its reply has another form")), name
    # The bus transports U+FFFE, but the caller's D-Bus library refuses it.
    stand_in(getProxyurl=("as", (["manual", "http://p:1", "http://\ufffe:2"],)))
    assert said(ctl("get", "http://a/")) == (PROTOCOL, line.format("its reply has another form"))
    unknown = "org.freedesktop.DBus.Error.UnknownMethod"
    stand_in(getProxyurl=unknown, getProxyconfig=unknown, updateProxyconfig=unknown)
    for name, arguments in commands("status", "watch"):
        assert said(ctl(name, *arguments)) == (PROTOCOL, line.format(r"why\x1b[2J")), name


def test_a_daemon_that_ends_before_it_answers_is_told_in_one_line(ctl, stand_in):
    for name, arguments in (("get", ["http://a/"]), ("off", [])):
        stand_in()
        assert said(ctl(name, *arguments)) == (
            UNAVAILABLE, "proxymanagerd ended before it answered; look why with \"journalctl -t "
            "proxymanager_service\" and try again")


def test_the_answers_before_a_failure_are_shown_as_json_too(ctl, stand_in):
    urls = ["http://a/", "http://b/"]
    for options in ([], ["--json"]):
        stand_in(getProxyurl=[("as", (["manual", "http://p:1"],)), None])
        result = ctl("get", *options, *urls)
        assert result.status == UNAVAILABLE
        assert result.errors.startswith("proxymanagerctl: proxymanagerd ended before it answered")
        if options:
            assert [answer["url"] for answer in result.json] == urls[:1]
        else:
            assert result.output.splitlines()[0] == urls[0]


def test_a_bus_that_ends_before_it_answers_is_told_in_one_line(ctl, stand_in, bus):
    service = stand_in(getProxyurl=HOLD)
    call = ctl.start("get", "http://a/")
    assert service.held.wait(LIMIT)
    bus.kill()
    assert call.end() == (UNAVAILABLE, "proxymanagerctl: the connection to the message bus is lost; "
                          "try again when it is back\n")


def test_a_bus_that_takes_no_match_rule_is_told_in_one_line(ctl, root):
    bus = Bus('<limit name="max_match_rules_per_connection">0</limit>')
    try:
        assert said(ctl("watch")) == (
            TRY_AGAIN, "the message bus is too busy (no match rule left); try again later")
    finally:
        bus.close()
