"""Runs the DHCP clients. Each finds its hook at the usual place."""

import contextlib
import os
import shutil
import signal
import subprocess

from lan import end, ip
from support.bus import wait_until
from support.own_root import mount_empty


class Dhclient:
    """@param metric the metric of the default route; None: the route has no metric"""

    def __init__(self, hooks, interface="eth0", metric=None):
        hook = "/etc/dhcp/dhclient-exit-hooks.d/proxymanager"
        if not os.path.exists(hook):
            shutil.copy(f"{hooks}/dhclient", hook)
            with open("/etc/dhcp/dhclient.conf", "a") as file:
                file.write(open(f"{hooks}/proxymanager-dhclient.conf").read())
            os.makedirs("/run/dhclient")
        self._interface = interface
        self._log = f"/run/dhclient.{interface}.log"
        self._pid = f"/run/dhclient/pid.{interface}"
        self._files = ("-pf", self._pid, "-lf", f"/run/dhclient/leases.{interface}")
        self._metric = () if metric is None else ("-e", f"IF_METRIC={metric}")
        self._starts = 0
        self._process = None

    def start(self):
        ip("link", "set", self._interface, "up")
        self._process = _spawn(["dhclient", "-4", "-d", *self._files, *self._metric,
                                self._interface], self._log)
        self._starts += 1

    def renew(self):
        """Does nothing: the client has no command for a renewal. It renews the lease at the time that the
        lease sets."""

    def release(self):
        # The hooks run before the client itself has stored the lease.
        wait_until(lambda: contents(self._log).count("bound to") >= self._starts, "it is bound")
        # The client logs "bound to" before it writes its pid file again.
        wait_for_text(self._pid, "\n")
        subprocess.run(["dhclient", "-4", "-r", *self._files, *self._metric, self._interface],
                       check=True, capture_output=True)
        self._process.wait(60)

    def replug(self, plug):
        self.release()
        plug()
        self.start()

    def stop(self):
        if self._process:
            end(self._process)


class Udhcpc:
    def __init__(self, hooks, interface="eth0"):
        self._interface = interface
        self._script = "/run/udhcpc_script"
        with open(self._script, "w") as file:
            file.write(f'#!/bin/sh\n{hooks}/udhcpc "$@"\necho "$1" >>/run/udhcpc_events\n')
        os.chmod(self._script, 0o755)
        self._process = None

    def start(self):
        ip("link", "set", self._interface, "up")
        self._process = _spawn(["udhcpc", "-f", "-i", self._interface, "-s", self._script, "-O", "wpad",
                                "-O", "search", "-T", "1", "-t", "5", "-A", "1"])

    def renew(self):
        self._process.send_signal(signal.SIGUSR1)

    def count(self, event):
        """The number of times that the client's script has finished `event`."""
        done = "/run/udhcpc_events"
        return open(done).read().split().count(event) if os.path.exists(done) else 0

    def release(self):
        self._process.send_signal(signal.SIGUSR2)

    def replug(self, plug):
        self.release()
        plug()
        self._process.send_signal(signal.SIGUSR1)

    def stop(self):
        if self._process:
            end(self._process)


class Dhcpcd:
    _HOOKS = "/usr/lib/dhcpcd/dhcpcd-hooks"

    def __init__(self, hooks, *interfaces):
        self._interfaces = interfaces or ("eth0",)
        os.makedirs("/run/dhcpcd-hooks")
        shutil.copytree(self._HOOKS, "/run/dhcpcd-hooks", dirs_exist_ok=True)
        mount_empty(self._HOOKS, "mode=0755")
        shutil.copytree("/run/dhcpcd-hooks", self._HOOKS, dirs_exist_ok=True)
        shutil.copy(f"{hooks}/dhcpcd", f"{self._HOOKS}/70-proxymanager")
        # Hides the client's files about the machine's own networks.
        mount_empty("/var/lib/dhcpcd", "mode=0755")
        with open("/etc/dhcpcd.conf", "a") as file:
            file.write("option wpad_url\nreboot 1\nnoarp\nnoipv4ll\nnodev\n")
        self._process = None

    def start(self):
        for interface in self._interfaces:
            ip("link", "set", interface, "up")
        # This client has many processes, which sometimes do not end. Here, the end of their
        # namespace ends them.
        self._process = _spawn(["unshare", "--pid", "--fork", "dhcpcd", "-B", "-4",
                                *self._interfaces])

    def _signal(self, number):
        outer = self._process.pid
        with open(f"/proc/{outer}/task/{outer}/children") as children:
            inner = children.read()
        if inner:  # the process may end at any time
            os.kill(int(inner), number)

    def renew(self):
        self._signal(signal.SIGUSR1)

    def release(self):
        # The hooks run before the client has handled the lease itself.
        wait_for_text("/run/unshare.log", "adding route to")
        # The client sometimes misses an event.
        for _ in range(12):
            self._signal(signal.SIGALRM)
            try:
                self._process.wait(5)
                return
            except subprocess.TimeoutExpired:
                pass

    def replug(self, plug):
        plug()  # the client notices that the carrier is lost and that it returns

    def stop(self):
        if self._process and self._process.poll() is None:
            self._signal(signal.SIGKILL)
            self._process.wait()


@contextlib.contextmanager
def running(dhcp):
    """Ends the client after the test, also if the test has failed."""
    try:
        yield dhcp
    finally:
        dhcp.stop()


def _spawn(command, log=None):
    with open(log or f"/run/{os.path.basename(command[0])}.log", "a") as log:
        return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)


def contents(path):
    """Returns the text of a file, or an empty text if the file does not exist yet."""
    try:
        with open(path, errors="replace") as file:
            return file.read()
    except FileNotFoundError:
        return ""


def wait_for_text(path, text):
    wait_until(lambda: text in contents(path), f"{text!r} in {path}, not {contents(path)!r}")
