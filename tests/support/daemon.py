"""Runs the built daemon as a process, and makes the files that it finds at its start."""

import fcntl
import os
import signal
import subprocess

from .bus import ADDRESS, LIMIT, Client, wait_until
from .threads import of_threads

START_LIMIT = 60.0  # enough for a sanitizer build on a busy machine
# The daemon finishes a download in progress before it ends.
STOP_LIMIT = 60.0


def trace(text):
    """Writes the trace file, so that lines of LOG_DEBUG are logged from the start."""
    os.makedirs("/etc/proxymanagerd", exist_ok=True)
    with open("/etc/proxymanagerd/trace.conf", "w") as file:
        file.write(text)


def make_watched_files():
    for path in ("/usr/local/lumad/dhcp.conf", "/tmp/.resolv.conf.dnsmasq"):
        open(path, "w").close()


class Daemon:
    def __init__(self, build, address=ADDRESS, environment=None, start=True, wrapper=()):
        self.path = os.path.join(build, "out", "sbin", "proxymanagerd")
        sanitizers = {name: value for name, value in os.environ.items()
                      if name.endswith("SAN_OPTIONS")}
        self.environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
                            "DBUS_SYSTEM_BUS_ADDRESS": address, **sanitizers,
                            **(environment or {})}
        self.address = address
        self.wrapper = list(wrapper)
        self.process = None
        self.errors = None
        if start:
            self.start()

    def spawn(self):
        self.errors = open(f"/run/daemon_stderr.{os.urandom(4).hex()}", "w+b")
        self.process = subprocess.Popen(self.wrapper + [self.path], env=self.environment,
                                        stdin=subprocess.DEVNULL, stdout=self.errors,
                                        stderr=self.errors)
        return self

    def start(self):
        self.spawn()
        with Client(self.address) as client:
            wait_until(lambda: client.owner() is not None or self.process.poll() is not None,
                       "the daemon owns its name", START_LIMIT)
            assert self.process.poll() is None, f"the daemon ended: {self.stderr()}"
        return self

    @property
    def pid(self):
        return self.process.pid

    def stderr(self):
        self.errors.seek(0)
        return self.errors.read().decode("utf-8", "replace")

    def signal(self, number):
        self.process.send_signal(number)

    def wait(self, limit=STOP_LIMIT):
        status = self.process.wait(limit)
        assert "Sanitizer" not in self.stderr(), self.stderr()
        return status

    def stop(self, limit=STOP_LIMIT):
        """Sends SIGTERM. Returns the exit status."""
        self.signal(signal.SIGTERM)
        return self.wait(limit)

    def kill(self):
        """Kills the daemon and waits until the bus has noticed its end: before that, no other daemon can own
        the name on the bus."""
        self.process.kill()
        self.process.wait(LIMIT)
        with Client(self.address) as client:
            wait_until(lambda: client.owner() is None, "the name is free", START_LIMIT)

    def close(self):
        """For fixtures: ends the daemon in an orderly way if it still runs, and checks that there
        is no sanitizer report."""
        if self.process is None:
            return
        if self.process.poll() is None:
            assert self.stop() == 0, f"status {self.process.returncode}: {self.stderr()}"
        else:
            assert "Sanitizer" not in self.stderr(), self.stderr()
        self.errors.close()

    def children(self):
        """Process ids of the running child processes: script workers and fetch processes. A child
        process that has ended is left out."""
        return [pid for text in of_threads(self.pid, "children").values()
                for pid in map(int, text.split()) if lives(pid)]


def lives(pid):
    """Whether this process exists and has not ended."""
    try:
        with open(f"/proc/{pid}/stat") as stat:
            return stat.read().rpartition(")")[2].split()[0] not in "ZX"
    except (FileNotFoundError, ProcessLookupError):
        return False


def wait_until_none_runs():
    """Waits until no process holds the lock of the run file. If the daemon ends at once while it
    starts a process, that process shares this lock for a moment."""
    with open("/run/proxymanagerd.pid", "a") as file:
        def is_free():
            try:
                fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except BlockingIOError:
                return False
            return True
        wait_until(is_free, "the run file is free", START_LIMIT)
