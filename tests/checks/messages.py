#!/usr/bin/env python3
"""Prints the messages of the log with their tests, and fails if a message has no test or no
source.

usage: messages.py TREE | --table TREE | --self-test

A message is the format of a call of logLine() in the shipped sources. The source contains the
message literally, in one piece, so that `git grep -F` finds a line of a journal.

Fails if
- a message begins with "%s", because then its first words are in no source;
- no test has a text with the words of a message, and docs/testing.md does not list the message as
  not asserted;
- docs/troubleshooting.md explains a message whose words are in no line of a shipped source.

--table prints each message with its level and the tests that contain its words.
"""

import pathlib
import re
import subprocess
import sys
import tempfile

TROUBLESHOOTING = "docs/troubleshooting.md"
TESTING = "docs/testing.md"
NOT_ASSERTED = "Not asserted at all:"
NOT_SHIPPED = ("tests/", "bench/", "docs/")
SUFFIXES = (".cpp", ".h", ".hpp", ".c")

TEXT = r'"(?:[^"\\]|\\.)*"'
CALL = re.compile(rf"\blogLine\(\s*LOG_(\w+)\s*,\s*({TEXT}(?:\s*{TEXT})*)")
BETWEEN_TEXTS = re.compile(r'"\s*r?"')  # in Python, the next literal may be a raw string
CONVERSION = re.compile(r"%[-+ #0]*(?:\d+|\*)?(?:\.(?:\d+|\*))?(?:hh|h|ll|l|z|j|t)?[diouxXcsp]")
# The variable parts of a message in a document: words in capitals, and numbers.
VARIES = re.compile(r"\b[A-Z]+\b|\d+")
MESSAGE = re.compile(r"`([^`]+)`")


def tracked(tree):
    command = ["git", "-C", str(tree), "-c", "safe.directory=*", "ls-files", "-z", "--cached",
               "--others", "--exclude-standard"]
    listed = subprocess.run(command, check=False, capture_output=True)
    if listed.returncode == 0:
        names = [name for name in listed.stdout.decode().split("\0") if name]
    else:
        names = [str(file.relative_to(tree)) for file in tree.rglob("*")]
    return sorted(name for name in names if (tree / name).is_file())


def read(tree, name):
    return (tree / name).read_text(encoding="utf-8", errors="replace")


def shipped_sources(tree):
    return {name: read(tree, name) for name in tracked(tree)
            if name.endswith(SUFFIXES) and not name.startswith(NOT_SHIPPED)}


def calls(sources):
    """(file, level, message) of each call, in the order of the files."""
    for name, text in sources.items():
        for level, texts in CALL.findall(text):
            yield name, level, BETWEEN_TEXTS.sub("", texts)[1:-1]


def words(message):
    """The constant pieces of the message, without the characters that syslog removes at its
    end."""
    pieces = [piece.replace("%%", "%") for piece in CONVERSION.split(message)]
    return [piece.removesuffix("\\n") for piece in pieces]


def pattern(message):
    """A pattern that a test matches if it asserts the message: the words of the message up to the
    end of the first long piece."""
    found = ""
    for piece in words(message):
        found += ("[^\\n]*?" if found else "") + re.escape(piece)
        # After the first piece of 12 characters or more, the rest is not compared: a test may omit
        # it. Before the end of that piece, any text may replace a conversion such as %s.
        if len(piece.strip()) >= 12:
            break
    return re.compile(found)


def tests(tree):
    """The texts of each test; adjacent texts are joined."""
    return {name: BETWEEN_TEXTS.sub("", read(tree, name)) for name in tracked(tree)
            if name.startswith("tests/") and name.endswith((".cpp", ".h", ".py"))
            and not name.startswith("tests/checks/")}


def asserting(message, texts):
    looked_for = pattern(message)
    # A test may also contain only the part of a constant message up to its last colon, and compose
    # the rest.
    beginning = message[:message.rfind(":") + 1] if "%" not in message else ""
    # A test may also take the first word of its lines (class and function) from a variable of an
    # f-string.
    end = words(message)[0].partition(" ")[2]
    return [name for name, text in texts.items()
            if looked_for.search(text) or (len(beginning) >= 12 and beginning + '"' in text)
            or (len(end) >= 16 and f"}} {end}" in text)]


