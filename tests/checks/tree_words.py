#!/usr/bin/env python3
"""Fails if a tracked file contains a word that must not be in the tree.

usage: tree_words.py TREE | --self-test

A reader of this tree has only the tree. So a rule is written where it applies, and there is no
reference to a paper that the reader does not have. Nothing in the tree depends on the machine on
which it was written, or on the name of a package host: packages come through the machine's own
configuration.

The patterns are composed of pieces, so that this file does not contain the words that it looks
for.
"""

import pathlib
import re
import subprocess
import sys
import tempfile

SPEC = "spec"
PATTERNS = {
    "a paper that readers do not have": re.compile(
        rf"\b({SPEC}ifications?|(the|our|per) {SPEC})\b"
        r"|\bPar" r"ts? [1-5]\.[1-3]\b"
        rf"|shared/{SPEC}|{SPEC}\.md|seed" r" document",
        re.IGNORECASE,
    ),
    "a path of one machine": re.compile(r"(^|[^A-Za-z0-9_.])/(wor" r"k|far" r"m)/"),
    "a package host": re.compile(r"//(?!www\.)[A-Za-z0-9.-]*(deb" r"ian|npm" r"js)\.[a-z]+"),
}
# Files with these suffixes are lists that other people wrote.
LEFT_OUT = {".dat"}


def tracked(tree):
    """Returns the files that git tracks or would add. If this is not a git tree, returns all
    files."""
    command = ["git", "-C", str(tree), "-c", "safe.directory=*"]
    command += ["ls-files", "-z", "--cached", "--others", "--exclude-standard"]
    try:
        listed = subprocess.run(command, check=True, capture_output=True).stdout
        return [tree / name for name in listed.decode().split("\0") if name]
    except (OSError, subprocess.CalledProcessError):
        return [file for file in tree.rglob("*") if "build" not in file.parts[len(tree.parts)]]


def findings(tree):
    found, looked = [], 0
    for file in sorted(tracked(tree)):
        if not file.is_file() or file.is_symlink() or file.suffix in LEFT_OUT:
            continue
        data = file.read_bytes()
        if b"\0" in data:
            continue
        looked += 1
        for number, line in enumerate(data.decode(errors="replace").splitlines(), 1):
            for what, pattern in PATTERNS.items():
                if pattern.search(line):
                    found.append(f"{file.relative_to(tree)}:{number}: {what}: {line.strip()}")
    return found, looked


def self_test():
    good = ["special", "specify", "part 6.1", "Parts 1.4", "homework/", "a/work" + "/b", "the spectrum"]
    bad = [
        "The " + SPEC + "ification says", "see the " + SPEC, "Part" + " 1.1", "Par" + "ts 3.2",
        "shared/" + SPEC, SPEC + ".md", "/wor" + "k/main", "a /far" + "m/x",
        "http://deb.deb" + "ian.org", "https://registry.npm" + "js.org",
    ]  # fmt: skip
    with tempfile.TemporaryDirectory() as folder:
        tree = pathlib.Path(folder)
        (tree / "good.txt").write_text("\n".join(good), encoding="utf-8")
        found, _ = findings(tree)
        assert found == [], found
        (tree / "bad.txt").write_text("\n".join(bad), encoding="utf-8")
        found, _ = findings(tree)
        lines = {line.split(":")[1] for line in found}
        missed = [text for number, text in enumerate(bad, 1) if str(number) not in lines]
        assert missed == [], f"not found: {missed}"


def main():
    if sys.argv[1:] == ["--self-test"]:
        self_test()
        return
    found, looked = findings(pathlib.Path(sys.argv[1]).resolve())
    assert looked > 0, "no file found: is this the tree?"
    if found:
        sys.exit("\n".join(found))
    print(f"{looked} files say nothing of the kind")


main()
