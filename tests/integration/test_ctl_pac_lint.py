"""Tests proxymanagerctl pac lint, which finds probable faults of a script."""

import os
import pathlib
import re

import pytest
from support.ctl import ANSWERED, NO_ANSWER, NO_INPUT, REFUSED, USAGE, Ctl

HERE = pathlib.Path(__file__).parent
PAGE = HERE.parents[1] / "docs/pac-lint.md"
CLEAN = 'function FindProxyForURL(url, host) { return "DIRECT"; }\n'


@pytest.fixture
def ctl(build):
    return Ctl(os.path.join(build, "out", "bin", "proxymanagerctl"))


def write(name, content):
    path = os.path.join("/tmp", name)
    with open(path, "wb") as file:
        file.write(content if isinstance(content, bytes) else content.encode())
    return path


def script(statement):
    return f'function FindProxyForURL(url, host) {{\n  {statement}\n  return "DIRECT";\n}}\n'


DOT = script('if (dnsDomainIs(host, "example.com")) return "DIRECT";')


def found(ctl, text, *options):
    """Line, column, severity and rule of each finding."""
    result = ctl("pac", "lint", "--format", "json", *options, "-", script=text)
    assert result.status in (ANSWERED, NO_ANSWER), result.errors
    return [(one["line"], one["column"], one["severity"], one["name"])
            for one in result.json["findings"]]


def expected(text):
    """The expected findings, from comments of the script: "expect: RULE[, RULE]" at the end of a
    line."""
    for number, line in enumerate(text.splitlines(), 1):
        for rule in re.findall(r"[\w-]+", line.partition("expect:")[2]):
            yield number, rule


@pytest.mark.slow
def test_scripts_as_companies_write_them_get_their_findings_and_no_others(ctl):
    scripts = sorted((HERE / "lint").glob("*.pac"))
    assert len(scripts) >= 40
    rules, wrong = set(), {}
    for path in scripts:
        text = path.read_text()
        findings = {(line, rule) for line, _, _, rule in found(ctl, text)}
        rules |= {rule for _, rule in findings}
        if findings != set(expected(text)):
            wrong[path.name] = findings ^ set(expected(text))
    assert wrong == {}
    assert rules == set(re.findall(r"^## ([a-z-]+)$", PAGE.read_text(), re.MULTILINE))
    # For each rule, there is a script that nearly causes the rule's finding. It must not cause it.
    for rule in rules:
        near = HERE / "lint" / (rule.replace("-", "_") + "_absent.pac")
        assert rule not in {found for _, found in expected(near.read_text())}


def test_people_see_place_severity_reason_and_fix(ctl):
    path = write("a.pac", DOT)
    result = ctl("pac", "lint", path)
    assert result.output == f"""\
{path}:2:7: warning: "example.com" also matches "badexample.com" [domain-dot]
    The end of a text is compared, not whole labels.
    fix: write ".example.com", and for the domain itself host == "example.com"
0 errors, 1 warning, 0 notes
"""
    assert (result.status, result.errors) == (NO_ANSWER, "")
    clean = ctl("pac", "lint", "-", script=CLEAN)
    assert (clean.status, clean.output) == (ANSWERED, "0 errors, 0 warnings, 0 notes\n")


def test_rules_are_switched_by_options_and_comments(ctl):
    text = script('if (dnsDomainIs(host, "Example.com")) return "PROXY p:1";')
    everything = {"domain-dot", "host-case", "direct-missing"}
    assert {name for _, _, _, name in found(ctl, text)} == everything
    assert {name for _, _, _, name in found(ctl, text, "--ignore", "host-case,direct-missing")} == {
        "domain-dot"}
    assert {name for _, _, _, name in found(ctl, text, "--ignore", "host-case", "--ignore",
                                            "domain-dot")} == {"direct-missing"}
    assert {name for _, _, _, name in found(ctl, text, "--only", "host-case")} == {"host-case"}
    commented = text.replace("\n  if", "\n  // pac-lint: ignore=host-case, domain-dot\n\n  if")
    assert {name for _, _, _, name in found(ctl, commented)} == {"direct-missing"}
    for option in ("--ignore", "--only"):
        unknown = ctl("pac", "lint", option, "domain-dots", "-", script=text)
        assert (unknown.status, unknown.output) == (USAGE, "")
        assert 'there is no rule "domain-dots"' in unknown.errors
        assert ctl("pac", "lint", option, "Domain\x1b", "-", script=text).status == USAGE


