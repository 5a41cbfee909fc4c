"""Measures the resources of a process, and decides whether they grow."""

import os
import statistics

# The smallest increase that counts as growth, in KiB. After everything has happened once, the memory of
# the allocator's arenas and of the script still varies. This value is several times that variation. If
# one text of 64 bytes leaks for each question, the growth is above this value within two minutes.
LEVEL_KIB = 512


def private_dirty(pid):
    """Returns the memory that the process has written and does not share, in KiB."""
    with open(f"/proc/{pid}/smaps_rollup") as rollup:
        return sum(int(line.split()[1]) for line in rollup if line.startswith("Private_Dirty"))


def _status(pid, field):
    with open(f"/proc/{pid}/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith(field))


def rss(pid):
    return _status(pid, "VmRSS")


def highest_rss(pid):
    return _status(pid, "VmHWM")


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def threads(pid):
    return len(os.listdir(f"/proc/{pid}/task"))


def cpu_seconds(pid):
    """Returns the CPU time of the process and of the children that it has reaped."""
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return sum(map(int, fields[11:15])) / os.sysconf("SC_CLK_TCK")


def state(pid):
    """Returns the kernel's letter for the state of the process; None if there is no such process."""
    try:
        with open(f"/proc/{pid}/stat") as stat:
            return stat.read().rpartition(")")[2].split()[0]
    except (FileNotFoundError, ProcessLookupError):
        return None


class Series:
    """A series of values with their times. The first quarter is warm-up and does not count."""

    def __init__(self):
        self.points = []

    def add(self, now, value):
        self.points.append((now, value))

    def steady(self):
        return self.points[len(self.points) // 4:]

    def slope(self):
        """Returns the slope in units per minute, by least squares."""
        times, values = zip(*self.steady())
        if len(set(times)) < 2:
            return 0.0
        return statistics.linear_regression(times, values).slope * 60

    def growth(self):
        """Returns the median of the last third of the counted values minus the median of the first third."""
        values = [value for _, value in self.steady()]
        third = max(1, len(values) // 3)
        return statistics.median(values[-third:]) - statistics.median(values[:third])

    def highest(self):
        return max(value for _, value in self.points)

    def last(self):
        return self.points[-1][1]
