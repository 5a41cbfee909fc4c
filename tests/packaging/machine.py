"""A clean, running Debian 12 in separate namespaces, with its own systemd, system bus and users.

Its network has only a loopback interface. When the system ends, all its processes end.
"""

import contextlib
import ctypes
import encodings.idna  # noqa: F401  imported now, because the system inside has no such file
import fcntl
import hashlib
import multiprocessing
import os
import pathlib
import re
import signal
import subprocess
import tempfile
import time

SUITE = "bookworm"
LIMIT = 180.0  # seconds for each start; even a busy machine needs only 10 s
CLONE_NEWNS, CLONE_NEWNET = 0x00020000, 0x40000000
PATH = "/usr/sbin:/usr/bin:/sbin:/bin"
_fork = multiprocessing.get_context("fork")
_libc = ctypes.CDLL(None, use_errno=True)


def _output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def _sources():
    """The apt sources of this machine for the suite, as lines of a sources.list."""
    targets = _output("apt-get", "indextargets", "--no-release-info", "--format",
                      "$(REPO_URI) $(RELEASE) $(COMPONENT)", "Created-By: Packages",
                      "Component: main")
    wanted = (SUITE, f"{SUITE}-updates", f"{SUITE}-security")
    lines = {f"deb {target}" for target in targets.splitlines() if target.split()[1] in wanted}
    assert lines, f"apt on this machine knows no source of {SUITE}: apt-get update"
    return sorted(lines)


def _apt_options():
    """The settings with which this machine's apt reaches the sources."""
    found = _output("apt-config", "dump", "--no-empty", "--format", '%f "%v";%n', "Acquire")
    return [f"--aptopt={line}" for line in found.splitlines() if "roxy" in line]


def _needed(packages):
    """Returns the dependencies of the packages. Of alternatives, only the first one is returned."""
    names = {"systemd-sysv", "dbus"}
    own = {pathlib.Path(package).name.split("_")[0] for package in packages}
    for package in packages:
        for field in _output("dpkg-deb", "-f", package, "Depends", "Pre-Depends").splitlines():
            field = re.sub(r"^[A-Za-z-]+:", "", field)
            names |= {re.split(r"[ (|:]", entry.strip())[0] for entry in field.split(",")}
    return sorted(names - own - {""})