@pytest.mark.parametrize("statement, statuses", [
    ('return "BLAH";', (NO_ANSWER, NO_ANSWER, NO_ANSWER)),
    ('if (dnsDomainIs(host, "a.example")) return "DIRECT";', (ANSWERED, NO_ANSWER, NO_ANSWER)),
    ('if (host == "a.example") return "PROXY p:1";', (ANSWERED, ANSWERED, NO_ANSWER)),
    ("", (ANSWERED, ANSWERED, ANSWERED))])
def test_the_status_follows_the_severity_that_counts(ctl, statement, statuses):
    text = script(statement) if "BLAH" not in statement else CLEAN.replace("DIRECT", "BLAH")
    for severity, status in zip(("error", "warning", "note"), statuses):
        result = ctl("pac", "lint", "--fail-on", severity, "-", script=text)
        assert result.status == status, (severity, result.output)
    assert ctl("pac", "lint", "-", script=text).status == statuses[1]


def test_a_script_that_does_not_load_is_refused_with_its_line(ctl):
    result = ctl("pac", "lint", "-", script="var a;\n(")
    assert (result.status, result.output) == (REFUSED, "")
    assert result.errors.startswith("proxymanagerctl: standard input: line ")
    assert ctl("pac", "lint", "-", script="var a;").status == REFUSED
    assert ctl("pac", "lint", "/no/such").status == NO_INPUT


def test_lines_and_columns_are_those_of_the_file(ctl):
    wanted = [(2, 7, "warning", "domain-dot")]
    assert found(ctl, DOT) == wanted
    assert found(ctl, DOT.replace("\n", "\r\n")) == wanted
    assert found(ctl, DOT.replace("\n", "\r")) == wanted
    assert found(ctl, b"\xef\xbb\xbf" + DOT.encode()) == wanted
    assert found(ctl, b"// \xe4\xf6\xfc\n" + DOT.encode()) == [(3, 7, "warning", "domain-dot")]
    moved = DOT.replace("  if", "/*\u00e4\u00f6\U0001f600*/ if")
    assert found(ctl, moved) == [(2, 14, "warning", "domain-dot")]  # U+1F600 counts as two columns


def test_a_text_that_is_too_long_for_a_name_costs_no_time(ctl):
    domain = "a." + "b" * 400_000 + "-"
    assert found(ctl, DOT.replace("example.com", domain)) == []
    longest = "a." + "b" * 251
    assert [rule for *_, rule in found(ctl, DOT.replace("example.com", longest))] == ["domain-dot"]
    assert found(ctl, DOT.replace("example.com", longest + "b")) == []


def test_a_regular_expression_that_is_too_long_is_not_examined(ctl):
    def is_found(pattern):
        return found(ctl, script(f'if (/{pattern}/.test(host)) return "DIRECT";')) != []

    assert is_found("^(a+)+" + "(?:)" * 248 + "b$") and len("^(a+)+" + "(?:)" * 248 + "b$") == 1000
    assert not is_found("^(a+)+" + "(?:)" * 248 + "bc$")
    # The limit is 200 parts. The first expression has 197 times "b", and also "^", "a" and "$".
    assert is_found("^(a+)+b{197}$") and not is_found("^(a+)+b{198}$")
    assert not is_found("^((a*){9999}){9999}b$")


def test_a_finding_after_hundreds_of_answers_is_found(ctl):
    rules = "".join(f'  if (host == "h{number}.example") return "PROXY p{number}:1; DIRECT";\n'
                    for number in range(300))
    wrong = ('  if (host == "a.example") return "BLAH x:1";\n'
             '  if (host == "b.example") return "PROXY noport; DIRECT";\n'
             '  if (host == "c.example") return null;\n')
    text = script(rules + wrong)
    wanted = {"entry-unknown", "entry-port", "no-return"}
    assert wanted <= {name for _, _, _, name in found(ctl, text)}
    inner = text.replace("FindProxyForURL", "find") + \
        "function FindProxyForURL(url, host) { return find(url, host); }\n"
    assert wanted <= {name for _, _, _, name in found(ctl, inner)}


