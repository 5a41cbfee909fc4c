#!/usr/bin/env python3
"""Measures the cost of the workbench: `proxymanagerctl pac explain` and `pac eval` for scripts of
several sizes.

usage: workbench.py --build=BUILD [--rounds=N] [--json=FILE]

Prints the shortest time and the shortest CPU time of each command, including the processes that it starts.
A script has rules of two kinds, and none of them matches the URL.
"""

import argparse
import json
import os
import resource
import subprocess
import tempfile
import time

SIZES = {"60 rules": 60, "1,000 rules": 1000, "500 KB": 7300}
URL = "http://www.elsewhere.test/"


def script(rules):
    lines = ["function FindProxyForURL(url, host) {"]
    for number in range(rules):
        test = (f'dnsDomainIs(host, ".d{number}.example")' if number % 2 == 0
                else f'shExpMatch(url, "*://h{number}.example/*")')
        lines.append(f'  if ({test}) return "PROXY p{number % 9}:8080";')
    return "\n".join([*lines, '  return "DIRECT";', "}", ""])


def processor_time():
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return used.ru_utime + used.ru_stime


def run(command):
    """Returns the wall-clock time and the CPU time of one run, in milliseconds."""
    begun, used = time.monotonic(), processor_time()
    subprocess.run(command, stdout=subprocess.DEVNULL, check=True)
    return (time.monotonic() - begun) * 1000, (processor_time() - used) * 1000


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--rounds", type=int, default=11)
    parser.add_argument("--json")
    options = parser.parse_args()
    program = os.path.join(options.build, "out", "bin", "proxymanagerctl")
    figures = {}
    with tempfile.TemporaryDirectory() as folder:
        for name, rules in SIZES.items():
            path = os.path.join(folder, "script.pac")
            with open(path, "w", encoding="ascii") as file:
                file.write(script(rules))
            size = os.path.getsize(path)
            for command in ("eval", "explain"):
                runs = [run([program, "pac", command, "--offline", path, URL])
                        for _ in range(options.rounds)]
                wall, used = (min(column) for column in zip(*runs))
                figures[f"{command}, {name}"] = {"bytes": size, "ms": wall, "processor_ms": used}
                print(f"pac {command:8} {name:12} {size:7} bytes  {wall:8.1f} ms  "
                      f"{used:8.1f} ms of processor time")
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump(figures, file, indent=2)


if __name__ == "__main__":
    main()
