"""Tests the relay in a clean, running system. Each test continues from the state of the test before
it."""

import os

import pytest
from machine import Inside, Machine, Refused
from support.bus import Client, Signals

BUS = "unix:path=/run/dbus/system_bus_socket"
SOCKET, UNIT = "proxymanager-relay.socket", "proxymanager-relay.service"
DENIED = "org.freedesktop.DBus.Error.AccessDenied"
PACKAGES = ("proxymanagerd", "proxymanagerctl", "libproxymanager-client0", "proxymanager-relay")
LINKS = ["/etc/profile.d/proxymanager-relay.sh", "/etc/environment.d/60-proxymanager-relay.conf",
         "/etc/apt/apt.conf.d/60proxymanager-relay"]
MANUAL = ("manual", "http://p.example:1", "", "n", "u", "secret")
NOT_ACTIVE = f"{SOCKET} is not active, so another program could take its port"
# Sends HTTP to the relay's port, and prints the answer.
ASK = ("exec 3<>/dev/tcp/127.0.0.1/3128 && "
       "printf 'GET http://127.0.0.1:1/ HTTP/1.0\\r\\n\\r\\n' >&3 && head -n 1 <&3")


class Caller(Client):
    """Makes an account's calls on the bus."""

    def __init__(self):
        super().__init__(BUS)
        self.signals = None

    def listen(self):
        self.signals = Signals(BUS)

    def heard(self):
        return self.signals.wait("notifyProxyConfigupdated")

    def configure(self):
        return self.update("manual", "http://p.example:1", auth=True, user="u", password="secret")


@pytest.fixture(scope="session")
def machine(built):
    with Machine([built[name] for name in PACKAGES], others=[built["proxymanager-settings"]]) as booted:
        booted.install_packages()
        booted.run("useradd", "--system", "stranger")
        yield booted


def state(machine, unit):
    return machine.run("systemctl", "is-active", unit, check=False).stdout.strip()


def present(machine):
    return [link for link in LINKS if os.path.lexists(f"{machine.root}{link}")]


def relay(machine, what, check=True):
    return machine.run("proxymanagerctl", "relay", what, check=check)


def test_installing_it_opens_the_socket_and_leads_no_program_to_it(machine):
    assert state(machine, SOCKET) == "active", machine.journal()
    assert machine.run("systemctl", "is-enabled", SOCKET).stdout.strip() == "enabled"
    assert present(machine) == []
    assert machine.show(SOCKET, "Listen").split() == ["127.0.0.1:3128", "(Stream)", "[::1]:3128",
                                                      "(Stream)"]


def test_a_connection_starts_it_as_a_user_without_any_right(machine):
    machine.run("systemctl", "stop", UNIT)
    assert machine.run("bash", "-c", ASK).stdout.startswith("HTTP/1."), machine.journal()
    user = machine.account("proxymanager-relay")
    status = machine.run("cat", f"/proc/{machine.show(UNIT, 'MainPID')}/status").stdout
    assert f"Uid:\t{user.uid}\t{user.uid}\t{user.uid}\t{user.uid}\n" in status
    assert f"Groups:\t{user.gid} \n" in status, "it is in no other group"
    for line in ("CapEff:\t0000000000000000", "NoNewPrivs:\t1", "Seccomp:\t2"):
        assert line in status


def test_its_user_reads_the_configuration_and_may_not_change_it(machine):
    with Inside(machine, machine.account("proxymanager-relay"), Caller) as caller, \
            Inside(machine, machine.account("root"), Caller) as root:
        caller.call("listen")
        root.call("configure")
        assert caller.call("config") == MANUAL
        assert caller.call("heard")
        assert caller.call("urls", "http://a.example/")[0] == "manual"
        with pytest.raises(Refused) as refused:
            caller.call("update")
        assert str(refused.value) == DENIED
        assert root.call("config") == MANUAL
        root.call("update")
    # Other users have no right to read the configuration.
    with Inside(machine, machine.account("stranger"), Caller) as stranger:
        with pytest.raises(Refused) as refused:
            stranger.call("config")
        assert str(refused.value) == DENIED


