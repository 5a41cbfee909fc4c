"""Tests the daemon while the system lacks something: disk space, descriptors, a log, the right
time."""

import contextlib
import os
import resource
import threading

import pytest
from support.bus import Client, wait_until
from support.daemon import Daemon, make_watched_files
from support.own_root import MS_BIND, mount
from support.syslog_socket import DEBUG, ERR, INFO, NOTICE, WARNING, Syslog
from support.wall_clock import FORWARD, TO_1970, WallClock
from support.watched import append_and_settle
from support.web import Held, script

PAC = "/tmp/proxymanager.pac"
TEMPORARY = PAC + ".tmp"
MS_RDONLY, MS_REMOUNT = 1, 32
LIMIT = 60.0  # seconds; enough for a sanitizer build on a busy machine


def use(client, web, text, path):
    web.routes[path] = text
    client.update("pacurl", pacurl=web.url(path))


def load(client, web, syslog, text, path):
    """Serves `text` as the script, configures it, and waits until the engine has loaded it."""
    before = syslog.count(INFO, "PacParser-parsePacFile pac init")
    use(client, web, text, path)
    syslog.wait(INFO, "PacParser-parsePacFile pac init", before + 1, LIMIT)


def refused(client, web, syslog, text, path):
    """Serves `text` and waits until its download has failed."""
    use(client, web, text, path)
    syslog.wait(ERR, f"PACFetcher-retrievePacFile PAC file download failed url:{web.url(path)}",
                limit=LIMIT)


def content(path):
    with open(path) as file:
        return file.read()


@contextlib.contextmanager
def without_inodes(path):
    """Inside the block, the file system of `path` accepts no further file."""
    mount("tmpfs", path, "tmpfs", MS_REMOUNT, "nr_inodes=64")
    names = []
    try:
        with contextlib.suppress(OSError):
            while True:
                names.append(f"{path}/filler{len(names)}")
                open(names[-1], "x").close()
        yield
    finally:
        for name in names[:-1]:
            os.remove(name)


@contextlib.contextmanager
def full(path, room):
    """Inside the block, the file system of `path` has only `room` free bytes, rounded down to
    pages."""
    mount("tmpfs", path, "tmpfs", MS_REMOUNT, "size=4m")
    filler = os.open(f"{path}/filler", os.O_WRONLY | os.O_CREAT)
    try:
        with contextlib.suppress(OSError):
            while True:
                os.write(filler, b"x" * 4096)
        os.ftruncate(filler, os.fstat(filler).st_size - room)
        yield
    finally:
        os.close(filler)
        os.remove(f"{path}/filler")


@pytest.mark.parametrize("room", [0, 3 * 4096])
def test_a_full_tmp_keeps_the_old_script_until_there_is_room(client, web, syslog, room):
    # The script is valid even without its blanks at the end. So the part that fits would be a valid
    # script.
    new = script("PROXY new:1") + " " * 40_000
    load(client, web, syslog, script("PROXY old:1"), "/old.pac")
    with full("/tmp", room):
        refused(client, web, syslog, new, "/new.pac")
        syslog.wait(ERR, f"PACFetcher-fileDownload failed to remove file {TEMPORARY} after "
                         "unsuccessful download: 0")
        assert not os.path.exists(TEMPORARY)
        assert content(PAC) == script("PROXY old:1")
        assert client.urls("http://a/") == ["pacurl", "PROXY old:1"]
    load(client, web, syslog, new, "/new.pac")
    assert content(PAC) == new
    assert client.urls("http://a/") == ["pacurl", "PROXY new:1"]


def test_a_tmp_that_takes_no_file_keeps_the_old_script_until_it_does(client, web, syslog):
    load(client, web, syslog, script("PROXY old:1"), "/old.pac")
    with without_inodes("/tmp"):
        refused(client, web, syslog, script("PROXY new:1"), "/new.pac")
        syslog.wait(ERR, f"PACFetcher-fileDownload failed to open file {TEMPORARY}, "
                         f"url:{web.url('/new.pac')}")
        assert client.urls("http://a/") == ["pacurl", "PROXY old:1"]
    load(client, web, syslog, script("PROXY new:1"), "/new.pac")
    assert client.urls("http://a/") == ["pacurl", "PROXY new:1"]


