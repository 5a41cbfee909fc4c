#!/usr/bin/env python3
"""Fails if the arrows between the folders do not allow an include.

usage: include_arrows.py TREE | --self-test

The table ARROWS below lists which folders each folder may include. There are no exemptions.
System headers are not checked. docs/architecture.md explains the arrows.
"""

import pathlib
import re
import sys
import tempfile

RECORDS = "service/records/"
PLATFORM_PROCESS = "platform/process/"
ENGINE_WIRE = "engine/wire/"
PAC_HEADER = "engine/pac.h"
PAC_ENGINE_HEADER = "engine/pac_engine.h"
CLIENT_LIBRARY = "client/library/"
CTL = "client/ctl/"
CTL_TERMINAL = "client/ctl/terminal/"
CTL_DAEMON = "client/ctl/daemon/"
CTL_COMMANDS = "client/ctl/commands/"
CTL_OWN = ("client/ctl/exit_status.h", "client/ctl/failure.h")

# Folder -> the beginnings of the paths that the folder may include, in addition to its own path. A
# file belongs to the row with the longest folder name that matches the file's path. So a row for a
# subfolder replaces the row of the folder above.
ARROWS = {
    "base/": (),
    "sandbox/": ("base/",),
    RECORDS: ("base/",),
    "domain/": ("base/", RECORDS),
    "engine/": ("base/", ENGINE_WIRE),
    ENGINE_WIRE: ("base/",),
    "engine/host/": ("base/", "sandbox/", "domain/", ENGINE_WIRE, PAC_HEADER, PAC_ENGINE_HEADER,
                     "engine/name_source.h"),
    "engine/worker/": ("base/", "sandbox/", ENGINE_WIRE),
    "platform/bus/": ("base/", PLATFORM_PROCESS),
    "platform/netservice/": ("base/", PLATFORM_PROCESS),
    PLATFORM_PROCESS: ("base/",),
    "fetcher/": ("base/", "sandbox/", RECORDS, "domain/", "platform/"),
    "fetcher/child/": ("base/", "sandbox/", "fetcher/wire/"),
    "pac/": ("base/", RECORDS, "domain/", PAC_HEADER, "platform/"),
    "dbus/": ("base/", RECORDS),
    "service/": ("base/", "sandbox/", RECORDS, "domain/", PAC_HEADER, "platform/", "fetcher/",
                 "pac/", "dbus/"),
    # Other programs link the library, so it contains no code of the daemon.
    CLIENT_LIBRARY: ("base/", "domain/"),
    # Programs load these modules. The modules use the library only through its public header.
    "client/gio/": (),
    "client/libproxy/": (),
    CTL: (CTL_TERMINAL, CTL_DAEMON, CTL_COMMANDS, "base/"),
    CTL_TERMINAL: (*CTL_OWN, "base/", CLIENT_LIBRARY, "domain/", "engine/"),
    CTL_DAEMON: (*CTL_OWN, CTL_TERMINAL, "base/", CLIENT_LIBRARY, "domain/"),
    CTL_COMMANDS: (*CTL_OWN, CTL_TERMINAL, CTL_DAEMON, "base/", CLIENT_LIBRARY, RECORDS, "domain/",
                   "engine/", "pac/"),
    "settings/": ("base/", "sandbox/", CLIENT_LIBRARY),
    "relay/": ("base/", "sandbox/", CLIENT_LIBRARY),
}

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*"([^"]+)"', re.MULTILINE)
SUFFIXES = {".h", ".hpp", ".c", ".cc", ".cpp", ".inc"}


def row_of(path):
    rows = [row for row in ARROWS if path.startswith(row)]
    return max(rows, key=len, default=None)


def allowed(path, included):
    if ".." in included:
        return False
    if "/" not in included:  # a file in the same folder, or a generated file
        return True
    row = row_of(path)
    # A folder may include itself. But if a subfolder has its own row, only that row applies to
    # it.
    own = row_of(included) == row
    return own or included.startswith(ARROWS[row])


def sources(tree):
    for folder in sorted({row.split("/")[0] for row in ARROWS}):
        for file in sorted((tree / folder).rglob("*")):
            if file.suffix in SUFFIXES and file.is_file():
                yield file


