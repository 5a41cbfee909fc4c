#!/usr/bin/env python3
"""Fails if a file of the tree has no licence, or if the packages do not name a licence of their
code.

usage: licences.py TREE | --self-test

- `reuse lint` finds a licence and a copyright holder for each file (.reuse/dep5, LICENSES/).
- packaging/debian/copyright states the licence of our own files in the words of
  LICENSES/LicenseRef-Undecided.txt, so that the owner has to decide in only one place.
- packaging/debian/copyright names each library whose code is in our programs. These are the
  libraries of the build that have no shared object, or whose shared object no program uses
  (docs/security/sbom.cdx.json).
"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

COPYRIGHT = "packaging/debian/copyright"
SBOM = "docs/security/sbom.cdx.json"
SENTENCE = "LICENSES/LicenseRef-Undecided.txt"


def lint(tree):
    """Returns the findings of reuse, or an empty text if there are no findings."""
    # The tests run as root, and the tree may belong to another user. Without this setting, git
    # refuses to list such a tree.
    git = {"GIT_CONFIG_COUNT": "1", "GIT_CONFIG_KEY_0": "safe.directory", "GIT_CONFIG_VALUE_0": "*"}
    result = subprocess.run(["reuse", "--root", str(tree), "lint"], check=False,
                            capture_output=True, text=True, env={**os.environ, **git})
    return "" if result.returncode == 0 else result.stdout + result.stderr


def words(text):
    return " ".join(text.split())


def own_licence(copyright_text):
    """The text of the first License field."""
    found = re.search(r"^License: LicenseRef-Undecided\n((?: .*\n)+)", copyright_text, re.MULTILINE)
    return words(found[1]) if found else ""


def shared_objects(files):
    """The names under which programs load the shared libraries of a package. They come from the
    package's .so files, which the linker reads."""
    for link in re.findall(r"^.*\.so$", files, re.MULTILINE):
        content = pathlib.Path(link).read_bytes()
        if not content.startswith(b"\x7fELF"):  # not an ELF file, but a script of the linker
            yield from re.findall(r"[^/ ]+\.so\.[0-9]+", content.decode())
            continue
        dynamic = subprocess.run(["readelf", "-dW", link], check=True, capture_output=True, text=True)
        yield from re.findall(r"\(SONAME\).*\[(.*)\]", dynamic.stdout)


def compiled_in(tree):
    """The libraries among the packages of Build-Depends whose code is in our programs."""
    sbom = json.loads((tree / SBOM).read_text(encoding="utf-8"))
    loaded = {component["name"] for component in sbom["components"]}
    listed = subprocess.run([str(tree / "packaging/dependencies.sh"), "--list", "--no-tests"],
                            check=True, capture_output=True, text=True).stdout
    names = [line.split()[0] for line in listed.splitlines()]
    # findings() adds the engine under the name quickjs-ng, because the engine is compiled into the
    # programs of this SBOM.
    left_out = {"dpkg-dev", "libqjs-dev"}
    for name in (name for name in names if name.endswith("-dev") and name not in left_out):
        files = subprocess.run(["dpkg", "-L", name], check=False, capture_output=True, text=True)
        # If a package is not installed, Build-Depends has an alternative to it, which the build
        # uses.
        if files.returncode == 0 and loaded.isdisjoint(shared_objects(files.stdout)):
            yield name


def findings(tree):
    text = (tree / COPYRIGHT).read_text(encoding="utf-8")
    sentence = words((tree / SENTENCE).read_text(encoding="utf-8"))
    if own_licence(text) != sentence:
        yield f"{COPYRIGHT} does not have the words of {SENTENCE}"
    for name in [*compiled_in(tree), "quickjs-ng"]:
        if not re.search(rf"^Files: linked/{re.escape(name)}$", text, re.MULTILINE):
            yield f"{COPYRIGHT} does not name {name}, which is part of our programs"
    if complaint := lint(tree):
        yield complaint


def self_test():
    with tempfile.TemporaryDirectory() as folder:
        tree = pathlib.Path(folder)
        (tree / "a.h").write_text("int a;\n", encoding="utf-8")
        assert "a.h" in lint(tree), "a file without a licence is not found"
    assert own_licence("License: LicenseRef-Undecided\n All\n of it.\n\nFiles: b\n") == "All of it."
    assert own_licence("License: Expat\n All\n") == ""


def main():
    if sys.argv[1:] == ["--self-test"]:
        self_test()
        return
    found = list(findings(pathlib.Path(sys.argv[1]).resolve()))
    if found:
        sys.exit("\n".join(found))


main()
