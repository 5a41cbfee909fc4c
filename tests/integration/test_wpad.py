"""Tests mode wpad: the lease's URL, then the names of the search domain.

The names resolve through /etc/hosts. The server listens on port 80 of this test's network.
"""

import os

import pytest
from support.own_network import hosts
from support.syslog_socket import ERR, INFO, NOTICE
from support.watched import append_and_settle
from support.web import script

LEASE = "/usr/local/lumad/dhcp.conf"
RESOLVER = "/tmp/.resolv.conf.dnsmasq"
pytestmark = pytest.mark.usefixtures("own_network")


def write(path, text):
    with open(path, "r+") as file:
        file.truncate()
        file.write(text)


def loaded(syslog, times=1):
    syslog.wait(INFO, "PacParser-parsePacFile pac init", times)


def tried(syslog):
    prefix = "PACFetcher-retrievePacFile try to fileDownload url:"
    return [text[len(prefix):] for text in syslog.texts() if text.startswith(prefix)]


def test_the_leases_url_is_tried_first_and_wins(client, syslog, port80):
    hosts("wpad.eng.example.com")
    port80.routes["/proxy.pac"] = script("PROXY dhcp:1; DIRECT")
    port80.routes["/wpad.dat"] = script("PROXY dns:1")
    append_and_settle(LEASE, "wpad=http://127.0.0.1/proxy.pac\n", syslog)
    append_and_settle(RESOLVER, "search eng.example.com\n", syslog)
    client.update("wpad")
    loaded(syslog)
    assert client.urls("http://a/") == ["wpad", "PROXY dhcp:1", "DIRECT"]
    assert tried(syslog) == ["http://127.0.0.1/proxy.pac"]
    syslog.expect_in_order(
        (NOTICE, "PACFetcher-retrievePacFile proxy mode:3"),
        (NOTICE, "PACFetcher-retrievePacFile wpad-dhcp opt252:http://127.0.0.1/proxy.pac"),
        (INFO, "PACFetcher-getDomainName called"),
        (NOTICE, "PACFetcher-wpadUrlCandidatesFromDomain wpad-dns domain:eng.example.com"),
        (NOTICE, "PACFetcher-retrievePacFile try to fileDownload url:http://127.0.0.1/proxy.pac"))


def test_the_whole_order_is_lease_then_longest_to_shortest_name(client, syslog, port80):
    hosts("wpad.example.com")
    port80.routes["/wpad.dat"] = script("PROXY dns:1")
    append_and_settle(LEASE, "wpad=http://127.0.0.1/none.pac\n", syslog)
    append_and_settle(RESOLVER, "domain a.example.org\nsearch eng.example.com\n", syslog)
    client.update("wpad")
    loaded(syslog)
    assert tried(syslog) == ["http://127.0.0.1/none.pac", "http://wpad.eng.example.com/wpad.dat",
                             "http://wpad.example.com/wpad.dat"]
    assert client.urls("http://a/") == ["wpad", "PROXY dns:1"]


def test_without_option_252_the_empty_candidate_fails_first(client, syslog, port80):
    hosts("wpad.example.com")
    port80.routes["/wpad.dat"] = script("PROXY dns:1")
    append_and_settle(RESOLVER, "search example.com\n", syslog)
    client.update("wpad")
    loaded(syslog)
    assert tried(syslog) == ["", "http://wpad.example.com/wpad.dat"]
    syslog.wait(NOTICE, "PACFetcher-retrievePacFile wpad-dhcp opt252:")
    syslog.wait(ERR, "PACFetcher-retrievePacFile PAC file download failed url:")


def test_no_candidate_is_ever_formed_on_a_public_suffix(client, syslog, port80):
    hosts("wpad.co.uk", "wpad.uk")
    port80.routes["/wpad.dat"] = script("PROXY evil:1")
    append_and_settle(RESOLVER, "search corp.example.co.uk co.uk\n", syslog)
    client.update("wpad")
    syslog.wait(ERR, "PACFetcher-retrievePacFile PAC file download failed "
                     "url:http://wpad.example.co.uk/wpad.dat")
    client.check_started()
    assert tried(syslog) == ["", "http://wpad.corp.example.co.uk/wpad.dat",
                             "http://wpad.example.co.uk/wpad.dat"]
    assert port80.paths() == []


def test_a_new_lease_changes_the_answers_without_any_call(client, syslog, port80, signals):
    hosts()
    port80.routes["/1.pac"] = script("PROXY one:1")
    port80.routes["/2.pac"] = script("PROXY two:1")
    append_and_settle(LEASE, "wpad=http://127.0.0.1/1.pac\n", syslog)
    client.update("wpad")
    loaded(syslog)
    signals.clear()
    write(LEASE, 'wpad="http://127.0.0.1/2.pac"\n')
    syslog.wait(NOTICE, "PACFetcher-retrievePacFile PAC file download success "
                        "url:http://127.0.0.1/2.pac")
    signals.wait("notifyClearcache")
    loaded(syslog, 2)
    assert client.urls("http://a/") == ["wpad", "PROXY two:1"]


def test_a_new_search_domain_changes_the_answers(client, syslog, port80):
    hosts("wpad.one.example", "wpad.two.example")
    port80.routes["/wpad.dat"] = script("PROXY any:1")
    append_and_settle(RESOLVER, "search host.one.example\n", syslog)
    client.update("wpad")
    loaded(syslog)
    write(RESOLVER, "search host.two.example\n")
    syslog.wait(NOTICE, "PACFetcher-retrievePacFile PAC file download success "
                        "url:http://wpad.two.example/wpad.dat")


def test_an_unreadable_lease_is_an_error_and_tries_no_name(client, syslog, port80):
    hosts("wpad.example.com")
    port80.routes["/wpad.dat"] = script("PROXY dns:1")
    append_and_settle(RESOLVER, "search example.com\n", syslog)
    os.remove(LEASE)
    os.mkdir(LEASE)
    client.update("wpad")
    syslog.wait_match(ERR, r"PACFetcher-retrievePacFile getdhcpinfo error rc:-?[1-9]\d*")
    assert tried(syslog) == []


def test_a_planted_resolver_file_steers_nothing(client, syslog, port80):
    hosts("wpad.evil.example")
    port80.routes["/wpad.dat"] = script("PROXY evil:1")
    append_and_settle(RESOLVER, "search evil.example\n", syslog)
    os.chown(RESOLVER, 12345, 12345)
    client.update("wpad")
    syslog.wait(ERR, f"PACFetcher-getDomainName open:{RESOLVER} failed")
    syslog.wait(ERR, "PACFetcher-retrievePacFile PAC file download failed url:")
    assert port80.paths() == []
