"""Measures the memory that a program needs on a device with few other programs."""

import os
import struct

_PAGE = os.sysconf("SC_PAGE_SIZE")
_FRAME = (1 << 55) - 1  # the bits of a page's number in /proc/PID/pagemap


def _frames(pid):
    """The page frame numbers of the memory that a process has mapped. Only root with all
    capabilities can see them; for other users the set is empty."""
    found = set()
    with open(f"/proc/{pid}/maps") as maps, open(f"/proc/{pid}/pagemap", "rb", buffering=0) as pages:
        for line in maps:
            begin, end = (int(number, 16) // _PAGE for number in line.split()[0].split("-"))
            if line.rstrip().endswith("[vsyscall]"):
                continue
            entries = os.pread(pages.fileno(), 8 * (end - begin), 8 * begin)
            for (entry,) in struct.iter_unpack("=Q", entries):
                if entry >> 63 and entry & _FRAME:
                    found.add(entry & _FRAME)
    return found


def unshared(bus, *pids):
    """The private memory in KiB that these processes would have if only the bus ran besides them.
    Other programs of this machine that share pages with them do not change the value."""
    mapped = set().union(*map(_frames, pids))
    return len(mapped - _frames(bus)) * _PAGE // 1024
