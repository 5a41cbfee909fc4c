"""Sets the wall clock of the daemon. The clock of the machine does not change."""

import mmap
import os
import struct
import time


class WallClock:
    def __init__(self, build):
        path = "/run/wall_clock"
        with open(path, "wb") as file:
            file.write(bytes(16))
        with open(path, "r+b") as file:
            self._shared = mmap.mmap(file.fileno(), 16)
        self.environment = {"LD_PRELOAD": os.path.join(build, "out", "tests", "wall_clock.so"),
                            "WALL_CLOCK": path}

    def jump(self, seconds):
        """Sets the clock this number of seconds after the machine's clock."""
        struct.pack_into("=q", self._shared, 0, seconds)

    def readings(self):
        """How often the daemon has read the clock."""
        return struct.unpack_from("=q", self._shared, 8)[0]

    def close(self):
        self._shared.close()


FORWARD = 10 * 366 * 86400
TO_1970 = -int(time.time())
