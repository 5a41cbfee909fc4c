"""The settings service in a clean system that runs. The tests build on each other, in this order."""

import glob
import os
import pathlib

import pytest
from jeepney import DBusAddress, MessageType, new_method_call
from machine import Inside, Machine, Refused
from support.bus import LIMIT, BusError, Client

BUS = "unix:path=/run/dbus/system_bus_socket"
DAEMON = "proxymanagerd.service"
UNIT = "proxymanager-settings.service"
DENIED = "org.freedesktop.DBus.Error.AccessDenied"
PACKAGES = ("proxymanagerd_", "proxymanagerctl_", "libproxymanager-client0_",
            "proxymanager-settings_")
MANUAL = ("manual", "http://p.example:1", "", "n", "", "")
OFF = ("off", "", "", "n", "", "")


class Caller(Client):
    """What an account does on the bus."""

    def __init__(self):
        super().__init__(BUS)

    def push(self, **entries):
        """CreateProxyConfiguration, as a network manager calls it."""
        address = DBusAddress("/org/pacrunner/manager", bus_name="org.pacrunner",
                              interface="org.pacrunner.Manager")
        message = new_method_call(address, "CreateProxyConfiguration", "a{sv}",
                                  ({key: ("s", value) for key, value in entries.items()},))
        reply = self.connection.send_and_get_reply(message, timeout=LIMIT)
        if reply.header.message_type == MessageType.error:
            raise BusError(reply.header.fields[4], "")
        return reply.body[0]

    def push_auto(self):
        return self.push(Method="auto")

    def settings_owner(self):
        return self.owner("com.zentu.ProxyManagerSettings")


@pytest.fixture(scope="session")
def machine(request):
    folder = request.config.getoption("--folder")
    packages = [file for file in sorted(glob.glob(folder + "/out/*.deb"))
                if os.path.basename(file).startswith(PACKAGES) and "dbgsym" not in file]
    with Machine(packages) as booted:
        for package in packages:
            (booted.root / pathlib.Path(package).name).write_bytes(
                pathlib.Path(package).read_bytes())
        names = ["/" + pathlib.Path(package).name for package in packages]
        booted.run("dpkg", "-i", *names)
        booted.run("rm", *names)
        booted.run("useradd", "--system", "stranger")
        yield booted


@pytest.fixture
def root_caller(machine):
    with Inside(machine, machine.account("root"), Caller) as caller:
        yield caller


def wait_for(machine, caller, wanted):
    def holds():
        try:
            return caller.call("config") == wanted
        except Refused:
            return False  # the daemon is being started
    machine.wait(holds, f"{wanted}\n{machine.journal()}")


def write(machine, text, name="settings.conf"):
    (machine.root / "etc/proxymanager" / name).write_text(text)


def test_installing_turns_nothing_on(machine, root_caller):
    assert machine.run("systemctl", "is-active", UNIT, check=False).stdout.strip() == "active", \
        machine.journal()
    wait_for(machine, root_caller, OFF)
    user = machine.account("proxymanager-settings")
    pid = machine.show(UNIT, "MainPID")
    status = machine.run("cat", f"/proc/{pid}/status").stdout
    assert f"Uid:\t{user.uid}\t{user.uid}\t{user.uid}\t{user.uid}\n" in status
    assert "CapEff:\t0000000000000000\n" in status


def test_what_is_written_is_followed_and_survives_every_restart(machine, root_caller):
    write(machine, 'mode = "manual"\nproxy-url = "http://p.example:1"\n')
    wait_for(machine, root_caller, MANUAL)
    machine.run("systemctl", "restart", DAEMON)
    wait_for(machine, root_caller, MANUAL)
    machine.run("systemctl", "restart", UNIT)
    wait_for(machine, root_caller, MANUAL)
    # As at a boot: nothing runs, then all is started.
    machine.run("systemctl", "stop", DAEMON, UNIT)
    machine.run("systemctl", "start", UNIT, DAEMON)
    wait_for(machine, root_caller, MANUAL)
    machine.run("systemctl", "kill", "--signal=SEGV", DAEMON)
    wait_for(machine, root_caller, MANUAL)


def test_root_alone_pushes_and_everybody_asks(machine, root_caller):
    with Inside(machine, machine.account("stranger"), Caller) as stranger:
        with pytest.raises(Refused) as refused:
            stranger.call("push_auto")
        assert str(refused.value) == DENIED
        assert stranger.call("settings_owner")
    root_caller.call("push_auto")


def test_the_script_port_stays_taken_while_the_service_is_stopped(machine):
    machine.run("systemctl", "stop", UNIT)
    taken = machine.run("grep", "-c", " 0100007F:0352 00000000:0000 0A ", "/proc/net/tcp",
                        check=False)
    assert taken.stdout.strip() == "1", machine.journal()
    machine.run("systemctl", "start", UNIT)


def test_a_call_for_the_name_starts_the_service(machine, root_caller):
    machine.run("systemctl", "stop", UNIT)
    assert root_caller.call("settings_owner") is None
    root_caller.call("push_auto")
    assert machine.run("systemctl", "is-active", UNIT).stdout.strip() == "active"


def test_removing_and_purging_leave_nothing(machine):
    machine.run("dpkg", "--remove", "proxymanager-settings")
    assert machine.run("ls", "/etc/proxymanager").stdout.split() == ["settings.conf"]
    machine.run("dpkg", "--purge", "proxymanager-settings")
    assert machine.run("ls", "/etc/proxymanager", check=False).returncode != 0
    assert "proxymanager-settings" not in machine.run("getent", "passwd").stdout
