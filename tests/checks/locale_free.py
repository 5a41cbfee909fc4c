#!/usr/bin/env python3
"""Fails if shipped C or C++ code calls a function whose result depends on the locale.

usage: locale_free.py TREE | --self-test

In a Turkish locale, strcasecmp("WIKI", "wiki") is not 0. Libraries of this tree run in programs
that set a locale, so ASCII text is handled by base/ascii.h, or by g_ascii_... of GLib. strtol and
the other functions for whole numbers give the same result in every locale. The functions for
numbers with a decimal point do not.
"""

import pathlib
import re
import sys

CALL = re.compile(
    r"(?<![\w.>])(is(?:alnum|alpha|blank|cntrl|digit|graph|lower|print|punct|space|upper|xdigit)|"
    r"to(?:lower|upper)|strn?casecmp|strcasestr|strcoll|strxfrm|strto(?:d|f|ld)|sto(?:d|f|ld)|atof|"
    r"localeconv)\s*\(")
NOT_SHIPPED = {"tests", "bench", "build", "debian"}


def calls(text):
    """@return (line, name) of each call, except in comments and literals"""
    text = re.sub(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"', lambda found: re.sub(r"[^\n]", " ", found[0]),
                  text, flags=re.DOTALL)
    return [(text.count("\n", 0, found.start()) + 1, found[1]) for found in CALL.finditer(text)]


def main(argument):
    if argument == "--self-test":
        source = 'a = std::tolower(c);\n// isalpha(c)\nb = "atof(";\n/*\n*/ strcasecmp (a, b); g_ascii_isalnum(c)'
        return calls(source) != [(1, "tolower"), (5, "strcasecmp")]
    tree, found = pathlib.Path(argument), []
    for path in sorted(path for kind in ("cpp", "c", "h") for path in tree.rglob(f"*.{kind}")):
        name = path.relative_to(tree)
        if name.parts[0] not in NOT_SHIPPED:
            found += [f"{name}:{line}: {call}" for line, call in calls(path.read_text(encoding="utf-8"))]
    print("\n".join(found))
    return bool(found)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
