#!/usr/bin/env python3
"""Fails if the documents disagree with the tree.

usage: documents.py TREE | --self-test

- The target of each link to a file of the tree, or to a heading of a document, exists.
- A path in backticks that begins with a folder of the tree exists; "*" stands for any text.
- README.md and docs/testing.md are not longer than their limits, so that people read them.
- docs/decisions/README.md lists each decision once.
- docs/integration.md has one row for each package that a build of packaging/debian/control needs.
- docs/installing.md has one row for each PROXYMANAGER_ cache variable, and no row for another name.
"""

import pathlib
import re
import subprocess
import sys
import tempfile

# The limits in lines. If a document is longer, move a part of it to a separate document.
LONGEST = {"README.md": 170, "docs/testing.md": 250}
OPTIONS = "docs/installing.md"
INTEGRATION = "docs/integration.md"
RECIPE = "## A recipe for another build system"
DECISIONS = "docs/decisions"

LINK = re.compile(r"\]\(([^)\s]+)\)")
FENCE = re.compile(r"^```.*?^```$", re.MULTILINE | re.DOTALL)
PATH = re.compile(r"`([a-z_]+/[\w./*-]*)`")
PLACEHOLDER = re.compile(r"\b[A-Z]{3,}")
# Folders that are not in the repository: builds make the first, source tarballs contain the
# second.
NOT_OURS = ("build/", "packaging/quickjs/source")
HEADING = re.compile(r"^#+ (.*)$", re.MULTILINE)
VARIABLE = re.compile(
    r"^\s*(?:option|find_\w+)\(\s*(PROXYMANAGER_\w+)"
    r"|^\s*set\(\s*(PROXYMANAGER_\w+)[^)]*?\sCACHE\s",
    re.MULTILINE,
)
ROW = re.compile(r"^\| `(PROXYMANAGER_\w+)`", re.MULTILINE)


def read(file):
    return file.read_text(encoding="utf-8")


def documents(tree):
    return sorted([*tree.glob("*.md"), *tree.glob("docs/**/*.md"), *tree.glob("packaging/**/*.md")])


