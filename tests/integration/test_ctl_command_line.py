"""Tests the command line of proxymanagerctl, its help and its output."""

import pathlib
import re

from support.ctl import ANSWERED, COMMANDS, MAX_URL, OUTPUT, UNAVAILABLE, USAGE, commands

PAGE = pathlib.Path(__file__).parents[2] / "docs/man/proxymanagerctl.1"
# The exit statuses that the help of a command lists before those of all commands.
OWN_STATUSES = {"get": ["0", "1"], "exec": ["1", "126", "127"],
                **{name: ["0", "65", "66"] for name in ("off", "manual", "pacurl", "wpad")}}


def test_colour_is_for_terminals_alone(ctl, client):
    client.update("manual", "p:1")
    for arguments, environment, coloured in (
            (["status"], {}, True), (["get", "http://a/"], {}, True),
            (["config"], {}, True), (["config"], {"NO_COLOR": "1"}, False),
            (["config"], {"NO_COLOR": ""}, True), (["config"], {"TERM": "dumb"}, False),
            (["config"], {"TERM": None}, False), (["config", "--json"], {}, False)):
        terminal = ctl.on_terminal(*arguments, environment=environment)
        status, shown = terminal.end()
        assert status == ANSWERED
        assert ("\x1b[" in shown) == coloured, (arguments, environment, shown)
    assert "\x1b" not in ctl("status", environment={"TERM": "xterm"}).output


def test_no_control_character_of_the_daemons_reaches_the_terminal(ctl, client):
    hostile = "http://\x1b[2J\r\n\x9b1m\x7f@p"
    client.update("manual", hostile, auth=True, user="u\x07", password="\x1b]0;")
    for arguments in (["status", "--show-password"], ["config", "--show-password"], ["get", "a\x1b/"],
                      ["get", "--format", "raw", "http://a/"],
                      ["get", "--format", "curl", "http://a\x1b[2J/"]):
        result = ctl(*arguments)
        assert not re.search("[\x00-\x09\x0b-\x1f\x7f-\x9f]", result.output + result.errors)
        assert result.output.count(r"\x1b") + result.errors.count(r"\x1b") > 0, arguments
    for name in ("status", "config"):
        output = ctl(name, "--json", "--show-password").output
        assert not re.search("[\x00-\x09\x0b-\x1f\x7f-\uffff]", output), output
        assert r"\u009b1m\u007f" in output
    assert ctl("config", "--json", "--show-password").json["proxyurl"] == hostile


def test_a_wrong_command_line_ends_with_status_64(ctl):
    def refused(*arguments):
        result = ctl(*arguments)
        assert (result.status, result.output) == (USAGE, "")
        line, see = result.errors.splitlines()
        assert see == f"proxymanagerctl: see proxymanagerctl {arguments[0]} --help"
        return line.removeprefix("proxymanagerctl: ")

    assert refused("get") == "URL is required"
    assert refused("get", "--format", "xml", "http://a/").startswith("--format: ")
    assert refused("get", "--format", "env", "http://a/", "http://b/") == \
        "--format: env takes one URL: a second one would overwrite its variables"
    assert refused("get", "--format", "raw", "--json", "http://a/") == "--format excludes --json"
    assert refused("get", b"\xff") == "URL: it is no text in UTF-8"
    for name, rest in (("get", []), ("exec", ["--", "true"])):
        assert refused(name, "x" * (MAX_URL + 1), *rest) == "URL: it is longer than 65535 bytes"
        assert ctl(name, "x" * MAX_URL, *rest).status == UNAVAILABLE
    assert refused("get", "--none", "http://a/").endswith("--none")
    for text in ("", "0", "-1", "86400.1", "1e3", "x", "1x", "nan", "inf"):
        assert refused("config", f"--timeout={text}" if text else "--timeout", *([] if text else [""])) \
            == f'--timeout: "{text}" is no number of seconds above 0 and up to 86400'
    assert refused("off", "--password-file", "-") == "--password-file requires --user"
    assert refused("off", "--user", "") == "--user: the name is empty"
    assert refused("off", "--user", b"\xff") == "--user: it is no text in UTF-8"
    assert refused("off", "http://p:1").endswith("http://p:1")
    assert refused("manual") == "URL is required"
    assert refused("manual", "") == 'URL: it is empty; "proxymanagerctl off" turns proxies off'
    assert refused("manual", b"\xff") == "URL: it is no text in UTF-8"
    for url in ("http://a b", "http://a\x1b", "http://a\x7f"):
        assert refused("manual", url) == "URL: it holds a blank or a control character"
    for url in ("ftp://p:1", "http://p/path", "http://p?q", "p:0", "http://[::1", ".p"):
        assert refused("manual", url) == (
            "URL: it is no proxy's; give it as http://proxy.example:3128, or with https, socks4, "
            "socks4a, socks5 or socks5h in place of http"), url
    for url in ("ftp://p/x.pac", "file:/etc/passwd", "FILE:///x.pac", "data:,x", "p:x/y.pac", "foo",
                "/etc/proxy.pac", "http://", "http:///x.pac", "p/x.pac"):
        assert refused("pacurl", url) == (
            "URL: it is no URL that the daemon fetches; those begin with http:// or https:// and a "
            "host"), url
    assert refused("manual", "-", "--user", "u", "--password-file", "-") == \
        "--password-file: standard input holds the URL already"
    assert refused("exec") == "URL is required"
    assert refused("exec", "http://a/") == '"--" and a command behind it is required'
    assert refused("exec", "http://a/", "--") == 'A command behind "--" is required'
    assert refused("exec", "http://a/", "true", "--", "true").endswith("true")


