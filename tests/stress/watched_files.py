"""The files that a soak test changes: lease, resolver file, trace values, log socket."""

import os
import socket
import threading

LEASE = "/usr/local/lumad/dhcp.conf"
RESOLVER = "/tmp/.resolv.conf.dnsmasq"
DOMAIN = "soak.example.com"

LEASES = ("wpad=http://127.0.0.1/lease\n", "wpad='http://127.0.0.1/lease'\ndomain=x\n", "",
          "wpad=http://127.0.0.1:9/closed\n", "wpad=file:///etc/passwd\n")
RESOLVERS = (f"search {DOMAIN}\n", f"nameserver 127.0.0.1\ndomain {DOMAIN}\n", "", "search com\n")


def prepare():
    """Makes the files that the daemon needs at its start. The host names of the candidate URLs resolve to
    this machine."""
    for path, text in ((LEASE, LEASES[0]), (RESOLVER, RESOLVERS[0])):
        with open(path, "w") as file:
            file.write(text)
    with open("/etc/hosts", "w") as hosts:
        hosts.write(f"127.0.0.1 localhost wpad.{DOMAIN} wpad.example.com\n")
    os.makedirs("/etc/proxymanagerd", exist_ok=True)


class WatchedFiles:
    def __init__(self, choice):
        self.trace(choice)

    @staticmethod
    def change(choice):
        path, texts = choice.choice(((LEASE, LEASES), (RESOLVER, RESOLVERS)))
        if choice.random() < 0.2:
            os.utime(path)
            return
        # The file is written in place, because the daemon watches the file and not its name.
        with open(path, "r+") as file:
            file.truncate()
            file.write(choice.choice(texts))

    @staticmethod
    def trace(choice):
        """Writes trace values: usually few lines are logged, sometimes all lines."""
        level = choice.choice((3, 4, 4, 4, 5, 7))
        with open("/etc/proxymanagerd/trace.conf", "w") as file:
            file.write(f"baseseverity={level}\n")

    @staticmethod
    def empty_log():
        """A reader of the log that drops all lines, so that the daemon can log as usual."""
        log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        log.bind("/dev/log")
        os.chmod("/dev/log", 0o666)

        def read():
            while log.recv(1 << 20):
                pass
        threading.Thread(target=read, daemon=True).start()
        return log
