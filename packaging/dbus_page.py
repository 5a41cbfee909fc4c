#!/usr/bin/env python3
"""Makes the documents of the D-Bus interface from the introspection XML, and compares them with it.

usage: dbus_page.py XML --page            the manual page
       dbus_page.py XML --table           the table for documents in Markdown
       dbus_page.py XML --compare FILE... whether the documents agree with the XML
       dbus_page.py --self-test

A comment in the XML describes the element after it. --compare compares the manual page word for
word. In a Markdown document, it checks every heading and every table row that begins with a
member's name. Such a line must have exactly the signatures of the member in code quotes, in
their order: each one separately, each one after its argument's name, or all together ("sss").
Each member must have a line, and no line may name an unknown member.
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
    # The comment before the root element describes the interface.
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
    """Returns one line: the name, the input signatures and the output signatures."""
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
        ".PP", "The text after each argument is its D\\-Bus signature. There are no properties.",
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


def lines_of_members(document):
    """Yields table rows and headings: (name, the text after it, the table's number or None)."""
    number, inside = 0, False
    for line in document.splitlines():
        if line.lstrip().startswith("|"):
            number += not inside
            inside = True
            first, _, rest = line.strip().strip("|").partition("|")
            yield first.strip("`* ").removesuffix("()"), rest, number
            continue
        inside = False
        heading = re.match(r"#+ `?(\w+)(.*)", line)
        if heading:
            yield heading[1], heading[2], None


def is_right(member, rest, alphabet):
    """Whether the signatures in code quotes, and the names before them, are those of the member."""
    found = [(match.start(), match[1]) for match in re.finditer(r"`([^`]+)`", rest)
             if set(match[1]) <= alphabet]
    wanted = [kind for _, kind, _ in member.arguments]
    if "".join(kind for _, kind in found) != "".join(wanted):
        return False
    if len(found) != len(wanted):
        return True
    # "name `s`", "`name`: `s`" or the signature alone
    before = [re.search(r"(\w+)[`:\s]*$", rest[:start]) for start, _ in found]
    return all(word is None or word[1] == name
               for word, (name, _, _) in zip(before, member.arguments))


def markdown_faults(interface, document):
    members = {member.name: member for member in interface.members}
    alphabet = set("".join(kind for member in interface.members
                           for _, kind, _ in member.arguments))
    lines = list(lines_of_members(document))
    own_tables = {table for name, _, table in lines if name in members and table}
    head = {"", "method", "signal", "member"}
    faults = [f"there is no member {name}" for name, _, table in lines
              if table in own_tables and name not in members
              and name.lower() not in head and set(name) - set("-: ")]
    faults += [f"the line of {name} has not the arguments {members[name].arguments}"
               for name, rest, _ in lines
               if name in members and not is_right(members[name], rest, alphabet)]
    seen = {name for name, _, _ in lines}
    return faults + [f"no line for {name}" for name in members if name not in seen]


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
    short = ("### ask(what `s`) → answer `as`\n"
             "| signal | |\n|--|--|\n| `changed` | `i` |\n| `gone` | |")
    assert markdown_faults(interface, short) == []
    assert markdown_faults(interface, short.replace("what", "which"))
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
