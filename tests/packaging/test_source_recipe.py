"""Runs the recipe of docs/installing.md for an installation from source, line by line, in a clean
system."""

import pathlib
import re
import subprocess

import pytest
from machine import Machine

TREE = pathlib.Path(__file__).parents[2]
DOCUMENT = TREE / "docs/installing.md"
SECTION = re.compile(r"^## From source\n.*?^```\n(.*?)^```$", re.MULTILINE | re.DOTALL)
COPY = "root/proxymanagerd"


def recipe():
    found = SECTION.search(DOCUMENT.read_text(encoding="utf-8"))
    assert found, f"{DOCUMENT} has no section with a recipe"
    return found[1]


def build_packages():
    """The packages that the first line of the recipe installs. The system has no network, so these
    packages must be in the system before the recipe runs.

    Of alternative packages, the function returns the first one that this release of Debian has. The
    script engine needs no package, because its source is in the tree.
    """
    listed = subprocess.run([TREE / "packaging/dependencies.sh", "--list", "--no-tests"],
                            check=True, capture_output=True, text=True).stdout
    for line in listed.splitlines():
        names = [re.split(r"[ (]", alternative.strip())[0] for alternative in line.split("|")]
        known = subprocess.run(["apt-cache", "show", *names], check=False, capture_output=True,
                               text=True).stdout
        yield next(name for name in names if f"Package: {name}\n" in known)


def copy_of_the_tree(root):
    """The files that git tracks or would add, and the engine's source, as in a source tarball."""
    copy = root / COPY
    copy.mkdir(parents=True)
    listed = subprocess.run(["git", "-C", TREE, "-c", "safe.directory=*", "ls-files", "-z", "--cached",
                             "--others", "--exclude-standard"], check=True, capture_output=True)
    names = [name for name in listed.stdout.decode().split("\0") if (TREE / name).exists()]
    subprocess.run(["tar", "-C", TREE, "--null", "-T", "-", "-cf", copy / "tree.tar"], check=True,
                   input="\0".join(names).encode())
    subprocess.run(["tar", "-C", copy, "-xf", copy / "tree.tar"], check=True)
    (copy / "tree.tar").unlink()
    engine = subprocess.run([TREE / "packaging/quickjs/fetch_quickjs.sh"], check=True,
                            capture_output=True, text=True).stdout.strip()
    subprocess.run(["cp", "-r", engine, copy / "packaging/quickjs/source"], check=True)


@pytest.fixture(scope="module")
def machine():
    with Machine([], names={*build_packages(), "sudo"}) as booted:
        copy_of_the_tree(booted.root)
        yield booted


def test_the_recipe_leads_to_a_daemon_that_answers(machine):
    script = f"cd /{COPY} && PATH=$PATH:/usr/local/bin && set -ex\n{recipe()}"
    done = machine.run("sh", "-c", script, check=False, limit=3000)
    assert done.returncode == 0, f"{done.stdout[-3000:]}{done.stderr[-3000:]}{machine.journal()}"
    assert "running     yes" in done.stdout and "answers     yes" in done.stdout


def test_the_daemon_runs_as_its_user_and_the_policy_holds(machine):
    process = machine.show("proxymanagerd", "MainPID")
    assert machine.run("stat", "-c", "%U", f"/proc/{process}").stdout.strip() == "proxymanagerd"
    ctl = "/usr/local/bin/proxymanagerctl"
    machine.run(ctl, "manual", "http://proxy.example:3128")
    asked = machine.run("sudo", "-u", "nobody", ctl, "get", "--format", "raw", "http://host.example/")
    assert asked.stdout == "http://proxy.example:3128\n"
    refused = machine.run("sudo", "-u", "nobody", ctl, "config", check=False)
    assert refused.returncode == 77, refused.stderr


def test_the_daemon_watches_the_files_that_the_recipe_made(machine):
    process = machine.show("proxymanagerd", "MainPID")
    watches = machine.run("sh", "-c", f"grep -h '^inotify' /proc/{process}/fdinfo/*").stdout
    assert len(watches.splitlines()) == 2, watches