def first_cells(text):
    for line in text.splitlines():
        if line.startswith("| `"):
            yield line.split(" | ")[0]


def unasserted_by_intention(tree):
    text = read(tree, TESTING)
    if NOT_ASSERTED not in text:
        return []
    section = text[text.index(NOT_ASSERTED):].split("\n\n", 2)[1]
    return [message for cell in first_cells(section) for message in MESSAGE.findall(cell)]


def explained(tree):
    return [message for cell in first_cells(read(tree, TROUBLESHOOTING))
            for message in MESSAGE.findall(cell)]


def stands_in(message, sources):
    """Whether one line of a source contains the constant words of a document's message, in
    order."""
    pieces = [re.escape(piece.strip()) for piece in VARIES.split(message) if piece.strip(" .()")]
    line = re.compile(".*".join(pieces))
    return any(line.search(text) for text in sources.values())


def findings(tree):
    sources, texts = shipped_sources(tree), tests(tree)
    intended = unasserted_by_intention(tree)
    messages = list(calls(sources))
    if not messages:
        yield "no call of logLine found: is this the tree?"
    for name, _, message in messages:
        if message.startswith("%s"):
            yield f"{name}: the first words of \"{message}\" are in no source"
        elif not asserting(message, texts):
            if not any(stands_in(shown, {name: message}) for shown in intended):
                yield f"{name}: no test has the words of \"{message}\""
    for message in explained(tree):
        if not stands_in(message, sources):
            yield f"{TROUBLESHOOTING}: in no source: {message}"


def table(tree):
    texts = tests(tree)
    rows = sorted({(name, message, level) for name, level, message in calls(shipped_sources(tree))
                   if not message.startswith("%s")})
    last = None
    for name, message, level in rows:
        if name != last:
            print(f"\n{name}\n")
        last = name
        held = [test.removeprefix("tests/") for test in asserting(message, texts)]
        print(f"  {level:8}{message}\n          {', '.join(held) or '-'}")


SOURCE = """
  logLine(LOG_ERR, "Fetcher-get failed url:%s, code:%d", url, code);
  logLine(LOG_INFO,
          "Fetcher-get called "
          "here");
  logLine(LOG_ERR, "Fetcher-get no memory");
"""
TEST = 'EXPECT_EQ(line, "Fetcher-get failed url:" + url);\nexpect("Fetcher-get "\n  "called here");\n'
DOCUMENT = "| message | cause |\n|---|---|\n| `Fetcher-get failed url:URL, code:N` | x `no: such` |\n"
LISTED = f"{NOT_ASSERTED}\n\n| message | reason |\n|---|---|\n| `Fetcher-get no memory` | y |\n\n"
BAD = [
    ("a/a.cpp", SOURCE + 'logLine(LOG_ERR, "%s%s failed", a, b);', "first words"),
    ("a/a.cpp", SOURCE + 'logLine(LOG_ERR, "Fetcher-put failed");', "no test has"),
    ("tests/a_test.cpp", "", "no test has"),
    (TROUBLESHOOTING, DOCUMENT + "| `Fetcher-get failed host:HOST` | z |\n", "in no source"),
]


def self_test():
    for change in [None, *BAD]:
        with tempfile.TemporaryDirectory() as folder:
            tree = pathlib.Path(folder)
            files = {"a/a.cpp": SOURCE, "tests/a_test.cpp": TEST, TROUBLESHOOTING: DOCUMENT,
                     TESTING: LISTED}
            if change:
                files[change[0]] = change[1]
            for name, text in files.items():
                (tree / name).parent.mkdir(parents=True, exist_ok=True)
                (tree / name).write_text(text, encoding="utf-8")
            found = list(findings(tree))
            assert bool(found) == bool(change), found
            assert not change or all(change[2] in line for line in found), found


def main():
    if sys.argv[1:] == ["--self-test"]:
        self_test()
        return
    tree = pathlib.Path(sys.argv[-1]).resolve()
    if sys.argv[1] == "--table":
        table(tree)
        return
    found = list(findings(tree))
    if found:
        sys.exit("\n".join(found))


main()
