#!/usr/bin/env python3
"""The documents of the D-Bus interface, from its one source, the introspection XML.

usage: dbus_page.py XML --page            the manual page
       dbus_page.py XML --table           the table for documents in Markdown
       dbus_page.py XML --compare FILE... whether the documents say what the XML says
       dbus_page.py --self-test

A comment in the XML describes what follows it. --compare takes the manual page word for word; of a
Markdown document, every row of a table that begins with a member's name has to hold its arguments'
names and signatures, in order and no others, and no member may lack its row or be invented.
"""

import dataclasses
import pathlib
import re
import sys
import textwrap
import xml.etree.ElementTree as ElementTree


@dataclasses.dataclass
class Member:
    kind: str  # method or signal
    name: str
    text: str
    arguments: list  # (name, signature, "in" or "out")


@dataclasses.dataclass
class Interface:
    path: str
    name: str
    text: str
    members: list


def read(source):
    builder = ElementTree.TreeBuilder(insert_comments=True)
    parser = ElementTree.XMLParser(target=builder)
    # The comment before the root element is the interface's.
    before = re.search(r"<!--(.*?)-->\s*<node", source, re.DOTALL)
    parser.feed(source)
    node = parser.close()
    element = node.find("interface")
    interface = Interface(node.get("name"), element.get("name"),
                          " ".join(before[1].split()) if before else "", [])
    text = ""
    for child in element:
        if child.tag is ElementTree.Comment:
            text = " ".join(child.text.split())
            continue
        direction = "out" if child.tag == "signal" else "in"
        arguments = [(argument.get("name"), argument.get("type"),
                      argument.get("direction", direction)) for argument in child.iter("arg")]
        interface.members.append(Member(child.tag, child.get("name"), text, arguments))
        text = ""
    return interface


