"""Tests the settings service in a clean, running system. Each test continues from the state of the
test before it."""

import collections
import errno
import re
import socket
import threading
import time

import pytest
from jeepney import DBusAddress, MessageType, new_method_call
from machine import Inside, Machine, Refused
from support.bus import LIMIT, BusError, Client

BUS = "unix:path=/run/dbus/system_bus_socket"
DAEMON = "proxymanagerd.service"
UNIT = "proxymanager-settings.service"
SOCKET = "proxymanager-settings.socket"
PASSWORD = "geheim-4711"
DENIED = "org.freedesktop.DBus.Error.AccessDenied"
PACKAGES = ("proxymanagerd", "proxymanagerctl", "libproxymanager-client0", "proxymanager-settings")
MANUAL = ("manual", "http://p.example:1", "", "n", "", "")
OFF = ("off", "", "", "n", "", "")


class Caller(Client):
    """Makes an account's calls on the bus."""

    def __init__(self):
        super().__init__(BUS)

    def push(self, **entries):
        """Calls CreateProxyConfiguration, as a network manager does."""
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

    def find(self, url):
        """Calls FindProxyForURL, as programs do."""
        address = DBusAddress("/org/pacrunner/client", bus_name="org.pacrunner",
                              interface="org.pacrunner.Client")
        message = new_method_call(address, "FindProxyForURL", "ss", (url, ""))
        return self.connection.send_and_get_reply(message, timeout=LIMIT).body[0]

    def settings_owner(self):
        return self.owner("com.zentu.ProxyManagerSettings")


class Rival:
    """Tries without a pause to listen at the port at which the service serves scripts."""

    def __init__(self):
        self.results = collections.Counter()
        self.ending = threading.Event()
        self.thread = threading.Thread(target=self.run, daemon=True)

    def run(self):
        while not self.ending.is_set():
            self.results[self.attempt()] += 1

    @staticmethod
    def attempt():
        with socket.socket() as own:
            own.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            own.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
            try:
                own.bind(("127.0.0.1", 850))
                own.listen()
            except OSError as error:
                return errno.errorcode[error.errno]
        return "taken"

    def begin(self):
        self.thread.start()

    def seen(self):
        return dict(self.results)

    def end(self):
        self.ending.set()
        self.thread.join()
        return self.seen()


@pytest.fixture(scope="session")
def machine(built):
    with Machine([built[name] for name in PACKAGES], others=[built["proxymanager-relay"]]) as booted:
        booted.install_packages()
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
    # As at a boot: at first nothing runs, then everything is started.
    machine.run("systemctl", "stop", DAEMON, UNIT)
    machine.run("systemctl", "start", UNIT, DAEMON)
    wait_for(machine, root_caller, MANUAL)
    machine.run("systemctl", "kill", "--signal=SEGV", DAEMON)
    wait_for(machine, root_caller, MANUAL)


def test_what_is_saved_survives_what_a_device_does_in_its_life(machine):
    write(machine, "")
    (machine.root / "root/password").write_text(f"{PASSWORD}\n")
    machine.run("proxymanagerctl", "pacurl", "http://127.0.0.1:9/p.pac", "--user=device",
                "--password-file=/root/password", "--save")
    (machine.root / "root/password").unlink()
    configured(machine)
    # As at a boot: at first nothing runs, then everything is started.
    machine.run("systemctl", "stop", DAEMON, SOCKET, UNIT)
    machine.run("systemctl", "start", UNIT, DAEMON)
    configured(machine)
    machine.run("systemctl", "restart", "dbus")
    configured(machine)
    for unit in (DAEMON, UNIT):
        machine.run("systemctl", "kill", "--signal=SEGV", unit)
        configured(machine)


def configured(machine):
    """Asserts that the daemon gets the saved configuration, after an event on the bus or in the
    daemon."""
    def holds():
        shown = machine.run("proxymanagerctl", "config", "--json", "--show-password", check=False)
        return shown.returncode == 0 and all(
            text in shown.stdout for text in ('"http://127.0.0.1:9/p.pac"', '"device"', PASSWORD))
    machine.wait(holds, f"it is configured\n{machine.journal()}")
    machine.wait(lambda: machine.run("systemctl", "is-active", UNIT, check=False).returncode == 0,
                 "the service runs again")


def test_the_password_is_in_nothing_that_others_read(machine):
    for unit in (DAEMON, UNIT):
        pid = machine.show(unit, "MainPID")
        for name in ("cmdline", "environ"):
            assert PASSWORD not in machine.run("cat", f"/proc/{pid}/{name}").stdout
    limits = machine.run("cat", f"/proc/{machine.show(UNIT, 'MainPID')}/limits").stdout
    assert "Max core file size        0                    0 " in limits
    assert PASSWORD not in machine.run("journalctl", "--no-pager").stdout
    # Looks for the text in all files that another user can read. grep ends with 1 if it finds
    # nothing, and with 2 if it has no right to read a file.
    found = machine.run("setpriv", "--reuid=stranger", "--regid=stranger", "--clear-groups", "grep",
                        "--recursive", "--files-with-matches", "--devices=skip", PASSWORD, "/etc",
                        "/run", "/tmp", "/var", check=False)
    assert found.stdout == "" and found.returncode in (1, 2)
    assert machine.run("grep", "-rl", PASSWORD, "/etc", "/run", "/tmp", check=False).stdout.split() == [
        "/etc/proxymanager/settings.d/90-saved.password"]
    assert machine.run("stat", "--format=%a %U %G", "/etc/proxymanager/settings.d/90-saved.password",
                       "/etc/proxymanager/settings.d/90-saved.conf").stdout.split("\n")[:2] == [
        "640 root proxymanager-settings"] * 2


