"""Tests the packages in a clean, running system. Each test continues from the state of the test
before it."""

import http.server
import pathlib
import re
import shutil
import socket
import subprocess
import threading
import time

import pytest
from jeepney import DBusAddress, message_bus, new_signal
from machine import Inside, Refused
from support.bus import INTERFACE, LIMIT, PATH, Client, Signals

BUS = "unix:path=/run/dbus/system_bus_socket"
UNIT = "proxymanagerd.service"
DENIED = "org.freedesktop.DBus.Error.AccessDenied"
CAP_FOWNER = 1 << 3
SCRIPT = b"""function FindProxyForURL(url, host) { return "PROXY 10.0.0.1:8080; DIRECT"; }"""
ANSWER = ["PROXY 10.0.0.1:8080", "DIRECT"]
# These files change in a running system even without the packages. Some are backups, made by the
# programs that change accounts.
LEFT_ALONE = re.compile(r"/(proc|sys|dev|run/(systemd|udev|log|lock)|var/(log|cache)|var/lib/dpkg"
                        r"|tmp/systemd-private.*|var/tmp/systemd-private.*)(/|$)"
                        r"|/etc/(passwd|group|shadow|gshadow)-$|/var/lib/systemd/(timers|random.*)"
                        r"|/etc/\.pwd\.lock$|/run/initctl"
                        r"|/var/lib/systemd/deb-systemd-helper-(enabled|masked)$")


class Caller(Client):
    """Makes an account's calls on the bus."""

    def __init__(self):
        super().__init__(BUS)

    def pretend(self, member):
        """Sends the service's signal, and waits until the bus has handled it."""
        self.connection.send(new_signal(DBusAddress(PATH, interface=INTERFACE), member))
        self.connection.send_and_get_reply(message_bus.GetId(), timeout=LIMIT)


class Listener(Signals):
    def __init__(self):
        super().__init__(BUS)


class WebServer:
    """Serves SCRIPT at every path, on the loopback interface of the system."""

    def __init__(self):
        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                self.send_response(200)
                self.send_header("Content-Length", str(len(SCRIPT)))
                self.end_headers()
                self.wfile.write(SCRIPT)

            def log_message(self, *_):
                pass

        self._server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        threading.Thread(target=self._server.serve_forever, daemon=True).start()

    def url(self):
        return f"http://127.0.0.1:{self._server.server_port}/proxy.pac"


class SilentServer:
    """Accepts connections at port 80 and never answers."""

    def __init__(self):
        self._accepted = []
        self._socket = socket.create_server(("127.0.0.1", 80))
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            self._accepted.append(self._socket.accept())

    def accepted(self):
        return len(self._accepted)


def files(machine):
    # Another service may remove a folder meanwhile; then find ends with status 1.
    found = machine.run("find", "/", "-path", "/proc", "-prune", "-o", "-path", "/sys", "-prune",
                        "-o", "-print", check=False).stdout.splitlines()
    return {name for name in found if not LEFT_ALONE.match(name)}


def accounts(machine):
    return {line.split(":")[0] for kind in ("passwd", "group")
            for line in machine.run("getent", kind).stdout.splitlines()}


def main_process(machine):
    """Returns the daemon's process id inside the system, or None if the daemon does not run."""
    return int(machine.show(UNIT, "MainPID")) or None


def status(machine, pid):
    text = machine.run("cat", f"/proc/{pid}/status").stdout
    return dict(line.split(":\t", 1) for line in text.splitlines() if ":\t" in line)



@pytest.fixture(scope="session")
def before(machine):
    return files(machine), accounts(machine)


@pytest.fixture(scope="session")
def installed(machine, before):
    machine.install_packages()
    machine.run("useradd", "--system", "--groups", "proxymanager", "member")
    machine.run("useradd", "--system", "stranger")
    return machine


@pytest.fixture
def callers(installed):
    made = {name: Inside(installed, installed.account(name), Caller)
            for name in ("root", "member", "stranger")}
    yield made
    for caller in made.values():
        caller.close()


@pytest.fixture
def listeners(installed):
    made = {name: Inside(installed, installed.account(name), Listener)
            for name in ("root", "member", "stranger")}
    yield made
    for listener in made.values():
        listener.close()


