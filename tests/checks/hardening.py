#!/usr/bin/env python3
"""Fails if an installed program or library has been built without one of the hardenings.

usage: hardening.py CMAKE BUILD | --self-test COMPILER

- Each ELF file that the build installs is position independent, has no segment that is both
  writable and executable, resolves its symbols at its start, and protects its relocations and its
  stack.
- Some hardenings cannot be seen in the file. For these, the check reads the compile commands of
  all sources except tests and benchmarks. Control-flow protection is one of them: the linker marks
  the file as protected only if the start files of the C library have this mark, too.
"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

# The options that compile commands must have. CONTROL_FLOW depends on the processor;
# COMPILED_WITH_CXX is only for C++, and WORKER_COMPILED_WITH only for WORKER_SOURCES.
CONTROL_FLOW = {"x86_64": "-fcf-protection=full", "aarch64": "-mbranch-protection=standard"}
COMPILED_WITH = ["-D_FORTIFY_SOURCE=3", "-fstack-protector-strong", "-fstack-clash-protection"]
COMPILED_WITH_CXX = ["-D_GLIBCXX_ASSERTIONS"]
WORKER_COMPILED_WITH = ["-ftrivial-auto-var-init=zero"]
WORKER_SOURCES = re.compile(r"/engine/worker/|/(quickjs|libregexp|libunicode|dtoa)\.c$")
# Tools of the build, tests and benchmarks are not installed.
NOT_SHIPPED = re.compile(r"^(tests|bench)/")


def readelf(option, path):
    return subprocess.run(["readelf", "-W", option, path], check=True, capture_output=True,
                          text=True, env={**os.environ, "LC_ALL": "C"}).stdout


def missing_in(path):
    """The hardenings that are missing in one ELF file."""
    header, segments = readelf("-h", path), readelf("-l", path)
    dynamic, symbols = readelf("-d", path), readelf("--dyn-syms", path)
    if not re.search(r"Type:\s+DYN", header):
        yield "position independence"
    if not re.search(r"GNU_STACK.* RW  ?0x", segments):
        yield "a stack that is not executable"
    if re.search(r"^  LOAD.* RWE ", segments, re.MULTILINE):
        yield "segments that are not both writable and executable"
    if "GNU_RELRO" not in segments:
        yield "read-only relocations"
    if not re.search(r"BIND_NOW|Flags:.*\bNOW\b", dynamic):
        yield "symbols resolved at the start"
    if "TEXTREL" in dynamic:
        yield "code without relocations"
    if "__stack_chk_fail" not in symbols:
        yield "the stack protector"


def is_elf(path):
    with open(path, "rb") as file:
        return file.read(4) == b"\x7fELF"


def installed(cmake, build, prefix):
    subprocess.run([cmake, "--install", build, "--prefix", prefix], check=True, capture_output=True)
    files = (path for path in pathlib.Path(prefix).rglob("*") if path.is_file())
    return [path for path in files if not path.is_symlink() and is_elf(path)]


def uncompiled(commands, tree):
    """The compile commands in which at least one of the required options is missing."""
    flow = CONTROL_FLOW.get(os.uname().machine)
    for entry in commands:
        source = os.path.normpath(os.path.join(entry["directory"], entry["file"]))
        output = re.search(r" -o (\S+)", entry["command"])[1]
        if NOT_SHIPPED.match(os.path.relpath(source, tree)) or NOT_SHIPPED.match(output):
            continue
        wanted = COMPILED_WITH + ([flow] if flow else [])
        wanted += COMPILED_WITH_CXX if not source.endswith(".c") else []
        wanted += WORKER_COMPILED_WITH if WORKER_SOURCES.search(source) else []
        for flag in wanted:
            if flag not in entry["command"].split():
                yield f"{source} is compiled without {flag}"


def findings(cmake, build):
    with tempfile.TemporaryDirectory() as prefix:
        files = installed(cmake, build, prefix)
        names = {path.name for path in files}
        if not {"proxymanagerd", "proxymanager-pac-worker"} <= names:
            yield f"only {sorted(names)} are installed"
        for path in files:
            for what in missing_in(path):
                yield f"{path.name} lacks {what}"
    commands = json.loads((pathlib.Path(build) / "compile_commands.json").read_text("utf-8"))
    yield from uncompiled(commands, pathlib.Path(__file__).resolve().parents[2])


def self_test(compiler):
    with tempfile.TemporaryDirectory() as folder:
        source, program = pathlib.Path(folder, "a.c"), pathlib.Path(folder, "a")
        source.write_text("int main(void) { return 0; }\n", encoding="utf-8")
        subprocess.run([compiler, source, "-o", program, "-no-pie", "-fno-pie", "-z", "norelro",
                        "-z", "lazy", "-z", "execstack", "-fno-stack-protector"], check=True,
                       stderr=subprocess.DEVNULL)
        found = set(missing_in(program))
    wanted = {"position independence", "a stack that is not executable", "read-only relocations",
              "symbols resolved at the start", "the stack protector"}
    assert wanted <= found, wanted - found
    bare = [{"directory": "/t", "file": "/t/engine/worker/main.cpp", "command": "c++ -o a.o"},
            {"directory": "/t", "file": "/t/a.cpp", "command": "c++ -o tests/a.o"}]
    lacking = list(uncompiled(bare, "/t"))
    assert len(lacking) >= 5 and all("main.cpp" in line for line in lacking), lacking


def main():
    if sys.argv[1] == "--self-test":
        self_test(sys.argv[2])
        return
    found = list(findings(sys.argv[1], sys.argv[2]))
    if found:
        sys.exit("\n".join(found))


main()
