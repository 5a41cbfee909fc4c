#!/usr/bin/env python3
"""Fails if the format of a C++ or C file of the tree is not that of .clang-format.

usage: formatted.py TREE | --self-test TREE

The version of clang-format is fixed, because other versions break lines at other places.
"""

import pathlib
import subprocess
import sys
import tempfile

PROGRAM = "clang-format-14"
PATTERNS = ("*.cpp", "*.hpp", "*.h", "*.c")


def sources(tree):
    """Returns the files that git tracks or would add. If this is not a git tree, returns all
    files."""
    command = ["git", "-C", str(tree), "-c", "safe.directory=*", "ls-files", "-z", "--cached",
               "--others", "--exclude-standard", "--", *PATTERNS]
    listed = subprocess.run(command, check=False, capture_output=True)
    if listed.returncode == 0:
        found = [tree / name for name in listed.stdout.decode().split("\0") if name]
    else:
        found = [file for pattern in PATTERNS for file in tree.rglob(pattern)
                 if "build" not in file.relative_to(tree).parts]
    return [file for file in found if file.is_file()]


def unformatted(files, style):
    """The findings of clang-format, one line for each place."""
    command = [PROGRAM, f"--style=file:{style}", "--dry-run", "--Werror", *map(str, files)]
    result = subprocess.run(command, check=False, capture_output=True, text=True)
    lines = [line for line in result.stderr.splitlines() if ": error: " in line]
    assert lines or result.returncode == 0, result.stderr
    return lines


def self_test(style):
    with tempfile.TemporaryDirectory() as folder:
        tree = pathlib.Path(folder)
        (tree / "good.h").write_text("int* pointer;\n", encoding="utf-8")
        assert unformatted(sources(tree), style) == []
        (tree / "bad.cpp").write_text("int *pointer;\n", encoding="utf-8")
        found = unformatted(sources(tree), style)
        assert found and all("bad.cpp:1:" in line for line in found), found


def main():
    tree = pathlib.Path(sys.argv[-1]).resolve()
    style = tree / ".clang-format"
    if sys.argv[1] == "--self-test":
        self_test(style)
        return
    files = sources(tree)
    assert files, "no file found: is this the tree?"
    found = unformatted(files, style)
    if found:
        sys.exit("\n".join(found) + f"\nrun {PROGRAM} -i on these files")
    print(f"{len(files)} files are formatted")


main()
