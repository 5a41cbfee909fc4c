"""Compares whole answers of the daemon with answers of an echo service, on a private message bus, in one run.

The measured time is the time that a program waits: the call goes to the bus and to the daemon, and the
answer comes back. The echo service (echo_service.c) gives the same answer to the same call, so the ratio
depends only on the daemon. During the whole run, log_reader.c reads the lines of the log. In addition,
there are single figures: the time of a start and of a new script, the private memory, and the wake-ups of
an idle daemon.

bench.sh calls this program, as root: it needs its own mount namespace for the daemon's fixed paths.
"""

import argparse
import contextlib
import json
import os
import statistics
import subprocess
import sys
import time

TREE = os.path.abspath(os.path.join(os.path.dirname(__file__), "../.."))
sys.path.insert(0, os.path.join(TREE, "tests"))

from support.bus import ADDRESS, NAME, Bus, Client, wait_until  # noqa: E402
from support.daemon import Daemon  # noqa: E402
from support.memory import unshared  # noqa: E402
from support.own_root import own_root  # noqa: E402
from support.threads import thread_statuses  # noqa: E402
from support.web import Web  # noqa: E402

sys.path.insert(0, os.path.join(TREE, "bench"))
sys.path.insert(0, os.path.join(TREE, "tests/stress"))
import measure  # noqa: E402
from growth import fitted  # noqa: E402

ECHO = "com.zentu.ProxyManagerEcho"  # as long as the daemon's name, so that the calls have the same size
LIMIT = 60.0
PROXY = "http://proxy.example.org:8080"
URL = "http://www.example.org/index.html"
NEW_URL = "http://host%d.example.org/index.html"

# description, mode, severity, URL, clients, (figure, goal). The goal of a latency_ratio is a maximum, the
# goal of a rate_ratio is a minimum.
CASES = (
    ("mode manual, severity 5", "manual", 5, URL, 1, ("latency_ratio", 1.15)),
    ("cached host, severity 5", "pacurl", 5, URL, 1, ("latency_ratio", 1.20)),
    ("cached host, severity 7", "pacurl", 7, URL, 1, ("latency_ratio", 1.60)),
    ("new host, 60 rules, severity 5", "pacurl", 5, NEW_URL, 1, ("latency_ratio", 1.60)),
    ("16 clients at once, cached, severity 5", "pacurl", 5, URL, 16, ("rate_ratio", 0.90)),
)
STARTS = 15
NEW_SCRIPTS = 9
IDLE = 60  # seconds
# The wake-ups that are intended: the main thread sleeps in steps of 20 s, pm-pac waits 120 s, and pm-fetch
# and pm-watch wait 1800 s. By chance, one of the long waits may also end during the measurement. The bus
# thread and the worker are not woken.
WAKE_UPS = 5
CALLS_OF_PEERS = 40  # calls in a block; only a few, because an answer of a peer takes milliseconds
CLIENT_COUNTS = (1, 2, 4, 8, 16, 32, 64)


def trace(severity):
    os.makedirs("/etc/proxymanagerd", exist_ok=True)
    with open("/etc/proxymanagerd/trace.conf", "w") as file:
        file.write(f"baseseverity={severity}\n")


@contextlib.contextmanager
def program(*command):
    process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True,
                               env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": ADDRESS})
    try:
        yield process
    finally:
        process.terminate()
        process.communicate(timeout=LIMIT)


@contextlib.contextmanager
def log_reader(programs):
    with program(f"{programs}/log_reader", "/dev/log") as reader:
        assert reader.stdout.readline() == "ready\n"
        yield


@contextlib.contextmanager
def running_daemon(build, severity):
    trace(severity)
    for path in ("/usr/local/lumad/dhcp.conf", "/tmp/.resolv.conf.dnsmasq"):
        open(path, "w").close()
    daemon = Daemon(build)
    try:
        yield daemon
    finally:
        daemon.close()


def script(build, kind, count):
    return subprocess.run([f"{build}/out/bench/print_script", kind, str(count)], check=True,
                          capture_output=True, text=True).stdout


def configure(client, mode, web, text):
    """Configures the daemon. If there is a script, waits until it answers."""
    web.routes["/proxy.pac"] = text
    client.update(mode=mode, proxyurl=PROXY if mode == "manual" else "",
                  pacurl=web.url("/proxy.pac") if mode == "pacurl" else "")
    wait_until(lambda: len(client.urls(URL)) > 1, "the daemon answers", LIMIT)


