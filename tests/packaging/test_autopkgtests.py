"""Runs debian/tests of the source tarball with autopkgtest, in a clean system with the packages
of that tarball."""

import glob
import pathlib
import re
import subprocess

import pytest
from machine import Machine


# libproxy's own library, and a plugin that depends on exactly this revision of it.
REPLACED = ("libproxy1v5", "libproxy1-plugin-gsettings")


def statuses(machine):
    shown = machine.run("dpkg-query", "-W", "-f", "${db:Status-Status}\\n", *REPLACED, check=False)
    return set(shown.stdout.split())


@pytest.fixture(scope="session")
def folder(request):
    return pathlib.Path(request.config.getoption("--folder"))


@pytest.fixture(scope="session")
def control(folder):
    return (folder / "one/source/debian/tests/control").read_text(encoding="utf-8")


@pytest.fixture(scope="session")
def machine(folder, control):
    packages = sorted(file for file in glob.glob(f"{folder}/out/*.deb") if "dbgsym" not in file)
    own = {pathlib.Path(package).name.split("_")[0] for package in packages}
    wanted = {name for field in re.findall(r"^Depends: (.*)", control, re.MULTILINE)
              for name in re.split(r",\s*", field)}
    with Machine(packages, names={*wanted - own, "autopkgtest", "dpkg-dev", *REPLACED}) as booted:
        assert statuses(booted) == {"installed"}
        subprocess.run(["cp", "-a", folder / "one/source", booted.root / "root/source"], check=True)
        (booted.root / "packages").mkdir()
        subprocess.run(["cp", *packages, booted.root / "packages"], check=True)
        booted.run("sh", "-c", "apt-get install --yes /packages/*.deb")
        yield booted


def test_libproxy_and_its_plugins_are_removed_and_its_users_stay(machine):
    assert "installed" not in statuses(machine)
    assert machine.run("dpkg-query", "-W", "-f", "${db:Status-Status}", "libproxy-tools").stdout == "installed"
    machine.run("dpkg", "--audit")


def test_each_autopkgtest_passes(machine, control):
    done = machine.run("autopkgtest", "--no-built-binaries", "/root/source", "--", "null", check=False, limit=1500)
    results = dict(re.findall(r"^(\S+) +(PASS|FAIL|SKIP)\b", done.stdout, re.MULTILINE))
    print(done.stdout[-6000:], done.stderr[-3000:])
    assert results == dict.fromkeys(re.findall(r"^Tests: (.*)", control, re.MULTILINE), "PASS")
    assert done.returncode == 0
