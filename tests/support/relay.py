"""Runs proxymanager-relay as a process, on this test's bus."""

import os
import signal
import socket
import subprocess

from .bus import ADDRESS, LIMIT, wait_until

CONFIGURATION = "/run/relay.conf"
PORT = 3128


class Relay:
    """The relay for a test. In the test's own network, the usual port is free. `configuration` is
    the text of relay.conf."""

    def __init__(self, build, configuration="", listen=("127.0.0.1:3128",), environment=None):
        self.path = os.path.join(build, "out", "libexec", "proxymanager-relay")
        self.listen = listen
        self.environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
                            "DBUS_SYSTEM_BUS_ADDRESS": ADDRESS,
                            **{name: value for name, value in os.environ.items()
                               if name.endswith("SAN_OPTIONS")}, **(environment or {})}
        self.process = None
        self.configure(configuration)

    @staticmethod
    def configure(text):
        with open(CONFIGURATION, "w") as file:
            file.write(text)

    def launch(self, *more):
        """Starts the program without waiting for its port."""
        command = [self.path, f"--config={CONFIGURATION}", *(f"--listen={at}" for at in self.listen)]
        self.process = subprocess.Popen([*command, *more], env=self.environment,
                                        stdin=subprocess.DEVNULL)
        return self

    def start(self):
        self.launch()
        wait_until(lambda: self.listens() or self.process.poll() is not None, "the relay listens")
        assert self.process.poll() is None, "the relay has ended"
        return self

    def listens(self):
        """Whether the relay serves at its first address. The kernel accepts connections before the relay has
        put on its sandbox and set its signal handlers. So this function waits for an answer,
        or for the end of a refused connection."""
        try:
            with self.connect() as connection:
                connection.sendall(b"GET /style.css HTTP/1.0\r\nHost: localhost\r\n\r\n")
                connection.recv(1)
        except ConnectionResetError:
            return True
        except OSError:
            return False
        return True

    def connect(self, timeout=LIMIT):
        at = self.listen[0]
        if at.startswith("unix:"):
            connection = socket.socket(socket.AF_UNIX)
            connection.settimeout(timeout)
            connection.connect(at.removeprefix("unix:"))
            return connection
        host, _, port = at.rpartition(":")
        return socket.create_connection((host.strip("[]"), int(port)), timeout)

    def stop(self):
        if self.process is None:
            return
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(LIMIT)
        self.process = None
        assert status == 0, f"the relay ended with status {status}"