def _root_archive(names):
    """A minimal Debian with the named packages. It is made once per machine, and kept in the
    folder for things that take long to make. If several tests need it, one makes it and the
    others wait."""
    include = ",".join(names)
    key = hashlib.sha256(include.encode()).hexdigest()[:12]
    cache = os.environ.get("PROXYMANAGER_UNPACKED") or os.path.join(
        os.environ.get("XDG_CACHE_HOME") or os.path.expanduser("~/.cache"), "proxymanagerd")
    archive = pathlib.Path(cache, f"root-{SUITE}-{key}.tar")
    archive.parent.mkdir(parents=True, exist_ok=True)
    with open(archive.with_suffix(".lock"), "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not archive.exists():
            made = archive.with_suffix(".new.tar")
            # Without the variables PYTHON..., the Python programs of the packages store their byte
            # code at the usual place.
            own = {name: value for name, value in os.environ.items() if not name.startswith("PYTHON")}
            subprocess.run(["mmdebstrap", "--quiet", "--variant=minbase", f"--include={include}",
                            *_apt_options(), '--aptopt=Acquire::Retries "3"', SUITE, str(made),
                            *_sources()], check=True, env=own)
            made.rename(archive)
    return archive


class Account:
    def __init__(self, name, uid, gid, groups):
        self.name, self.uid, self.gid, self.groups = name, uid, gid, groups


class Machine:
    def __init__(self, packages, names=(), others=()):
        """@param packages the files that the tests install
        @param names further packages of Debian
        @param others the files that another test installs, so that both tests share the root"""
        self.packages = packages
        self._archive = _root_archive(sorted({*_needed([*packages, *others]), *names}))
        self._ends = contextlib.ExitStack()

    def __enter__(self):
        with contextlib.ExitStack() as ends:
            self.root = pathlib.Path(ends.enter_context(tempfile.TemporaryDirectory()))
            self.root.chmod(0o755)
            subprocess.run(["tar", "-C", self.root, "-xf", self._archive], check=True)
            self._boot(ends)
            self._ends = ends.pop_all()
        return self

    def __exit__(self, *_):
        self._ends.close()

    def _boot(self, ends):
        mounts = pathlib.Path("/proc/self/mounts").read_text().splitlines()
        unified = [line.split()[1] for line in mounts if line.split()[2] == "cgroup2"]
        assert unified, "these tests need a cgroup2 hierarchy"
        cgroup = pathlib.Path(unified[0], f"packaging-test-{os.getpid()}")
        cgroup.mkdir()
        ends.callback(self._remove_cgroup, cgroup)
        init = pathlib.Path(__file__).with_name("machine_init.sh")
        unshare = subprocess.Popen(
            ["sh", "-c", 'echo $$ >"$0/cgroup.procs" && exec "$@"', cgroup, "unshare", "--mount",
             "--pid", "--cgroup", "--net", "--uts", "--ipc", "--fork", "--kill-child", "sh",
             init, self.root], stdin=subprocess.DEVNULL)
        ends.callback(self._end, unshare)
        self.pid = self.wait(lambda: self._init_of(unshare), "the system's first process")
        # degraded: some unit of Debian cannot run in such a system.
        self.wait(lambda: self.state() in ("running", "degraded"), "the system is up")

    @staticmethod
    def _init_of(unshare):
        assert unshare.poll() is None, "the system did not start"
        children = pathlib.Path(f"/proc/{unshare.pid}/task/{unshare.pid}/children").read_text()
        for pid in map(int, children.split()):
            if pathlib.Path(f"/proc/{pid}/comm").read_text().strip() == "systemd":
                return pid
        return None

    @staticmethod
    def _end(unshare):
        """Ends the first process, and so all processes of the system."""
        unshare.send_signal(signal.SIGKILL)
        unshare.wait()

    def _remove_cgroup(self, cgroup):
        def gone():
            for folder, _, _ in os.walk(cgroup, topdown=False):
                with contextlib.suppress(OSError):
                    os.rmdir(folder)
            return not cgroup.exists()

        self.wait(gone, "the system's control groups are empty")

    @staticmethod
    def wait(condition, what, limit=LIMIT):
        end = time.monotonic() + limit
        while not (result := condition()):
            assert time.monotonic() < end, f"not within {limit} s: {what}"
            time.sleep(0.05)
        return result

    def run(self, *command, check=True, limit=5 * LIMIT):
        """Runs a program in the system, as root. @return its status and its output"""
        done = subprocess.run(
            ["nsenter", "-t", str(self.pid), "-m", "-p", "-n", "-u", "-i", "-C", "env", "-i",
             f"PATH={PATH}", "DEBIAN_FRONTEND=noninteractive", "LC_ALL=C.UTF-8", *command],
            capture_output=True, text=True, stdin=subprocess.DEVNULL, timeout=limit)
        if check:
            assert done.returncode == 0, f"{command}: {done.stdout}{done.stderr}"
        return done

    def install_packages(self):
        """Installs all tested packages in one call."""
        names = ["/" + pathlib.Path(package).name for package in self.packages]
        for package, name in zip(self.packages, names):
            (self.root / name[1:]).write_bytes(pathlib.Path(package).read_bytes())
        self.run("dpkg", "-i", *names)
        self.run("rm", *names)

    def state(self):
        return self.run("systemctl", "is-system-running", check=False).stdout.strip()

    def show(self, unit, name):
        return self.run("systemctl", "show", "--value", "-p", name, unit).stdout.strip()

    def journal(self):
        return self.run("journalctl", "--no-pager", "-n", "60", check=False).stdout

    def account(self, name):
        def number(option):
            return self.run("id", option, name).stdout

        groups = [int(group) for group in number("-G").split()]
        return Account(name, int(number("-u")), int(number("-g")), groups)

    def enter(self, account):
        """Moves the calling process into the system, with the rights of the account."""
        for kind, flag in (("net", CLONE_NEWNET), ("mnt", CLONE_NEWNS)):
            with open(f"/proc/{self.pid}/ns/{kind}") as namespace:
                if _libc.setns(namespace.fileno(), flag) != 0:
                    raise OSError(ctypes.get_errno(), f"setns {kind}")
        os.setgroups(account.groups)
        os.setresgid(account.gid, account.gid, account.gid)
        os.setresuid(account.uid, account.uid, account.uid)


class Inside:
    """A process inside the system. It makes an object there and serves calls to this object."""

    def __init__(self, machine, account, make):
        self._pipe, other = _fork.Pipe()
        self._process = _fork.Process(target=self._serve, args=(machine, account, make, other),
                                      daemon=True)
        self._process.start()
        other.close()
        self._answer()

    @staticmethod
    def _serve(machine, account, make, pipe):
        try:
            machine.enter(account)
            thing = make()
            pipe.send((True, None))
        except Exception as error:
            pipe.send((False, repr(error)))
            return
        while True:
            try:
                name, arguments = pipe.recv()
            except EOFError:
                return
            try:
                pipe.send((True, getattr(thing, name)(*arguments)))
            except Exception as error:
                pipe.send((False, getattr(error, "name", None) or repr(error)))

    def _answer(self):
        assert self._pipe.poll(2 * LIMIT), "the process in the system does not answer"
        done, result = self._pipe.recv()
        if not done:
            raise Refused(result)
        return result

    def call(self, name, *arguments):
        """Raises Refused with the D-Bus name of the error, or with its text."""
        self._pipe.send((name, arguments))
        return self._answer()

    def close(self):
        self._pipe.close()
        self._process.kill()
        self._process.join()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class Refused(Exception):
    pass