def violations(tree):
    found, looked = [], 0
    for file in sources(tree):
        path = file.relative_to(tree).as_posix()
        if row_of(path) is None:
            found.append(f"{path} is in no folder of the table")
            continue
        for included in INCLUDE.findall(file.read_text(encoding="utf-8")):
            looked += 1
            if not allowed(path, included):
                found.append(f"{path} includes {included}")
    return found, looked


GOOD = {
    "base/log_line.cpp": ["base/log_line.h"],
    "service/records/proxy_config.cpp": ["service/records/proxy_config.h", "base/log_line.h"],
    "service/main.cpp": ["pac/pac_parser.h", "dbus/handler.h", "platform/bus/bus_helper.h"],
    "service/callbacks.cpp": ["pac/service_callbacks.h", "service/proxy_manager_service_impl.h"],
    "domain/tld.cpp": ["domain/tld.h", "tld_table.h", "service/records/proxy_config.h"],
    "engine/pac_engine.h": ["engine/name_source.h", "engine/wire/reply.h"],
    "engine/host/pac.cpp": ["engine/pac.h", "engine/wire/protocol.h", "engine/host/dns_query.h"],
    "engine/worker/main.cpp": ["engine/wire/descriptors.h", "sandbox/walls.h"],
    "pac/pac_parser.cpp": ["pac/pac_parser.h", PAC_HEADER, "domain/url_host.h"],
    "dbus/handler.cpp": ["service/records/proxy_config.h", "dbus/service_callbacks.h"],
    "platform/bus/loop.cpp": ["platform/bus/loop.h", "platform/process/thread_name.h"],
    "client/ctl/main.cpp": ["client/ctl/commands/get.h", "client/ctl/failure.h"],
    "client/ctl/commands/get.cpp": ["client/library/answer.h", "client/ctl/daemon/bus.h",
                                    "client/ctl/terminal/output.h"],
    "client/ctl/daemon/bus.cpp": ["client/ctl/terminal/output.h", "client/ctl/failure.h"],
    "client/library/client.cpp": ["client/library/answer.h", "domain/canonical_url.h"],
    "relay/main.cpp": ["sandbox/walls.h", "relay/front.h"],
    "tests/unit/any.cpp": ["service/main.h"],
}
BAD = {
    "base/text.h": ["domain/tld.h"],
    "service/records/proxy_config.h": ["pac/pac_parser.h", "service/proxy_manager_service_impl.h"],
    "domain/tld.h": ["pac/pac_parser.h", "platform/bus/bus_helper.h", "../service/x.h"],
    "engine/host/pac.cpp": ["engine/worker/sandbox.h", "service/records/proxy_config.h"],
    "engine/worker/main.cpp": ["engine/host/worker_process.h", PAC_ENGINE_HEADER],
    "engine/wire/protocol.h": ["engine/worker/pac_environment.h", "engine/host/dns_query.h"],
    "pac/pac_parser.cpp": ["service/proxy_manager_service_impl.h", PAC_ENGINE_HEADER],
    "dbus/handler.cpp": ["service/proxy_manager_service_impl.h", "platform/bus/bus_helper.h"],
    "fetcher/pac_fetcher.cpp": ["pac/pac_parser.h", "service/proxy_manager_service_impl.h"],
    "fetcher/child/main.cpp": ["fetcher/pac_fetcher.h"],
    "platform/bus/loop.h": ["service/records/proxy_config.h", "platform/netservice/dhcp_info.h"],
    "platform/process/trace.cpp": ["platform/bus/loop.h"],
    "client/ctl/main.cpp": ["service/proxy_manager_service_impl.h", "relay/front.h"],
    "client/ctl/daemon/bus.cpp": ["client/ctl/commands/command.h", "service/records/proxy_config.h"],
    "client/ctl/terminal/output.cpp": ["client/ctl/commands/command.h",
                                       "client/ctl/daemon/bus.h"],
    "client/library/client.cpp": ["client/ctl/command.h", "platform/process/thread_name.h"],
    "client/gio/module.c": ["client/library/client.h"],
    "settings/main.cpp": ["relay/front.h", "service/records/proxy_config.h"],
}


def make_tree(root, files):
    for path, includes in files.items():
        file = root / path
        file.parent.mkdir(parents=True, exist_ok=True)
        lines = [f'#include "{included}"' for included in includes]
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
            f"not found: {sorted(set(expected) - set(found))}; "
            f"found wrongly: {sorted(set(found) - set(expected))}"
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