def test_installing_starts_the_daemon_as_its_own_user_with_one_capability(installed):
    assert installed.run("systemctl", "is-active", UNIT, check=False).stdout.strip() == "active", \
        installed.journal()
    assert installed.run("systemctl", "is-enabled", UNIT).stdout.strip() == "enabled"
    daemon = status(installed, main_process(installed))
    user = installed.account("proxymanagerd")
    assert daemon["Uid"].split() == [str(user.uid)] * 4
    assert user.uid != 0 and user.groups == [user.gid]
    assert installed.account("member").gid not in user.groups
    for kind in ("CapInh", "CapPrm", "CapEff", "CapBnd"):
        assert int(daemon[kind], 16) == CAP_FOWNER, kind
    assert int(daemon["CapAmb"], 16) == 0, "child processes do not get it"
    assert (daemon["NoNewPrivs"], daemon["Seccomp"]) == ("1", "2")


def test_the_unit_writes_no_core_and_leaves_two_folders_of_the_disk_to_write_in(installed):
    pid = str(main_process(installed))
    limits = installed.run("cat", f"/proc/{pid}/limits").stdout
    assert re.search(r"^Max core file size +0 +0 ", limits, re.MULTILINE), limits
    assert re.search(r"^Max open files +256 +256 ", limits, re.MULTILINE), limits
    assert installed.show(UNIT, "MemoryMax") == str(768 << 20)
    assert installed.show(UNIT, "CPUWeight") == "50"
    assert installed.show(UNIT, "Type") == "dbus"
    assert installed.show(UNIT, "WatchdogUSec") == "1min"
    # The shell runs as the daemon's user, in the daemon's mount namespace.
    enter = ("nsenter", "-t", pid, "-m", "setpriv", "--reuid=proxymanagerd", "--regid=proxymanagerd",
             "--clear-groups", "sh", "-c")
    for folder, writable in {"/tmp": True, "/run/proxymanagerd": True, "/run": False, "/etc": False,
                             "/root": False, "/usr/local/lumad": False, "/var/lib": False,
                             "/var/tmp": False}.items():
        tried = installed.run(*enter, f"echo >{folder}/tried && rm {folder}/tried", check=False)
        assert (tried.returncode == 0) == writable, f"{folder}: {tried.stderr}"


def test_no_file_is_shipped_under_usr_local_yet_the_watched_ones_are_there(installed):
    shipped = installed.run("dpkg", "-L", "proxymanagerd").stdout.split("\n")
    assert not [name for name in shipped if name.startswith("/usr/local")]
    for name in ("/usr/local/lumad/dhcp.conf", "/tmp/.resolv.conf.dnsmasq"):
        assert installed.run("stat", "-c", "%U %a", name).stdout == "root 644\n"


# The result of each account: an answer, or a refusal by the bus.
TABLE = [
    ("check_started", (), {"root": True, "member": True, "stranger": True}),
    ("urls", ("http://a.example/",), {"root": True, "member": True, "stranger": True}),
    ("introspect", (), {"root": True, "member": True, "stranger": True}),
    ("config", (), {"root": True, "member": True, "stranger": False}),
    ("update", ("manual", "http://p.example:1"), {"root": True, "member": True, "stranger": False}),
    ("update", ("off",), {"root": True, "member": True, "stranger": False}),
]


def test_root_and_the_group_configure_and_anybody_asks(callers):
    for member, arguments, allowed in TABLE:
        for name, may in allowed.items():
            try:
                callers[name].call(member, *arguments)
                result = "answered"
            except Refused as refused:
                result = str(refused)
            assert result == ("answered" if may else DENIED), f"{name}: {member}{arguments}"
    callers["root"].call("update", "manual", "http://p.example:1")
    with pytest.raises(Refused):
        callers["stranger"].call("update", "off")
    assert callers["root"].call("config")[:2] == ("manual", "http://p.example:1")
    assert callers["stranger"].call("urls", "http://a.example/") == ["manual", "http://p.example:1"]


