"""Tests proxymanager-settings in trouble: a late network, a daemon that refuses, no memory, hostile
senders. Each message of the service's log is asserted here once."""

import json
import multiprocessing
import os
import signal
import socket
import subprocess
import threading
import time

import pytest
from jeepney import HeaderFields, MessageFlag
from support.bus import LIMIT, Client, wait_until
from support.daemon import Daemon, make_watched_files
from support.settings_service import (FOLDER, PACRUNNER, NetworkManager, Refused, SettingsService, link,
                                      write_settings)
from support.stand_in import HOLD, StandIn
from support.syslog_socket import ERR, INFO, NOTICE, WARNING
from support.web import Web, response, script

MANUAL = 'mode = "manual"\nproxy-url = "http://a.example:1"\n'
OFF = ("off", "", "", "n", "", "")
NETWORK_TIME = 20  # seconds from the start of the service and the daemon until the link is up
NOBODY = 65534
ANSWER_TIME = 5  # seconds from the moment when the link is up to the script's answer


@pytest.fixture
def settings(build, own_network, syslog, bus):
    service = SettingsService(build)
    yield service
    service.stop()


@pytest.fixture
def web_of_the_link(own_network):
    web = Web("0.0.0.0")
    yield web
    web.close()


def network_comes_up():
    link("eth", 100)
    subprocess.run(["ip", "address", "add", "10.9.0.1/24", "dev", "eth"], check=True)
    subprocess.run(["ip", "link", "set", "eth", "up"], check=True)


@pytest.mark.slow
def test_a_script_answers_soon_after_a_network_that_comes_twenty_seconds_late(settings, build,
                                                                             web_of_the_link):
    web_of_the_link.routes["/p.pac"] = script("PROXY late.example:1")
    write_settings(f'mode = "pacurl"\npac-url = "http://10.9.0.1:{web_of_the_link.port}/p.pac"\n')
    make_watched_files()
    settings.start()
    daemon = Daemon(build)
    with Client() as client:
        time.sleep(NETWORK_TIME)  # a fixed time, so that no retry is due by chance
        assert client.urls("http://h.example/") == ["pacurl"]
        network_comes_up()
        begin = time.monotonic()
        wait_until(lambda: client.urls("http://h.example/") == ["pacurl", "PROXY late.example:1"],
                   "the script answers")
        # Without the change of the network, the next retry would come ten seconds later.
        assert time.monotonic() - begin < ANSWER_TIME
    daemon.close()


def test_the_log_tells_of_the_daemon_and_of_what_it_gets(settings, build, syslog):
    write_settings(MANUAL)
    settings.start()
    syslog.wait_match(NOTICE, r"settings: mode manual \(a file sets the mode\)")
    daemon = Daemon(build)
    syslog.wait_match(INFO, "settings: the daemon is there")
    syslog.wait_match(NOTICE, "settings: the daemon has the configuration, mode manual")
    daemon.kill()
    syslog.wait_match(INFO, "settings: the daemon is gone")


def test_a_hand_over_that_fails_is_repeated_with_growing_pauses(settings, syslog):
    write_settings(MANUAL)
    error = "org.freedesktop.DBus.Error.Failed"
    daemon = StandIn({"updateProxyconfig": [error, error, error, ("i", (0,))], "getProxyconfig": error})
    settings.start()
    begin = time.monotonic()
    # The log has the daemon's text without control characters.
    for pause in (1, 2, 4):
        syslog.wait_match(WARNING, rf"settings: the hand-over failed, next in {pause} s: why\\x1b\[2J")
    assert settings.state()["problem"] == r"why\x1b[2J"
    syslog.wait_match(NOTICE, "settings: the daemon has the configuration, mode manual")
    assert time.monotonic() - begin > 6
    daemon.close()


