"""Tests proxymanager-settings, which configures a real daemon from the administrator's files and from
network managers."""

import os
import subprocess

import pytest

from support.bus import Client, wait_until
from support.daemon import Daemon
from support.settings_service import (FOLDER, NetworkManager, Refused, SettingsService, link,
                                      link_down, write_settings)
from support.syslog_socket import ERR, INFO
from support.web import response, script

OFF = ("off", "", "", "n", "", "")


@pytest.fixture
def settings(build, own_network, syslog, bus):
    service = SettingsService(build)
    yield service
    service.stop()


@pytest.fixture
def manager(bus):
    manager = NetworkManager()
    yield manager
    manager.close()


def wait_for(client, *wanted):
    wait_until(lambda: client.config() == wanted, f"{wanted}")


def handed_over(syslog, times):
    """Waits until the service has handed over a configuration this number of times."""
    wait_until(lambda: updates(syslog) >= times, f"{times} hand-overs")


def updates(syslog):
    return sum(text.startswith("ProxyManagerServiceImpl-updateProxyConfig mode:")
               for text in syslog.texts())


def test_a_daemon_that_starts_later_is_configured(settings, build):
    write_settings('mode = "manual"\nproxy-url = "http://proxy.example:3128"\n')
    settings.start()
    daemon = Daemon(build)
    with Client() as client:
        wait_for(client, "manual", "http://proxy.example:3128", "", "n", "", "")
    daemon.close()


def test_without_files_and_network_managers_the_daemon_is_off_and_announces_itself_no_more(
        settings, daemon, client, syslog):
    settings.start()
    handed_over(syslog, 1)
    assert client.config() == OFF
    assert settings.state()["holder"] == "fallback"


def test_each_start_of_the_daemon_is_configured_again(settings, build, syslog):
    write_settings('mode = "manual"\nproxy-url = "http://proxy.example:3128"\n')
    settings.start()
    for _ in range(3):
        daemon = Daemon(build)
        with Client() as client:
            wait_for(client, "manual", "http://proxy.example:3128", "", "n", "", "")
        daemon.kill()


def test_a_changed_file_is_followed_without_being_asked(settings, daemon, client):
    write_settings('mode = "manual"\nproxy-url = "http://a.example:1"\n')
    settings.start()
    wait_for(client, "manual", "http://a.example:1", "", "n", "", "")
    write_settings('proxy-url = "http://b.example:2"\n', "settings.d/50-more.conf")
    wait_for(client, "manual", "http://b.example:2", "", "n", "", "")
    os.remove(FOLDER + "/settings.d/50-more.conf")
    wait_for(client, "manual", "http://a.example:1", "", "n", "", "")


def test_a_bad_line_is_named_and_the_last_good_settings_stay(settings, daemon, client, syslog):
    write_settings('mode = "manual"\nproxy-url = "http://a.example:1"\n')
    settings.start()
    wait_for(client, "manual", "http://a.example:1", "", "n", "", "")
    write_settings('mode = "off"\nprxy-url = "x"\n')
    syslog.wait_match(ERR, r"settings: /etc/proxymanager/settings\.conf:2: prxy-url is not a known key")
    syslog.wait_match(ERR, r"settings: the files are not used, the last good settings stay")
    assert client.config()[0] == "manual"
    assert settings.state()["last_good_settings"] is True


def test_what_another_program_sets_stays_until_the_source_changes(settings, daemon, client, syslog):
    write_settings('mode = "manual"\nproxy-url = "http://a.example:1"\n')
    settings.start()
    wait_for(client, "manual", "http://a.example:1", "", "n", "", "")
    client.update(mode="manual", proxyurl="http://other.example:9")
    before = updates(syslog)

    def stays():
        """Whether the configuration is still in force after the service has finished all its
        calls."""
        settings.state()  # the service answers this call after its own earlier calls
        return client.config()[1] == "http://other.example:9" and updates(syslog) == before
    # The service does not read the first two files, which belong to other programs. The third file
    # sets the same mode again.
    write_settings("# nothing\n", "settings.d/90-other.conf.txt")
    write_settings("# nothing\n", "relay.conf")
    same = write_settings('mode = "manual"\n', "settings.d/50-same.conf")
    wait_until(lambda: same in settings.state()["mode_files"], "the files are read")
    assert stays()
    write_settings("nonsense\n", "settings.d/95-bad.conf")
    wait_until(lambda: settings.state()["problems"], "the bad file is read")
    assert stays()
    os.remove(FOLDER + "/settings.d/95-bad.conf")
    wait_until(lambda: not settings.state()["problems"], "the good files are read")
    assert stays()
    settings.hang_up()
    wait_for(client, "manual", "http://a.example:1", "", "n", "", "")


