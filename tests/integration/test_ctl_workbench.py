"""proxymanagerctl pac explain, cover and diff: what PAC scripts do, seen from outside."""

import json
import os
import re

import pytest
from support.ctl import ANSWERED, NO_ANSWER, NO_INPUT, REFUSED, USAGE, Ctl

WORLD = ("--resolve", "known.example=192.0.2.7", "--my-ip", "10.1.2.3")
SCRIPT = """\
function FindProxyForURL(url, host) {
  if (isPlainHostName(host) || dnsDomainIs(host, ".example.org"))
    return "DIRECT";
  if (isInNet(host, "192.0.2.0", "255.255.255.0")) return "PROXY net:1";
  return "PROXY other:2";
}
"""


@pytest.fixture
def ctl(build):
    return Ctl(os.path.join(build, "out", "bin", "proxymanagerctl"))


def write(name, content):
    path = os.path.join("/tmp", name)
    with open(path, "wb") as file:
        file.write(content if isinstance(content, bytes) else content.encode())
    return path


def without_times(text):
    return re.sub(r"\d+(\.\d+)? (us|ms)", "TIME", text)


def explained(ctl, script, url, *options):
    result = ctl("pac", "explain", "--json", "-", url, *WORLD, *options, script=script)
    assert result.status == ANSWERED, result.errors
    return result.json[0]


def test_people_see_conditions_calls_lookups_and_the_return(ctl):
    path = write("p.pac", SCRIPT)
    result = ctl("pac", "explain", path, "http://known.example/", *WORLD)
    assert result.status == ANSWERED
    assert without_times(result.output) == """\
http://known.example/
  host     known.example
  line 2   isPlainHostName("known.example") = false  TIME
  line 2   false  isPlainHostName(host)
  line 2   dnsDomainIs("known.example", ".example.org") = false  TIME
  line 2   false  dnsDomainIs(host, ".example.org")
  line 2   false  isPlainHostName(host) || dnsDomainIs(host, ".example.org")
             dnsResolve("known.example") = "192.0.2.7"  TIME
  lookup   known.example: 192.0.2.7  TIME
  line 4   isInNet("known.example", "192.0.2.0", "255.255.255.0") = true  TIME
  line 4   true  isInNet(host, "192.0.2.0", "255.255.255.0")
  line 4   return "PROXY net:1"
  result   PROXY net:1
  decided  line 4, column 59
  cost     TIME; helpers called: 3 (TIME), names looked up: 1 (TIME)
"""


def test_a_terminal_gets_colours_and_a_pipe_does_not(ctl):
    path = write("p.pac", SCRIPT)
    assert "\x1b" not in ctl("pac", "explain", path, "http://a/").output
    terminal = ctl.on_terminal("pac", "explain", path, "http://a/", environment={"TERM": "xterm"})
    assert "\x1b[32mtrue" in terminal.end()[1]


@pytest.mark.parametrize("form, line", [
    (SCRIPT, 4),
    (SCRIPT.replace("\n", "\r\n"), 4),
    ("\ufeff" + SCRIPT, 4),
    (("// caf\u00e9\n" + SCRIPT).encode("latin-1"), 5),
    (SCRIPT.replace("\n", "\r"), 4),
    ("/*" + "x" * 450000 + "*/" + SCRIPT.replace("\n", " "), 1),
    ("/*\u2028\u2029*/" + SCRIPT, 4),
    ("#!/usr/bin/env pac\n" + SCRIPT, 5),
], ids=["plain", "crlf", "bom", "latin1", "cr", "one_line", "separators", "hashbang"])
def test_lines_are_those_of_an_editor(ctl, form, line):
    told = explained(ctl, form, "http://known.example/")
    assert (told["decided"]["line"], told["result"]) == (line, "PROXY net:1")
    assert told["different"] is None and told["notes"] == []


def test_the_return_that_chose_decides_and_not_the_one_that_hands_on(ctl):
    told = explained(ctl, """\
function pick(host) {
  switch (host) { case "a": return "PROXY a:1"; default: return "PROXY b:2"; }
}
function FindProxyForURL(url, host) {
  var chosen = pick(host);
  return pick(host);
}""", "http://a/")
    assert told["decided"] == {"line": 2, "column": 36, "source": '"PROXY a:1"'}
    assert [step["type"] for step in told["steps"]] == ["case", "return"] * 2 + ["return"]