def test_a_missing_script_is_not_asked_for_in_another_programs_place(settings, daemon, client, syslog):
    write_settings('mode = "pacurl"\npac-url = "http://127.0.0.1:9/p.pac"\n')
    settings.start()
    wait_until(lambda: settings.state()["handed_over_at"] is not None, "handed over")
    client.update(mode="pacurl", pacurl="http://127.0.0.1:9/other.pac")
    link("eth", 100)
    syslog.wait_match(INFO, "settings: another program has changed the configuration; it stays")
    assert client.config()[2] == "http://127.0.0.1:9/other.pac"


def test_without_a_bus_it_ends_and_says_why(build, root, syslog):
    service = SettingsService(build)
    ended = subprocess.run([service.path, "--port=0"], stdin=subprocess.DEVNULL, timeout=LIMIT,
                           env={**service.environment, "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/run/none"})
    assert ended.returncode == 1
    syslog.wait_match(ERR, "settings: cannot start: the system bus: No such file or directory")


def test_a_bus_that_goes_away_ends_it_for_its_supervisor(settings, bus):
    settings.start()
    bus.kill()
    assert settings.process.wait(LIMIT) != 0
    bus.start()


def test_a_port_that_is_taken_leaves_all_but_pushed_scripts(settings, daemon, client, syslog):
    with socket.create_server(("127.0.0.1", 850)):
        settings.start()
        syslog.wait_match(ERR, r"settings: port 850 for scripts of network managers: "
                               r"cannot listen on 127\.0\.0\.1: Address already in use")
        link("eth", 100)
        manager = NetworkManager()
        manager.create(Method="auto", Interface="eth", Script=script("PROXY pushed.example:1"))
        syslog.wait_match(ERR, "settings: a network manager's script cannot be served: no socket")
        manager.create(Method="manual", Interface="eth", Servers=["eth.example:1"])
        wait_until(lambda: client.config()[0] == "manual", "a server by hand is used")
        manager.close()


def test_a_script_that_cannot_be_served_leaves_nothing_of_an_earlier_configuration(settings, daemon,
                                                                                   client):
    with socket.create_server(("127.0.0.1", 850)):
        settings.start()
        link("eth", 100)
        manager = NetworkManager()
        path = manager.create(Method="manual", Interface="eth", Servers=["eth.example:1"])
        wait_until(lambda: client.config()[1] == "http://eth.example:1", "a server by hand is used")
        manager.create(Method="auto", Interface="eth", Script=script("PROXY pushed.example:1"))
        manager.destroy(path)
        wait_until(lambda: client.config() == OFF, "what was destroyed is used no more")
        manager.close()