def test_the_daemon_is_configured_within_a_second_of_the_start_of_both(machine):
    times = []
    for _ in range(5):
        machine.run("systemctl", "stop", DAEMON, UNIT)
        machine.run("systemctl", "start", DAEMON, UNIT)
        begin = time.monotonic()
        configured(machine)
        times.append(time.monotonic() - begin)
        if times[-1] < 1:
            return
    raise AssertionError(times)


def test_an_idle_service_has_little_memory_of_its_own_and_never_wakes(machine):
    machine.run("proxymanagerctl", "manual", "http://p.example:1", "--save")
    pid = machine.show(UNIT, "MainPID")

    def switches():
        found = re.findall(r"_switches:\s+(\d+)", machine.run("cat", f"/proc/{pid}/status").stdout)
        return sum(map(int, found))

    def sleeps():
        """Whether nothing woke the service for three seconds. If it had timers, they would wake
        it."""
        before = switches()
        time.sleep(3)
        return switches() == before
    machine.wait(sleeps, "it sleeps")
    rollup = machine.run("cat", f"/proc/{pid}/smaps_rollup").stdout
    own = sum(map(int, re.findall(r"^Private_(?:Dirty|Clean):\s+(\d+) kB", rollup, re.MULTILINE)))
    assert 0 < own * 1024 < 2e6, rollup
    machine.run("proxymanagerctl", "settings", "reset")


def test_root_alone_pushes_and_everybody_asks(machine, root_caller):
    wait_for(machine, root_caller, OFF)
    with Inside(machine, machine.account("stranger"), Caller) as stranger:
        with pytest.raises(Refused) as refused:
            stranger.call("push_auto")
        assert str(refused.value) == DENIED
        assert stranger.call("find", "http://h.example/") == "DIRECT"
    root_caller.call("push_auto")


def test_a_credential_of_the_unit_is_the_password(machine, root_caller):
    source = machine.root / "root/credential"
    source.write_text("first\n")
    source.chmod(0o600)
    drop_in = machine.root / "etc/systemd/system" / f"{UNIT}.d/credential.conf"
    drop_in.parent.mkdir(parents=True)
    drop_in.write_text("[Service]\nLoadCredential=proxy:/root/credential\n")
    machine.run("systemctl", "daemon-reload")
    write(machine, 'mode = "manual"\nproxy-url = "http://p.example:1"\nuser = "device"\n'
                   'password-credential = "proxy"\n')
    machine.run("systemctl", "restart", UNIT)
    wait_for(machine, root_caller, (*MANUAL[:4], "device", "first"))
    # systemd copies the credential when the unit starts, so a changed credential needs a restart.
    source.write_text("second\n")
    machine.run("systemctl", "restart", UNIT)
    wait_for(machine, root_caller, (*MANUAL[:4], "device", "second"))
    write(machine, "")
    drop_in.unlink()
    drop_in.parent.rmdir()
    machine.run("systemctl", "daemon-reload")
    machine.run("systemctl", "restart", UNIT)
    wait_for(machine, root_caller, OFF)


def test_systemd_never_gives_up_to_start_the_service(machine):
    """By default, systemd gives up after the fifth start in ten seconds, and closes the port."""
    for _ in range(12):
        machine.run("systemctl", "restart", UNIT)
    for unit in (UNIT, SOCKET):
        assert machine.run("systemctl", "is-active", unit).stdout.strip() == "active"


def test_the_script_port_stays_taken_while_the_service_is_stopped(machine):
    machine.run("systemctl", "stop", UNIT)
    taken = machine.run("grep", "-c", " 0100007F:0352 00000000:0000 0A ", "/proc/net/tcp",
                        check=False)
    assert taken.stdout.strip() == "1", machine.journal()
    machine.run("systemctl", "start", UNIT)


def test_no_rival_takes_the_script_port_while_the_service_is_killed_and_restarted(machine):
    def pid():
        return machine.show(UNIT, "MainPID")

    with Inside(machine, machine.account("stranger"), Rival) as stranger, \
            Inside(machine, machine.account("root"), Rival) as root:
        stranger.call("begin")
        root.call("begin")
        before = pid()
        machine.run("systemctl", "kill", "--signal=KILL", UNIT)
        machine.wait(lambda: pid() not in ("0", before), "it is started again")
        machine.run("systemctl", "restart", UNIT)
        machine.run("systemctl", "stop", UNIT)
        machine.run("systemctl", "start", UNIT)
        # The port is below 1024, so ordinary users cannot bind it. Root may bind it, but it is
        # never free, because the socket unit keeps it open.
        assert set(stranger.call("end")) == {"EACCES"}
        assert set(root.call("seen")) == {"EADDRINUSE"}
        # Without the open socket of the unit, the rival program of root can bind the port.
        machine.run("systemctl", "stop", UNIT, SOCKET)
        machine.wait(lambda: "taken" in root.call("seen"), "the rival takes a free port")
        root.call("end")
    machine.run("systemctl", "start", SOCKET, UNIT)


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
