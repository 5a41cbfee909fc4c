"""Who the script's worker is where its starter is a root of few privileges."""

import os
import subprocess

import pytest
from support.bus import wait_until


def children(pid):
    with open(f"/proc/{pid}/task/{pid}/children") as file:
        return [int(child) for child in file.read().split()]


def field(pid, name):
    with open(f"/proc/{pid}/status") as status:
        return next(line.split(":", 1)[1].split() for line in status if line.startswith(name + ":"))


@pytest.mark.parametrize("without", ["sys_admin", "kill", "sys_admin,-kill"],
                         ids=["namespaces", "kill", "both"])
def test_the_worker_is_nobody_whatever_root_lacks(build, sanitizer, without):
    if os.geteuid() != 0:
        pytest.skip("needs a root to take privileges from")
    with open("/run/loop.pac", "w") as file:
        file.write("function FindProxyForURL() { for (;;); }\n")
    # Root's bounding set bounds what it gets at the start of a program.
    asking = subprocess.Popen(
        ["setpriv", "--bounding-set", f"-{without}", "--inh-caps", f"-{without}",
         os.path.join(build, "out/bin/proxymanagerctl"), "pac", "eval", "/run/loop.pac",
         "http://a.example/"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_until(lambda: children(asking.pid), "a worker runs")
        (worker,) = children(asking.pid)
        if not sanitizer:  # whose workers have no system call filter
            wait_until(lambda: field(worker, "Seccomp") == ["2"], "its walls stand")
        wait_until(lambda: "0" not in field(worker, "Uid"), "it is not root", limit=3)
        assert field(worker, "NoNewPrivs") == ["1"]
        wait_until(lambda: int(field(worker, "CapEff")[0], 16) == 0, "it has no capability", 3)
        assert int(field(worker, "CapPrm")[0], 16) == 0
    finally:
        asking.kill()
        asking.wait(20)
    # Busy, deaf and perhaps not to be killed, it ends by its own alarm.
    wait_until(lambda: not os.path.exists(f"/proc/{worker}"), "the worker is gone")


@pytest.mark.parametrize("account", [4711, None], ids=["own", "none"])
def test_the_worker_of_root_is_the_user_proxymanager_else_nobody(build, account):
    if os.geteuid() != 0:
        pytest.skip("needs a root that becomes another")
    with open("/etc/passwd") as file:
        others = [line for line in file if not line.startswith("proxymanager:")]
    if account:
        others.append(f"proxymanager:x:{account}:{account + 1}::/:/usr/sbin/nologin\n")
    with open("/etc/passwd", "w") as file:
        file.writelines(others)
    with open("/run/loop.pac", "w") as file:
        file.write("function FindProxyForURL() { for (;;); }\n")
    asking = subprocess.Popen([os.path.join(build, "out/bin/proxymanagerctl"), "pac", "eval",
                               "/run/loop.pac", "http://a.example/"], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
    try:
        wait_until(lambda: children(asking.pid), "a worker runs")
        (worker,) = children(asking.pid)
        user, group = (account, account + 1) if account else (65534, 65534)
        wait_until(lambda: field(worker, "Uid") == [str(user)] * 4, "its user")
        assert field(worker, "Gid") == [str(group)] * 4
    finally:
        asking.kill()
        asking.wait(20)