def test_a_script_that_found_no_space_is_served_when_there_is_some(settings, daemon, client):
    folder = "/run/proxymanager-settings"
    os.makedirs(folder, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16k", "none", folder], check=True)
    with open(folder + "/full", "wb", buffering=0) as file, pytest.raises(OSError):
        while True:
            file.write(bytes(4096))
    settings.start()
    link("eth", 100)
    manager = NetworkManager()
    manager.create(Method="auto", Interface="eth", Script=script("PROXY pushed.example:1"))
    wait_until(lambda: settings.state()["reason"] == "the script of a network manager cannot be served",
               "the state names the reason")
    os.remove(folder + "/full")
    wait_until(lambda: client.urls("http://h.example/") == ["pacurl", "PROXY pushed.example:1"],
               "the pushed script answers")
    manager.close()


def test_a_script_is_served_again_after_the_kernel_gave_no_connection(settings, daemon, client, syslog):
    settings.start()
    link("eth", 100)
    pid = settings.process.pid
    wait_until(lambda: settings.state()["handed_over_at"] is not None, "handed over")
    subprocess.run(["prlimit", f"--pid={pid}", "--nofile=3:1024"], check=True)
    begin = time.monotonic()
    with socket.create_connection(("127.0.0.1", 850)):
        syslog.wait_match(WARNING, r"settings: no connection for a script, next try in 1 s: "
                                   r"Too many open files")
        wait_until(lambda: sum("no connection for a script" in text for text in syslog.texts()) >= 2,
                   "the next try")
        assert time.monotonic() - begin > 0.9  # the service paused before the next try
        subprocess.run(["prlimit", f"--pid={pid}", "--nofile=1024:1024"], check=True)
    manager = NetworkManager()
    manager.create(Method="auto", Interface="eth", Script=script("PROXY pushed.example:1"))
    wait_until(lambda: client.urls("http://h.example/") == ["pacurl", "PROXY pushed.example:1"],
               "the pushed script answers")
    manager.close()


def test_a_name_that_another_has_leaves_the_files(settings, daemon, client, syslog):
    other = StandIn({}, PACRUNNER)
    write_settings(MANUAL)
    settings.start()
    syslog.wait_match(WARNING, r"settings: no name org\.pacrunner, network managers cannot reach this "
                               r"service: File exists")
    wait_until(lambda: client.config()[0] == "manual", "the file is used")
    other.close()


def test_a_password_that_the_bus_cannot_transport_is_named_and_the_service_stays(settings, daemon, client,
                                                                                syslog):
    write_settings(MANUAL)
    settings.start()
    wait_until(lambda: client.config()[0] == "manual", "handed over")
    password = FOLDER + "/password"
    with open(password, "wb", opener=lambda path, flags: os.open(path, flags, 0o600)) as file:
        file.write(b"gr\xfc\xdfe\n")
    write_settings(MANUAL + f'user = "me"\npassword-file = "{password}"\n')
    syslog.wait_match(ERR, rf"settings: {password}: the password file must be text in UTF-8")
    assert settings.state()["last_good_settings"] is True
    assert client.config()[:2] == ("manual", "http://a.example:1")


def test_a_configuration_that_cannot_be_used_is_named(settings, syslog):
    settings.start()
    manager = NetworkManager()
    manager.create(Method="manual", Interface="e\x1bt", Servers=["p.example:1"],
                   Excludes=["\u00e4" * 4000] * 20)
    name = manager.connection.unique_name.replace(".", r"\.")
    syslog.wait_match(WARNING, rf"settings: a configuration of {name} for interface e\\x1bt cannot be used")
    network, = settings.state()["networks"]
    assert (network["usable"], network["script"]) == (False, False)
    manager.close()


def test_a_sender_at_its_limit_is_named_once(settings, syslog):
    settings.start()
    manager = NetworkManager()
    for _ in range(64):
        manager.create(Method="direct")
    for _ in range(2):
        with pytest.raises(Refused):
            manager.create(Method="direct")
    name = manager.connection.unique_name
    line = f"settings: {name} has pushed 64 configurations, more are refused"
    syslog.wait_match(WARNING, line.replace(".", r"\."))
    assert syslog.texts().count(line) == 1
    manager.close()


def test_senders_that_die_in_the_middle_leave_nothing(settings, daemon, client):
    settings.start()
    link("eth", 100)
    for number in range(100):
        manager = NetworkManager()
        for _ in range(number % 3 + 1):
            manager.push(Method="manual", Interface="eth", Servers=["dead.example:1"])
        manager.ask("http://h.example/")
        manager.close()
    wait_until(lambda: settings.state()["networks"] == [], "nothing is left")
    wait_until(lambda: client.config() == OFF, "off")
    live = NetworkManager()
    assert live.find("http://h.example/") == "DIRECT"
    live.create(Method="manual", Interface="eth", Servers=["live.example:1"])
    wait_until(lambda: client.config()[1] == "http://live.example:1", "the live one is used")
    live.close()


def test_at_most_eight_questions_of_one_caller_wait(settings):
    # The daemon never answers a question, so all questions wait.
    daemon = StandIn({"updateProxyconfig": ("i", (0,)), "getProxyurl": HOLD,
                      "getProxyconfig": "org.freedesktop.DBus.Error.Failed"})
    settings.start()
    wait_until(lambda: settings.state()["daemon"], "the daemon is there")
    manager = NetworkManager()
    for _ in range(8):
        manager.ask("http://h.example/")
    assert daemon.held.wait(LIMIT)
    # A question that is refused gets an error, because "DIRECT" would be a wrong answer.
    with pytest.raises(Refused, match="too many questions wait"):
        manager.find("http://h.example/")
    # Waiting questions do not prevent another manager from pushing. When the daemon ends, the
    # waiting questions are answered.
    other = NetworkManager()
    assert other.create(Method="direct") == "/org/pacrunner/configuration0"
    daemon.close()
    assert [reply.body[0] for reply in manager.replies(8)] == ["DIRECT"] * 8
    manager.close()
    other.close()


def test_a_user_with_sixty_four_waiting_questions_leaves_room_for_others(settings):
    daemon = StandIn({"updateProxyconfig": ("i", (0,)), "getProxyurl": HOLD,
                      "getProxyconfig": "org.freedesktop.DBus.Error.Failed"})
    settings.start()
    wait_until(lambda: settings.state()["daemon"], "the daemon is there")
    managers = [NetworkManager(NOBODY) for _ in range(9)]
    for manager in managers[:8]:
        for _ in range(8):
            manager.ask("http://h.example/")
    with pytest.raises(Refused, match="too many questions wait"):
        managers[8].find("http://h.example/")
    other = NetworkManager()
    other.ask("http://h.example/")
    wait_until(lambda: daemon.count("getProxyurl") == 2, "two are at the daemon")
    # Answered questions do not count for the limit any more.
    daemon.close()
    for manager, count in (*((manager, 8) for manager in managers[:8]), (other, 1)):
        assert [reply.body[0] for reply in manager.replies(count)] == ["DIRECT"] * count
    assert daemon.count("getProxyurl") == 2
    daemon = StandIn({"updateProxyconfig": ("i", (0,)), "getProxyurl": ("as", (["off", ""],)),
                      "getProxyconfig": "org.freedesktop.DBus.Error.Failed"})
    wait_until(lambda: settings.state()["daemon"], "the daemon is there again")
    managers[8].find("http://h.example/")
    assert daemon.count("getProxyurl") == 1
    # No call may start the daemon, because the administrator has stopped it.
    assert all(flags & MessageFlag.no_auto_start for _, flags in daemon.calls)
    daemon.close()
    for manager in (*managers, other):
        manager.close()


def test_one_users_questions_delay_neither_a_change_nor_another_user(settings, daemon, client, web):
    """Each question takes two seconds, because the name server does not answer."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        silent.bind(("127.0.0.1", 53))
        with open("/etc/resolv.conf", "w") as file:
            file.write("nameserver 127.0.0.1\n")
        web.routes["/p.pac"] = response("function FindProxyForURL(url, host) {\n"
                                        "  if (host.indexOf('slow') === 0) dnsResolve(host);\n"
                                        "  return 'PROXY script.example:1'; }")
        write_settings(f'mode = "pacurl"\npac-url = "{web.url("/p.pac")}"\n')
        settings.start()
        wait_until(lambda: client.urls("http://h.example/") == ["pacurl", "PROXY script.example:1"],
                   "the script answers")
        callers = [NetworkManager(NOBODY) for _ in range(8)]
        for number, caller in enumerate(callers):
            for name in range(8):
                caller.ask(f"http://slow{number}x{name}.example/")
        other = NetworkManager()
        assert other.find("http://h.example/") == "PROXY script.example:1"
        write_settings(MANUAL)
        wait_until(lambda: client.config()[0] == "manual", "the change is handed over")
        answers = [reply.body[0] for caller in callers for reply in caller.replies(8)]
        # The change was made before most of the questions were answered.
        assert answers.count("PROXY script.example:1") < 16
        assert answers.count("PROXY a.example:1") > 48
        for caller in (*callers, other):
            caller.close()


def flood_the_script_port():
    """Connects to the script server in a loop, as another user, until the process is killed."""
    os.setgid(NOBODY)
    os.setuid(NOBODY)
    connections = []
    while True:
        connection = socket.socket()
        connection.setblocking(False)
        connection.connect_ex(("127.0.0.1", 850))
        connections.append(connection)
        if len(connections) > 500:
            connections.pop(0).close()


def test_connections_to_the_script_server_delay_no_change(settings, daemon, client):
    """The questions fill the queue of the service's connection to the bus."""
    settings.start()
    wait_until(lambda: settings.state()["daemon"], "the daemon is there")
    flood = [multiprocessing.Process(target=flood_the_script_port) for _ in range(3)]
    try:
        for process in flood:
            process.start()
        callers = [NetworkManager(NOBODY) for _ in range(6)]
        for caller in callers:
            for name in range(8):
                caller.ask(f"http://h{name}.example/")
        write_settings(MANUAL)
        wait_until(lambda: client.config()[0] == "manual", "the change is handed over")
        assert all(process.is_alive() for process in flood)
    finally:
        for process in flood:
            process.kill()
            process.join()
    for caller in callers:
        assert len(caller.replies(8)) == 8
        caller.close()


def test_another_users_file_is_not_the_script_that_is_missing(settings, daemon, web):
    web.routes["/p.pac"] = response("", "404 Not Found")
    with open("/tmp/proxymanager.pac", "w"):
        pass
    os.chown("/tmp/proxymanager.pac", NOBODY, NOBODY)
    write_settings(f'mode = "pacurl"\npac-url = "{web.url("/p.pac")}"\n')
    settings.start()
    wait_until(lambda: settings.state()["handed_over_at"], "the configuration is handed over")
    web.wait("/p.pac")
    os.utime("/tmp/proxymanager.pac")
    # A change of this file is a reason to look for the script.
    os.utime("/etc/resolv.conf")
    web.wait("/p.pac", 2)


def test_a_question_of_sixteen_kibibytes_is_asked_and_a_longer_one_refused(settings):
    daemon = StandIn({"updateProxyconfig": ("i", (0,)), "getProxyurl": ("as", (["off", ""],)),
                      "getProxyconfig": "org.freedesktop.DBus.Error.Failed"})
    settings.start()
    wait_until(lambda: settings.state()["daemon"], "the daemon is there")
    manager = NetworkManager()
    url = "http://h/".ljust(16 * 1024 - 1, "x")
    assert manager.find(url, "h") == "DIRECT"
    with pytest.raises(Refused, match="the URL is too long"):
        manager.find(url + "x", "h")
    assert daemon.count("getProxyurl") == 1
    manager.close()
    daemon.close()


def test_callers_that_only_ask_cost_no_match_of_the_bus(settings, bus):
    """The bus allows the service 512 match rules. If the bus refused a rule, the service would
    end."""
    daemon = StandIn({"updateProxyconfig": ("i", (0,)), "getProxyurl": ("as", (["off", ""],)),
                      "getProxyconfig": "org.freedesktop.DBus.Error.Failed"})
    settings.start()
    wait_until(lambda: settings.state()["daemon"], "the daemon is there")

    def matches():
        with Client() as client:
            return client.call("GetConnectionStats", "s", (PACRUNNER,), path="/org/freedesktop/DBus",
                               interface="org.freedesktop.DBus.Debug.Stats",
                               bus_name="org.freedesktop.DBus")[0]["MatchRules"][1]

    before = matches()
    managers = [NetworkManager() for _ in range(20)]
    assert [manager.find("http://h.example/") for manager in managers] == ["DIRECT"] * 20
    assert matches() == before
    # The service watches a connection that pushes.
    managers[0].create(Method="direct")
    wait_until(lambda: matches() > before, "the sender is watched")
    for manager in managers:
        manager.close()
    daemon.close()


def test_at_most_sixteen_questions_for_the_state_wait_for_one_answer_of_the_daemon(settings):
    daemon = StandIn({"updateProxyconfig": ("i", (0,)), "getProxyconfig": HOLD,
                      "getProxyurl": ("as", (["off", ""],))})
    settings.start()
    wait_until(lambda: daemon.count("updateProxyconfig") == 1, "handed over")
    before = daemon.count("getProxyconfig")
    caller = NetworkManager()
    for _ in range(17):
        caller.ask_state()
    refused, = caller.replies(1)
    assert refused.header.fields[HeaderFields.error_name] == "org.freedesktop.DBus.Error.LimitsExceeded"
    other = NetworkManager()
    other.find("http://h.example/")  # after this, the daemon has received all earlier calls
    assert daemon.count("getProxyconfig") == before + 1
    daemon.close()
    assert [json.loads(reply.body[0])["daemon_has"] for reply in caller.replies(16)] == [None] * 16
    caller.close()
    other.close()


def test_a_folder_that_changes_without_a_pause_is_read_all_the_same(settings, daemon, client):
    settings.start()
    wait_until(lambda: settings.state()["handed_over_at"] is not None, "handed over")
    ending = threading.Event()

    def scribble():
        while not ending.wait(0.02):
            write_settings("", "settings.d/noise")
    writer = threading.Thread(target=scribble)
    writer.start()
    try:
        write_settings(MANUAL)
        wait_until(lambda: client.config()[0] == "manual", "the file is followed")
    finally:
        ending.set()
        writer.join()


def test_nobody_but_root_looks_into_the_service(build, own_network, syslog, bus):
    """The process may contain a password, so the kernel makes root the owner of its files in
    /proc."""
    os.mkdir("/run/scripts")
    os.chown("/run/scripts", 65534, 65534)
    service = SettingsService(build)
    process = subprocess.Popen([service.path, "--port=0", "--runtime=/run/scripts"], user="nobody",
                               env=service.environment, stdin=subprocess.DEVNULL)
    try:
        with Client() as client:
            wait_until(lambda: client.owner("com.zentu.ProxyManagerSettings") is not None, "it runs")
        assert os.stat(f"/proc/{process.pid}/environ").st_uid == 0
    finally:
        process.terminate()
        assert process.wait(LIMIT) == 0


def test_calls_are_answered_at_once_while_the_daemon_hangs(settings, daemon):
    settings.start()
    wait_until(lambda: settings.state()["handed_over_at"] is not None, "handed over")
    link("eth", 100)
    os.kill(daemon.pid, signal.SIGSTOP)
    try:
        times = []
        for number in range(5):
            manager = NetworkManager()
            begin = time.monotonic()
            manager.create(Method="auto", Interface="eth", Script=script(f"PROXY p{number}:1"))
            times.append(time.monotonic() - begin)
            manager.close()
        assert min(times) < 0.1, times
    finally:
        os.kill(daemon.pid, signal.SIGCONT)


def test_without_memory_it_ends_and_its_next_start_knows_all(settings, daemon, client, syslog, sanitizer):
    if sanitizer:
        pytest.skip("a sanitizer's own memory has no such limit")
    write_settings(MANUAL)
    settings.start()
    wait_until(lambda: client.config()[0] == "manual", "configured")
    subprocess.run(["prlimit", f"--pid={settings.process.pid}", "--as=1"], check=True)
    # Many lines, each with a problem to report.
    lines = "".join(f"k{number} = 1\n" for number in range(5_000))
    for number in range(20):
        write_settings(lines, f"settings.d/{number}.conf")
    assert settings.process.wait(LIMIT) == 1
    syslog.wait_match(ERR, r"settings: cannot go on, ending: .*")
    for number in range(20):
        os.remove(f"{FOLDER}/settings.d/{number}.conf")
    write_settings('proxy-url = "http://b.example:2"\n', "settings.d/1.conf")
    settings.start()
    wait_until(lambda: client.config()[1] == "http://b.example:2", "configured again")
