"""Tests after which events proxymanager-settings configures the daemon again, and its behaviour
without systemd."""

import os
import shutil
import signal
import socket
import subprocess
import sys

import pytest
from support.bus import LIMIT, wait_until
from support.settings_service import FOLDER, NetworkManager, SettingsService, link, write_settings
from support.stand_in import StandIn
from support.web import response, script

HOUR = 3600.0
RUNTIME = "/run/proxymanager-settings"
RESOLVER = "/etc/resolv.conf"
MANUAL = 'mode = "manual"\nproxy-url = "http://a.example:1"\n'
OFF = ("off", "", "", "n", "", "")


@pytest.fixture
def settings(build, own_network, syslog, bus):
    service = SettingsService(build)
    yield service
    service.stop()


def wait_for(client, *wanted):
    wait_until(lambda: client.config() == wanted, f"{wanted}")


def test_the_fallback_counts_until_a_network_manager_pushes_and_after_it(settings, daemon, client):
    write_settings('fallback = "wpad"\n')
    settings.start()
    wait_for(client, "wpad", "", "", "n", "", "")
    link("eth", 100)
    manager = NetworkManager()
    manager.create(Method="manual", Interface="eth", Servers=["eth.example:1"])
    wait_for(client, "manual", "http://eth.example:1", "", "n", "", "")
    manager.close()
    wait_for(client, "wpad", "", "", "n", "", "")


def test_a_network_manager_that_runs_may_push_before_something_else_is_handed_over(settings, daemon, client,
                                                                                  syslog):
    connman = StandIn({}, "net.connman")
    link("eth", 100)

    def keeps():
        """Whether the configuration stayed in force, without a replacement, while the service
        started."""
        client.update(mode="manual", proxyurl="http://eth.example:1")
        before = len(syslog.texts())
        settings.start()
        manager = NetworkManager()
        manager.create(Method="manual", Interface="eth", Servers=["eth.example:1"])
        wait_until(lambda: settings.state()["handed_over_at"] is not None, "handed over")
        wait_for(client, "manual", "http://eth.example:1", "", "n", "", "")
        settings.stop()
        manager.close()
        return not any(text.startswith("settings: mode off") for text in syslog.texts()[before:])
    # On a busy machine, the push may come after the service has stopped waiting.
    assert any(keeps() for _ in range(5))
    # The wait also ends if nothing is pushed.
    settings.start()
    wait_for(client, *OFF)
    connman.close()


def test_a_default_route_of_ipv6_alone_decides_too(settings, daemon, client):
    if not os.path.exists("/proc/net/ipv6_route"):
        pytest.skip("this machine has no IPv6")
    settings.start()
    link("wlan", 600)
    manager = NetworkManager()
    manager.create(Method="manual", Interface="wlan", Servers=["wlan.example:1"])
    manager.create(Method="manual", Interface="six", Servers=["six.example:1"])
    wait_for(client, "manual", "http://wlan.example:1", "", "n", "", "")
    for command in ("link add six type veth peer name six-peer", "link set six up", "link set six-peer up",
                    "address flush dev six"):
        subprocess.run(["ip", *command.split()], check=True)
    wait_until(lambda: settings.next_timer() is None, "nothing is left to do")
    subprocess.run(["ip", "-6", "route", "add", "default", "dev", "six", "metric", "100"], check=True)
    wait_for(client, "manual", "http://six.example:1", "", "n", "", "")
    manager.close()


def test_a_refresh_time_sets_a_timer_and_no_refresh_sets_none(settings, daemon, client):
    write_settings(MANUAL)
    settings.start()
    wait_for(client, "manual", "http://a.example:1", "", "n", "", "")
    wait_until(lambda: settings.next_timer() is None, "no timer")
    write_settings('refresh = "6h"\n', "settings.d/1.conf")
    wait_until(lambda: 5.9 * HOUR < (settings.next_timer() or 0) <= 6.6 * HOUR, "a timer of six hours")
    write_settings('refresh = "0"\n', "settings.d/1.conf")
    wait_until(lambda: settings.next_timer() is None, "no timer")


def test_a_script_goes_with_the_network_manager_that_pushed_it(settings, daemon, client):
    settings.start()
    link("eth", 100)
    manager = NetworkManager()
    manager.create(Method="auto", Interface="eth", Script=script("PROXY pushed.example:1"))
    wait_until(lambda: client.urls("http://h.example/") == ["pacurl", "PROXY pushed.example:1"],
               "the pushed script answers")
    assert len(os.listdir(RUNTIME)) == 1
    manager.close()
    wait_for(client, *OFF)
    assert os.listdir(RUNTIME) == []


def test_a_changed_resolver_file_asks_for_the_script_again(settings, daemon, client, web):
    web.routes["/p.pac"] = response("none", status="404 Not Found")
    write_settings(f'mode = "pacurl"\npac-url = "{web.url("/p.pac")}"\n')
    settings.start()

    def is_asked(times):
        """Whether the change of the file, and not the timer, caused the request for the script.
        After a request by the timer, the next pause is longer."""
        web.wait("/p.pac", times)
        wait_until(lambda: 5 < (settings.next_timer() or 0) <= 30.3, "the next pause")
        return settings.next_timer() <= 10.3
    assert is_asked(1)
    with open(RESOLVER, "a") as file:
        file.write("nameserver 127.0.0.1\n")
    assert is_asked(2)
    # Resolver services replace the file by a link. From then on, the service watches the target
    # of the link.
    with open("/run/resolver.one", "w"):
        pass
    os.symlink("/run/resolver.one", RESOLVER + ".new")
    os.rename(RESOLVER + ".new", RESOLVER)
    assert is_asked(3)
    with open("/run/resolver.one", "a") as file:
        file.write("nameserver 127.0.0.2\n")
    assert is_asked(4)
    # At boot, the link may exist before its target.
    os.symlink("/run/resolver.later/stub", RESOLVER + ".new")
    os.rename(RESOLVER + ".new", RESOLVER)
    assert is_asked(5)
    write_settings("nameserver 127.0.0.3\n", "/run/resolver.later/stub")
    assert is_asked(6)


