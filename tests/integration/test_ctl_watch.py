"""Tests proxymanagerctl watch."""

import fcntl
import json
import re
import signal

from jeepney import DBusAddress, HeaderFields, message_bus, new_signal
from support.bus import INTERFACE, PATH, Client, wait_until
from support.ctl import ANSWERED, UNAVAILABLE, sleeps
from support.daemon import Daemon

TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d"


def test_watch_shows_signals_and_the_daemons_coming_and_going(ctl, build, syslog, bus):
    watch = ctl.start("watch")
    watch.output.wait(rf"^{TIME}  daemon                    does not run; start it")
    daemon = Daemon(build)
    watch.output.wait(rf"\n{TIME}  daemon                    runs\n")
    watch.output.wait(rf"{TIME}  ProxyMgrStateEvent        1: waits for its first configuration\n")
    with Client() as client:
        client.update("manual", "http://u:geheim@p:1", auth=True, user="u", password="secret")
    watch.output.wait(rf"{TIME}  notifyClearcache\n"
                      rf"{TIME}  notifyProxyConfigupdated  proxymode=manual "
                      r"proxyurl=http://u:\*\*\*@p:1 username=u password=\*\*\*\n")
    assert daemon.stop() == 0
    watch.output.wait(rf"{TIME}  daemon                    does not run")
    assert watch.end(signal.SIGINT) == (ANSWERED, "")


def test_watch_says_an_object_for_each_signal(ctl, client):
    watch = ctl.start("watch", "--json", "--show-password")
    watch.output.wait('"running":true')
    client.update("wpad", auth=True, user="u", password="geheim")
    line = watch.output.wait(r'\n({[^\n]*"notifyProxyConfigupdated"[^\n]*})\n').group(1)
    event = json.loads(line)
    assert re.fullmatch(TIME, event.pop("time"))
    assert event == {"event": "notifyProxyConfigupdated", "proxymode": "wpad", "proxyurl": "",
                     "username": "u", "password": "geheim"}
    assert watch.end(signal.SIGTERM) == (ANSWERED, "")


def test_watch_believes_the_daemon_alone_and_shows_no_control_character(ctl, client):
    watch = ctl.start("watch")
    watch.output.wait("daemon +runs")
    # The signal is sent directly to each connection, so the match rules of watch do not filter
    # it.
    address = DBusAddress(PATH, interface=INTERFACE)
    for name in client.connection.send_and_get_reply(message_bus.ListNames()).body[0]:
        if name.startswith(":"):
            forged = new_signal(address, "notifyProxyConfigupdated", "ssss", ("forged", "", "", ""))
            forged.header.fields[HeaderFields.destination] = name
            client.connection.send(forged)
    client.update("manual", "\x1b[2J\n\x9b", user="\x07")
    shown = watch.output.wait("(.*)username=[^\n]*\n").group(0)
    assert "forged" not in shown
    assert r"proxyurl=\x1b[2J\x0a\x9b username=\x07" in shown
    assert watch.end(signal.SIGINT) == (ANSWERED, "")


def test_watch_can_be_ended_though_its_reader_stands_still(ctl, client):
    for number in (signal.SIGINT, signal.SIGTERM):
        watch = ctl.start("watch")
        watch.output.wait("daemon +runs")
        pid = watch.process.pid
        wait_until(lambda: sleeps(pid), "it waits for the bus")
        at_rest = call_of(pid)
        size = fcntl.fcntl(watch.process.stdout, fcntl.F_SETPIPE_SZ, 4096)
        for _ in range(2):
            client.update("manual", "http://p:1", user="u" * size)
        wait_until(lambda: sleeps(pid) and call_of(pid) not in (at_rest, "running"),
                   "it waits for the reader")
        assert watch.end(number) == (ANSWERED, "")


def call_of(pid):
    """The number of the system call in which the process sleeps."""
    with open(f"/proc/{pid}/syscall") as call:
        return call.read().split()[0]


def test_watch_ends_with_the_bus(ctl, bus):
    watch = ctl.start("watch")
    watch.output.wait("daemon +does not run")
    bus.kill()
    assert watch.end() == (UNAVAILABLE, "proxymanagerctl: the connection to the message bus is lost; "
                           "try again when it is back\n")
