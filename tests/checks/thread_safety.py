#!/usr/bin/env python3
"""Fails where clang's analysis sees a guarded member used without its mutex.

usage: thread_safety.py BUILD TREE | --self-test TREE

Runs clang over every C++ source of the tree that BUILD compiles (tests too), with the arguments it
is compiled with. Only this one warning counts: GCC and the build have the others.
"""

import concurrent.futures
import json
import os
import pathlib
import shlex
import shutil
import subprocess
import sys
import tempfile

CLANG = shutil.which("clang++") or "clang++"
ONLY_THIS = ["-Wno-everything", "-Wthread-safety", "-Werror=thread-safety", "-fsyntax-only"]
# Of a compile command these, and their value, are left out.
WITH_VALUE = {"-o", "-c", "-MF", "-MT", "-MQ"}
WITHOUT_VALUE = {"-MD", "-MMD"}


def arguments(entry):
    """The compile command without the compiler, the source and what writes files."""
    kept, words = [], iter(shlex.split(entry["command"])[1:])
    for word in words:
        if word in WITH_VALUE:
            next(words, None)
        elif word not in WITHOUT_VALUE:
            kept.append(word)
    return kept


def analysed(file, options, folder="."):
    command = [CLANG, *options, *ONLY_THIS, str(file)]
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True, check=False)
    return done.returncode == 0, done.stderr


def analyse_tree(build, tree):
    entries = json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
    entries = [
        entry
        for entry in entries
        if pathlib.Path(entry["file"]).is_relative_to(tree) and entry["file"].endswith(".cpp")
    ]
    assert entries, "nothing to analyse: is this the build folder?"

    def one(entry):
        return analysed(entry["file"], arguments(entry), entry["directory"])

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        failures = [said for passed, said in pool.map(one, entries) if not passed]
    if failures:
        sys.exit("\n".join(failures))
    print(f"{len(entries)} sources hold the mutexes that they promise to hold")


EXAMPLE = """
#include "platform/process/annotations.h"
class Counter {
 public:
  int next() { HELD return ++mCount; }
 private:
  Mutex mMutex;
  int mCount PM_GUARDED_BY(mMutex) = 0;
};
int main() { return Counter().next(); }
"""


def self_test(tree):
    options = ["-std=c++20", f"-I{tree}"]
    with tempfile.TemporaryDirectory() as folder:
        file = pathlib.Path(folder) / "example.cpp"
        file.write_text(EXAMPLE.replace("HELD", "Lock lock(mMutex);"), encoding="utf-8")
        passed, said = analysed(file, options)
        assert passed, said
        file.write_text(EXAMPLE.replace("HELD", ""), encoding="utf-8")
        passed, said = analysed(file, options)
        assert not passed and "requires holding mutex 'mMutex'" in said, said


def main():
    if sys.argv[1] == "--self-test":
        self_test(pathlib.Path(sys.argv[2]).resolve())
    else:
        analyse_tree(pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve())


main()