def test_a_start_with_a_bad_file_leaves_the_daemons_configuration(settings, daemon, client, syslog):
    write_settings('mode = "manual"\nproxy-url = "http://a.example:1"\n')
    settings.start()
    wait_for(client, "manual", "http://a.example:1", "", "n", "", "")
    settings.stop()
    write_settings("nonsense\n")
    settings.start()
    wait_until(lambda: settings.state()["daemon"], "the daemon is there")
    settings.state()  # the service answers this call after its own earlier calls
    assert client.config()[:2] == ("manual", "http://a.example:1")
    syslog.wait_match(ERR, r"settings: the files are used in part, and only for a daemon in mode off")
    settings.hang_up()
    syslog.wait_match(INFO, r"settings: the daemon keeps its configuration until the files are repaired")
    assert client.config()[:2] == ("manual", "http://a.example:1")
    assert settings.state()["last_good_settings"] is False
    write_settings('mode = "manual"\nproxy-url = "http://b.example:2"\n')
    wait_for(client, "manual", "http://b.example:2", "", "n", "", "")


def test_a_boot_with_a_bad_line_uses_the_valid_lines(settings, build, syslog):
    write_settings('mode = "manual"\nproxy-url = "http://a.example:1"\n')
    write_settings('refesh = "6h"\n', "settings.d/50-bad.conf")
    settings.start()
    for _ in range(2):
        daemon = Daemon(build)
        with Client() as client:
            wait_for(client, "manual", "http://a.example:1", "", "n", "", "")
            # The service replaces a configuration that it has handed over itself.
            write_settings('mode = "manual"\nproxy-url = "http://b.example:2"\n')
            wait_for(client, "manual", "http://b.example:2", "", "n", "", "")
            write_settings('mode = "manual"\nproxy-url = "http://a.example:1"\n')
            wait_for(client, "manual", "http://a.example:1", "", "n", "", "")
        daemon.kill()
    # A mode without its URL is not a valid setting.
    write_settings('mode = "manual"\nprxy-url = "x"\n')
    wait_until(lambda: settings.state()["holder"] == "fallback", "no file sets a mode")


def test_the_same_settings_written_again_cause_no_hand_over(settings, daemon, client, syslog):
    text = 'mode = "manual"\nproxy-url = "http://a.example:1"\n'
    write_settings(text)
    settings.start()
    wait_for(client, "manual", "http://a.example:1", "", "n", "", "")
    before = updates(syslog)
    write_settings(text)
    write_settings('mode = "off"\n')
    wait_for(client, *OFF)
    assert updates(syslog) == before + 1


def test_user_and_password_reach_the_daemon_and_no_log(settings, daemon, client, syslog):
    write_settings("geheim-7\n", "password", 0o640)
    write_settings('mode = "manual"\nproxy-url = "http://a.example:1"\nuser = "me"\n'
                   f'password-file = "{FOLDER}/password"\n')
    settings.start()
    wait_for(client, "manual", "http://a.example:1", "", "n", "me", "geheim-7")
    assert not any("geheim-7" in text for text in syslog.texts())
    pid = settings.process.pid
    for name in ("cmdline", "environ"):
        with open(f"/proc/{pid}/{name}") as file:
            assert "geheim-7" not in file.read()
    assert "geheim-7" not in str(settings.state())


def test_a_script_that_was_not_there_is_asked_for_again(settings, daemon, client, web, syslog):
    web.routes["/proxy.pac"] = response("late", status="200 OK")  # this answer is not a script
    write_settings(f'mode = "pacurl"\npac-url = "{web.url("/proxy.pac")}"\n')
    settings.start()
    web.wait("/proxy.pac")
    web.routes["/proxy.pac"] = script("PROXY late.example:1")
    # If the network changes, for example because a link comes up, the next try is one second later.
    link("dummy0", 100)
    wait_until(lambda: client.urls("http://h.example/") == ["pacurl", "PROXY late.example:1"],
               "the script answers")


