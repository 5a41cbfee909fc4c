"""Counts the instructions that the daemon needs for a call, in one or more builds of the daemon.

Callgrind counts the whole daemon, with the bus library. The count of a short run is subtracted from the count
of a long run, so the instructions of the start and the end do not count. The mode is manual, because
callgrind does not support the system calls that a download needs. Run it as root:

  python3 bench/whole/call_instructions.py BUILD...
"""

import contextlib
import os
import re
import sys

TREE = os.path.abspath(os.path.join(os.path.dirname(__file__), "../.."))
sys.path.insert(0, os.path.join(TREE, "tests"))

from support.bus import Bus, Client  # noqa: E402
from support.daemon import Daemon, make_watched_files, trace  # noqa: E402
from support.own_root import own_root  # noqa: E402

URL = "http://www.example.org/index.html"
SHORT, LONG = 200, 2200  # calls
COUNTS = "/tmp/callgrind.out"


def of_one_connection(client, calls):
    for _ in range(calls):
        client.urls(URL)


def of_connections_that_ask_once(_, calls):
    for _ in range(calls):
        with Client() as client:
            client.urls(URL)


def count(build, ask, calls):
    daemon = Daemon(build, wrapper=["valgrind", "--tool=callgrind",
                                    f"--callgrind-out-file={COUNTS}"])
    with Client() as client:
        client.update("manual", proxyurl="http://proxy.example.org:8080")
        ask(client, calls)
    assert daemon.stop() == 0
    daemon.close()
    with open(COUNTS) as counts:
        return int(re.search(r"^(?:totals|summary): (\d+)", counts.read(), re.MULTILINE)[1])


def main():
    for build in map(os.path.abspath, sys.argv[1:]):
        with own_root(TREE, build), contextlib.closing(Bus()):
            trace("baseseverity=4\n")
            make_watched_files()
            for ask in (of_one_connection, of_connections_that_ask_once):
                taken = (count(build, ask, LONG) - count(build, ask, SHORT)) / (LONG - SHORT)
                print(f"{build}: calls {ask.__name__.replace('_', ' ')}: {taken:.0f} instructions each")


if __name__ == "__main__":
    main()
