"""Runs proxymanager-settings as a process, and network managers that push to it."""

import json
import os
import signal
import subprocess

from jeepney import DBusAddress, MessageType, new_method_call
from jeepney.io.blocking import open_dbus_connection

from .bus import ADDRESS, LIMIT, Client, wait_until

FOLDER = "/etc/proxymanager"
PACRUNNER = "org.pacrunner"
NAME = "com.zentu.ProxyManagerSettings"


class SettingsService:
    """The settings service, with this test's bus and files. It serves scripts at `port`."""

    def __init__(self, build, port=850, environment=None):
        self.path = os.path.join(build, "out", "libexec", "proxymanager-settings")
        self.port = port
        self.user = None
        self.environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
                            "DBUS_SYSTEM_BUS_ADDRESS": ADDRESS,
                            **{name: value for name, value in os.environ.items()
                               if name.endswith("SAN_OPTIONS")}, **(environment or {})}
        os.makedirs(FOLDER + "/settings.d", exist_ok=True)
        self.process = None

    def start(self):
        user = [f"--user={self.user}"] if self.user else []
        self.process = subprocess.Popen([self.path, f"--port={self.port}", *user],
                                        env=self.environment, stdin=subprocess.DEVNULL)
        with Client() as client:
            wait_until(lambda: client.owner(NAME) is not None or self.process.poll() is not None,
                       "the settings service has its name")
        assert self.process.poll() is None, "the settings service has ended"
        return self

    def hang_up(self):
        self.process.send_signal(signal.SIGHUP)

    def kill(self):
        self.process.kill()
        self.process.wait(LIMIT)

    def stop(self):
        if self.process is None or self.process.poll() is not None:
            return
        self.process.send_signal(signal.SIGTERM)
        assert self.process.wait(LIMIT) == 0

    def next_timer(self):
        """The seconds until a timer wakes the service's event loop, or None. While a call to the
        daemon is in progress, this is the time limit of the call."""
        folder = f"/proc/{self.process.pid}/fdinfo"
        for name in os.listdir(folder):
            try:
                with open(f"{folder}/{name}") as file:
                    lines = file.readlines()
            except FileNotFoundError:
                continue  # the service has closed this descriptor since
            for line in lines:
                if line.startswith("it_value: (") and line.strip() != "it_value: (0, 0)":
                    return float(line.split("(")[1].split(",")[0])
        return None

    def state(self):
        with Client() as client:
            return json.loads(client.call("GetState", path="/com/zentu/ProxyManagerSettings",
                                          interface=NAME, bus_name=NAME)[0])


def write_settings(text, name="settings.conf", mode=0o644):
    """Writes a file like an editor: makes a new file and renames it to the old name."""
    path = os.path.join(FOLDER, name)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path + ".new", "w") as file:
        os.fchmod(file.fileno(), mode)
        file.write(text)
    os.rename(path + ".new", path)
    return path


class Refused(Exception):
    pass


class NetworkManager:
    """A connection to the bus that pushes configurations, or asks questions."""

    def __init__(self, user=0):
        if user == 0:
            self.connection = open_dbus_connection(ADDRESS, auth_timeout=LIMIT)
            return
        os.setresuid(user, user, 0)  # the bus reads the user from the socket
        try:
            self.connection = open_dbus_connection(ADDRESS, auth_timeout=LIMIT)
        finally:
            os.setresuid(0, 0, 0)

    def close(self):
        self.connection.close()

    @staticmethod
    def message(path, interface, member, signature, body):
        address = DBusAddress(path, bus_name=PACRUNNER, interface=interface)
        return new_method_call(address, member, signature, body)

    def call(self, *what):
        reply = self.connection.send_and_get_reply(self.message(*what), timeout=LIMIT)
        if reply.header.message_type == MessageType.error:
            raise Refused(reply.body[0] if reply.body else "")
        return reply.body[0] if reply.body else None

    @staticmethod
    def creation(entries):
        dictionary = {key: ("as", value) if isinstance(value, list) else ("s", value)
                      for key, value in entries.items()}
        return ("/org/pacrunner/manager", "org.pacrunner.Manager", "CreateProxyConfiguration", "a{sv}",
                (dictionary,))

    def create(self, **entries):
        """Pushes a configuration: Method="auto", Interface="eth0" ...; a list becomes an array of
        strings."""
        return self.call(*self.creation(entries))

    def push(self, **entries):
        """Like create(), but does not wait for the reply."""
        self.connection.send(self.message(*self.creation(entries)))

    def ask(self, url, host=""):
        """Calls FindProxyForURL without waiting for the reply."""
        self.connection.send(self.message("/org/pacrunner/client", "org.pacrunner.Client",
                                          "FindProxyForURL", "ss", (url, host)))

    def replies(self, count):
        """The next replies, as message objects."""
        found = []
        while len(found) < count:
            message = self.connection.receive(timeout=LIMIT)
            if message.header.message_type in (MessageType.method_return, MessageType.error):
                found.append(message)
        return found

    def ask_state(self):
        """Calls GetState without waiting for the reply."""
        address = DBusAddress("/com/zentu/ProxyManagerSettings", bus_name=NAME, interface=NAME)
        self.connection.send(new_method_call(address, "GetState"))

    def destroy(self, path):
        return self.call("/org/pacrunner/manager", "org.pacrunner.Manager",
                         "DestroyProxyConfiguration", "o", (path,))

    def find(self, url, host=""):
        return self.call("/org/pacrunner/client", "org.pacrunner.Client", "FindProxyForURL", "ss",
                         (url, host))


def link(name, metric):
    """An interface with a default route."""
    for command in (f"link add {name} type veth peer name {name}-peer",
                    f"link set {name} up", f"link set {name}-peer up",
                    f"route add default dev {name} metric {metric}"):
        subprocess.run(["ip", *command.split()], check=True)


def link_down(name):
    subprocess.run(["ip", "link", "delete", name], check=True)