def test_a_changed_password_file_or_credential_is_followed(build, own_network, syslog, bus, daemon,
                                                            client):
    # This file is outside of the settings folder.
    password = write_settings("first\n", "/run/proxy/password", 0o640)
    credentials = "/run/proxy/credentials"
    os.mkdir(credentials, 0o700)
    settings = SettingsService(build, environment={"CREDENTIALS_DIRECTORY": credentials}).start()
    write_settings(MANUAL + f'user = "me"\npassword-file = "{password}"\n')
    wait_for(client, "manual", "http://a.example:1", "", "n", "me", "first")
    write_settings("second\n", password, 0o640)
    wait_for(client, "manual", "http://a.example:1", "", "n", "me", "second")
    write_settings("third\n", credentials + "/proxy", 0o400)
    write_settings(MANUAL + 'user = "me"\npassword-credential = "proxy"\n')
    wait_for(client, "manual", "http://a.example:1", "", "n", "me", "third")
    write_settings("fourth\n", credentials + "/proxy", 0o400)
    wait_for(client, "manual", "http://a.example:1", "", "n", "me", "fourth")
    settings.stop()


def test_settings_whose_folder_goes_away_and_comes_back_are_followed(settings, daemon, client):
    write_settings(MANUAL)
    settings.start()
    wait_for(client, "manual", "http://a.example:1", "", "n", "", "")
    os.rename(FOLDER, "/etc/old")
    wait_for(client, *OFF)
    wait_until(lambda: settings.next_timer() is None, "nothing is left to do")
    os.makedirs(FOLDER + "/settings.d")
    wait_until(lambda: settings.next_timer() is None, "nothing is left to do")
    write_settings(MANUAL.replace("a.example", "b.example"), "settings.d/1.conf")
    wait_for(client, "manual", "http://b.example:1", "", "n", "", "")
    # A configuration tool replaces all files at once.
    write_settings(MANUAL.replace("a.example", "c.example"), "/etc/new/settings.conf")
    os.rename(FOLDER, "/etc/older")
    os.rename("/etc/new", FOLDER)
    wait_for(client, "manual", "http://c.example:1", "", "n", "", "")


def test_a_folder_of_settings_that_is_a_link_is_followed_to_another_target(settings, daemon, client):
    for number, host in enumerate("abc"):
        write_settings(MANUAL.replace("a.example", host + ".example"), f"/etc/v{number}/settings.conf")
    shutil.rmtree(FOLDER)
    os.symlink("/etc/v0", FOLDER)
    settings.start()
    for number, host in enumerate("abc"):
        if number > 0:
            os.symlink(f"/etc/v{number}", FOLDER + ".new")
            os.rename(FOLDER + ".new", FOLDER)
        wait_for(client, "manual", f"http://{host}.example:1", "", "n", "", "")
    write_settings(MANUAL.replace("a.example", "d.example"), "/etc/v2/settings.conf")
    wait_for(client, "manual", "http://d.example:1", "", "n", "", "")


def test_a_password_file_whose_folder_comes_later_is_followed(settings, daemon, client):
    write_settings(MANUAL + 'user = "me"\npassword-file = "/run/later/proxy/password"\n')
    settings.start()
    wait_until(lambda: settings.state()["problems"], "the password is missing")
    write_settings("late\n", "/run/later/proxy/password", 0o640)
    wait_for(client, "manual", "http://a.example:1", "", "n", "me", "late")


def test_without_systemd_root_binds_the_port_and_the_service_is_another_user(settings, daemon, client):
    settings.user = "nobody"
    settings.start()
    with open(f"/proc/{settings.process.pid}/status") as file:
        assert "Uid:\t65534\t65534\t65534\t65534\n" in file.read()

    def rival():
        """Runs a program that tries to bind the port as the service's user. Returns its result."""
        return subprocess.run([sys.executable, "-c", "import socket; socket.create_server(('127.0.0.1', 850))"],
                              user="nobody", extra_groups=[], capture_output=True, text=True, cwd="/",
                              stdin=subprocess.DEVNULL, timeout=LIMIT)
    assert "PermissionError" in rival().stderr
    settings.process.send_signal(signal.SIGKILL)
    settings.process.wait(LIMIT)
    assert "PermissionError" in rival().stderr
    with socket.create_server(("127.0.0.1", 850)):
        pass  # root can bind the port, so the port is free
    settings.start()
    link("eth", 100)
    manager = NetworkManager()
    manager.create(Method="auto", Interface="eth", Script=script("PROXY pushed.example:1"))
    wait_until(lambda: client.urls("http://h.example/") == ["pacurl", "PROXY pushed.example:1"],
               "the pushed script answers")
    manager.close()