def test_what_cannot_be_watched_is_noted(ctl):
    told = explained(ctl, """\
var atLoad = myIpAddress();
function FindProxyForURL(url, host) {
  with ({}) { if (host) eval("1"); }
  return String(FindProxyForURL).length > 350 ? "PROXY long:1" : eval('"DIRECT"');
}""", "http://a/")
    assert told["notes"] == [
        'line 3: the body of a "with" is not looked into',
        'line 4: the text that "eval" runs is not looked into',
        "the script reads the text of a function, which is not as it was written while it is watched",
        "while it is loaded, the script calls helpers: 1, names looked up: 0"]
    # It finds out that it is watched; what it is as it is counts.
    assert told["result"] == "DIRECT"


def test_an_answer_that_watching_changes_is_marked(ctl):
    told = explained(ctl, """\
function FindProxyForURL(url, host) {
  if (host == "a") return "PROXY " + String(FindProxyForURL).length + ":1";
}""", "http://a/")
    assert told["result"] == "PROXY 115:1"
    assert told["different"].startswith("PROXY ") and told["different"] != told["result"]


def test_what_the_engine_takes_and_the_parser_does_not_is_a_message(ctl):
    # The engine lets a regular expression repeat a name in alternatives.
    script = SCRIPT.replace("{\n", "{\n  /(?<a>x)|(?<a>y)/;\n", 1)
    assert ctl("pac", "check", "-", script=script).status == ANSWERED
    result = ctl("pac", "explain", "-", "http://a/", script=script)
    assert (result.status, result.output) == (REFUSED, "")
    assert result.errors == (
        "proxymanagerctl: standard input: the workbench's parser does not take this script, though the "
        "engine may: line 2: Invalid regular expression: /(?<a>x)|(?<a>y)/: Duplicate capture group name\n")


def test_a_script_that_the_engine_refuses_is_refused_as_elsewhere(ctl):
    script = "function FindProxyForURL(url, host) {\n  return }}\n"
    refused = ctl("pac", "check", "-", script=script)
    result = ctl("pac", "explain", "-", "http://a/", script=script)
    assert (result.status, result.errors) == (REFUSED, refused.errors)


def test_the_script_in_force_is_explained(ctl):
    missing = ctl("pac", "explain", "--current", "http://a/")
    assert missing.status == NO_INPUT
    assert missing.errors == ("proxymanagerctl: there is no script in force: the daemon has fetched "
                              "none\n")
    write("proxymanager.pac", SCRIPT)
    result = ctl("pac", "explain", "--current", "http://a/", "http://b.example.org/", "--json")
    assert [answer["result"] for answer in result.json] == ["DIRECT", "DIRECT"]


def test_the_options_of_other_testers_are_understood(ctl):
    path = write("p.pac", 'function FindProxyForURL(url, host) { return "PROXY " + myIpAddress(); }')
    result = ctl("pac", "explain", "--json", "-p", path, "-u", "http://a/", "-c", "10.9.8.7")
    assert result.json[0]["result"] == "PROXY 10.9.8.7"


def test_a_url_without_an_answer_shows_how_far_the_script_came(ctl):
    script = SCRIPT.replace('return "PROXY net:1"', "return nothing.here")
    result = ctl("pac", "explain", "-", "http://known.example/", *WORLD, script=script)
    assert result.status == NO_ANSWER
    assert "  line 4  true  isInNet(" in result.output and "  error" in result.output
    assert "decided" not in result.output


def test_an_explanation_needs_a_script_and_a_url(ctl):
    assert ctl("pac", "explain").status == USAGE
    assert ctl("pac", "explain", "--current").status == USAGE
    assert ctl("pac", "explain", "--current", "-p", "x", "http://a/").status == USAGE


COVERED = """\
function FindProxyForURL(url, host) {
  if (dnsDomainIs(host, ".example")) {
    return "PROXY a:1";
  }
  if (dnsDomainIs(host, ".sub.example")) return "PROXY b:2";
  if (host == "rare.test") return "PROXY c:3";
  return "DIRECT";
  return "PROXY d:4";
}
"""


def covered(ctl, script, *urls):
    write("s.pac", script)
    result = ctl("pac", "cover", "/tmp/s.pac", "--format", "json", "--offline", "-f", "-",
                 script="\n".join(urls))
    assert result.status == ANSWERED, result.errors
    return result.json


