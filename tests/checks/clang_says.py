#!/usr/bin/env python3
"""Fails if clang reports anything about the sources: a warning, or a fault of its thread-safety
analysis (which mutex guards what). With --tidy, it runs clang-tidy with .clang-tidy instead.

usage: clang_says.py [--tidy] BUILD TREE | --self-test TREE

It checks every C++ source of the tree that BUILD compiles, except tests and benchmarks, with the
arguments of its compile command. clang-tidy takes four times as long as the compiler. Only GCC
checks the sources of tests, because clang would need most of the time for the test framework's
headers.
"""

import concurrent.futures
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile
import threading

# clang ignores options of GCC that it does not support.
ALSO = ["-Wthread-safety", "-Wno-unknown-warning-option"]
TESTS = ("tests", "bench")


# These headers are precompiled, which saves most of the time for most sources. No header of the
# tree is in this list, so clang still reports its findings in the tree's headers. GCC checks that
# each source includes the headers that it needs.
STANDARD = ("algorithm array atomic chrono condition_variable cstdint functional map memory mutex "
            "optional stdexcept string string_view thread utility vector").split()
# Headers of libraries that take more compile time than the other headers. They are precompiled only
# for sources that include them directly.
HEAVY = ("CLI/CLI.hpp", "nlohmann/json.hpp")

# These arguments of a compile command are left out, with their values.
WITH_VALUE = {"-o", "-c", "-MF", "-MT", "-MQ"}
# These hardening options are left out, because they do not change the findings. With them, the
# macros would differ from those of a precompiled header, and clang 14 would need a second option
# for -ftrivial-auto-var-init.
HARDENING = {"-U_FORTIFY_SOURCE", "-D_FORTIFY_SOURCE=2", "-D_FORTIFY_SOURCE=3", "-D_GLIBCXX_ASSERTIONS",
             "-ftrivial-auto-var-init=zero"}
WITHOUT_VALUE = {"-MD", "-MMD", *HARDENING}


def arguments(entry):
    """The compile command without the compiler, the source and the options that write files."""
    words = shlex.split(entry["command"])
    start = next(i for i, word in enumerate(words) if word.endswith(("++", "g++-12"))) + 1
    kept, words = [], iter(words[start:])
    for word in words:
        if word in WITH_VALUE:
            next(words, None)
        elif word not in WITHOUT_VALUE:
            kept.append(word)
    return kept


class Precompiled:
    """Makes precompiled headers in `folder`: one for each combination of includes and options, when
    the first source needs it. Several threads use an object of this class."""

    def __init__(self, folder):
        self._folder = folder
        self._lock = threading.Lock()
        self._made = {}

    def options_for(self, file, options):
        """Returns the options with which clang uses the precompiled header, or no options if clang
        could not make the header."""
        text = "".join(source.read_text(encoding="utf-8", errors="replace") for source in sources_of(file))
        headers = (*STANDARD, *(header for header in HEAVY if f"#include <{header}>" in text))
        # The macros and folders of a target do not change the content of these headers.
        common = tuple(option for option in options if option == "-DNDEBUG"
                       or not option.startswith(("-D", "-I", "-isystem", "/")))
        with self._lock:
            future = self._made.get((headers, common))
            if first := future is None:
                future = self._made[headers, common] = concurrent.futures.Future()
        if first:
            future.set_result(self._make(headers, common))
        return future.result()

    def _make(self, headers, options):
        made = tempfile.NamedTemporaryFile(dir=self._folder, suffix=".pch", delete=False).name
        text = "".join(f"#include <{header}>\n" for header in headers)
        done = subprocess.run(["clang++", *options, *ALSO, "-x", "c++-header", "-", "-o", made],
                              input=text, capture_output=True, text=True, check=False)
        return ["-include-pch", made] if done.returncode == 0 else []


def compiled(file, options, folder="."):
    command = ["clang++", *options, *ALSO, "-Werror", "-fsyntax-only", str(file)]
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True, check=False)
    return done.returncode == 0, done.stderr


def tidied(file, tree, options):
    command = ["clang-tidy", "--quiet", f"--config-file={tree / '.clang-tidy'}",
               *(f"--extra-arg={option}" for option in ALSO), str(file), "--", *options]
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    return done.returncode == 0, done.stdout + done.stderr


def sources_of(file):
    """Returns the file itself, or the sources that CMake has joined in the file."""
    if not file.match("Unity/unity_*_cxx.cxx"):
        return [file]
    return [pathlib.Path(name) for name in
            re.findall(r'^#include "(.+)"$', file.read_text(encoding="utf-8"), re.MULTILINE)]


def is_shipped(source, build, tree):
    return (source.suffix == ".cpp" and source.is_relative_to(tree) and not source.is_relative_to(build)
            and source.relative_to(tree).parts[0] not in TESTS)


def shipped(build, tree, joined):
    """The compile commands of the sources that are not tests, each source once. With `joined`, files
    in which CMake has joined sources stay as they are, which saves time. Long sources come first.
    Otherwise, one processor could still check a long source when the others have finished."""
    entries = json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
    files, sources = {}, set()
    for entry in entries:
        file = pathlib.Path(entry["file"])
        new = [source for source in sources_of(file)
               if is_shipped(source, build, tree) and source not in sources]
        sources.update(new)
        files.update(dict.fromkeys([file] if joined and new else new, entry))
    assert files, "nothing to judge: is this the build folder?"
    size = {file: sum(source.stat().st_size for source in sources_of(file)) for file in files}
    return sorted(files.items(), key=lambda one: -size[one[0]]), len(sources)


def judge_tree(build, tree, tidy):
    def judged(one):
        file, entry = one
        options = arguments(entry)
        if tidy:
            return tidied(file, tree, options)
        return compiled(file, precompiled.options_for(file, options) + options, entry["directory"])

    files, count = shipped(build, tree, joined=not tidy)
    with (tempfile.TemporaryDirectory() as folder,
          concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool):
        precompiled = Precompiled(folder)
        failures = [said for passed, said in pool.map(judged, files) if not passed]
    if failures:
        sys.exit("\n".join(failures))
    print(f"{'clang-tidy' if tidy else 'clang'} has nothing to say about {count} sources")


EXAMPLE = """
#include <string>
#include <utility>
#include "base/mutex.h"
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
    options = ["-std=c++20", "-Wall", f"-I{tree}"]
    holds = "Lock lock(mMutex);"
    with tempfile.TemporaryDirectory() as folder:
        file = pathlib.Path(folder) / "example.cpp"

        def write(held, used):
            file.write_text(EXAMPLE.replace("HELD", held).replace("USED", used), encoding="utf-8")

        write(holds, "")
        for passed, said in (compiled(file, options), tidied(file, tree, options)):
            assert passed, said
        for held, used, words in (("", "", "requires holding mutex 'mMutex'"),
                                  (holds, "int unused = 1;", "-Wunused-variable")):
            write(held, used)
            passed, said = compiled(file, options)
            assert not passed and words in said, said
        write(holds, "text += 'b';")
        passed, said = tidied(file, tree, options)
        assert not passed and "bugprone-use-after-move" in said, said


def main():
    if sys.argv[1] == "--self-test":
        self_test(pathlib.Path(sys.argv[2]).resolve())
    else:
        tidy = "--tidy" in sys.argv
        build, tree = (pathlib.Path(path).resolve() for path in sys.argv[1:] if path != "--tidy")
        judge_tree(build, tree, tidy)


main()