@pytest.mark.slow
def test_a_single_line_of_500_kb_is_looked_at_to_its_end(ctl):
    rules = "".join(f'if (host == "h{number}.example.com") return "DIRECT"; '
                    for number in range(10000))
    text = DOT.replace("\n", " ").replace("if (", rules + "if (", 1)
    assert 490_000 < len(text) < 512_000
    column = text.index("dnsDomainIs") + 1
    assert found(ctl, text) == [(1, column, "warning", "domain-dot")]


# The members that the published structure of SARIF 2.1.0 allows in each object. There must be no
# others.
SARIF = {"log": {"$schema", "version", "runs"}, "run": {"tool", "columnKind", "results"},
         "driver": {"name", "version", "rules"},
         "rule": {"id", "shortDescription", "fullDescription", "defaultConfiguration"},
         "result": {"ruleId", "ruleIndex", "level", "message", "locations"}}
LEVELS = {"note", "warning", "error"}


def check_text(message):
    assert set(message) == {"text"} and isinstance(message["text"], str) and message["text"]


def check_sarif(log):
    """Checks a SARIF log. Returns its results, as (rule, level, uri, line, column)."""
    assert set(log) == SARIF["log"] and log["version"] == "2.1.0" and len(log["runs"]) == 1
    run = log["runs"][0]
    assert set(run) == SARIF["run"] and run["columnKind"] == "utf16CodeUnits"
    assert set(run["tool"]) == {"driver"} and set(run["tool"]["driver"]) == SARIF["driver"]
    driver = run["tool"]["driver"]
    assert driver["name"] and re.fullmatch(r"\d+\.\d+\.\d+", driver["version"])
    rules = [rule["id"] for rule in driver["rules"]]
    assert len(set(rules)) == len(rules)
    for rule in driver["rules"]:
        assert set(rule) == SARIF["rule"] and rule["defaultConfiguration"]["level"] in LEVELS
        check_text(rule["shortDescription"])
        check_text(rule["fullDescription"])
    results = []
    for result in run["results"]:
        assert set(result) == SARIF["result"] and result["level"] in LEVELS
        assert rules[result["ruleIndex"]] == result["ruleId"]
        check_text(result["message"])
        assert len(result["locations"]) == 1 and set(result["locations"][0]) == {"physicalLocation"}
        place = result["locations"][0]["physicalLocation"]
        assert set(place) == {"artifactLocation", "region"}
        assert set(place["artifactLocation"]) == {"uri"}
        assert re.fullmatch(r"([A-Za-z0-9._~/-]|%[0-9A-F]{2}|^file://)+", place["artifactLocation"]["uri"])
        region = place["region"]
        assert set(region) == {"startLine", "startColumn"} and min(region.values()) >= 1
        results.append((result["ruleId"], result["level"], place["artifactLocation"]["uri"],
                        region["startLine"], region["startColumn"]))
    return results


def test_sarif_has_the_published_structure(ctl):
    folder = os.getcwd()
    os.chdir("/tmp")
    try:
        write("a b:\u00e4.pac", DOT)
        result = ctl("pac", "lint", "--format", "sarif", "a b:\u00e4.pac")
        assert result.status == NO_ANSWER
        assert check_sarif(result.json) == [
            ("domain-dot", "warning", "a%20b%3A%C3%A4.pac", 2, 7)]
        assert check_sarif(ctl("pac", "lint", "--format", "sarif", "/tmp/a b:\u00e4.pac").json)[0][2] == \
            "file:///tmp/a%20b%3A%C3%A4.pac"
        clean = ctl("pac", "lint", "--format", "sarif", "-", script=CLEAN)
        assert (clean.status, check_sarif(clean.json)) == (ANSWERED, [])
        many = (HERE / "lint/entry_unknown.pac").read_text()
        assert [(rule, level) for rule, level, *_ in check_sarif(
            ctl("pac", "lint", "--format", "sarif", "-", script=many).json)] == \
            [("entry-unknown", "error")] * 8
    finally:
        os.chdir(folder)


