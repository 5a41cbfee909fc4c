"""Tests that the folders and files that the daemon needs exist after the boot."""

import os
import shutil
import stat
import subprocess

import pytest
from clients import contents
from support.bus import Client
from support.daemon import Daemon
from support.syslog_socket import ERR, INFO, NOTICE

LEASE = "/usr/local/lumad/dhcp.conf"
RESOLVER = "/tmp/.resolv.conf.dnsmasq"
HERE = os.path.dirname(os.path.abspath(__file__))
RULES = os.path.join(HERE, "..", "..", "packaging", "tmpfiles.d", "proxymanagerd.conf")


def tmpfiles(*words, rules=RULES):
    done = subprocess.run(["systemd-tmpfiles", *words, rules], capture_output=True, text=True)
    assert (done.returncode, done.stderr) == (0, "")


@pytest.fixture
def bare(root):
    """Makes a system in which the watched files and their folder do not exist yet."""
    shutil.rmtree("/usr/local/lumad")


def test_the_watched_files_are_there_from_boot_on_and_keep_what_they_hold(bare):
    tmpfiles("--create")
    for path in (LEASE, RESOLVER):
        status = os.stat(path)
        assert (stat.S_IMODE(status.st_mode), status.st_uid, status.st_size) == (0o644, 0, 0), path
    with open(LEASE, "w") as file:
        file.write("wpad=x\n")
    tmpfiles("--create")
    assert contents(LEASE) == "wpad=x\n"


def test_they_are_not_cleared_out_of_tmp_with_age(bare):
    tmpfiles("--create")
    for path in ("/tmp/proxymanager.pac", "/tmp/other"):
        open(path, "w").close()
    with open("/etc/rules.conf", "w") as file:
        file.write(open(RULES).read() + "q /tmp 1777 root root 0\n")
    tmpfiles("--clean", rules="/etc/rules.conf")
    assert not os.path.exists("/tmp/other"), "nothing was cleared at all"
    assert os.path.exists(RESOLVER)
    assert os.path.exists("/tmp/proxymanager.pac")


def test_a_daemon_with_them_watches_both(bare, build, syslog, bus):
    tmpfiles("--create")
    daemon = Daemon(build)
    for path in (LEASE, RESOLVER):
        syslog.wait(NOTICE, f"PACFetcher-dhcpCfgWatchThreadFunc inotify_add_watch, path:{path}")
    syslog.wait_match(INFO, r"PACFetcher-wait_for_changes fd:\d+, interval:1800")
    daemon.close()


def test_a_daemon_without_them_says_so_and_works_without_the_watch(bare, build, syslog, bus,
                                                                   gateway):
    gateway.serve(gateway.network.address, "/x.pac", "PROXY a:1")
    daemon = Daemon(build)
    for path in (LEASE, RESOLVER):
        syslog.wait(ERR, f"PACFetcher-dhcpCfgWatchThreadFunc error setting up watch on path:{path}")
    syslog.wait(ERR, "PACFetcher-dhcpCfgWatchThreadFunc setting up watch on paths failed")
    with Client() as client:
        gateway.connect_device()
        client.update("pacurl", pacurl=f"http://{gateway.network.address}/x.pac")
        syslog.wait(INFO, "PacParser-parsePacFile pac init")
        assert client.urls("http://a/") == ["pacurl", "PROXY a:1"]
    daemon.close()
