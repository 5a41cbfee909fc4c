#!/usr/bin/env python3
"""Fails where clang has something to say about the sources: its warnings, its analysis of which
mutex guards what, and what .clang-tidy asks.

usage: clang_says.py BUILD TREE | --self-test TREE

Runs clang-tidy, which compiles, over every C++ source of the tree that BUILD compiles, with the
arguments it is compiled with. What only tests is left to GCC: most of the time would go into the
test framework's headers.
"""

import concurrent.futures
import json
import os
import pathlib
import subprocess
import sys
import tempfile

# GCC's options that clang does not know are none of its business.
ALSO = ["-Wthread-safety", "-Wno-unknown-warning-option"]
TESTS = ("tests", "bench")


def judged(file, tree, options):
    command = ["clang-tidy", "--quiet", f"--config-file={tree / '.clang-tidy'}",
               *(f"--extra-arg={option}" for option in ALSO), str(file), *options]
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    return done.returncode == 0, done.stdout + done.stderr


def judge_tree(build, tree):
    entries = json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
    files = {pathlib.Path(entry["file"]) for entry in entries if entry["file"].endswith(".cpp")}
    files = [file for file in files if file.is_relative_to(tree) and not file.is_relative_to(build)
             and file.relative_to(tree).parts[0] not in TESTS]
    assert files, "nothing to judge: is this the build folder?"
    # Long ones first, so that no processor is left with one at the end.
    files.sort(key=lambda file: -file.stat().st_size)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        verdicts = pool.map(lambda file: judged(file, tree, ["-p", str(build)]), files)
        failures = [said for passed, said in verdicts if not passed]
    if failures:
        sys.exit("\n".join(failures))
    print(f"clang has nothing to say about {len(files)} sources")


EXAMPLE = """
#include <string>
#include <utility>
#include "platform/process/annotations.h"
class Counter {
 public:
  int next() { HELD return ++mCount; }
 private:
  Mutex mMutex;
  int mCount PM_GUARDED_BY(mMutex) = 0;
};
int main() {
  std::string text = "a";
  const std::string taken = std::move(text);
  USED
  return Counter().next() + static_cast<int>(taken.size());
}
"""


def self_test(tree):
    options = ["--", "-std=c++20", "-Wall", f"-I{tree}"]
    holds = "Lock lock(mMutex);"
    faults = {("", ""): "requires holding mutex 'mMutex'",
              (holds, "text += 'b';"): "bugprone-use-after-move",
              (holds, "int unused = 1;"): "clang-diagnostic-unused-variable"}
    with tempfile.TemporaryDirectory() as folder:
        file = pathlib.Path(folder) / "example.cpp"

        def said_of(held, used):
            file.write_text(EXAMPLE.replace("HELD", held).replace("USED", used), encoding="utf-8")
            return judged(file, tree, options)

        passed, said = said_of(holds, "")
        assert passed, said
        for fault, words in faults.items():
            passed, said = said_of(*fault)
            assert not passed and words in said, said


def main():
    if sys.argv[1] == "--self-test":
        self_test(pathlib.Path(sys.argv[2]).resolve())
    else:
        judge_tree(pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve())


main()