def roff(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return re.sub(r'"([^"]*)"', r"\\(lq\1\\(rq", text)


def filled(text):
    lines = textwrap.wrap(roff(text), 96, break_long_words=False, break_on_hyphens=False)
    return "\n".join("\\&" + line if line[0] in ".'" else line for line in lines)


def signature(member):
    """One line: the name, what goes in, what comes out."""
    part = {"in": [], "out": []}
    for name, kind, direction in member.arguments:
        part[direction].append(f"\\fI{roff(name)}\\fP: {kind}")
    if member.kind == "signal":
        return f"\\fB{member.name}\\fP(" + ", ".join(part["out"]) + ")"
    line = f"\\fB{member.name}\\fP(" + ", ".join(part["in"]) + ")"
    return line + " \\(-> (" + ", ".join(part["out"]) + ")" if part["out"] else line


def page(interface):
    service = interface.path.strip("/").replace("/", ".")
    lines = [
        '.\\" Made by packaging/dbus_page.py from the introspection XML; not to be edited.',
        f'.TH {interface.name} 7 "" "proxymanagerd" "D\\-Bus interfaces"',
        ".SH NAME", f"{interface.name} \\- the D\\-Bus interface of proxymanagerd",
        ".SH DESCRIPTION", filled(interface.text),
        ".PP", "After each argument stands its D\\-Bus signature. There are no properties.",
    ]
    for kind, title in (("method", "METHODS"), ("signal", "SIGNALS")):
        lines.append(f".SH {title}")
        for member in interface.members:
            if member.kind == kind:
                lines += [".TP", signature(member), filled(member.text)]
    lines += [
        ".SH ACCESS",
        filled("By the policy that is installed with the daemon, anybody may call "
               "checkServicestarted, getProxyurl and Introspect. getProxyconfig, updateProxyconfig "
               "and the signal notifyProxyConfigupdated, which carries the password, are for root "
               "and for members of the group proxymanager."),
        ".SH EXAMPLES", ".EX",
        roff(f"busctl call {service} {interface.path} \\").replace("\\e", "\\e"),
        roff(f"    {interface.name} getProxyurl s http://www.example.org/"),
        roff(f"busctl introspect {service} {interface.path}"), ".EE",
        ".SH SEE ALSO", ".BR proxymanagerd (8),", ".BR proxymanagerctl (1)",
    ]
    return "\n".join(lines) + "\n"


def table(interface):
    def cell(member, direction):
        return ", ".join(f"`{name}`: `{kind}`" for name, kind, way in member.arguments
                         if way == direction) or "none"

    lines = ["| Method | In | Out |", "|---|---|---|"]
    lines += [f"| `{member.name}` | {cell(member, 'in')} | {cell(member, 'out')} |"
              for member in interface.members if member.kind == "method"]
    lines += ["", "| Signal | Arguments |", "|---|---|"]
    lines += [f"| `{member.name}` | {cell(member, 'out')} |"
              for member in interface.members if member.kind == "signal"]
    return "\n".join(lines) + "\n"


def tables(document):
    """The tables of a Markdown document, each a list of rows, each a list of cells."""
    found, rows = [], []
    for line in document.splitlines() + [""]:
        if line.lstrip().startswith("|"):
            rows.append([cell.strip() for cell in line.strip().strip("|").split("|")])
        elif rows:
            found.append(rows)
            rows = []
    return found


def row_is_right(member, cells):
    """Whether what stands in code quotes behind the name is the arguments, as far as it is one."""
    quoted = re.findall(r"[`\"]([^`\"]+)[`\"]", " ".join(cells))
    words = [word.strip() for text in quoted for word in re.split(r"[:\s,]+", text) if word.strip()]
    wanted = [word for name, kind, _ in member.arguments for word in (name, kind)]
    # Values and other code may stand in the row's description; it comes last.
    rest = words[len(wanted):]
    return words[: len(wanted)] == wanted and (wanted or not any(
        re.fullmatch(r"[bisuxd]|a[bis]|\(\w+\)", word) for word in rest))


def markdown_faults(interface, document):
    members = {member.name: member for member in interface.members}
    seen, faults = set(), []
    for rows in tables(document):
        names = [row[0].strip("`* ").removesuffix("()") for row in rows]
        if not any(name in members for name in names):
            continue
        for name, row in zip(names[2:], rows[2:]):
            if name not in members:
                faults.append(f"there is no member {name}")
            elif not row_is_right(members[name], row[1:]):
                faults.append(f"the row of {name} is not: {members[name].arguments}")
            seen.add(name)
    return faults + [f"no row for {name}" for name in members if name not in seen]


def compare(interface, files):
    bad = False
    for file in map(pathlib.Path, files):
        if not file.exists():
            print(f"{file.name}: not there, nothing to compare")
            continue
        text = file.read_text(encoding="utf-8")
        if file.suffix == ".md":
            faults = markdown_faults(interface, text)
        else:
            faults = [] if text == page(interface) else ["it is not what --page prints"]
        for fault in faults:
            print(f"{file}: {fault}", file=sys.stderr)
        bad = bad or bool(faults)
        if not faults:
            print(f"{file.name}: agrees")
    return bad


def self_test():
    source = """<!-- About
      all. --><node name="/a/b"><interface name="a.b.C"><!-- Asks "it". -->
      <method name="ask"><arg name="what" type="s" direction="in"/>
      <arg name="answer" type="as" direction="out"/></method>
      <signal name="changed"><arg name="to" type="i"/></signal>
      <signal name="gone"/></interface></node>"""
    interface = read(source)
    assert interface.text == "About all." and interface.members[0].text == 'Asks "it".'
    right = table(interface)
    assert markdown_faults(interface, right) == []
    assert "\\fBask\\fP(\\fIwhat\\fP: s) \\(-> (\\fIanswer\\fP: as)" in page(interface)
    for old, new in (("`what`", "`which`"), ("`as`", "`s`"), ("`to`: `i`", "none"),
                     ("| `gone` | none |", ""), ("`changed`", "`altered`"),
                     ("| `gone` | none |", "| `gone` | `why`: `s` |")):
        assert old in right and markdown_faults(interface, right.replace(old, new, 1)), new


def main():
    arguments = sys.argv[1:]
    if arguments == ["--self-test"]:
        self_test()
        return
    if len(arguments) < 2:
        sys.exit(__doc__)
    interface = read(pathlib.Path(arguments[0]).read_text(encoding="utf-8"))
    if arguments[1] == "--page":
        print(page(interface), end="")
    elif arguments[1] == "--table":
        print(table(interface), end="")
    elif arguments[1] == "--compare":
        sys.exit(compare(interface, arguments[2:]))
    else:
        sys.exit(__doc__)


main()