def test_each_rule_has_a_section_and_stands_in_the_help(ctl):
    log = ctl("pac", "lint", "--format", "sarif", "-", script=CLEAN).json
    rules = [rule["id"] for rule in log["runs"][0]["tool"]["driver"]["rules"]]
    assert re.findall(r"^## ([a-z-]+)$", PAGE.read_text(), re.MULTILINE) == rules
    help_ = ctl("pac", "lint", "--help").output
    assert [rule for rule in rules if not re.search(rf"(?<![\w-]){rule}(?![\w-])", help_)] == []


RANGES = {
    'dateRange(31, "MAY", 31, "JUN")': lambda year, *day: (5, 31) <= day <= (6, 30),
    'dateRange("JUN", "SEP", "GMT")': lambda year, *day: (6, 1) <= day <= (9, 30),
    'dateRange("FEB", 2024, "FEB", 2025)': lambda *day: (2024, 2, 1) <= day <= (2025, 2, 28),
    'dateRange("OCT", 2023, "FEB", 2024)': lambda *day: (2023, 10, 1) <= day <= (2024, 2, 29),
    'dateRange("FEB", "FEB")': lambda year, month, day: month == 2,
    'dateRange("NOV", "FEB")': lambda year, month, day: month in (11, 12, 1, 2),
    'dateRange(10, "FEB", 30, "FEB")': lambda year, month, day: month == 2 and day >= 10,
    'dateRange(1, "SEP", 2025, 31, "SEP", 2026)': lambda *day: (2025, 9, 1) <= day <= (2026, 9, 30),
}


def test_a_range_of_dates_is_right_after_its_fix(ctl):
    result = ctl("pac", "lint", "--format", "json", "-", script=script("\n".join(
        f"if ({call}) return;" for call in RANGES)))
    fixes = [one["fix"].removeprefix("write ") for one in result.json["findings"]
             if one["name"] == "date-month-end"]
    assert len(fixes) == len(RANGES)
    fixed = write("fixed.pac", "function FindProxyForURL(url, host) { return ["
                  + ", ".join(f"({fix})" for fix in fixes) + "].join(); }")
    for day in ((2024, 2, 9), (2024, 2, 10), (2024, 2, 29), (2024, 3, 1), (2024, 8, 15), (2025, 2, 28),
                (2025, 3, 1), (2026, 2, 28), (2026, 3, 1), (2026, 5, 15), (2026, 6, 30), (2026, 7, 1),
                (2026, 9, 30), (2026, 10, 1), (2026, 11, 1)):
        at = "{:04}-{:02}-{:02}T12:00".format(*day)
        told = ctl("pac", "eval", "--json", fixed, "http://a/", "--at", at, "--tz", "UTC").json[0]["result"]
        assert told == ",".join(str(inside(*day)).lower() for inside in RANGES.values()), day


def fixes_of(ctl, statement):
    result = ctl("pac", "lint", "--format", "json", "-", script=script(statement))
    return [one["fix"] for one in result.json["findings"]]


@pytest.mark.parametrize("test, wanted", [
    ('!dateRange("OCT", "FEB")', '!(dateRange(1, "OCT", 31, "JAN") || dateRange("FEB"))'),
    ('host && dateRange("OCT", "FEB")', 'host && (dateRange(1, "OCT", 31, "JAN") || dateRange("FEB"))'),
    ('dateRange(10, "FEB", 30, "FEB") == true', '(dateRange("FEB") && dateRange(10, 31)) == true'),
    ('!dateRange("APR", "JUN")', '!dateRange(1, "APR", 30, "JUN")')])
def test_the_fix_of_a_range_of_dates_fits_its_place(ctl, test, wanted):
    [fix] = fixes_of(ctl, f'if ({test}) return "DIRECT";')
    call = test[test.index("dateRange"):test.index(")") + 1]
    assert test.replace(call, fix.removeprefix("write ")) == wanted


@pytest.mark.parametrize("functions, is_at_top", [
    ('function look(h) { ip = dnsResolve(h); }\n'
     'function FindProxyForURL(url, host) { look(host); return ip ? "DIRECT" : "PROXY a:1"; }', True),
    ('function look(h) { ip = h; }\n'
     'function FindProxyForURL(url, host) { if (url) ip = url; look(host); return ip + ""; }', True),
    ('function look(h) { ip = h; return ip; }\n'
     'function FindProxyForURL(url) { for (ip = 0; ip < 3; ip++) look(url); return "DIRECT"; }', False),
    ('function look(h) { ip = h; return (function () { return ip; })(); }\n'
     'function FindProxyForURL(url, host) { look(url.ip); return "DIRECT"; }', False)])