def load(programs, rounds, calls, clients, url):
    """Runs bus_load, and returns the object that it prints."""
    done = subprocess.run([f"{programs}/bus_load", ECHO, NAME, str(rounds), str(calls),
                           str(clients), url], check=True, capture_output=True, text=True,
                          env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": ADDRESS})
    return json.loads(done.stdout)


@contextlib.contextmanager
def beside_the_echo(build, mode, severity, web):
    """Runs a configured daemon, and an echo service with the same answer."""
    with running_daemon(build, severity), Client() as client:
        configure(client, mode, web, script(build, "rules", 60))
        with program(f"{build}/out/bench/echo_service", ECHO, *client.urls(URL)):
            wait_until(lambda: client.owner(ECHO) is not None, "the echo has its name", LIMIT)
            yield client


def compare_cases(build, web, rounds, calls):
    results = []
    for what, mode, severity, url, clients, (figure, goal) in CASES:
        with beside_the_echo(build, mode, severity, web):
            measured = load(f"{build}/out/bench", rounds, max(calls // clients, 1), clients, url)
        results.append({"case": what, "figure": figure, "goal": goal, **measured})
    return results


def grow_with_clients(build, web, rounds, calls):
    points = []
    with beside_the_echo(build, "pacurl", 5, web):
        for count in CLIENT_COUNTS:
            measured = load(f"{build}/out/bench", rounds, max(calls // count, 10), count, URL)
            points.append((count, measured["measured_us"], measured["base_us"]))
    return points


def start_time(build):
    """Returns the time from the start of the process until it owns its bus name, in ms."""
    trace(5)
    taken = []
    for _ in range(STARTS):
        with Client() as client:
            begin = time.monotonic()
            daemon = Daemon(build, start=False).spawn()
            wait_until(lambda: client.owner() is not None, "the name", LIMIT, pause=0)
            taken.append((time.monotonic() - begin) * 1e3)
        daemon.close()
    return statistics.median(taken)


def new_script_time(build, web):
    """Returns the time from the call of updateProxyconfig to the first answer of a script of 500 KB, in ms."""
    taken = []
    with running_daemon(build, 5), Client() as client:
        configure(client, "pacurl", web, script(build, "rules", 60))
        for number in range(NEW_SCRIPTS):
            answer = f"PROXY new{number}.test:1"
            text = script(build, "bytes", 500_000 - 100)
            web.routes["/proxy.pac"] = text.replace("PROXY proxy.test:8080; DIRECT", answer)
            begin = time.monotonic()
            client.update(mode="pacurl", pacurl=web.url("/proxy.pac"))
            wait_until(lambda: client.urls(URL)[1:] == [answer], answer, LIMIT, pause=0)
            taken.append((time.monotonic() - begin) * 1e3)
    return statistics.median(taken)


def private(*pids):
    """Returns the memory that these processes do not share with others, in KiB."""
    total = 0
    for pid in pids:
        with open(f"/proc/{pid}/smaps_rollup") as rollup:
            total += sum(int(line.split()[1]) for line in rollup if line.startswith("Private_"))
    return total


def memory(build, web, bus):
    """Returns two pairs (private memory, memory not shared with the bus), in MB: the first in mode off, the
    second with a worker and 60 rules."""
    with running_daemon(build, 5) as daemon, Client() as client:
        client.update(mode="off")
        for _ in range(100):
            client.urls(URL)
        off = private(daemon.pid), unshared(bus.process.pid, daemon.pid)
        configure(client, "pacurl", web, script(build, "rules", 60))
        pids = (daemon.pid, *daemon.children())
        together = private(*pids), unshared(bus.process.pid, *pids)
        return [[figure * 1024 / 1e6 for figure in figures] for figures in (off, together)]


def sleeps(pid):
    """Returns how often each thread of the process has gone to sleep until now."""
    return {thread: (status["Name"], int(status["voluntary_ctxt_switches"]))
            for thread, status in thread_statuses(pid).items()}


def wake_ups(build, web):
    """Returns {thread: wake-ups} of the configured daemon and its worker in IDLE seconds."""
    with running_daemon(build, 5) as daemon, Client() as client:
        configure(client, "pacurl", web, script(build, "rules", 60))
        time.sleep(3)  # by then, the announcing thread has ended
        pids = (daemon.pid, *daemon.children())
        before = {task: count for pid in pids for task, count in sleeps(pid).items()}
        time.sleep(IDLE)
        after = {task: count for pid in pids for task, count in sleeps(pid).items()}
    assert before.keys() == after.keys(), "a thread came or went"
    return {name: after[task][1] - count for task, (name, count) in before.items()}


def single_figures(build, web, bus):
    """Returns a list of single figures, each with its description, its unit and its highest goal."""
    off, together = memory(build, web, bus)
    woken = wake_ups(build, web)
    print("\nWake-ups in", IDLE, "idle seconds, by thread:",
          ", ".join(f"{name} {count}" for name, count in sorted(woken.items())))
    return [
        {"what": "start until the bus name", "figure": start_time(build), "unit": "ms", "goal": 50},
        {"what": "update until the first answer of a 500 KB script",
         "figure": new_script_time(build, web), "unit": "ms", "goal": 100},
        {"what": "private memory, mode off", "figure": off[0], "unit": "MB", "goal": 3.2},
        {"what": "the same if only the bus shares pages", "figure": off[1], "unit": "MB",
         "goal": 3.2},
        {"what": "private memory, daemon and worker, 60 rules", "figure": together[0], "unit": "MB",
         "goal": 5},
        {"what": "the same if only the bus shares pages", "figure": together[1], "unit": "MB",
         "goal": 5},
        {"what": f"wake-ups in {IDLE} idle seconds", "figure": sum(woken.values()), "unit": "",
         "goal": WAKE_UPS},
    ]


def verdict(figure, goal, at_least=False):
    return "met" if (figure >= goal if at_least else figure <= goal) else "MISSED"


def print_cases(cases):
    print(f"\n{'whole answers':<40} {'echo':>9} {'daemon':>9} {'ratio':>7} {'goal':>6}")
    for case in cases:
        rate = case["figure"] == "rate_ratio"
        unit, base, own = ("/s", case["base_per_s"], case["measured_per_s"]) if rate else (
            "us", case["base_us"], case["measured_us"])
        ratio = case[case["figure"]]
        print(f"{case['case']:<40} {base:>7.0f}{unit} {own:>7.0f}{unit} {ratio:>7.2f}"
              f" {case['goal']:>6.2f} {verdict(ratio, case['goal'], rate)}")


def print_growth(points):
    print(f"\n{'clients at once':<40} {'echo':>9} {'daemon':>9}")
    for count, own, base in points:
        print(f"{count:<40} {base:>7.0f}us {own:>7.0f}us")
    for name, column in (("daemon", 1), ("echo", 2)):
        order, slope, error = fitted([(point[0], point[column]) for point in points])
        print(f"fitted, {name}: {order}, {slope:.3g} us each, error {error:.1%}")


def print_figures(figures):
    print(f"\n{'single figures':<50} {'figure':>10} {'goal':>8}")
    for row in figures:
        print(f"{row['what']:<50} {row['figure']:>7.1f} {row['unit']:<2} {row['goal']:>8}"
              f" {verdict(row['figure'], row['goal'])}")


def main():
    parser = argparse.ArgumentParser(description="Measures whole answers of the daemon.")
    parser.add_argument("--build", required=True, help="build folder with the benchmarks")
    parser.add_argument("--json", help="file that takes the figures")
    parser.add_argument("--rounds", type=int, default=41)
    parser.add_argument("--calls", type=int, default=300, help="of a block, all clients together")
    parser.add_argument("--only", choices=("cases", "clients", "figures"))
    options = parser.parse_args()
    build = os.path.abspath(options.build)
    json_file = options.json and os.path.abspath(options.json)
    results = {}
    with contextlib.ExitStack() as stack:
        stack.enter_context(own_root(TREE, build))
        bus = stack.enter_context(contextlib.closing(Bus()))
        stack.enter_context(log_reader(f"{build}/out/bench"))
        web = stack.enter_context(contextlib.closing(Web()))
        if options.only in (None, "cases"):
            results["answers"] = compare_cases(build, web, options.rounds, options.calls)
            print_cases(results["answers"])
        if options.only in (None, "clients"):
            results["clients"] = grow_with_clients(build, web, options.rounds // 4, options.calls)
            print_growth(results["clients"])
        if options.only in (None, "figures"):
            results["figures"] = single_figures(build, web, bus)
            print_figures(results["figures"])
    if json_file:
        with open(json_file, "w") as file:
            json.dump(results, file, indent=2)
            file.write("\n")


if __name__ == "__main__":
    main()
