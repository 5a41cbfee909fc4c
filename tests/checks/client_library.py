#!/usr/bin/env python3
"""Fails if the client library differs from its headers.

usage: client_library.py TREE LIBRARY VERSION CC CXX [SANITIZER]

The library has exactly the functions of the C header, each with a version. It needs only
libraries that programs already have. Each header compiles in its languages without a warning,
also if no other header is included.
"""

import os
import re
import subprocess
import sys
import tempfile

tree, library, version, cc, cxx, *sanitizer = sys.argv[1:]
INCLUDE = os.path.join(tree, "client/library/include")
WARNINGS = ["-Wall", "-Wextra", "-pedantic", "-Werror"]
C, CXX = ["c99", "c11"], ["c++17", "c++20"]
NEEDED = {"libsystemd.so.0", "libstdc++.so.6", "libgcc_s.so.1", "libc.so.6"}


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def declared():
    with open(os.path.join(INCLUDE, "proxymanager/client.h")) as file:
        header = re.sub(r"/\*.*?\*/|^#.*?$", "", file.read(), flags=re.DOTALL | re.MULTILINE)
    functions = re.findall(r"\bPROXYMANAGER_API\b[^;(]*?(\w+)\(", header)
    assert len(functions) == len(set(functions)) > 0
    return set(functions)


def exported():
    """The exported symbols, with their versions."""
    lines = output("nm", "-D", "--defined-only", library).splitlines()
    return dict(line.split()[-1].partition("@@")[::2] for line in lines if " A " not in line)


def compiled(language, compiler, standards, header):
    with tempfile.TemporaryDirectory() as folder:
        source = os.path.join(folder, "program." + language)
        with open(source, "w") as file:
            # The header is included twice and before all other headers, so it must be complete.
            file.write(f"#include <proxymanager/{header}>\n" * 2 + "int main(void) { return 0; }\n"
                       if language == "c" else
                       f"#include <proxymanager/{header}>\n" * 2 + "int main() {}\n")
        for standard in standards:
            output(compiler, f"-std={standard}", *WARNINGS, "-I", INCLUDE, "-fsyntax-only", source)


functions, symbols = declared(), exported()
assert set(symbols) == functions, (
    f"exported alone: {set(symbols) - functions}; declared alone: {functions - set(symbols)}")
assert all(node.startswith("PROXYMANAGER_CLIENT_") for node in symbols.values()), symbols
dynamic = output("readelf", "-d", library)
needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic))
foreign = {name for name in needed - NEEDED if not name.startswith("ld-linux")}
assert sanitizer or not foreign, f"it needs {foreign}"
assert re.search(r"\(SONAME\).*\[libproxymanager-client\.so\.0\]", dynamic), "another SONAME"
assert os.path.realpath(library).endswith(f".so.{version}"), "another release"
compiled("c", cc, C, "client.h")
compiled("cpp", cxx, CXX, "client.h")
compiled("cpp", cxx, CXX, "client.hpp")
print(f"{len(functions)} functions, as the header says")