def test_enabling_it_is_refused_while_the_port_is_not_safe(machine):
    machine.run("systemctl", "stop", SOCKET, UNIT)
    refused = relay(machine, "enable", check=False)
    assert refused.returncode == 69 and NOT_ACTIVE in refused.stderr, refused
    machine.run("systemctl", "start", SOCKET)
    machine.run("systemctl", "disable", SOCKET)
    refused = relay(machine, "enable", check=False)
    assert refused.returncode == 69 and "is not enabled" in refused.stderr, refused
    machine.run("systemctl", "enable", SOCKET)
    refused = machine.run("setpriv", "--reuid=stranger", "--regid=stranger", "--clear-groups",
                          "proxymanagerctl", "relay", "enable", check=False)
    assert refused.returncode == 77 and "only root" in refused.stderr
    assert present(machine) == []


def test_enabled_programs_find_it_and_disabled_they_do_not(machine):
    assert relay(machine, "enable").stdout.split() == LINKS == present(machine)
    assert relay(machine, "enable").stdout.split() == LINKS, "again changes nothing"
    login = ("sh", "-lc", 'echo "$http_proxy $HTTPS_PROXY"')
    there = "http://127.0.0.1:3128"
    assert machine.run(*login).stdout.split() == [there, there]
    dump = machine.run("apt-config", "dump").stdout
    assert f'Acquire::http::Proxy "{there}";' in dump
    shown = machine.run("/usr/lib/systemd/user-environment-generators/30-systemd-environment-d-generator")
    assert f"https_proxy={there}\n" in shown.stdout
    status = machine.run("proxymanagerctl", "status", check=False).stdout
    assert "at 127.0.0.1:3128, the default of programs" in status, status
    assert relay(machine, "disable").stdout.split() == LINKS
    assert present(machine) == []
    assert machine.run(*login).stdout.split() == []
    assert "Proxy" not in machine.run("apt-config", "dump", "Acquire::http").stdout


def test_a_changed_port_is_not_what_the_snippets_name(machine):
    folder = machine.root / f"etc/systemd/system/{SOCKET}.d"
    folder.mkdir(parents=True)
    (folder / "port.conf").write_text("[Socket]\nListenStream=\nListenStream=127.0.0.1:3129\n")
    machine.run("systemctl", "daemon-reload")
    machine.run("systemctl", "stop", UNIT)
    machine.run("systemctl", "restart", SOCKET)
    refused = relay(machine, "enable", check=False)
    assert refused.returncode == 69 and "does not listen at 127.0.0.1:3128" in refused.stderr
    (folder / "port.conf").unlink()
    machine.run("systemctl", "daemon-reload")
    machine.run("systemctl", "stop", UNIT)
    machine.run("systemctl", "restart", SOCKET)


def test_removing_takes_the_snippets_away_before_the_port_is_free(machine):
    relay(machine, "enable")
    seen = machine.root / "var/tmp/at_stop"
    (machine.root / f"etc/systemd/system/{SOCKET}.d/seen.conf").write_text(
        "[Socket]\nExecStopPre=/bin/sh -c 'ls /etc/profile.d /etc/environment.d "
        "/etc/apt/apt.conf.d >/var/tmp/at_stop'\n")
    machine.run("systemctl", "daemon-reload")
    machine.run("dpkg", "--remove", "proxymanager-relay")
    assert "/etc/profile.d" in seen.read_text(), "it looked when the socket was about to stop"
    assert "proxymanager-relay" not in seen.read_text()
    assert state(machine, SOCKET) == "inactive" and present(machine) == []


def test_purging_leaves_nothing(machine):
    machine.run("dpkg", "--purge", "proxymanager-relay")
    assert "proxymanager-relay" not in machine.run("getent", "passwd").stdout
    assert not (machine.root / "etc/proxymanager").exists()
