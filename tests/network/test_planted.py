"""Tests the daemon while other users make files with the names of its files. Every user may write
to /tmp."""

import glob
import os
import shutil
import stat
import subprocess

import pytest
from support.bus import wait_until
from support.syslog_socket import ERR
from support.web import script

PAC = "/tmp/proxymanager.pac"
TEMPORARY = PAC + ".tmp"
RESOLVER = "/tmp/.resolv.conf.dnsmasq"
VICTIM = "/tmp/victim"
STRANGER = 12345
SECRET = "of no concern to anybody\n"
EVIL = script("PROXY evil:1")


def plant_link(path):
    os.symlink(VICTIM, path)


def plant_hard_link(path):
    os.link(VICTIM, path)


def plant_dangling_link(path):
    os.symlink("/tmp/nowhere", path)


def plant_fifo(path):
    os.mkfifo(path, 0o666)


def plant_folder(path):
    os.mkdir(path)
    os.chown(path, STRANGER, STRANGER)


def plant_strangers_file(path):
    with open(path, "w") as file:
        file.write(EVIL)
    os.chown(path, STRANGER, STRANGER)


PLANTS = (plant_link, plant_hard_link, plant_dangling_link, plant_fifo, plant_strangers_file)


def clear(path):
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path)
    elif os.path.lexists(path):
        os.remove(path)


class Daemon:
    """A daemon in mode pacurl, with a web server whose script changes at every fetch."""

    def __init__(self, gateway, client, syslog):
        gateway.connect_device()
        self.web, self.client, self.syslog = gateway.web(), client, syslog
        self._number = 0
        with open(VICTIM, "w") as victim:
            victim.write(SECRET)

    def fetch(self):
        self._number += 1
        self.web.routes["/x.pac"] = script(f"PROXY n{self._number}:1")
        self.syslog.clear()
        self.client.update("pacurl", pacurl=self.web.base + "/x.pac")

    def answers_the_new(self):
        proxy = f"PROXY n{self._number}:1"
        wait_until(lambda: self.client.urls("http://a/") == ["pacurl", proxy], proxy)

    def victim_is_well(self):
        with open(VICTIM) as victim:
            assert victim.read() == SECRET
        assert os.stat(VICTIM).st_nlink == 1
        assert not os.path.exists("/tmp/nowhere")


@pytest.fixture
def fetching(gateway, client, syslog):
    return Daemon(gateway, client, syslog)


@pytest.mark.parametrize("path", [TEMPORARY, PAC])
def test_the_next_download_takes_the_place_of_what_was_planted(fetching, path):
    fetching.fetch()
    fetching.answers_the_new()
    for plant in PLANTS:
        clear(path)
        plant(path)
        fetching.fetch()
        fetching.answers_the_new()
        status = os.lstat(PAC)
        assert stat.S_ISREG(status.st_mode) and status.st_uid == 0, plant.__name__
        wait_until(lambda: not os.path.lexists(TEMPORARY), "no temporary file")
        fetching.victim_is_well()


def test_a_folder_in_the_way_is_said_and_the_old_script_answers(fetching):
    """The daemon renames a folder of another user at once. It removes an empty folder of root
    after one walk."""
    fetching.fetch()
    fetching.answers_the_new()
    plant_folder(TEMPORARY)
    open(f"{TEMPORARY}/theirs", "w").close()
    fetching.fetch()
    fetching.answers_the_new()
    (aside,) = glob.glob(f"{TEMPORARY}.aside.*")
    assert os.path.exists(f"{aside}/theirs")

    old = ["pacurl", "PROXY n3:1"]
    clear(PAC)
    plant_folder(PAC)
    fetching.fetch()
    fetching.answers_the_new()
    clear(PAC)
    os.mkdir(PAC)
    fetching.fetch()
    fetching.syslog.wait(ERR, "PACFetcher-retrievePacFile file rename failed "
                              f"tmpFile:{TEMPORARY}, targetFile:{PAC}")
    assert fetching.client.urls("http://a/") == old
    wait_until(lambda: not os.path.exists(PAC), "the folder has gone")
    fetching.fetch()
    fetching.answers_the_new()


def test_a_full_folder_stays_and_each_walk_says_so_once(fetching):
    os.mkdir(PAC)
    open(f"{PAC}/theirs", "w").close()
    line = (ERR, "PACFetcher-retrievePacFile file rename failed "
                 f"tmpFile:{TEMPORARY}, targetFile:{PAC}")
    for _ in range(2):
        fetching.fetch()
        fetching.syslog.wait(*line)
        wait_until(lambda: not os.path.exists(TEMPORARY), "no temporary file")
        assert fetching.syslog.count(*line) == 1
        assert fetching.client.urls("http://a/") == ["pacurl"]
    assert os.listdir(PAC) == ["theirs"]
    clear(PAC)
    fetching.fetch()
    fetching.answers_the_new()


def test_another_users_script_is_never_evaluated(fetching):
    plant_strangers_file(PAC)
    url = fetching.web.base + "/missing.pac"
    for mode in ("pacurl", "wpad", "pacurl"):
        fetching.syslog.clear()
        fetching.client.update(mode, pacurl=url)
        fetching.syslog.wait_match(ERR, "PACFetcher-retrievePacFile PAC file download failed url:.*")
        assert fetching.client.urls("http://a/") == [mode]


def plant_huge(path):
    with open(path, "w") as file:
        file.write("search evil.example\n")
        file.truncate(64 * 1024 + 1)


def plant_link_to_a_list(path):
    with open("/tmp/list", "w") as file:
        file.write("search evil.example\n")
    os.symlink("/tmp/list", path)


def plant_strangers_list(path):
    with open(path, "w") as file:
        file.write("search evil.example\n")
    os.chown(path, STRANGER, STRANGER)


def test_a_planted_resolver_file_neither_blocks_nor_steers(fetching, gateway):
    gateway.name("wpad.evil.example")
    gateway.serve("wpad.evil.example", "/wpad.dat", "PROXY evil:1")
    for plant in (plant_fifo, plant_link_to_a_list, plant_huge, plant_strangers_list, plant_folder):
        clear(RESOLVER)
        plant(RESOLVER)
        fetching.syslog.clear()
        fetching.client.update("wpad")
        fetching.syslog.wait(ERR, f"PACFetcher-getDomainName open:{RESOLVER} failed")
        fetching.syslog.wait(ERR, "PACFetcher-retrievePacFile PAC file download failed url:")
        assert fetching.client.urls("http://a/") == ["wpad"], plant.__name__
    # Control: the same list in root's own file has an effect, so the name and the server exist.
    clear(RESOLVER)
    with open(RESOLVER, "w") as file:
        file.write("search evil.example\n")
    fetching.client.update("wpad")
    wait_until(lambda: fetching.client.urls("http://a/") == ["wpad", "PROXY evil:1"], "its answer")


def test_a_loop_that_plants_files_defeats_no_download(fetching):
    """An ordinary user puts a file at the temporary name again and again."""
    loop = subprocess.Popen(
        ["setpriv", f"--reuid={STRANGER}", "--clear-groups", "--", "sh", "-c",
         f"while :; do for name in {TEMPORARY} {PAC}; do echo evil >$name; mkdir $name; "
         "ln -s /etc/passwd $name; done; done"],
        stderr=subprocess.DEVNULL)
    try:
        for _ in range(30):
            fetching.fetch()
            fetching.answers_the_new()
    finally:
        loop.kill()
        loop.wait()
    assert stat.S_ISREG(os.lstat(PAC).st_mode) and os.lstat(PAC).st_uid == 0
