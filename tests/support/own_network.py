"""A network namespace for one test. It has only loopback, so all ports are free, and no packet
leaves it."""

import contextlib
import fcntl
import os
import socket
import struct

from .own_root import _check, _libc

CLONE_NEWNET = 0x40000000
_SIOCSIFFLAGS, _IFF_UP = 0x8914, 1


@contextlib.contextmanager
def own_network():
    """Inside the block, this thread and the processes that it starts are in this network
    namespace."""
    before = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    _check(_libc.unshare(CLONE_NEWNET), "unshare (these tests need network namespaces)")
    with socket.socket() as any_socket:
        fcntl.ioctl(any_socket, _SIOCSIFFLAGS, struct.pack("16sh", b"lo", _IFF_UP))
    yield
    _check(_libc.setns(before, CLONE_NEWNET), "setns")
    os.close(before)


def hosts(*names, **addresses):
    """Writes /etc/hosts: localhost, the names for 127.0.0.1, and name=address."""
    lines = ["127.0.0.1 localhost", *(f"127.0.0.1 {name}" for name in names),
             *(f"{address} {name}" for name, address in addresses.items())]
    with open("/etc/hosts", "w") as file:
        file.write("".join(f"{line}\n" for line in lines))
