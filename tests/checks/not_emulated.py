#!/usr/bin/env python3
"""Fails if a row of tests/not_emulated.txt names no test.

usage: not_emulated.py CTEST BUILD TREE | --self-test

Each row has a pattern of the names of tests, a tab, and the reason why an emulator cannot run them.
The pattern must match a unit test of the build folder BUILD. A pattern must not have alternatives
("|"), because the check would not see that one of them matches nothing.
"""

import pathlib
import re
import subprocess
import sys

DOCUMENT = "tests/not_emulated.txt"


def findings(text, names):
    """The findings, and the number of rows."""
    found, rows = [], 0
    for number, line in enumerate(text.splitlines(), 1):
        if line.startswith("#"):
            continue
        rows += 1
        pattern, _, reason = line.partition("\t")
        if not pattern or not reason:
            found.append(f"{DOCUMENT}:{number}: not a pattern, a tab and a reason")
        elif "|" in pattern:
            found.append(f"{DOCUMENT}:{number}: alternatives need a row each")
        elif not any(re.search(pattern, name) for name in names):
            found.append(f"{DOCUMENT}:{number}: no test matches {pattern}")
    return found, rows


def unit_tests(ctest, build):
    listed = subprocess.run([ctest, "--test-dir", build, "-N"], check=True, capture_output=True,
                            text=True).stdout
    return re.findall(r"^ *Test *#\d+: (\S+)", listed, re.MULTILINE)


def self_test():
    names = ["a_test.Suite.Name", "a_test.Suite.Other", "b_test.Values/Each.Name/0"]
    good = "# words\na_test\\.Suite\\.Name$\twhy\na_test\\..*Other\twhy\nValues/.*\\.Name\twhy\n"
    assert findings(good, names) == ([], 3), findings(good, names)
    for row in ("a_test\\.Suite\\.Renamed\twhy", "Name|Other\twhy", "a_test\\.Suite\\.Name why",
                "a_test\\.Suite\\.Name\t", "\twhy", ""):
        found, rows = findings(good + row + "\n", names)
        assert len(found) == 1 and f":{good.count(chr(10)) + 1}:" in found[0], (row, found)
        assert rows == 4, row


def main():
    if sys.argv[1:] == ["--self-test"]:
        self_test()
        return
    ctest, build, tree = sys.argv[1:]
    names = unit_tests(ctest, build)
    assert names, f"{build} has no tests"
    found, rows = findings((pathlib.Path(tree) / DOCUMENT).read_text(encoding="utf-8"), names)
    if found:
        sys.exit("\n".join(found))
    print(f"{rows} patterns name tests")


main()