def test_the_client_asks_for_everybody_and_configures_for_those_who_may(machine, callers):
    callers["root"].call("update", "manual", "http://p.example:1")
    as_nobody = ("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "proxymanagerctl")
    asked = machine.run(*as_nobody, "get", "--format", "raw", "http://a.example/")
    assert asked.stdout.split() == ["http://p.example:1"]
    denied = machine.run(*as_nobody, "off", check=False)
    assert denied.returncode == 77 and denied.stderr.count("\n") == 1, denied.stderr
    assert machine.run("proxymanagerctl", "config", "--json").stdout.count("http://p.example:1") == 1
    machine.run("proxymanagerctl", "off")
    assert callers["root"].call("config")[:2] == ("off", "")
    for completion in ("bash-completion/completions/proxymanagerctl",
                       "zsh/vendor-completions/_proxymanagerctl",
                       "fish/vendor_completions.d/proxymanagerctl.fish"):
        machine.run("test", "-s", f"/usr/share/{completion}")


def test_the_client_library_is_where_programs_and_compilers_look(installed):
    module = installed.run("sh", "-c", "ldd /usr/lib/*/gio/modules/libgioproxymanager.so").stdout
    library = re.search(r"libproxymanager-client\.so\.0 => (\S+)", module).group(1)
    folder = library.rpartition("/")[0]
    found = {name: installed.run("realpath", f"{folder}/libproxymanager-client.so{name}").stdout
             for name in ("", ".0")}
    assert found[""] == found[".0"]
    assert installed.run("dpkg", "-S", found[""].strip()).stdout.startswith("libproxymanager-client0:")
    described = installed.run("cat", f"/usr{folder.removeprefix('/usr')}/pkgconfig/"
                              "proxymanager-client.pc").stdout
    assert described.startswith("prefix=/usr\n")
    for header in ("client.h", "client.hpp"):
        installed.run("test", "-s", f"/usr/include/proxymanager/{header}")
    installed.run("test", "-s", "/usr/share/doc/libproxymanager-client-dev/examples/which_proxy.c")


def test_programs_that_use_glib_follow_the_daemon(installed, callers, tmp_path):
    program = tmp_path / "proxies_of"
    flags = subprocess.run(["pkg-config", "--cflags", "--libs", "gio-2.0"], check=True,
                           capture_output=True, text=True).stdout.split()
    source = pathlib.Path(__file__).with_name("proxies_of.c")
    subprocess.run(["cc", source, *flags, "-o", program], check=True)
    copy = installed.root / "proxies_of"
    shutil.copy(program, copy)

    def proxies():
        return installed.run("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups",
                             "/proxies_of", "http://a.example/").stdout.split()

    callers["root"].call("update", "manual", "http://p.example:1")
    assert proxies() == ["http://p.example:1"]
    callers["root"].call("update", "off")
    assert proxies() == ["direct://"]
    copy.unlink()
    # GLib's trigger has recorded the extension points of the module, so that other programs do
    # not load it.
    module = installed.run("sh", "-c", "ls /usr/lib/*/gio/modules/libgioproxymanager.so").stdout
    cache = installed.run("cat", module.replace("libgioproxymanager.so\n", "giomodule.cache")).stdout
    assert "libgioproxymanager.so: gio-proxy-resolver,gio-proxy\n" in cache


def test_programs_in_python_ask_the_daemon(installed, callers):
    callers["root"].call("update", "manual", "http://p.example:1")
    asked = installed.run("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "python3", "-c",
                          "import proxymanager\n"
                          "print(proxymanager.Client().proxies('http://a.example/')[0].url)")
    assert asked.stdout == "http://p.example:1\n"
    callers["root"].call("update", "off")


def test_the_password_is_told_to_root_and_the_group_alone(callers, listeners):
    arguments = ("manual", "http://p.example:2", "", True, "user", "secret")
    callers["member"].call("update", *arguments)
    for name in ("root", "member"):
        told = listeners[name].call("wait", "notifyProxyConfigupdated")
        assert told == ("manual", "http://p.example:2", "user", "secret")
    # Signals arrive in order. So when the second notifyClearcache has arrived, earlier forbidden
    # signals would have arrived, too.
    callers["root"].call("update", "off")
    listeners["stranger"].call("wait", "notifyClearcache", 2)
    assert set(listeners["stranger"].call("members")) == {"notifyClearcache"}


def test_nobody_else_says_the_signals_of_the_service(callers, listeners):
    for name in ("stranger", "member"):
        callers[name].call("pretend", "notifyClearcache")
    callers["root"].call("update", "off")
    for listener in listeners.values():
        listener.call("wait", "notifyClearcache")
        assert listener.call("count", "notifyClearcache") == 1


def test_a_script_runs_in_a_sandboxed_worker_within_the_walls_of_the_unit(installed, callers):
    with Inside(installed, installed.account("root"), WebServer) as web:
        callers["member"].call("update", "pacurl", "", web.call("url"))
        installed.wait(lambda: callers["stranger"].call("urls", "http://a.example/")
                       == ["pacurl", *ANSWER], "the script answers")
    found = [pid for pid in installed.run("sh", "-c", "cd /proc && ls -d [0-9]*").stdout.split()
             if installed.run("cat", f"/proc/{pid}/comm", check=False).stdout == "proxymanager-pa\n"]
    assert len(found) == 1, installed.journal()
    worker = status(installed, found[0])
    assert worker["Uid"].split()[0] == str(installed.account("proxymanagerd").uid)
    assert int(worker["CapEff"], 16) == int(worker["CapPrm"], 16) == int(worker["CapAmb"], 16) == 0
    # The worker has the filters of the unit, like the daemon, and one more filter of its own.
    daemon = status(installed, main_process(installed))
    assert int(worker["Seccomp_filters"]) > int(daemon["Seccomp_filters"])


def test_what_others_planted_in_tmp_is_replaced(installed, callers):
    target = "/tmp/proxymanager.pac"
    installed.run("rm", "-f", target)
    installed.run("setpriv", "--reuid=stranger", "--regid=stranger", "--clear-groups", "sh", "-c",
                  f"umask 077; echo planted >{target}; ln -s /etc/passwd {target}.tmp")
    with Inside(installed, installed.account("root"), WebServer) as web:
        callers["root"].call("update", "pacurl", "", web.call("url"))
        installed.wait(lambda: installed.run("stat", "-c", "%U %a", target).stdout
                       == "proxymanagerd 644\n", "the planted file is replaced")
    assert installed.run("cat", target).stdout.encode() == SCRIPT
    assert "root:" in installed.run("cat", "/etc/passwd").stdout


def test_the_lease_is_read_and_a_change_of_it_noticed(installed, callers):
    callers["root"].call("update", "wpad")
    with Inside(installed, installed.account("root"), WebServer) as web:
        installed.run("rm", "-f", "/tmp/proxymanager.pac")
        installed.run("/usr/libexec/proxymanager-lease", "plain", "eth0", web.call("url"),
                      "corp.example", "")
        installed.wait(lambda: installed.run("stat", "/tmp/proxymanager.pac",
                                             check=False).returncode == 0, "the script is fetched")
        assert callers["root"].call("urls", "http://b.example/")[0] == "wpad"
    callers["root"].call("update", "off")


def test_anybody_sees_the_last_walk_by_systemd(installed, callers):
    def shown(*row):
        text = installed.run("setpriv", "--reuid=stranger", "--regid=stranger", "--clear-groups",
                             "proxymanagerctl", "status").stdout
        return all(re.search(part, text) for part in row)

    with Inside(installed, installed.account("root"), WebServer) as web:
        url = web.call("url")
        callers["root"].call("update", "pacurl", "", url)
        host = re.escape(url.split("/")[2])
        installed.wait(lambda: shown(r"updated +\S+, \d+ s ago\n",
                                     rf"last walk +\S+, \d+ s ago: script from {host}\n"),
                       "the walk is shown")
        assert "; last walk " in installed.run("systemctl", "status", UNIT).stdout
        assert installed.run("setpriv", "--reuid=stranger", "--regid=stranger", "--clear-groups",
                             "proxymanagerctl", "wait", "--script").stdout == ""
    callers["root"].call("update", "off")


def test_a_reload_reads_the_trace_settings(installed, callers):
    def said():
        return "fileDownload result success" in installed.run(
            "journalctl", "-q", "-p", "7..7", "-t", "proxymanager_service").stdout

    daemon = main_process(installed)
    assert not said()
    settings = installed.root / "etc/proxymanagerd/trace.conf"
    before = settings.read_text()
    settings.write_text(before + "baseseverity=7\n")
    installed.run("systemctl", "reload", UNIT)

    def says():
        # The daemon may handle SIGHUP after the first of these calls.
        callers["root"].call("update", "pacurl", "", "http://127.0.0.1:1/")
        return said()

    installed.wait(says, "debug lines are said")
    settings.write_text(before)
    installed.run("systemctl", "reload", UNIT)
    assert main_process(installed) == daemon
    callers["root"].call("update", "off")


def test_a_daemon_that_dies_is_started_anew(installed, listeners):
    killed = main_process(installed)
    installed.run("sh", "-c", f"kill -KILL {killed}")
    for listener in listeners.values():
        assert listener.call("wait", "ProxyMgrStateEvent") == (1,)
    assert main_process(installed) not in (None, killed)


def test_a_stop_during_a_walk_over_three_silent_servers_ends_the_unit_in_order(installed, callers):
    """The daemon finishes the transfer in progress. Meanwhile, systemd does not kill it and does
    not treat it as hanging."""
    hosts = installed.root / "etc/hosts"
    assert not hosts.exists()
    names = ["one.example", "two.example"]
    hosts.write_text("".join(f"127.0.0.1 wpad.{name}\n" for name in names))
    installed.run("/usr/libexec/proxymanager-lease", "plain", "eth0", "http://127.0.0.1/silent.dat",
                  "", "")
    installed.run("sh", "-c", f"echo search {' '.join(names)} >/tmp/.resolv.conf.dnsmasq")
    with Inside(installed, installed.account("root"), SilentServer) as server:
        callers["root"].call("update", "wpad")
        installed.wait(lambda: server.call("accepted") == 1, "the first transfer is in progress")
        begin = time.monotonic()
        installed.run("systemctl", "stop", UNIT)
        print(f"the stop took {time.monotonic() - begin:.1f} s")
        assert server.call("accepted") == 1, "the other candidates fail without being asked for"
    assert installed.show(UNIT, "ActiveState") == "inactive", installed.journal()
    assert installed.show(UNIT, "Result") == "success"
    assert installed.show(UNIT, "ExecMainStatus") == "0"
    failed = installed.run("journalctl", "-q", "-t", "proxymanager_service").stdout
    for url in ("http://127.0.0.1/silent.dat", *(f"http://wpad.{name}/wpad.dat" for name in names)):
        assert f"PAC file download failed url:{url}" in failed
    hosts.unlink()


def test_a_call_starts_a_daemon_that_was_stopped(installed, callers):
    callers["root"].call("update", "off")  # this starts the daemon if it does not run
    installed.run("systemctl", "stop", UNIT)
    assert main_process(installed) is None
    assert installed.show(UNIT, "Result") == "success"
    assert callers["stranger"].call("check_started") is True
    assert main_process(installed) is not None


def test_the_init_script_runs_the_daemon_with_the_same_rights(installed, callers):
    def script(action, check=True):
        # Without this variable, Debian's functions pass the call to systemd.
        return installed.run("env", "SYSTEMCTL_SKIP_REDIRECT=1", "/etc/init.d/proxymanagerd", action,
                             check=check)

    installed.run("systemctl", "stop", UNIT)
    assert script("status", check=False).returncode == 3
    script("start")
    script("start")
    assert script("status").returncode == 0
    pid = installed.run("cat", "/run/proxymanagerd/proxymanagerd.pid").stdout
    daemon = status(installed, pid)
    user = installed.account("proxymanagerd")
    assert daemon["Uid"].split() == [str(user.uid)] * 4
    assert daemon["Groups"].split() == []
    for kind in ("CapPrm", "CapEff", "CapBnd"):
        assert int(daemon[kind], 16) == CAP_FOWNER, kind
    assert daemon["NoNewPrivs"] == "1"
    with Inside(installed, installed.account("root"), WebServer) as web:
        callers["root"].call("update", "pacurl", "", web.call("url"))
        installed.wait(lambda: callers["stranger"].call("urls", "http://c.example/")
                       == ["pacurl", *ANSWER], "the script answers")
    script("reload")
    script("restart")
    assert installed.run("cat", "/run/proxymanagerd/proxymanagerd.pid").stdout != pid
    script("stop")
    assert script("status", check=False).returncode == 3
    installed.run("systemctl", "start", UNIT)


def test_the_documents_are_installed_and_link_to_each_other(installed):
    readme = installed.run("cat", "/usr/share/doc/proxymanagerd/README.md").stdout
    for page in ("operating", "integration", "dbus-api", "pac-language"):
        assert f"(docs/{page}.md" in readme
        installed.run("test", "-s", f"/usr/share/doc/proxymanagerd/docs/{page}.md")
    installed.run("test", "-s", "/usr/share/doc/proxymanagerd/packaging/hooks/README.md")


def test_removing_and_purging_leave_nothing(installed, before):
    names = [pathlib.Path(package).name.split("_")[0] for package in installed.packages]
    installed.run("userdel", "stranger")
    installed.run("userdel", "member")
    installed.run("dpkg", "--remove", *names)
    assert installed.show(UNIT, "ActiveState") == "inactive"
    assert installed.run("ls", "/etc/proxymanagerd").stdout == "dhcpcd-hook\ntrace.conf\n"
    installed.run("dpkg", "--purge", *names)
    assert files(installed) - before[0] == set()
    assert before[0] - files(installed) == set()
    assert accounts(installed) == before[1]
