"""Tests which files the daemon writes, and which parts of its configuration it reports."""

import os
import stat

import pytest
from support.bus import Client, wait_until
from support.daemon import Daemon, make_watched_files
from support.own_root import MS_BIND, mount
from support.syslog_socket import INFO
from support.web import Held, script

PAC = "/tmp/proxymanager.pac"
RUN_FILE = "/run/proxymanagerd.pid"
MS_RDONLY, MS_REMOUNT = 1, 32
# The folders of this test. Everything else is read-only while the daemon runs.
OWN = ("/tmp", "/run", "/etc", "/dev", "/usr/local")


@pytest.fixture(autouse=True)
def listed_name(root):
    """Makes listed.example resolve by /etc/hosts, because there is no name server for the lookup of
    the script."""
    with open("/etc/hosts", "a") as file:
        file.write("192.0.2.7 listed.example\n")


def files(*others):
    """Path and state of every file in the test's folders, except in the folders `others`."""
    found = {}
    for folder in OWN:
        for path, folders, names in os.walk(folder):
            folders[:] = [name for name in folders
                          if not any(f"{other}/".startswith(os.path.join(path, name) + "/")
                                     for other in others)
                          and os.path.join(path, name) not in ("/dev/pts", "/dev/shm", "/dev/fd")]
            for name in folders + names:
                status = os.lstat(os.path.join(path, name))
                kept = (status.st_mode, status.st_uid, status.st_ino)
                # The devices are the machine's own devices, so other programs write to them.
                is_kept_alone = name in folders or stat.S_ISCHR(status.st_mode)
                found[os.path.join(path, name)] = kept if is_kept_alone else (
                    *kept, status.st_size, status.st_mtime_ns)
    return found


def changed(before, after):
    """The files that differ, except the file of the daemon's standard error, which the test
    makes."""
    return {path for path in {*before, *after} if before.get(path) != after.get(path)
            and not path.startswith("/run/daemon_stderr.")}


def load(client, web, syslog, text):
    web.routes["/x.pac"] = text
    before = syslog.count(INFO, "PacParser-parsePacFile pac init")
    client.update("pacurl", pacurl=web.url("/x.pac"), auth=True, user="joe", password=PASSWORD)
    syslog.wait(INFO, "PacParser-parsePacFile pac init", before + 1)


PASSWORD = "correct-horse-battery"
LOOKS_UP = """function FindProxyForURL(url, host) {
  alert(myIpAddress()); isResolvable("listed.example"); return "PROXY p:1";
}"""


def test_it_writes_the_script_and_the_run_file_and_nothing_else(build, bus, syslog, web):
    make_watched_files()
    tree = os.path.abspath(os.path.join(os.path.dirname(__file__), "../.."))
    before = files(build, tree)
    mount(None, "/", flags=MS_REMOUNT | MS_BIND | MS_RDONLY)
    daemon = Daemon(build)
    with Client() as client:
        load(client, web, syslog, LOOKS_UP)
        assert client.urls("http://a/") == ["pacurl", "PROXY p:1"]
        for mode in ("wpad", "manual", "off"):
            assert client.update(mode, proxyurl="p:1") == 0
            client.urls("http://b/")
    # Mode manual has ended a transfer. The transfer's temporary file still exists for a moment.
    wait_until(lambda: changed(before, files(build, tree)) == {PAC, RUN_FILE}, "these two files")
    assert daemon.stop() == 0
    assert changed(before, files(build, tree)) == {PAC}
    daemon.close()


def test_the_script_stays_after_the_end_and_is_read_again_when_it_is_fetched_anew(
        daemon, build, client, web, syslog):
    load(client, web, syslog, script("PROXY old:1"))
    assert daemon.stop() == 0
    with open(PAC) as file:
        assert file.read() == script("PROXY old:1")
    again = Daemon(build)
    with Client() as other:
        assert other.config() == ("off", "", "", "n", "", ""), "no configuration was kept"
        web.routes["/x.pac"] = held = Held(script("PROXY new:1"))
        other.update("pacurl", pacurl=web.url("/x.pac"))
        web.wait("/x.pac", 2)
        assert other.urls("http://a/") == ["pacurl"]
        with open(PAC) as file:
            assert file.read() == script("PROXY old:1"), "it was there, and was not read"
        held.release()
        wait_until(lambda: other.urls("http://a/") == ["pacurl", "PROXY new:1"], "the new script")
    again.close()


def test_the_password_is_not_in_the_log_on_a_command_line_or_on_disk(daemon, client, web, syslog):
    load(client, web, syslog, LOOKS_UP)
    client.urls("http://a/")
    assert client.config()[5] == PASSWORD
    (worker,) = daemon.children()
    for pid in (daemon.pid, worker):
        for name in ("cmdline", "environ"):
            with open(f"/proc/{pid}/{name}", "rb") as file:
                assert PASSWORD.encode() not in file.read()
    client.update("manual", proxyurl="p:1", auth=True, user="joe", password=PASSWORD)
    assert client.config()[5] == PASSWORD
    assert daemon.stop() == 0
    syslog.drain()
    assert len(syslog.raw) > 50, "everything is logged"
    assert not [line for line in syslog.raw if PASSWORD.encode() in line]
    for path in (PAC, daemon.errors.name):
        with open(path, "rb") as file:
            assert PASSWORD.encode() not in file.read(), path
