"""Makes network namespaces: one for the device, in which a test runs, and one for its gateway."""

import contextlib
import os
import subprocess

from support.own_root import _check, _libc

CLONE_NEWNET = 0x40000000


def ip(*words):
    done = subprocess.run(["ip", *map(str, words)], capture_output=True, text=True)
    assert done.returncode == 0, f"ip {' '.join(map(str, words))}: {done.stderr}"
    return done.stdout


@contextlib.contextmanager
def device_network():
    """Moves this thread into a new network namespace, with a loopback interface."""
    before = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    _check(_libc.unshare(CLONE_NEWNET), "unshare")
    try:
        ip("link", "set", "lo", "up")
        yield
    finally:
        _check(_libc.setns(before, CLONE_NEWNET), "setns")
        os.close(before)


class Namespace:
    """A network namespace with a name, which is stored in this test's /run."""

    def __init__(self, name):
        self.name = name
        ip("netns", "add", name)
        self._file = os.open(f"/run/netns/{name}", os.O_RDONLY)

    @contextlib.contextmanager
    def inside(self):
        """Inside the block, this thread is in the namespace. Sockets that it makes and processes
        that it starts stay there."""
        before = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        _check(_libc.setns(self._file, CLONE_NEWNET), "setns")
        try:
            yield
        finally:
            _check(_libc.setns(before, CLONE_NEWNET), "setns")
            os.close(before)

    def close(self):
        os.close(self._file)
        ip("netns", "del", self.name)


def end(process, limit=10):
    """Ends a process that this test started."""
    if process.poll() is None:
        process.terminate()
        try:
            process.wait(limit)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