def test_a_read_only_tmp_keeps_the_old_script_until_it_is_writable(client, web, syslog, sanitizer):
    if sanitizer == "thread":
        pytest.skip("the sanitizer keeps a file in /tmp open for writing")
    load(client, web, syslog, script("PROXY old:1"), "/old.pac")
    mount(None, "/tmp", flags=MS_REMOUNT | MS_BIND | MS_RDONLY)
    refused(client, web, syslog, script("PROXY new:1"), "/new.pac")
    syslog.wait(ERR, f"PACFetcher-fileDownload failed to open file {TEMPORARY}, "
                     f"url:{web.url('/new.pac')}")
    assert client.urls("http://a/") == ["pacurl", "PROXY old:1"]
    mount(None, "/tmp", flags=MS_REMOUNT | MS_BIND)
    load(client, web, syslog, script("PROXY new:1"), "/new.pac")
    assert client.urls("http://a/") == ["pacurl", "PROXY new:1"]


def lowest_free_descriptor(pid):
    used = {int(name) for name in os.listdir(f"/proc/{pid}/fd")}
    return next(number for number in range(len(used) + 1) if number not in used)


@pytest.fixture
def allow_descriptors(daemon, sanitizer):
    """Limits the descriptors of the daemon for a while."""
    if sanitizer:
        pytest.skip("the sanitizer opens a pipe to look at an object")
    before, hard = resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE)

    def allow(number):
        """Sets the limit to `number`; None restores the earlier limit."""
        number = before if number is None else number
        resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (number, hard))

    yield allow
    if daemon.process.poll() is None:
        allow(None)


def test_without_descriptors_it_answers_and_fetches_when_there_are_some(daemon, client, web,
                                                                        syslog, allow_descriptors):
    load(client, web, syslog, script("PROXY old:1"), "/old.pac")
    allow_descriptors(lowest_free_descriptor(daemon.pid))

    refused(client, web, syslog, script("PROXY new:1"), "/new.pac")
    syslog.wait(ERR, "fetcher: no download: no socket pair: Too many open files")
    client.update("wpad")
    syslog.wait(ERR, "PACFetcher-retrievePacFile getdhcpinfo error rc:24")
    with Client() as other:
        assert other.urls("http://a/") == ["wpad", "PROXY old:1"]
    # No new worker can start either. The second limit is lower, so the descriptors of the ended
    # worker stay unusable, too.
    (worker,) = daemon.children()
    allow_descriptors(4)
    os.kill(worker, 9)
    assert client.urls("http://b/") == ["wpad"]  # perhaps the answer of the worker that is about to end
    assert client.urls("http://b/") == ["wpad"]
    syslog.wait_match(WARNING, "pac_engine: no answer: no script worker: .*Too many open files")
    assert client.urls("http://a/") == ["wpad", "PROXY old:1"]

    allow_descriptors(None)
    assert client.urls("http://b/") == ["wpad", "PROXY old:1"]
    load(client, web, syslog, script("PROXY new:1"), "/new.pac")
    assert client.urls("http://a/") == ["pacurl", "PROXY new:1"]


def seconds_run(pid):
    """Processor time of the process until now."""
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def test_a_wait_that_is_refused_is_tried_again_without_haste(daemon, client, allow_descriptors):
    """If the limit is lower than the number of watched descriptors, the system refuses the
    wait."""
    client.update("manual", proxyurl="p:1")
    allow_descriptors(0)
    began = seconds_run(daemon.pid)
    with pytest.raises(TimeoutError):
        while True:  # the wait in progress may still accept one more question
            client.urls("http://a/", timeout=2)
    assert seconds_run(daemon.pid) - began < 1
    allow_descriptors(None)
    with Client() as other:
        assert other.urls("http://a/", timeout=LIMIT) == ["manual", "p:1"]


def walk_is_over(syslog):
    """Whether a download has failed, or its file has been tried as a script."""
    return any(text == "PacParser-parsePacFile pac init"
               or text == "PacParser-parsePacFile failed to read pac file name"
               or text.startswith("PACFetcher-retrievePacFile PAC file download failed url:")
               for text in syslog.texts())


