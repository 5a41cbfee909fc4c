"""Tests how proxymanager-relay starts and ends, its sockets, and what it reports about its
files."""

import os
import signal
import socket
import subprocess

from support.bus import LIMIT, wait_until
from support.relay import CONFIGURATION, Relay
from support.syslog_socket import ERR, WARNING


def test_a_problem_of_the_configuration_is_reported_with_its_line_and_ends_the_start(
        build, own_network, syslog):
    relay = Relay(build, 'when-no-answer = "direct"\ndeny-user = ["guest"]\n').launch()
    assert relay.process.wait(LIMIT) == 1
    syslog.wait(ERR, f"relay: configuration: {CONFIGURATION}:2: deny-user is not a known key")


def test_a_check_reports_problems_on_standard_error(build, own_network, syslog):
    relay = Relay(build, "max-connections = 0\n")
    checked = subprocess.run([relay.path, f"--config={CONFIGURATION}", "--check"], text=True,
                             capture_output=True, timeout=LIMIT, check=False)
    assert checked.returncode == 1
    assert "max-connections must be a number from 1 to 65536" in checked.stderr
    relay.configure("")
    assert subprocess.run([relay.path, f"--config={CONFIGURATION}", "--check"], timeout=LIMIT,
                          check=False).returncode == 0


def test_an_unknown_user_opens_nothing_and_in_other_lists_is_a_warning(build, own_network, syslog):
    relay = Relay(build, 'deny-users = ["nobodyy"]\n')

    def check():
        return subprocess.run([relay.path, f"--config={CONFIGURATION}", "--check"], text=True,
                              capture_output=True, timeout=LIMIT, check=False)

    assert check().returncode == 1
    assert 'deny-users: no user or group is named "nobodyy"' in check().stderr
    assert relay.launch().process.wait(LIMIT) == 1
    relay.configure('allow-users = ["root", "@nogroupp"]\ndeny-users = ["nobody", "@games"]\n'
                    'credentials-for = ["nobodyy"]\n')
    assert check().returncode == 0
    assert 'allow-users: no user or group is named "@nogroupp"' in check().stderr
    assert 'credentials-for: no user or group is named "nobodyy"' in check().stderr


def test_an_address_that_is_none_ends_the_start(build, own_network, syslog):
    relay = Relay(build, listen=("127.0.0.1",)).launch()
    assert relay.process.wait(LIMIT) == 1
    syslog.wait(ERR, 'relay: cannot start: "127.0.0.1" is not ADDRESS:PORT, [ADDRESS]:PORT or '
                     'unix:PATH')


def test_of_the_usual_addresses_one_may_be_taken(build, own_network, syslog):
    with socket.create_server(("::1", 3128), family=socket.AF_INET6):
        relay = Relay(build, listen=()).launch()
        relay.listen = ("127.0.0.1:3128",)
        wait_until(relay.listens, "the relay listens")
        syslog.wait(WARNING, "relay: cannot listen on [::1]:3128: Address already in use")
        relay.stop()


def test_a_socket_that_was_left_behind_is_replaced_and_another_file_is_not(
        build, own_network, syslog):
    path = "/run/relay.sock"
    with socket.socket(socket.AF_UNIX) as old:
        old.bind(path)
    relay = Relay(build, listen=(f"unix:{path}",)).start()
    relay.stop()
    os.unlink(path)
    with open(path, "w"):
        pass
    relay.launch()
    assert relay.process.wait(LIMIT) == 1
    syslog.wait(ERR, f"relay: cannot start: {path}: Address already in use")


def test_a_signal_during_the_start_ends_it_in_order(build, own_network, syslog):
    # The relay's port is open, and the relay waits until the log accepts the line about the other address.
    with socket.create_server(("::1", 3128), family=socket.AF_INET6):
        syslog.hold()
        while not syslog.takes_no_more():
            pass
        relay = Relay(build, listen=()).launch()
        relay.listen = ("127.0.0.1:3128",)
        wait_until(lambda: has_open_port(relay), "its port is open")
        relay.process.send_signal(signal.SIGTERM)
        syslog.go_on()
        assert relay.process.wait(LIMIT) == 0


def has_open_port(relay):
    try:
        relay.connect().close()
    except ConnectionRefusedError:
        return False
    return True
