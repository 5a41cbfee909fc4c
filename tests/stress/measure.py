"""What a process holds, sampled, and whether it grows."""

import os
import statistics

# Least growth, in KiB, that is called growth: several times what the allocator's arenas and the
# script in force go up and down by once everything has happened once. A leak of one text of 64 bytes
# a question is above it within two minutes.
LEVEL_KIB = 512


def private_dirty(pid):
    """KiB that the process alone has written."""
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
    """Of the process and the children that it has waited for."""
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return sum(map(int, fields[11:15])) / os.sysconf("SC_CLK_TCK")


def state(pid):
    """The kernel's letter for the process, None where there is none."""
    try:
        with open(f"/proc/{pid}/stat") as stat:
            return stat.read().rpartition(")")[2].split()[0]
    except (FileNotFoundError, ProcessLookupError):
        return None


class Series:
    """Values at times; the first quarter is warm-up and does not count."""

    def __init__(self):
        self.points = []

    def add(self, now, value):
        self.points.append((now, value))

    def steady(self):
        return self.points[len(self.points) // 4:]

    def slope(self):
        """Units a minute, by least squares."""
        times, values = zip(*self.steady())
        if len(set(times)) < 2:
            return 0.0
        return statistics.linear_regression(times, values).slope * 60

    def growth(self):
        """From the median of the first third of what counts to that of the last third."""
        values = [value for _, value in self.steady()]
        third = max(1, len(values) // 3)
        return statistics.median(values[-third:]) - statistics.median(values[:third])

    def highest(self):
        return max(value for _, value in self.points)

    def last(self):
        return self.points[-1][1]