def test_output_that_cannot_be_written_is_said(ctl, client):
    client.update("manual", "p:1")
    for name, arguments in commands("exec", "off", "manual", "pacurl", "wpad"):
        for options in ([], ["--json"]):
            with open("/dev/full", "wb") as full:
                result = ctl(name, *arguments, *options, stdout=full)
            assert (result.status, result.errors) == (
                OUTPUT, "proxymanagerctl: cannot write the output: No space left on device\n"), name


def test_the_page_has_the_programs_list_of_exit_statuses(ctl):
    help_text = re.sub(r"\n {7}", " ", ctl("--help").output.split("Exit status:")[1])
    listed = re.findall(r"^  (\d+) +(.*)$", help_text, re.MULTILINE)
    assert len(listed) > 10
    with open(PAGE) as page:
        section = page.read().split(".SH EXIT STATUS")[1].split(".SH ")[0]
    assert re.findall(r"^\.B (\d+)\n(.*)$", section, re.MULTILINE) == listed


def test_each_command_has_its_help(ctl):
    program = ctl("--help").output
    for name in COMMANDS:
        assert re.search(rf"^  {name} ", program, re.MULTILINE)
        result = ctl(name, "--help")
        assert (result.status, result.errors) == (ANSWERED, "")
        assert f"Usage: proxymanagerctl {name} " in result.output
        assert "--timeout SECONDS" in result.output
        statuses = re.findall(r"^  (\d+)  ", result.output.split("Exit status:")[1], re.MULTILINE)
        assert statuses == OWN_STATUSES.get(name, ["0"]) + [
            "64", "69", "70", "74", "75", "76", "77"], name
        assert [line for line in result.output.splitlines() if len(line) > 80] == []


def test_the_help_comes_by_any_of_its_usual_names(ctl):
    whole = ctl("--help").output
    for arguments in (["-h"], ["help"]):
        result = ctl(*arguments)
        assert (result.status, result.output) == (ANSWERED, whole), arguments
    for arguments in ([], ["--json"], ["--timeout", "3"], ["--timeout"]):  # no command
        bare = ctl(*arguments)
        assert (bare.status, bare.output, bare.errors) == (USAGE, whole, ""), arguments
    assert ctl("--json", "help").output == whole
    assert ctl("--timeout", "3", "help", "pac", "eval").output == ctl("pac", "eval", "--help").output
    assert ctl("help", "get").output == ctl("get", "--help").output
    assert ctl("help", "pac", "eval").output == ctl("pac", "eval", "--help").output
    assert ctl("-V").output == ctl("--version").output
    for options in (["--json"], ["--json", "--timeout", "3"], ["--timeout=3", "--json"]):
        assert ctl(*options, "get", "http://localhost/").json == \
            ctl("get", "--json", "http://localhost/").json
    assert ctl("--timeout", "3", "exec", "http://localhost/", "--", "echo", "x").output == "x\n"
    for arguments in (["help", "nonsense"], ["nonsense", "--help"], ["nonsense"]):
        result = ctl(*arguments)
        assert (result.status, result.output) == (USAGE, "")
        assert result.errors == ('proxymanagerctl: there is no command "nonsense"\n'
                                 "proxymanagerctl: see proxymanagerctl --help\n")
    for arguments, group in ((["help", "pac", "nonsense"], "pac"), (["help", "relay", "nonsense"], "relay"),
                             (["pvd", "nonsense", "--help"], "pvd"), (["help", "get", "nonsense"], "get"),
                             (["help", "pac", "eval", "nonsense"], "pac eval")):
        result = ctl(*arguments)
        assert (result.status, result.output) == (USAGE, "")
        assert result.errors == ('proxymanagerctl: there is no command "nonsense"\n'
                                 f"proxymanagerctl: see proxymanagerctl {group} --help\n")
    assert ctl("pac", "eval", "script", "--help").output == ctl("help", "pac", "eval").output
    result = ctl("--json", "relay", "status")
    assert result.status == USAGE and 'there is no command "status"' in result.errors
