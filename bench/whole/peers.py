"""Compares answers of the daemon with answers of other programs in Debian, in one run.

All programs evaluate the same script of 60 rules for a host that they have not seen before, so that no
program answers from a cache. The daemon's cached answer has a separate row.

- glib-pacrunner, over the same private bus: bus_load asks it and the daemon in turn.
- `proxy` of libproxy, which reads URLs from its standard input: the time for one URL is subtracted from the
  time for many, so that the start of the program does not count.
- pacparser, in the process of its caller, through its module for Python.

The programs are unpacked, not installed. bench.sh --peers calls this program, as root.
"""

import argparse
import contextlib
import json
import os
import statistics
import subprocess
import sys
import time

from whole_answers import (ADDRESS, CALLS_OF_PEERS, LIMIT, NAME, NEW_URL, TREE, URL, Bus, Client, Web,
                           configure, log_reader, own_root, running_daemon, script,
                           wait_until)

RUNNER = "org.gtk.GLib.PACRunner"
PACKAGES = ("glib-networking-common", "libproxy1v5", "glib-networking-services",
            "libjavascriptcoregtk-4.0-18", "libproxy-tools", "libproxy1-plugin-webkit",
            "python3-pacparser")
PACPARSER = """
import sys, time
import pacparser
pacparser.init()
pacparser.parse_pac_string(open(sys.argv[1]).read())
for number in range(int(sys.argv[2])):
    url = sys.argv[3] % number
    host = url.split("/")[2]
    begin = time.perf_counter()
    answer = pacparser.find_proxy(url, host)
    taken = time.perf_counter() - begin
    assert answer == sys.argv[4], answer
    print(taken * 1e6)
"""


def unpacked():
    return subprocess.run([f"{TREE}/tests/support/unpack_packages.sh", "peers", *PACKAGES],
                          check=True, capture_output=True, text=True).stdout.strip()


def surroundings(folder):
    """Returns the environment for a program that is unpacked in the folder."""
    libraries = subprocess.run(["dpkg-architecture", "-q", "DEB_HOST_MULTIARCH"], check=True,
                               capture_output=True, text=True).stdout.strip()
    libraries = f"{folder}/usr/lib/{libraries}"
    modules = [os.path.join(path, "modules") for path, folders, _ in os.walk(f"{libraries}/libproxy")
               if "modules" in folders]
    return {"LD_LIBRARY_PATH": libraries, "PX_MODULE_PATH": modules[0], "PATH": os.environ["PATH"],
            "PYTHONPATH": f"{folder}/usr/lib/python3/dist-packages",
            "DBUS_SESSION_BUS_ADDRESS": ADDRESS}


@contextlib.contextmanager
def pac_runner(folder):
    runner = subprocess.Popen([f"{folder}/usr/libexec/glib-pacrunner"], env=surroundings(folder))
    try:
        with Client() as client:
            wait_until(lambda: client.owner(RUNNER) is not None, "the runner's name", LIMIT)
            yield
    finally:
        runner.kill()
        runner.wait()


def of_the_bus(build, folder, pac_url, url, rounds):
    """Returns {"base_us": the runner's median, "measured_us": the daemon's median, ...}."""
    with pac_runner(folder):
        done = subprocess.run(
            [f"{build}/out/bench/bus_load", RUNNER, NAME, str(rounds), str(CALLS_OF_PEERS), "1", url,
             pac_url], check=True, capture_output=True, text=True,
            env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": ADDRESS})
    return json.loads(done.stdout)


def of_proxy(folder, pac_url, calls):
    """Returns the microseconds that `proxy` needs for an answer.

    With Debian's WebKit module, `proxy` crashes in some runs, or answers without the
    script. Such a run is repeated, and the number of such runs is printed.
    """
    environment = {**surroundings(folder), "http_proxy": f"pac+{pac_url}"}
    failed = 0

    def taken(count):
        nonlocal failed
        urls = "".join(NEW_URL % number + "\n" for number in range(count))
        while failed < 200:
            begin = time.perf_counter()
            done = subprocess.run([f"{folder}/usr/bin/proxy"], input=urls, check=False, text=True,
                                  capture_output=True, env=environment, timeout=10 * LIMIT)
            end = time.perf_counter()
            if done.returncode == 0 and done.stdout.count("proxy.test:8080") == count:
                return end - begin
            failed += 1
        raise RuntimeError("proxy fails in too many runs")

    figure = statistics.median((taken(calls + 1) - taken(1)) / calls * 1e6 for _ in range(5))
    print(f"proxy of libproxy: {failed} runs failed and were repeated")
    return figure


def of_pacparser(folder, text, calls):
    """Returns the microseconds that pacparser needs for an answer."""
    with open("/tmp/peers.pac", "w") as file:
        file.write(text)
    done = subprocess.run(["/usr/bin/python3", "-c", PACPARSER, "/tmp/peers.pac", str(calls), NEW_URL,
                           "PROXY proxy.test:8080; DIRECT"], check=True, capture_output=True, text=True,
                          env=surroundings(folder))
    return statistics.median(map(float, done.stdout.split()))


def measured(build, folder, rounds, calls):
    with contextlib.ExitStack() as stack:
        stack.enter_context(own_root(TREE, build))
        stack.enter_context(contextlib.closing(Bus()))
        stack.enter_context(log_reader(f"{build}/out/bench"))
        web = stack.enter_context(contextlib.closing(Web()))
        stack.enter_context(running_daemon(build, 5))
        client = stack.enter_context(Client())
        text = script(build, "rules", 60)
        configure(client, "pacurl", web, text)
        pac_url = web.url("/proxy.pac")
        new = of_the_bus(build, folder, pac_url, NEW_URL, rounds)
        cached = of_the_bus(build, folder, pac_url, URL, rounds)
        return [
            ("daemon, cached host, over the bus", cached["measured_us"]),
            ("daemon, new host, over the bus", new["measured_us"]),
            ("glib-pacrunner, over the bus", new["base_us"]),
            ("proxy of libproxy, over a pipe", of_proxy(folder, pac_url, calls)),
            ("pacparser, in the caller's process", of_pacparser(folder, text, calls)),
        ]


def main():
    parser = argparse.ArgumentParser(description="Measures the daemon beside other programs.")
    parser.add_argument("--build", required=True, help="build folder with the benchmarks")
    parser.add_argument("--json", help="file that takes the figures")
    parser.add_argument("--rounds", type=int, default=21)
    parser.add_argument("--calls", type=int, default=500, help="answers of proxy and pacparser")
    options = parser.parse_args()
    rows = measured(os.path.abspath(options.build), unpacked(), options.rounds, options.calls)
    base = dict(rows)["daemon, new host, over the bus"]
    print(f"\n{'an answer by the same script of 60 rules':<44} {'median':>10} {'of new host':>12}")
    for what, figure in rows:
        print(f"{what:<44} {figure:>7.0f} us {figure / base:>11.2f}x")
    if options.json:
        with open(options.json, "w") as file:
            json.dump(dict(rows), file, indent=2)
            file.write("\n")


if __name__ == "__main__":
    sys.exit(main())
