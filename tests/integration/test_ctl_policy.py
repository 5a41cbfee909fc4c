"""Tests what users may do with proxymanagerctl, with the shipped policy of the bus."""

import os
import shutil
import signal

import pytest
from support.bus import ADDRESS, Bus, Client
from support.ctl import ANSWERED, DENIED, NOT_ALLOWED, Ctl, commands, rows, said
from support.daemon import Daemon

POLICY = os.path.abspath(os.path.join(
    os.path.dirname(__file__), "../../packaging/dbus/com.zentu.ProxyManagerService.conf"))


@pytest.fixture
def strict_bus(root):
    """A bus like the system bus: only the shipped policy allows anything."""
    with open("/etc/group", "a") as file:
        file.write("proxymanager:x:64998:\n")
    bus = Bus(f"""<policy context="default">
        <deny own="*"/><deny send_type="method_call"/>
        <allow send_destination="org.freedesktop.DBus"/>
      </policy>
      <include>{POLICY}</include>""")
    yield bus
    bus.close()


@pytest.fixture
def stranger(ctl, build):
    """Runs the program as a user who is in no group."""
    path = "/tmp/bin/proxymanagerctl"
    os.makedirs("/tmp/bin")
    shutil.copy(ctl.path, path)
    return Ctl(path, ADDRESS, ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"])


def test_who_may_only_ask_is_told_so(stranger, strict_bus, build, syslog, web):
    daemon = Daemon(build)
    try:
        with Client() as root:
            root.update("manual", "http://u:geheim@p:1", auth=True, user="u", password="secret")
        assert stranger("get", "--format", "curl", "http://a/").output == "http://u:geheim@p:1\n"
        assert stranger("exec", "http://a/", "--", "true").status == ANSWERED
        assert said(stranger("config")) == (
            DENIED, f"not allowed to read the configuration; {NOT_ALLOWED}")
        for name, arguments in commands("status", "watch", "get", "exec", "config"):
            assert said(stranger(name, *arguments)) == (
                DENIED, f"not allowed to change the configuration; {NOT_ALLOWED}"), name
        unknown = f"not allowed to read the configuration; {NOT_ALLOWED}"
        result = stranger("status")
        assert (result.status, result.errors) == (ANSWERED, "")
        table = rows(result.output)
        assert (table["mode"], table["proxy URL"], table["configured"]) == (
            "manual", "http://u:***@p:1", "yes")
        assert (table["PAC URL"], table["user"], table["password"]) == (
            "(not set)", f"unknown: {unknown}", f"unknown: {unknown}")
        watch = stranger.start("watch")
        watch.output.wait("daemon +runs")
        with Client() as root:
            root.update("pacurl", pacurl=web.url("/p.pac"))
            root.update("pacurl", pacurl=web.url("/p.pac"))
        seen = watch.output.wait("notifyClearcache\n.*notifyClearcache\n").group(0)
        assert "notifyProxyConfigupdated" not in seen
        assert watch.end(signal.SIGINT) == (ANSWERED, "")
        found = stranger("status", "--json").json
        assert (found["mode"], found["pacurl"], found["proxyurl"]) == ("pacurl", None, None)
        found["unknown"].pop("relay")
        found["unknown"].pop("walking", None)  # known only while a download is in progress
        assert found["unknown"] == {
            **{name: unknown for name in ("pacurl", "userName", "password")},
            **dict.fromkeys(("updated", "walked"), "the daemon runs without systemd")}
    finally:
        daemon.close()


def test_a_member_of_the_group_configures(ctl, strict_bus, build, syslog):
    daemon = Daemon(build)
    try:
        path = shutil.copy(ctl.path, "/tmp/proxymanagerctl")
        member = Ctl(path, ADDRESS, ["setpriv", "--reuid=65534", "--regid=65534", "--groups=64998"])
        assert member("manual", "http://p:1").status == ANSWERED
        assert rows(member("config").output)["proxy URL"] == "http://p:1"
    finally:
        daemon.close()


def test_a_bus_that_lets_nobody_in_is_told_in_one_line(stranger, root):
    line = (f"the message bus at {ADDRESS} does not let this user in (it ends the connection); try "
            "as another")
    bus = Bus('<policy context="mandatory"><deny user="nobody"/></policy>')
    try:
        for name, arguments in commands("status"):
            assert said(stranger(name, *arguments)) == (DENIED, line), name
        result = stranger("status")
        assert (result.status, result.errors) == (DENIED, "")
        assert rows(result.output)["running"] == f"unknown: {line}"
    finally:
        bus.close()
