"""A network behind a link. A connection over loopback is complete when connect() returns; a connection over
this link takes a while, as over a real link."""

import fcntl
import os
import select
import socket
import stat
import struct
import subprocess
import threading

_TUN = "/dev/net/tun"
_TUNSETIFF, _IFF_TUN, _IFF_NO_PI = 0x400454CA, 0x0001, 0x1000
_TCP, _SYN, _ACK = 6, 0x02, 0x10


def _checksum(data):
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def _acceptance(packet):
    """The packet that accepts the connection of `packet`; None if it opens no connection."""
    begin = (packet[0] & 15) * 4
    if packet[0] >> 4 != 4 or packet[9] != _TCP or packet[begin + 13] & (_SYN | _ACK) != _SYN:
        return None
    here, there = packet[12:16], packet[16:20]
    from_port, to_port, number = struct.unpack_from("!HHI", packet, begin)

    def segment(checksum):
        return struct.pack("!HHIIBBHHH", to_port, from_port, 0, (number + 1) & 0xFFFFFFFF, 5 << 4,
                           _SYN | _ACK, 65535, checksum, 0)

    def header(checksum):
        return struct.pack("!BBHHHBBH4s4s", 0x45, 0, 40, 0, 0, 64, _TCP, checksum, there, here)

    pseudo_header = there + here + struct.pack("!HH", _TCP, 20)
    return header(_checksum(header(0))) + segment(_checksum(pseudo_header + segment(0)))


class FarNetwork:
    """The network 192.0.2.0/24 of the test's network namespace. The addresses `alive` accept each
    connection; the others drop all packets."""

    def __init__(self, *alive):
        self._alive = [socket.inet_aton(address) for address in alive]
        self.tried = []  # the addresses of the opening packets
        if not os.path.exists(_TUN):  # the test has a /dev of its own
            os.makedirs(os.path.dirname(_TUN), exist_ok=True)
            os.mknod(_TUN, stat.S_IFCHR | 0o600, os.makedev(10, 200))
        self._link = os.open(_TUN, os.O_RDWR)
        fcntl.ioctl(self._link, _TUNSETIFF, struct.pack("16sH22x", b"far", _IFF_TUN | _IFF_NO_PI))
        for words in ("address add 192.0.2.1/24 dev far", "link set far up"):
            subprocess.run(["ip", *words.split()], check=True)
        self._end, self._ended = os.pipe()
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()

    def _serve(self):
        while True:
            ready, _, _ = select.select([self._link, self._end], [], [])
            if self._end in ready:
                return
            packet = os.read(self._link, 2048)
            answer = _acceptance(packet)
            if answer:
                self.tried.append(socket.inet_ntoa(packet[16:20]))
                if packet[16:20] in self._alive:
                    os.write(self._link, answer)

    def close(self):
        os.close(self._ended)
        self._thread.join()
        os.close(self._end)
        os.close(self._link)
