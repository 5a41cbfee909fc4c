#!/usr/bin/env python3
"""Compares the results of the helpers of PAC scripts (value, type, exception) with those of a
browser.

usage: compare.py --build=BUILD [--seed=N] [--calls=N] [--scripts=N] [--record=FILE]
       compare.py --build=BUILD --replay=FILE

The program makes random calls and whole scripts (calls.py, scripts.py). Chromium and this tree's engine
answer them, in three zones. The program prints each difference and the share of equal answers. It fails if
there is a difference that is not intended. For the first calls in each zone, it also prints how often
Firefox ESR agrees with Chromium. --record writes the calls and answers to a file. --replay compares this
file with the engine, without a browser.
"""

import argparse
import collections
import json
import os
import re
import subprocess
import sys
import tempfile

_HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, _HERE)

import engines  # noqa: E402
from calls import ZONES, Call, Calls  # noqa: E402
from scripts import Scripts  # noqa: E402

CALLS_A_RUN = 5000
SCRIPTS_A_RUN = 250
MOST_SHOWN = 20
FIREFOX_CALLS = 2000  # the number of calls that Firefox answers in the first run of each zone
# The intended differences, which docs/pac-language.md lists.
KEPT = (
    ("isPlainHostName of an IPv6 literal in brackets", re.compile(r"isPlainHostName\('\[[0-9a-f:.]+\]'")),
    ("a name without an ASCII form is only unresolved",
     re.compile(r"(dnsResolveEx|isResolvableEx)\('[^']*\\u(2028|0661)")),
)


class Sheet:
    """Calls and a browser's answers in one zone."""

    def __init__(self, zone, functions, calls, answers):
        self.zone, self.functions, self.calls, self.answers = zone, functions, calls, answers

    def as_json(self):
        return {"zone": self.zone, "scripts": self.functions,
                "calls": [[c.seconds, c.expression, a] for c, a in zip(self.calls, self.answers)]}

    @staticmethod
    def from_json(read):
        return Sheet(read["zone"], read["scripts"], [Call(e, s) for s, e, _ in read["calls"]],
                     [answer for _, _, answer in read["calls"]])


class Tally:
    def __init__(self):
        self.asked = collections.Counter()
        self.differ = collections.Counter()
        self.kept = collections.Counter()
        self.firefox_asked = collections.Counter()
        self.firefox_agrees = collections.Counter()

    def compare(self, build, sheet):
        with tempfile.TemporaryDirectory() as folder:
            ours = engines.of_ours(build, sheet.functions, sheet.calls, sheet.zone, folder)
        for call, theirs, our in zip(sheet.calls, sheet.answers, ours, strict=True):
            name = re.split(r"[(\[]", call.expression)[0]
            self.asked[name] += 1
            if theirs == our:
                continue
            reason = next((why for why, known in KEPT if known.match(call.expression)), None)
            if reason:
                self.kept[reason] += 1
                continue
            self.differ[name] += 1
            if self.differ[name] <= MOST_SHOWN:
                print(f"{call.expression}\n  at {call.seconds} in {sheet.zone}: {theirs}, here {our}")
                if sheet.functions:
                    print(sheet.functions[int(re.search(r"\d+", call.expression)[0])])

    def compare_firefox(self, sheet):
        calls, answers = sheet.calls[:FIREFOX_CALLS], sheet.answers[:FIREFOX_CALLS]
        for call, theirs, other in zip(calls, answers, engines.of_firefox(calls, sheet.zone)):
            name = re.split(r"[(\[]", call.expression)[0]
            self.firefox_asked[name] += 1
            self.firefox_agrees[name] += theirs == other

    def print_firefox(self):
        print(f"beside Chromium, {engines.firefox.version()}:")
        for name, count in sorted(self.firefox_asked.items()):
            print(f"{name:20} {count:7} calls, {100 * self.firefox_agrees[name] / count:5.1f} % agree")
        total = sum(self.firefox_asked.values())
        print(f"{total} calls, {100 * sum(self.firefox_agrees.values()) / total:.1f} % agree")

    def print(self):
        for name, count in sorted(self.asked.items()):
            print(f"{name:20} {count:7} calls, {self.differ[name]} differ")
        total, differ = sum(self.asked.values()), sum(self.differ.values())
        for why, count in self.kept.items():
            print(f"kept on purpose: {count} calls, {why}")
        print(f"{total} calls, {differ} differ: {100 * (total - differ) / total:.3f} % agree")
        return differ == 0


def _drawn(seed, zone, calls, scripts):
    if calls:
        source = Calls(seed, zone)
        yield [], [source.draw() for _ in range(calls)]
    if scripts:
        yield Scripts(seed, zone).draw(scripts)


def _sheets(options):
    """Runs the browser for one zone and seed after the other, until there are as many calls as requested."""
    calls, scripts, seed = options.calls, options.scripts, options.seed
    while calls > 0 or scripts > 0:
        for zone in ZONES:
            some = min(calls, CALLS_A_RUN), min(scripts, SCRIPTS_A_RUN)
            calls, scripts = calls - some[0], scripts - some[1]
            for functions, drawn in _drawn(seed, zone, *some):
                yield Sheet(zone, functions, drawn, engines.of_chromium(functions, drawn, zone))
        seed += 1


def _alone():
    """Enters a network namespace that has only the loopback interface, because the browser would look for
    other interfaces."""
    if os.environ.get("COMPARE_ALONE") != "1":
        os.environ["COMPARE_ALONE"] = "1"
        os.execvp("unshare", ["unshare", "--net", sys.executable, *sys.argv])
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)


def _record(path, sheets):
    """Writes one call on each line, so that a later recording shows which answers of a newer browser
    differ."""
    with open(path, "w", encoding="utf-8") as file:
        file.write(f'{{"browser": {json.dumps(engines.chromium.version())},\n"sheets": [\n')
        for number, sheet in enumerate(sheets):
            lists = (",\n".join(map(json.dumps, sheet[name])) for name in ("scripts", "calls"))
            file.write('{{"zone": {},\n"scripts": [\n{}],\n"calls": [\n{}]}}{}\n'.format(
                json.dumps(sheet["zone"]), *lists, "," if number + 1 < len(sheets) else ""))
        file.write("]}\n")


def main():
    options = argparse.ArgumentParser(usage=__doc__.split("\n\n")[1].removeprefix("usage: "))
    options.add_argument("--build", required=True)
    options.add_argument("--seed", type=int, default=1)
    options.add_argument("--calls", type=int, default=100000)
    options.add_argument("--scripts", type=int, default=5000)
    options.add_argument("--record")
    options.add_argument("--replay")
    options = options.parse_args()
    tally = Tally()
    if options.replay:
        with open(options.replay, encoding="utf-8") as file:
            recorded = json.load(file)
        print(f"recorded with {recorded['browser']}")
        for sheet in recorded["sheets"]:
            tally.compare(options.build, Sheet.from_json(sheet))
        return 0 if tally.print() else 1
    _alone()
    print(engines.chromium.version())
    recorded, zones = [], set()
    for sheet in _sheets(options):
        tally.compare(options.build, sheet)
        recorded.append(sheet.as_json())
        if not sheet.functions and sheet.zone not in zones:
            zones.add(sheet.zone)
            tally.compare_firefox(sheet)
    if options.record:
        _record(options.record, recorded)
    if zones:
        tally.print_firefox()
    return 0 if tally.print() else 1


if __name__ == "__main__":
    sys.exit(main())