def test_with_few_descriptors_a_script_is_there_or_another_one_or_none(daemon, client, web,
                                                                       syslog, allow_descriptors):
    """Raises the limit by one each time, until the download and the worker have enough
    descriptors."""
    load(client, web, syslog, script("PROXY p0:1"), "/0.pac")
    base = lowest_free_descriptor(daemon.pid)
    answers = [["pacurl"], ["pacurl", "PROXY p0:1"]]
    for more in range(1, 13):
        syslog.clear()
        allow_descriptors(base + more)
        answers.append(["pacurl", f"PROXY p{more}:1"])
        use(client, web, script(f"PROXY p{more}:1"), f"/{more}.pac")
        wait_until(lambda: walk_is_over(syslog), "the walk is over", LIMIT)
        assert client.urls(f"http://h{more}/") in answers
        assert content(PAC) in [script(answer[1]) for answer in answers[1:]]
        assert not os.path.exists(TEMPORARY)
    assert client.urls("http://last/") == answers[-1]
    allow_descriptors(None)


def test_without_a_log_it_works_and_speaks_again_when_there_is_one(daemon, client, web, syslog):
    syslog.close()
    os.remove(syslog.path)
    web.routes["/x.pac"] = script("PROXY p:1")
    client.update("pacurl", pacurl=web.url("/x.pac"))
    wait_until(lambda: client.urls("http://a/") == ["pacurl", "PROXY p:1"], "the script answers",
               LIMIT)
    again = Syslog()
    assert client.urls("http://b/") == ["pacurl", "PROXY p:1"]
    again.wait(NOTICE, "PacParser-getProxy requestUrl:http://b/")
    again.close()


def test_while_nobody_reads_the_log_all_waits_and_nothing_is_lost(daemon, client, syslog):
    client.update("manual", proxyurl="p:1")
    with open("/proc/sys/net/unix/max_dgram_qlen") as length:
        questions = int(length.read()) + 200  # each question logs several lines
    answers = []

    def ask():
        with Client() as other:
            for number in range(questions):
                answers.append(other.urls(f"http://h{number}/", timeout=4 * LIMIT))

    syslog.hold()
    asking = threading.Thread(target=ask)
    asking.start()
    wait_until(syslog.takes_no_more, "the daemon has filled the log", LIMIT)
    assert len(answers) < questions
    with Client() as other, pytest.raises(TimeoutError):
        other.urls("http://other/", timeout=0.5)
    syslog.go_on()
    asking.join(4 * LIMIT)
    assert answers == [["manual", "p:1"]] * questions
    question = "ProxyManagerServiceImpl-getProxyUrl proxy mode:1, request url:http://h"
    assert [text for text in syslog.texts() if text.startswith(question)] == [
        f"{question}{number}/" for number in range(questions)]


@pytest.fixture
def clock(build, sanitizer):
    if sanitizer:
        pytest.skip("the sanitizer's library must be the first one")
    clock = WallClock(build)
    yield clock
    clock.close()


@pytest.mark.parametrize("jump", [FORWARD, TO_1970])
def test_a_jump_of_the_wall_clock_changes_nothing(build, bus, syslog, web, signals, clock, jump):
    make_watched_files()
    daemon = Daemon(build, environment=clock.environment)
    signals.wait("ProxyMgrStateEvent")
    clock.jump(jump)
    signals.wait("ProxyMgrStateEvent", 2, LIMIT)
    with Client() as client:
        load(client, web, syslog, script("PROXY old:1"), "/old.pac")
        clock.jump(0)
        # The clock jumps in the middle of a download, and in the middle of an evaluation.
        held = Held("""function FindProxyForURL(url, host) {
            if (host == "slow") {
              alert("begun");
              for (var end = Date.now() + 700; Date.now() < end;) {}
            }
            return "PROXY new:1"; }""")
        use(client, web, held, "/new.pac")
        web.wait("/new.pac")
        clock.jump(jump)
        held.release()
        syslog.wait(INFO, "PacParser-parsePacFile pac init", 2, LIMIT)
        clock.jump(0)
        answers = []
        asking = threading.Thread(target=lambda: answers.append(client.urls("http://slow/")))
        asking.start()
        syslog.wait(DEBUG, "pac_engine: alert: begun")
        clock.jump(jump)
        asking.join(LIMIT)
        assert answers == [["pacurl", "PROXY new:1"]]
        # A wait that began before the jump still receives events after the jump.
        web.routes["/new.pac"] = script("PROXY newer:1")
        append_and_settle("/tmp/.resolv.conf.dnsmasq", "# changed\n", syslog)
        syslog.wait(INFO, "PacParser-parsePacFile pac init", 3, LIMIT)
        assert client.urls("http://a/") == ["pacurl", "PROXY newer:1"]
    assert clock.readings() > 0
    assert syslog.errors() == []
    daemon.close()