def anchors(document):
    """The anchors of the document's headings, as code-hosting sites make them."""
    titles = HEADING.findall(FENCE.sub("", read(document)))
    return {re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-") for title in titles}


def broken_links(tree):
    for document in documents(tree):
        for target in LINK.findall(FENCE.sub("", read(document))):
            if ":" in target:
                continue
            name, _, anchor = target.partition("#")
            file = document.parent / name if name else document
            if not file.exists():
                yield f"{document.relative_to(tree)} links to {target}, which does not exist"
            elif anchor and anchor not in anchors(file):
                yield f"{document.relative_to(tree)} links to {target}: no such heading"


def missing_paths(tree):
    for document in documents(tree):
        for path in PATH.findall(FENCE.sub("", read(document))):
            top = path.split("/")[0]
            if path.startswith(NOT_OURS) or not (tree / top).is_dir() or PLACEHOLDER.search(path):
                continue
            if not any(tree.glob(path.rstrip("/"))):
                yield f"{document.relative_to(tree)} names {path}, which does not exist"


def overweight(tree):
    for name, most in LONGEST.items():
        lines = len(read(tree / name).splitlines())
        if lines > most:
            yield f"{name} has {lines} lines, {most} at most"


def unlisted_decisions(tree):
    index = read(tree / DECISIONS / "README.md")
    for file in sorted((tree / DECISIONS).glob("[0-9]*.md")):
        count = index.count(f"]({file.name})")
        if count != 1:
            yield f"{DECISIONS}/README.md lists {file.name} {count} times"


def undocumented_variables(tree):
    files = [tree / "CMakeLists.txt", *tree.glob("cmake/**/*.cmake")]
    files += [file for file in tree.glob("*/**/CMakeLists.txt")
              if file.relative_to(tree).parts[0] not in ("build", "docs")]
    files += tree.glob("tests/**/*.cmake")
    names = {first or second for file in files if file.is_file()
             for first, second in VARIABLE.findall(read(file))}
    rows = ROW.findall(read(tree / OPTIONS))
    for name in sorted(names | set(rows)):
        if name not in names:
            yield f"{OPTIONS} has a row for {name}, which is no cache variable"
        elif rows.count(name) != 1:
            yield f"{OPTIONS} has {rows.count(name)} rows for {name}"


def packages_of_the_recipe(tree):
    """Compares the rows of the recipe with the packages that a build needs. Each alternative of a
    dependency needs a separate row."""
    listed = subprocess.run([str(tree / "packaging/dependencies.sh"), "--list", "--no-tests"],
                            check=True, capture_output=True, text=True).stdout
    needed = {re.split(r"[ (]", name.strip())[0] for name in re.split(r"[|\n]", listed.strip())}
    section = read(tree / INTEGRATION).partition(RECIPE)[2].partition("\n## ")[0]
    rows = re.findall(r"^\| `([^`]+)` \|", section, re.MULTILINE)
    for name in sorted(needed | set(rows)):
        if name not in needed:
            yield f"{INTEGRATION} has a row for {name}, which no build needs"
        elif rows.count(name) != 1:
            yield f"{INTEGRATION} has {rows.count(name)} rows for {name}"


def findings(tree):
    for check in (broken_links, missing_paths, overweight, unlisted_decisions,
                  undocumented_variables, packages_of_the_recipe):
        yield from check(tree)


GOOD = {
    "README.md": "# A\n[b](docs/installing.md#two-words) [c](#a) [d](https://a.example/) `docs/*.md` `docs/NAME.md`\n"
                 "```\n[none](none.md)\n```\n",
    "docs/testing.md": "# T\n",
    "docs/installing.md": "# I\n## Two words\n| `PROXYMANAGER_ONE` | |\n| `PROXYMANAGER_TWO` | |\n",
    "docs/integration.md": f"{RECIPE}\n| `cmake` | |\n| `qjs` | |\n| `curl` | |\n\n## B\n| `none` |\n",
    "packaging/dependencies.sh": "#!/bin/sh\necho 'cmake (>= 3.25)'\necho 'qjs (>= 1) | curl'\n",
    "docs/decisions/README.md": "[first](0001-first.md)\n",
    "docs/decisions/0001-first.md": "# First\n",
    "CMakeLists.txt": 'option(PROXYMANAGER_ONE "x" ON)\nset(PROXYMANAGER_PLAIN "y")\n',
    "cmake/a.cmake": 'set(PROXYMANAGER_TWO\n  "value"\n  CACHE PATH "z")\n',
}
BAD = [
    ("README.md", "# A\n[b](none.md)\n", "does not exist"),
    ("README.md", "# A\n[b](docs/installing.md#three-words)\n", "no such heading"),
    ("README.md", "# A\n`docs/none.md`\n", "does not exist"),
    ("README.md", "# A\n" + "line\n" * 170, "171 lines"),
    ("docs/decisions/0002-second.md", "# Second\n", "0 times"),
    ("cmake/a.cmake", "find_program(PROXYMANAGER_THREE qemu)\n", "rows for PROXYMANAGER_THREE"),
    ("packaging/dependencies.sh", "#!/bin/sh\necho cmake\necho curl\n", "row for qjs, which no"),
    ("packaging/dependencies.sh", "#!/bin/sh\necho cmake\necho 'qjs | curl | gcc'\n", "0 rows for gcc"),
    ("CMakeLists.txt", "", "row for PROXYMANAGER_ONE, which is no"),
]


def self_test():
    for change in [None, *BAD]:
        with tempfile.TemporaryDirectory() as folder:
            tree = pathlib.Path(folder)
            files = dict(GOOD)
            if change:
                files[change[0]] = change[1]
            for name, text in files.items():
                (tree / name).parent.mkdir(parents=True, exist_ok=True)
                (tree / name).write_text(text, encoding="utf-8")
            (tree / "packaging/dependencies.sh").chmod(0o755)
            found = list(findings(tree))
            if change:
                assert any(change[2] in line for line in found), (change, found)
            else:
                assert found == [], found


def main():
    if sys.argv[1:] == ["--self-test"]:
        self_test()
        return
    found = list(findings(pathlib.Path(sys.argv[1]).resolve()))
    if found:
        sys.exit("\n".join(found))


main()
