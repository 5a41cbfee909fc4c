"""Tests the completions of proxymanagerctl, each in its own shell. They have the label slow, so
they do not run under sanitizers. The completions are shell scripts, in which sanitizers find
nothing."""

import os
import re
import shlex
import shutil
import subprocess

import pytest
from support.ctl import LIMIT, Terminal

FOLDER = os.path.abspath(os.path.join(os.path.dirname(__file__), "../../packaging/completion"))
ENVIRONMENT = {"PATH": "/usr/bin:/bin", "LC_ALL": "C", "TERM": "xterm", "HOME": "/tmp"}
FORMATS = {"table", "curl", "env", "raw"}


def run(*command):
    done = subprocess.run(command, env=ENVIRONMENT, capture_output=True, text=True, timeout=LIMIT,
                          cwd="/tmp")
    assert (done.returncode, done.stderr) == (0, ""), (command, done)
    return done.stdout


@pytest.fixture(scope="module")
def grammar(build):
    """The words after each command of the program, read from its help."""
    program = os.path.join(build, "out", "bin", "proxymanagerctl")

    def level(*words):
        help_ = run(program, *words, "--help")
        options = set(re.findall(r"^  (?:-\w,)?(--[a-z-]+)", help_, re.MULTILINE))
        _, _, rest = help_.partition("\nSubcommands:\n")
        found[words] = options, set(re.findall(r"^  ([a-z-]+) ", rest.split("\n\n")[0], re.MULTILINE))
        for command in found[words][1]:
            level(*words, command)

    found = {}
    level()
    assert {("get",), ("exec",), ("pac", "eval")} <= set(found) and len(found) >= 27
    return found


def bash(*words):
    """The words that the completion offers for the last word."""
    array = " ".join(map(shlex.quote, ["proxymanagerctl", *words]))
    return set(run("bash", "--norc", "-c", f"""set -u
        source {FOLDER}/proxymanagerctl.bash
        COMP_WORDS=({array}); COMP_CWORD={len(words)}
        _proxymanagerctl; printf '%s\\n' "${{COMPREPLY[@]}}" """).split())


def fish(*words):
    line = "proxymanagerctl " + " ".join(words)
    shown = run("fish", "--no-config", "-c", f"source {FOLDER}/proxymanagerctl.fish; "
                f"complete -C {shlex.quote(line)}")
    return {found.split("\t")[0] for found in shown.splitlines()}


def lint_rules():
    with open(os.path.join(FOLDER, "../../docs/pac-lint.md"), encoding="utf-8") as page:
        return set(re.findall("^## ([a-z-]+)$", page.read(), re.MULTILINE))


@pytest.mark.parametrize("shell", [bash, fish])
@pytest.mark.slow
def test_bash_and_fish_offer_every_command_and_option(grammar, shell):
    if not shutil.which(shell.__name__):
        pytest.skip(f"there is no {shell.__name__}")
    os.makedirs("/tmp/of files")
    for words, (options, commands) in grammar.items():
        # If a command has no subcommands, `commands` is empty, so this assertion holds for any
        # list.
        assert commands <= shell(*words, ""), words
        assert options <= shell(*words, "--"), words
    assert shell("get", "--format", "") == FORMATS
    assert shell("get", "--format", "c") == {"curl"}
    rules = lint_rules()
    for option in ("--ignore", "--only"):
        assert shell("pac", "lint", option, "") == rules
        assert shell("pac", "lint", option, "host-case,entry-p") == {"host-case,entry-port"}
    assert "printf" in shell("exec", "http://a/", "--", "print")


@pytest.mark.slow
def test_bash_completes_behind_an_equals_sign_and_files():
    assert bash("get", "--format", "=") == FORMATS
    assert bash("get", "--format", "=", "r") == {"raw"}
    open("/tmp/given.pac", "w").close()
    assert bash("pac", "eval", "given") == bash("off", "--password-file", "gi") == {"given.pac"}
    assert "Europe/Berlin" in bash("pac", "eval", "--tz", "Europe/B")
    for words in (["nonsense", ""], ["get", "http"], ["off", "--user", ""]):
        assert bash(*words) == set()


@pytest.mark.slow
def test_zsh_offers_every_command_and_option(grammar):
    if not shutil.which("zsh"):
        pytest.skip("there is no zsh")
    run("zsh", "-f", "-n", f"{FOLDER}/_proxymanagerctl")
    zsh = Terminal(["zsh", "-f", "-i"], ENVIRONMENT)
    zsh.type("PS1='READY'; PS1+='> '; unsetopt beep prompt_sp; LISTMAX=0; "
             f"fpath=({FOLDER} $fpath); stty columns 200 rows 60; "
             "autoload -Uz compinit; compinit -u -D\n")
    zsh.output.wait("READY> ")

    def offered(line, wanted):
        zsh.type(f"proxymanagerctl {line}\t")
        missing, text = set(wanted), ""
        while missing:
            try:
                text += re.sub(r"\x1b\[[0-9;?]*[A-Za-z]", "\n", zsh.output.wait(".+").group(0))
            except AssertionError as error:
                raise AssertionError(f"{line!r} does not offer {missing}: {text}") from error
            missing = {word for word in missing
                       if not re.search(rf"(?<![\w-]){re.escape(word)}(?![\w-])", text)}
        # Clears the line. Then a command marks the end of the list.
        zsh.type("\x15print e''nd\n")
        zsh.output.wait("end.*READY> ")

    for words, (options, commands) in grammar.items():
        if commands:
            offered(" ".join([*words, ""]), commands)
        offered(" ".join([*words, "--"]), options)
    offered("get --format ", FORMATS)
    offered("pac lint --ignore ", lint_rules())
    offered("pac lint --only host-case,", lint_rules() - {"host-case"})
    zsh.type("exit 0\n")
    assert zsh.end()[0] == 0
