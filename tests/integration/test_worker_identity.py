"""Tests which users the worker and the fetch process have if root starts them with few
capabilities."""

import contextlib
import os
import subprocess

import pytest
from support.bus import LIMIT, Client, wait_until
from support.daemon import Daemon, lives, make_watched_files
from support.web import Held, script


QUESTIONS = 12  # each takes 5 s, so the worker runs for 60 s


def children(pid):
    with open(f"/proc/{pid}/task/{pid}/children") as file:
        return [int(child) for child in file.read().split()]


def field(pid, name):
    with open(f"/proc/{pid}/status") as status:
        return next(line.split(":", 1)[1].split() for line in status if line.startswith(name + ":"))


def without_capabilities(names):
    """A wrapper command that starts a program without these capabilities. The bounding set limits
    the capabilities that root gets when a program starts."""
    return ["setpriv", "--bounding-set", f"-{names}", "--inh-caps", f"-{names}"]


@contextlib.contextmanager
def asking(build, *wrapper):
    """Runs proxymanagerctl with an endless script. Inside the block, the value is the process id of
    the worker."""
    client = subprocess.Popen(
        [*wrapper, os.path.join(build, "out/bin/proxymanagerctl"), "pac", "eval", "/run/loop.pac",
         *["http://a.example/"] * QUESTIONS], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_until(lambda: children(client.pid), "a worker runs")
        (worker,) = children(client.pid)
        yield worker
    finally:
        client.kill()
        client.wait(LIMIT)


@pytest.mark.parametrize("without", ["sys_admin", "kill", "sys_admin,-kill"],
                         ids=["namespaces", "kill", "both"])
def test_the_worker_is_nobody_whatever_root_lacks(build, sanitizer, without):
    if os.geteuid() != 0:
        pytest.skip("needs a root to take privileges from")
    with open("/run/loop.pac", "w") as file:
        file.write("function FindProxyForURL() { for (;;); }\n")
    with asking(build, *without_capabilities(without)) as worker:
        if not sanitizer:  # in sanitizer builds, workers have no system call filter
            wait_until(lambda: field(worker, "Seccomp") == ["2"], "its walls stand")
        wait_until(lambda: "0" not in field(worker, "Uid"), "it is not root")
        assert field(worker, "NoNewPrivs") == ["1"]
        wait_until(lambda: int(field(worker, "CapEff")[0], 16) == 0, "it has no capability")
        assert int(field(worker, "CapPrm")[0], 16) == 0
    # The worker is busy, reads no message, and perhaps cannot be killed: its own alarm ends it.
    wait_until(lambda: not lives(worker), "the worker is gone")


def test_the_worker_of_root_is_nobody_whoever_has_an_account(build):
    if os.geteuid() != 0:
        pytest.skip("needs a root that becomes another")
    # The group of the users who may configure the daemon is called proxymanager. Many systems make
    # a group with the same name for each account, so such an account may exist.
    with open("/etc/passwd") as file:
        others = [line for line in file if not line.startswith("proxymanager:")]
    with open("/etc/passwd", "w") as file:
        file.writelines([*others, "proxymanager:x:4711:4712::/:/usr/sbin/nologin\n"])
    with open("/run/loop.pac", "w") as file:
        file.write("function FindProxyForURL() { for (;;); }\n")
    with asking(build) as worker:
        wait_until(lambda: field(worker, "Uid") == ["65534"] * 4, "its user")
        assert field(worker, "Gid") == ["65534"] * 4
        with open(f"/proc/{worker}/oom_score_adj") as file:
            assert file.read().strip() == "1000"


def test_the_fetch_process_is_nobody_and_its_script_is_used_without_cap_kill(build, sanitizer, syslog,
                                                                            bus, web):
    if os.geteuid() != 0:
        pytest.skip("needs a root to take privileges from")
    make_watched_files()
    daemon = Daemon(build, wrapper=without_capabilities("kill"))
    held = web.routes["/x.pac"] = Held(script("PROXY x:1"))
    with Client() as client:
        client.update("pacurl", pacurl=web.url("/x.pac"))
        web.wait("/x.pac")
        (fetch,) = daemon.children()
        assert field(fetch, "Uid") == ["65534"] * 4
        assert int(field(fetch, "CapEff")[0], 16) == int(field(fetch, "CapPrm")[0], 16) == 0
        if not sanitizer:  # in sanitizer builds, fetch processes have no system call filter
            assert field(fetch, "Seccomp") == ["2"]
        held.release()
        wait_until(lambda: client.urls("http://a/") == ["pacurl", "PROXY x:1"], "the script answers")
        assert not lives(fetch)
    daemon.close()
