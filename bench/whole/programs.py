"""Measures the cost of an answer for programs: proxymanagerctl compared with dbus-send, and the client
library.

The programs are started in turn, so that other work of the machine disturbs them equally. A ratio is
a ratio of medians of one run.

bench.sh calls this program, as root: it needs its own mount namespace for the daemon's fixed paths.
"""

import argparse
import contextlib
import json
import os
import statistics
import subprocess
import time

from whole_answers import (ADDRESS, NAME, TREE, URL, Bus, Client, Web, configure, log_reader, own_root,
                           running_daemon, verdict)

INTERFACE = "com.zentu.ProxyManagerServiceInterface"
PATH = "/com/zentu/ProxyManagerService"
ENVIRONMENT = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": ADDRESS}

# description, key, unit, goal, whether the goal is a minimum
ROWS = (
    ("proxymanagerctl get, in dbus-send's times", "get_ratio", "x", 1.6, False),
    ("proxymanagerctl --version, in dbus-send's times", "version_ratio", "x", 1.6, False),
    ("first answer of the library above a bare call", "more_us", "us", 400, False),
    ("remembered answer of the library", "remembered_ns", "ns", 500, False),
    ("two threads' remembered answers in one's", "two_threads", "x", 1.5, True),
)


def programs(build, rounds):
    ctl = f"{build}/out/bin/proxymanagerctl"
    commands = {
        "dbus_send": ["dbus-send", "--system", "--print-reply", f"--dest={NAME}", PATH,
                      f"{INTERFACE}.getProxyurl", f"string:{URL}"],
        "get": [ctl, "get", URL],
        "version": [ctl, "--version"],
    }
    taken = {name: [] for name in commands}
    for _ in range(rounds):
        for name, command in commands.items():
            begin = time.perf_counter()
            subprocess.run(command, check=True, env=ENVIRONMENT, stdout=subprocess.DEVNULL)
            taken[name].append(time.perf_counter() - begin)
    return {name: statistics.median(times) * 1e3 for name, times in taken.items()}


def measured(build, rounds):
    with contextlib.ExitStack() as stack:
        stack.enter_context(own_root(TREE, build))
        stack.enter_context(contextlib.closing(Bus()))
        stack.enter_context(log_reader(f"{build}/out/bench"))
        web = stack.enter_context(contextlib.closing(Web()))
        stack.enter_context(running_daemon(build, 5))
        client = stack.enter_context(Client())
        configure(client, "manual", web, "")
        started = programs(build, rounds)
        done = subprocess.run([f"{build}/out/bench/client_load", str(rounds)], check=True,
                              capture_output=True, text=True, env=ENVIRONMENT)
    library = json.loads(done.stdout)
    return {**started, **library,
            "get_ratio": started["get"] / started["dbus_send"],
            "version_ratio": started["version"] / started["dbus_send"],
            "remembered_ns": library["remembered_us"] * 1e3}


def main():
    parser = argparse.ArgumentParser(description="Measures programs that ask the daemon.")
    parser.add_argument("--build", required=True, help="build folder with the benchmarks")
    parser.add_argument("--json", help="file that takes the figures")
    parser.add_argument("--rounds", type=int, default=201)
    options = parser.parse_args()
    json_file = options.json and os.path.abspath(options.json)
    figures = measured(os.path.abspath(options.build), options.rounds)
    print(f"\n{'programs that ask':<50} {'figure':>10} {'goal':>8}")
    for what, key, unit, goal, at_least in ROWS:
        print(f"{what:<50} {figures[key]:>7.2f} {unit:<2} {goal:>8}"
              f" {verdict(figures[key], goal, at_least)}")
    if json_file:
        with open(json_file, "w") as file:
            json.dump(figures, file, indent=2)
            file.write("\n")


if __name__ == "__main__":
    main()