def test_the_fix_for_a_global_declares_it_for_all_functions_that_read_it(ctl, functions, is_at_top):
    result = ctl("pac", "lint", "--only", "no-var", "--format", "json", "-", script=functions)
    [finding] = result.json["findings"]
    assert finding["fix"] == "write var ip" + (
        "; at the top of the script, because another function reads it" if is_at_top else "")


def test_an_answer_that_is_built_in_a_variable_is_read_as_the_script_builds_it(ctl):
    def names(body):
        return [rule for *_, rule in found(ctl, "function FindProxyForURL(url, host) {\n"
                                           f"if (isPlainHostName(host)) return 'DIRECT';\n{body}\n}}\n")]

    assert names('var r = "PROXY"; r += " proxy.example:8080; DIRECT"; return r;') == []
    assert names('var r = "PROXY"; r += " proxy.example; DIRECT"; return r;') == ["entry-port"]
    assert names('var p = "p.example:80"; p = "PROXY " + p + "; DIRECT"; return p;') == []
    assert names('var p = "PROXY a:8080"; p += "; DIRECT"; return p;') == []
    assert names('var p = "PROXY a:8080"; if (url) p += "; DIRECT"; return p;') == []
    assert names('var p = "PROXY a:8080"; if (url) p = "DIRECT"; return p;') == ["direct-missing"]
    assert names('p = "a:8080"; p = "PROXY " + p; return p;') == ["no-var", "direct-missing"]


@pytest.mark.slow
def test_many_writes_and_reads_of_a_variable_take_no_long_time(ctl):
    body = "".join(f'if (host == "h{number}.example") p = "PROXY a:1; DIRECT";\n'
                   f'if (host == "i{number}.example") return p;\n' for number in range(3000))
    assert found(ctl, script("var p;\n" + body)) == []
    chain = "".join(f'if (host == "h{number}.example") {{ p = "PROXY a:1; DIRECT"; return p; }} else\n'
                    for number in range(500))
    assert found(ctl, script(f"var p = 1;\n{chain} p = 2;")) == []


def test_a_fix_does_what_its_finding_misses(ctl):
    for test, fix in (('shExpMatch(url, "https://a.example/x")', "https://a.example/*"),
                      ('url.startsWith("https://a.example/x")', "https://a.example/"),
                      ('url == "https://a.example/x"', "https://a.example/")):
        assert fixes_of(ctl, f'if ({test}) return "DIRECT";') == [f'test the host alone, as in "{fix}"']
        fixed = test.replace("https://a.example/x", fix)
        answer = ctl("pac", "eval", "--json", "-", "https://a.example/x",
                     script=script(f'if ({fixed}) return "PROXY a:1";'))
        assert answer.json[0]["result"] == "PROXY a:1"
    assert fixes_of(ctl, 'if (host == "x.y") return "PROXY a:1/; DIRECT";') == ['write "PROXY a:1"']
    assert fixes_of(ctl, 'if (host == "x.y") return "PROXY a:1, DIRECT";') == ['write ";" between entries']


def test_an_assignment_that_throws_in_strict_mode_is_an_error(ctl):
    text = (HERE / "lint/no_var_strict_function.pac").read_text()
    assert [(line, severity) for line, _, severity, _ in found(ctl, text)] == [
        (5, "error"), (9, "error"), (11, "warning")]


def test_a_script_without_a_visible_entry_point_gets_a_note(ctl):
    text = (HERE / "lint/no_return_unknown_entry.pac").read_text()
    assert found(ctl, text) == [(1, 1, "note", "no-return")]
    assert ctl("pac", "lint", "-", script=text).status == ANSWERED


def test_a_hostile_script_reaches_no_terminal(ctl):
    text = script('if (dnsDomainIs(host, "\\x1b[2J\x9b.a.example")) return "\\x1b BLAH";')
    output = ctl("pac", "lint", "-", script=text).output
    assert "BLAH" in output and not re.search("[\x00-\x09\x0b-\x1f\x7f-\x9f]", output)