def test_a_script_that_has_arrived_is_not_asked_for_again(settings, daemon, client, web, syslog):
    web.routes["/proxy.pac"] = script("PROXY a.example:1")
    write_settings(f'mode = "pacurl"\npac-url = "{web.url("/proxy.pac")}"\n')
    settings.start()
    wait_until(lambda: client.urls("http://h.example/") == ["pacurl", "PROXY a.example:1"],
               "the script answers")
    before = updates(syslog)
    link("dummy0", 100)
    # The service checks after one second, instead of ten, whether the script has arrived. Then the
    # service has no timer any more.
    wait_until(lambda: settings.next_timer() is None, "it has looked")
    assert updates(syslog) == before


def test_a_network_managers_wpad_and_url_are_followed(settings, daemon, client, manager):
    settings.start()
    link("dummy0", 100)
    path = manager.create(Method="auto", Interface="dummy0")
    wait_for(client, "wpad", "", "", "n", "", "")
    manager.destroy(path)
    wait_for(client, *OFF)
    manager.create(Method="auto", Interface="dummy0", URL="http://127.0.0.1:9/p.pac")
    wait_for(client, "pacurl", "", "http://127.0.0.1:9/p.pac", "n", "", "")


def test_a_pushed_script_answers(settings, daemon, client, manager):
    settings.start()
    link("dummy0", 100)
    manager.create(Method="auto", Interface="dummy0", Script=script("PROXY pushed.example:1"))
    wait_until(lambda: client.urls("http://h.example/") == ["pacurl", "PROXY pushed.example:1"],
               "the pushed script answers")
    assert client.config()[2].startswith("http://127.0.0.1:850/")


def test_another_pushed_script_replaces_it(settings, daemon, client, manager):
    settings.start()
    link("dummy0", 100)
    first = manager.create(Method="auto", Interface="dummy0", Script=script("PROXY first.example:1"))
    wait_until(lambda: client.urls("http://h.example/")[1:] == ["PROXY first.example:1"], "first")
    manager.destroy(first)
    manager.create(Method="auto", Interface="dummy0", Script=script("PROXY second.example:1"))
    wait_until(lambda: client.urls("http://h.example/")[1:] == ["PROXY second.example:1"], "second")


def test_several_servers_by_hand_become_a_script(settings, daemon, client, manager):
    settings.start()
    link("dummy0", 100)
    manager.create(Method="manual", Interface="dummy0", Servers=["http://a.example:1", "b.example:2"],
                   Excludes=["intern.example", "[2001:db8::7]", "fd00::8"])
    wait_until(lambda: client.urls("http://h.example/") ==
               ["pacurl", "PROXY a.example:1", "PROXY b.example:2"], "the made script answers")
    assert client.urls("http://www.intern.example/") == ["pacurl", "DIRECT"]
    # The host that the daemon gives to a script ends at the first colon.
    for address, answer in (("2001:DB8::7", "DIRECT"), ("fd00::8", "DIRECT"), ("fd80::7", "PROXY a.example:1")):
        assert client.urls(f"http://[{address}]:8080/")[1] == answer


def test_the_configuration_of_the_best_default_route_holds(settings, daemon, client, manager):
    settings.start()
    link("wlan", 600)
    manager.create(Method="manual", Interface="wlan", Servers=["wlan.example:1"])
    wait_for(client, "manual", "http://wlan.example:1", "", "n", "", "")
    manager.create(Method="manual", Interface="eth", Servers=["eth.example:1"])
    link("eth", 100)
    wait_for(client, "manual", "http://eth.example:1", "", "n", "", "")
    link_down("eth")
    wait_for(client, "manual", "http://wlan.example:1", "", "n", "", "")


def test_direct_is_ignored_unless_the_settings_want_it(settings, daemon, client, manager):
    settings.start()
    link("eth", 100)
    link("wlan", 600)
    manager.create(Method="manual", Interface="wlan", Servers=["wlan.example:1"])
    manager.create(Method="direct", Interface="eth")
    wait_for(client, "manual", "http://wlan.example:1", "", "n", "", "")
    write_settings('network-direct = "off"\n')
    wait_for(client, *OFF)


def test_the_file_goes_before_the_network(settings, daemon, client, manager):
    write_settings('mode = "manual"\nproxy-url = "http://file.example:1"\n')
    settings.start()
    link("eth", 100)
    manager.create(Method="manual", Interface="eth", Servers=["eth.example:1"])
    wait_for(client, "manual", "http://file.example:1", "", "n", "", "")
    write_settings('source = "network"\n', "settings.d/1.conf")
    wait_for(client, "manual", "http://eth.example:1", "", "n", "", "")


