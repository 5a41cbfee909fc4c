"""Prints the JSON results of Google Benchmark: the median of each benchmark, its complexity, and the goals.

usage: print_parts.py parts.json pac_engine.json
"""

import json
import sys

# Goals for a cached answer and for the parsing of six entries, in ns.
AT_MOST = {"cachedGetProxy/50": 1000, "parseResult/6": 1000}
SANDBOX = 15_000  # goal for the time that the sandbox adds to an evaluation, in ns, on one CPU
UNITS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def shown(nanoseconds):
    for unit in ("ns", "us"):
        if nanoseconds < 1000 * UNITS[unit]:
            return f"{nanoseconds / UNITS[unit]:.3g} {unit}"
    return f"{nanoseconds / UNITS['ms']:.3g} ms"


def read(path):
    """Returns {name: median in ns} and {name: (order, coefficient, error)}. The median of a single run is the result
    of that run."""
    with open(path) as file:
        rows = json.load(file)["benchmarks"]
    times, orders, errors = {}, {}, {}
    for row in rows:
        name = row["run_name"].removesuffix("/real_time")
        kind = row.get("aggregate_name", "median")
        if kind == "median":
            times[name] = row["real_time"] * UNITS[row["time_unit"]]
        elif kind == "BigO":
            orders[name] = (row["big_o"], row["cpu_coefficient"] * UNITS[row["time_unit"]])
        elif kind == "RMS":
            errors[name] = row["rms"]
    return times, {name: (*order, errors.get(name, 0.0)) for name, order in orders.items()}


def verdict(figure, goal):
    return "met" if figure <= goal else "MISSED"


def main(paths):
    times, orders = {}, {}
    for path in paths:
        more_times, more_orders = read(path)
        times.update(more_times)
        orders.update(more_orders)
    print(f"\n{'parts':<40} {'median':>9} {'goal':>9}")
    for name, time in times.items():
        goal = AT_MOST.get(name)
        judged = f" {shown(goal):>9} {verdict(time, goal)}" if goal else ""
        print(f"{name:<40} {shown(time):>9}{judged}")
    print("\nfitted growth")
    for name, (order, coefficient, error) in orders.items():
        print(f"{name:<40} {order.strip('()')}, {shown(coefficient)} each, error {error:.0%}")
    print("\ncomparisons")
    own, other = times["publicSuffix"], times["publicSuffixOfLibpsl"]
    print(f"{'topLevelDomain, of the time of libpsl':<40} {own / other:>9.2f} {1:>9}"
          f" {verdict(own / other, 1)}")
    for name, time in times.items():
        if name.startswith("inProcess/"):
            script = name.removeprefix("inProcess/")
            added = times[f"throughLibraryOneCpu/{script}"] - time
            # Two runs of a long evaluation differ by more than the added time, so there is no goal.
            judged = "" if time > 10 * SANDBOX else f" {shown(SANDBOX):>9} {verdict(added, SANDBOX)}"
            print(f"{'the sandbox adds, ' + script:<40} {shown(added):>9}{judged}")


if __name__ == "__main__":
    main(sys.argv[1:])
