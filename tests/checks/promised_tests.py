#!/usr/bin/env python3
"""Fails if docs/promises.md names a test that does not exist.

usage: promised_tests.py TREE | --self-test

The document has tables of two kinds. If the last column is headed "held by", the last cell of each
row names at least one test in backticks: `FILE: SUITE.TEST`, `FILE: test_function`, or, for a test
that CMake registers, `FOLDER/CMakeLists.txt: NAME`. If the last column is headed "reason", the last
cell gives the reason why there is no test.

The check cannot judge whether the test proves the promise.
"""

import pathlib
import re
import sys
import tempfile

DOCUMENT = "docs/promises.md"
NAMED = re.compile(r"`([^`: ]+): ([^` ]+)`")
RULER = re.compile(r"[\s|:-]+")


def registered(path):
    """The tests of a file, by the names that the document has for them."""
    text = path.read_text(encoding="utf-8")
    if path.suffix == ".cpp":
        found = re.findall(r"^TEST(?:_F|_P)?\((\w+),\s*(\w+)\)", text, re.MULTILINE)
        return {f"{suite}.{name}" for suite, name in found}
    if path.suffix == ".py":
        return set(re.findall(r"^def (test_\w+)\(", text, re.MULTILINE))
    if path.name == "CMakeLists.txt":
        return set(re.findall(r"^\s*(?:proxymanager_check\(|add_test\(NAME )([\w.]+)", text,
                              re.MULTILINE))
    return set()


def rows(text):
    """(line number, heading of the table's last column, cells of the row) for each row."""
    heading, before = "", None
    for number, line in enumerate(text.splitlines(), 1):
        if not line.startswith("|"):
            before = None
            continue
        cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
        if RULER.fullmatch(line):
            heading = before[-1]
        elif before is not None:
            yield number, heading, cells
        before = cells


def findings(tree):
    """The findings, and the number of tests that were looked for."""
    found, looked, known = [], 0, {}

    def wrong(number, what):
        found.append(f"{DOCUMENT}:{number}: {what}")

    for number, heading, cells in rows((tree / DOCUMENT).read_text(encoding="utf-8")):
        names = NAMED.findall(cells[-1])
        if heading == "reason":
            if not cells[-1]:
                wrong(number, "no reason")
            continue
        if heading != "held by":
            wrong(number, f'a table headed "{heading}"')
        elif not names or NAMED.sub("", cells[-1]).replace(",", "").strip():
            wrong(number, f"not a list of tests: {cells[-1]}")
        for file, name in names:
            looked += 1
            if file not in known:
                path = tree / file
                known[file] = registered(path) if path.is_file() else None
            if known[file] is None:
                wrong(number, f"no file {file}")
            elif name not in known[file]:
                wrong(number, f"no test {name} in {file}")
    return found, looked


FILES = {
    "tests/a_test.cpp": """
TEST(Plain, Test) {}
TEST_F(Fixture,
       OnTwoLines) {
TEST_P(Values, Each) {
// TEST(Plain, CommentedOut) {}
""",
    "tests/test_b.py": """
def test_one(daemon):
# def test_commented_out():
class Other:
    def test_of_a_class(self):
""",
    "tests/CMakeLists.txt": """
proxymanager_check(Check
add_test(NAME packaging.Built
# add_test(NAME packaging.CommentedOut
""",
}
GOOD = [
    "| a | `tests/a_test.cpp: Plain.Test`, `tests/a_test.cpp: Fixture.OnTwoLines` |",
    "| b | `tests/a_test.cpp: Values.Each` |",
    "| c | `tests/test_b.py: test_one`, `tests/CMakeLists.txt: Check` |",
    "| d | `tests/CMakeLists.txt: packaging.Built` |",
]
BAD = [
    "| a | `tests/a_test.cpp: Plain.Renamed` |",
    "| b | `tests/a_test.cpp: Fixture.Test` |",
    "| c | `tests/a_test.cpp: Plain.CommentedOut` |",
    "| d | `tests/none_test.cpp: Plain.Test` |",
    "| e | `tests/test_b.py: test_on` |",
    "| f | `tests/test_b.py: test_commented_out` |",
    "| g | `tests/test_b.py: test_of_a_class` |",
    "| h | `tests/CMakeLists.txt: packaging.CommentedOut` |",
    "| i | `tests/CMakeLists.txt: Chec` |",
    "| j | |",
    "| k | some test, `tests/a_test.cpp: Plain.Test` |",
    "| l | `tests/a_test.cpp: Plain.Test`, `tests/a_test.cpp: Plain.Renamed` |",
]


def document(held, unheld=("| x | no machine has one |",)):
    return "\n".join(["# Promises", "", "| promise | held by |", "|---|---|", *held, "",
                      "## None", "", "| promise | reason |", "|---|---|", *unheld, ""])


def self_test():
    with tempfile.TemporaryDirectory() as folder:
        tree = pathlib.Path(folder)
        for name, text in {**FILES, DOCUMENT: ""}.items():
            (tree / name).parent.mkdir(exist_ok=True)
            (tree / name).write_text(text, encoding="utf-8")

        def expect(count, looked, text):
            (tree / DOCUMENT).write_text(text, encoding="utf-8")
            result = findings(tree)
            assert (len(result[0]), result[1]) == (count, looked), result

        expect(0, 6, document(GOOD))
        for row in BAD:
            expect(1, row.count("`") // 2 + 6, document([*GOOD, row]))
        expect(1, 6, document(GOOD, ["| x | |"]))
        expect(4, 6, document(GOOD).replace("| promise | held by |", "| promise | tests |"))
        expect(0, 0, "no table")


def main():
    if sys.argv[1:] == ["--self-test"]:
        self_test()
        return
    found, looked = findings(pathlib.Path(sys.argv[1]))
    assert looked > 0, f"{DOCUMENT} names no test"
    if found:
        sys.exit("\n".join(found))
    print(f"{looked} named tests exist")


main()
