"""Tests the package if another user has made a file with the resolver file's name before the
package makes the resolver file."""

import os
import pathlib
import re
import subprocess

import pytest
from support.bus import Client
from support.daemon import Daemon
from support.syslog_socket import ERR

TREE = pathlib.Path(__file__).parents[2]
RESOLVER = "/tmp/.resolv.conf.dnsmasq"
PLANTED = "search evil.example\n"
SOMEBODY = 12345


def plant(path=RESOLVER):
    with open(path, "w") as file:
        file.write(PLANTED)
    os.chown(path, SOMEBODY, SOMEBODY)


def make_what_tmpfiles_d_lists():
    done = subprocess.run(
        ["systemd-tmpfiles", "--create", TREE / "packaging/tmpfiles.d/proxymanagerd.conf"],
        capture_output=True, text=True, timeout=60)
    assert os.path.exists("/usr/local/lumad/dhcp.conf"), done.stderr


def run_the_line_of(script):
    """Runs the line with which a packaged script removes files of other users."""
    lines = re.findall(r"^ *(find /tmp/.*)$", (TREE / script).read_text(), re.MULTILINE)
    assert len(lines) == 1, script
    subprocess.run(["sh", "-ec", lines[0]], check=True, timeout=60)


def test_tmpfiles_d_makes_the_files_root_s_and_leaves_them_so(root):
    make_what_tmpfiles_d_lists()
    made = os.stat(RESOLVER)
    assert (made.st_uid, made.st_mode & 0o7777, made.st_size) == (0, 0o644, 0)
    pathlib.Path(RESOLVER).write_text("search lan.example\n")
    make_what_tmpfiles_d_lists()
    assert pathlib.Path(RESOLVER).read_text() == "search lan.example\n"


def test_a_planted_resolver_file_is_neither_adopted_nor_followed(build, bus, syslog):
    plant()
    os.chmod(RESOLVER, 0o666)
    make_what_tmpfiles_d_lists()
    assert os.stat(RESOLVER).st_uid == SOMEBODY
    daemon = Daemon(build, start=False).start()
    with Client() as client:
        client.update("wpad")
    syslog.wait(ERR, f"PACFetcher-getDomainName open:{RESOLVER} failed")
    assert not [line for line in syslog.raw if b"evil.example" in line]
    assert daemon.stop() == 0


@pytest.mark.parametrize("script", ["packaging/debian/proxymanagerd.postinst",
                                    "packaging/proxymanagerd.init"])
def test_packaged_scripts_remove_what_others_planted_and_nothing_else(root, script):
    target = pathlib.Path(RESOLVER)
    run_the_line_of(script)  # at first, there is no file of another user
    plant()
    run_the_line_of(script)
    assert not target.exists()
    target.mkdir()
    os.chown(target, SOMEBODY, SOMEBODY)
    (target / "inside").touch()
    run_the_line_of(script)
    assert not target.exists()
    victim = pathlib.Path("/tmp/victim")
    victim.write_text("victim")
    target.symlink_to(victim)
    run_the_line_of(script)
    assert not target.is_symlink() and victim.read_text() == "victim"
    os.link(victim, target)
    run_the_line_of(script)
    assert not target.exists() and victim.read_text() == "victim"
    target.write_text("search lan.example\n")
    run_the_line_of(script)
    assert target.read_text() == "search lan.example\n"
