#!/usr/bin/env python3
"""Fails on an include against the arrows between the folders.

usage: include_arrows.py TREE | --self-test

Who may include what is the table ARROWS below; system headers are nobody's business here. Besides:
a class that keeps a pointer back to the service forward-declares it in its header, and its .cpp
alone includes the service's header; and of the PAC library, pac/ sees the one public header.
"""

import pathlib
import re
import sys
import tempfile

# The records, their helpers and their owner type.
RECORDS = "service/proxy_config"
SERVICE_HEADER = "service/proxy_manager_service_impl.h"
# What everything may include.
COMMON = ("platform/log/", "base/annotations.h")
# Folder (or file) -> the beginnings of what it may include besides its own folder. The longest
# beginning that fits a file is the row that counts.
ARROWS = {
    RECORDS: (RECORDS,),
    "platform/": (),
    "domain/": (RECORDS,),
    "dbus/": (RECORDS,),
    "pac/": (RECORDS, "domain/", "platform/"),
    "fetcher/": (RECORDS, "domain/", "platform/"),
    "service/": (RECORDS, "domain/", "platform/", "pac/", "fetcher/", "dbus/"),
    "client/": (RECORDS, "domain/", "platform/", "pac/", "dbus/"),
    # Other programs link it: it carries nothing of the daemon's.
    "client/library/": (),
    # Programs load it, and it knows the library by its public header.
    "client/gio/": (),
}
# May keep a pointer back to the service.
POINT_BACK = ("dbus/", "pac/", "fetcher/")
PAC_LIBRARY = "platform/pac_engine/"
PAC_HEADER = "engine/pac.h"

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*"([^"]+)"', re.MULTILINE)
FORWARD = re.compile(r"^\s*class\s+ProxyManagerServiceImpl\s*;", re.MULTILINE)
SUFFIXES = {".h", ".hpp", ".c", ".cc", ".cpp", ".inc"}


def row_of(path):
    rows = [row for row in ARROWS if path.startswith(row)]
    return max(rows, key=len, default=None)


def points_back(tree, path):
    """Whether this .cpp belongs to a class whose header forward-declares the service."""
    header = (tree / path).with_suffix(".h")
    return (
        path.startswith(POINT_BACK)
        and path.endswith(".cpp")
        and header.is_file()
        and FORWARD.search(header.read_text(encoding="utf-8")) is not None
    )


def allowed(tree, path, included):
    row = row_of(path)
    if included.startswith(COMMON) or "/" not in included:
        return ".." not in included
    if included == SERVICE_HEADER and points_back(tree, path):
        return True
    if path.startswith("pac/") and included.startswith(PAC_LIBRARY):
        return included == PAC_HEADER
    own = () if row == RECORDS else (row,)
    return ".." not in included and included.startswith(ARROWS[row] + own)


def sources(tree):
    for folder in sorted({row.split("/")[0] for row in ARROWS}):
        for file in sorted((tree / folder).rglob("*")):
            if file.suffix in SUFFIXES and file.is_file():
                yield file


def violations(tree):
    found, looked = [], 0
    for file in sources(tree):
        path = file.relative_to(tree).as_posix()
        for included in INCLUDE.findall(file.read_text(encoding="utf-8")):
            looked += 1
            if not allowed(tree, path, included):
                found.append(f"{path} includes {included}")
    return found, looked


GOOD = {
    "service/records/proxy_config.cpp": ["service/records/proxy_config.h", "service/records/proxy_config_owner.h", "base/log_line.h"],
    "service/main.cpp": ["pac/pac_parser.h", "dbus/handler.h", "platform/bus/bus_helper.h"],
    "domain/tld.cpp": ["domain/tld.h", "tld_table.h", "service/records/proxy_config.h"],
    "pac/pac_parser.h": ["service/records/proxy_config.h", "base/annotations.h"],
    "pac/pac_parser.cpp": ["pac/pac_parser.h", SERVICE_HEADER, PAC_HEADER, "domain/url_host.h"],
    "dbus/contract.h": ["service/records/proxy_config.h"],
    "platform/bus/loop.cpp": ["platform/bus/loop.h", "platform/process/thread_name.h"],
    "client/get.cpp": ["client/library/answer.h", "pac/pac_parser.h"],
    "client/library/client.cpp": ["client/library/answer.h", "base/annotations.h"],
    "tests/unit/any.cpp": ["service/main.h"],
}
BAD = {
    "service/records/proxy_config.h": ["pac/pac_parser.h", "service/proxy_manager_service_impl.h"],
    "domain/tld.h": ["pac/pac_parser.h", "platform/bus/bus_helper.h", "../service/x.h"],
    "pac/pac_parser.h": [SERVICE_HEADER, "fetcher/pac_fetcher.h"],
    "pac/cache.cpp": [SERVICE_HEADER, "engine/pac_engine.h"],
    "dbus/contract.cpp": ["platform/bus/bus_helper.h", "pac/pac_parser.h"],
    "fetcher/pac_fetcher.cpp": ["pac/pac_parser.h", "dbus/handler.h"],
    "platform/bus/loop.h": ["service/records/proxy_config.h", "domain/tld.h"],
    "client/ctl/main.cpp": [SERVICE_HEADER],
    "client/library/client.cpp": ["client/ctl/commands/command.h", "platform/process/thread_name.h"],
    "client/gio/module.c": ["client/library/client.h"],
}


def make_tree(root, files):
    for path, includes in files.items():
        file = root / path
        file.parent.mkdir(parents=True, exist_ok=True)
        lines = [f'#include "{included}"' for included in includes]
        # Every header of the example keeps a pointer back.
        if path == "pac/pac_parser.h":
            lines.append("class ProxyManagerServiceImpl;")
        file.write_text("\n".join(lines) + "\n", encoding="utf-8")


def self_test():
    with tempfile.TemporaryDirectory() as folder:
        make_tree(pathlib.Path(folder), GOOD)
        found, _ = violations(pathlib.Path(folder))
        assert found == [], f"refused what is allowed: {found}"
    with tempfile.TemporaryDirectory() as folder:
        make_tree(pathlib.Path(folder), BAD)
        found, _ = violations(pathlib.Path(folder))
        expected = [f"{path} includes {name}" for path, names in BAD.items() for name in names]
        assert sorted(found) == sorted(expected), (
            f"not found: {sorted(set(expected) - set(found))}"
        )


def main():
    if sys.argv[1:] == ["--self-test"]:
        self_test()
        return
    found, looked = violations(pathlib.Path(sys.argv[1]))
    assert looked > 0, "no include found: is this the tree?"
    if found:
        sys.exit("Against the arrows between the folders:\n" + "\n".join(found))
    print(f"{looked} includes follow the arrows")


main()