def test_a_network_manager_that_dies_takes_its_configurations_along(settings, daemon, client):
    settings.start()
    link("eth", 100)
    manager = NetworkManager()
    manager.create(Method="manual", Interface="eth", Servers=["eth.example:1"])
    wait_for(client, "manual", "http://eth.example:1", "", "n", "", "")
    manager.close()
    wait_for(client, *OFF)


def test_nobody_destroys_anothers_configuration(settings, daemon, client, manager):
    settings.start()
    link("eth", 100)
    path = manager.create(Method="manual", Interface="eth", Servers=["eth.example:1"])
    other = NetworkManager()
    with pytest.raises(Refused):
        other.destroy(path)
    other.close()
    wait_for(client, "manual", "http://eth.example:1", "", "n", "", "")


def test_ten_thousand_configurations_of_one_sender_are_bounded(settings, daemon, syslog, manager):
    settings.start()
    refused = 0
    for _ in range(10_000):
        try:
            manager.create(Method="direct", Interface="eth")
        except Refused:
            refused += 1
    assert refused == 10_000 - 64
    lines = [text for text in syslog.texts() if "more are refused" in text]
    assert len(lines) == 1, lines
    assert len(settings.state()["networks"]) == 64


def test_a_push_of_ten_megabytes_is_refused_and_the_next_is_taken(settings, daemon, manager):
    settings.start()
    with pytest.raises(Refused):
        manager.create(Method="auto", Script="x" * 10_000_000)
    assert manager.create(Method="auto") == "/org/pacrunner/configuration0"


def test_programs_that_ask_get_the_first_entry_or_all(settings, daemon, client, web, manager):
    web.routes["/p"] = script("PROXY a.example:1; DIRECT")
    write_settings(f'mode = "pacurl"\npac-url = "{web.url("/p")}"\n')
    settings.start()
    wait_until(lambda: len(client.urls("http://h.example/")) == 3, "the script answers")
    assert manager.find("http://h.example/") == "PROXY a.example:1"
    write_settings('find-proxy = "all"\n', "settings.d/1.conf")
    wait_until(lambda: manager.find("http://h.example/") == "PROXY a.example:1; DIRECT", "all")


def test_programs_that_ask_get_direct_without_an_answer(settings, manager):
    settings.start()
    assert manager.find("http://h.example/") == "DIRECT"


def test_a_manual_proxys_password_is_not_told_to_programs_that_ask(settings, daemon, client, manager):
    write_settings('mode = "manual"\nproxy-url = "http://u:p@a.example:1"\n', mode=0o600)
    settings.start()
    wait_until(lambda: client.config()[0] == "manual", "the daemon is configured")
    assert manager.find("http://h.example/") == "PROXY a.example:1"
    assert "u:p" not in str(settings.state())


def test_a_killed_service_finds_its_state_again(settings, daemon, client, manager):
    write_settings('mode = "manual"\nproxy-url = "http://a.example:1"\n')
    settings.start()
    wait_for(client, "manual", "http://a.example:1", "", "n", "", "")
    settings.kill()
    write_settings('proxy-url = "http://b.example:2"\n', "settings.d/1.conf")
    settings.start()
    wait_for(client, "manual", "http://b.example:2", "", "n", "", "")


def test_a_link_among_the_settings_is_refused(settings, daemon, client, syslog):
    os.symlink("/etc/passwd", FOLDER + "/settings.d/1.conf")
    settings.start()
    syslog.wait_match(ERR, r"settings: /etc/proxymanager/settings\.d/1\.conf: is a symbolic link")


def test_wrong_options_are_named(build, root):
    path = os.path.join(build, "out", "libexec", "proxymanager-settings")
    for options in (["--nonsense"], ["argument"], ["--port=x"], ["--user=nobody-of-this-name"]):
        ended = subprocess.run([path, *options], capture_output=True, text=True)
        assert ended.returncode == 2, options
        assert "usage: proxymanager-settings" in ended.stderr
    assert subprocess.run([path, "--version"], capture_output=True,
                          text=True).stdout.startswith("proxymanager-settings ")


def test_an_idle_service_sleeps(settings, daemon, client, syslog):
    write_settings('mode = "manual"\nproxy-url = "http://a.example:1"\n')
    settings.start()
    wait_for(client, "manual", "http://a.example:1", "", "n", "", "")
    wait_until(lambda: settings.next_timer() is None, "no timer is armed")