def test_rules_that_are_missed_dead_or_shadowed_are_told_apart(ctl):
    write("s.pac", COVERED)
    write("urls", "http://a.example/\nhttp://b.example/\nhttp://other.test/\n")
    result = ctl("pac", "cover", "/tmp/s.pac", "-f", "/tmp/urls", "--offline")
    assert (result.status, result.output) == (ANSWERED, """\
/tmp/s.pac
  statements  5 of 8 (62 %)
  branches    4 of 6 (66 %)
  rules       2 of 5 hit
  line 5      return "PROXY b:2"  shadowed: line 3 answers http://www.sub.example/
  line 6      return "PROXY c:3"  not hit; http://rare.test/ would reach it
  line 8      return "PROXY d:4"  dead: no URL can reach it
""".replace("2 of 5 hit", "2 of 5 (40 %)"))


def test_each_place_is_counted(ctl):
    report = covered(ctl, COVERED, "http://a.example/", "http://a.example/", "http://x/")
    tests = [(place["line"], place["true"], place["false"]) for place in report["places"]
             if place["kind"][0] == "t"]
    assert tests == [(2, 1, 1), (5, 0, 1), (6, 0, 1)]
    assert [(url["url"], url["times"], url["line"]) for url in report["urls"]] == [
        ("http://a.example/", 2, 3), ("http://x/", 1, 7)]


def test_access_logs_are_read(ctl):
    report = covered(
        ctl, COVERED,
        "1286536309.450    180 192.168.0.224 TCP_MISS/200 411 GET http://squid.test/a - DIRECT/1.2 -",
        "1286536309.450    180 192.168.0.224 TCP_TUNNEL/200 411 CONNECT squid.test:443 - DIRECT/1.2 -",
        '10.0.0.1 - - [21/Nov/2026:10:00:00 +0000] "GET http://common.test/b HTTP/1.1" 200 5 "-" "-"',
        "CONNECT   Nov 21 10:00:00.123 [7]: Request (file descriptor 5): GET http://tiny.test/ HTTP/1.1",
        "INFO      Nov 21 10:00:00.123 [7]: No upstream proxy for tiny.test",
        "# a remark", "http://plain.test/")
    assert [url["url"] for url in report["urls"]] == [
        "http://squid.test/a", "https://squid.test/", "http://common.test/b", "http://tiny.test/",
        "http://plain.test/"]


def test_the_page_loads_nothing_and_shows_texts_as_they_are(ctl):
    write("s.pac", COVERED.replace("function", "/* <script>alert(1)</script> */ function", 1))
    result = ctl("pac", "cover", "/tmp/s.pac", "--format", "html", "-u", "http://a.example/<b>",
                 "--offline")
    assert result.status == ANSWERED, result.errors
    assert "&lt;script&gt;alert(1)" in result.output and "<script" not in result.output
    assert "default-src 'none'" in result.output and "http://a.example/&lt;b&gt;" in result.output
    assert not re.search(r"(src|href)=\"(?!#)", result.output)


def test_differences_are_grouped_by_rule(ctl):
    write("old.pac", COVERED)
    write("new.pac", COVERED.replace("PROXY a:1", "PROXY new:1").replace("rare.test", "other.test"))
    write("urls", "http://1.example/\nhttp://2.example/\nhttp://other.test/\nhttp://same/\n")
    result = ctl("pac", "diff", "/tmp/old.pac", "/tmp/new.pac", "-f", "/tmp/urls", "--offline")
    assert (result.status, result.output) == (NO_ANSWER, """\
3 of 4 URLs are answered differently
2 URLs
  old  line 3: PROXY a:1
  new  line 3: PROXY new:1
  url  http://1.example/
  url  http://2.example/
1 URL
  old  line 7: DIRECT
  new  line 6: PROXY c:3
  url  http://other.test/
""")
    made = ctl("pac", "diff", "/tmp/old.pac", "/tmp/new.pac", "--offline", "--json")
    assert made.status == NO_ANSWER and made.json["generated"]
    assert {(group["old"]["line"], group["new"]["line"]) for group in made.json["groups"]} == {
        (3, 3), (6, 7), (7, 6)}


def test_equal_scripts_have_no_difference(ctl):
    write("a.pac", COVERED)
    result = ctl("pac", "diff", "/tmp/a.pac", "/tmp/a.pac", "--offline")
    assert result.status == ANSWERED and result.output.startswith("0 of ")
