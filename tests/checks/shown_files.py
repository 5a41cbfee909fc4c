#!/usr/bin/env python3
"""Fails if a document shows a file of this tree with another content than the file has.

usage: shown_files.py TREE | --self-test

A fence may name a file after its language, as in "```cpp docs/examples/a.cpp". It then contains
the whole file. Other tests compile and run these files, so the reader sees code that was tested.
"""

import pathlib
import re
import sys
import tempfile

FENCE = re.compile(r"^```\w+ (\S+)\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def findings(tree):
    found, looked = [], 0
    for document in sorted([*tree.glob("*.md"), *tree.glob("docs/**/*.md"),
                            *tree.glob("packaging/**/*.md")]):
        for name, text in FENCE.findall(document.read_text(encoding="utf-8")):
            looked += 1
            file = tree / name
            if not file.is_file():
                found.append(f"{document.relative_to(tree)} shows {name}, which is no file")
            elif file.read_text(encoding="utf-8") != text:
                found.append(f"{document.relative_to(tree)} shows {name} otherwise than it is")
    return found, looked


def self_test():
    with tempfile.TemporaryDirectory() as folder:
        tree = pathlib.Path(folder)
        (tree / "docs").mkdir()
        (tree / "a.cpp").write_text("int a;\n", encoding="utf-8")
        document = tree / "docs" / "a.md"
        fence = "```"
        document.write_text(f"{fence}cpp a.cpp\nint a;\n{fence}\n{fence}\nplain\n{fence}\n",
                            encoding="utf-8")
        assert findings(tree) == ([], 1), findings(tree)
        document.write_text(f"{fence}cpp a.cpp\nint b;\n{fence}\n{fence}sh b.sh\n{fence}\n",
                            encoding="utf-8")
        assert findings(tree)[0] == ["docs/a.md shows a.cpp otherwise than it is",
                                     "docs/a.md shows b.sh, which is no file"], findings(tree)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    if sys.argv[1] == "--self-test":
        self_test()
        return
    found, looked = findings(pathlib.Path(sys.argv[1]))
    print("\n".join(found) if found else f"{looked} files are as shown")
    # If there is no such fence at all, this check looks for the wrong thing.
    sys.exit(1 if found or looked == 0 else 0)


if __name__ == "__main__":
    main()
