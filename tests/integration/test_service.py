"""Tests configuration, announcements and answers, as clients see them."""

import time

from support.bus import LIMIT, Client, Signals
from support.daemon import Daemon, make_watched_files
from support.syslog_socket import ERR, INFO, NOTICE

UPDATE = "ProxyManagerServiceImpl-updateProxyConfig"


def test_the_configuration_begins_as_off(client):
    assert client.config() == ("off", "", "", "n", "", "")
    assert client.urls("http://a.example/") == ["off", ""]


def test_the_start_is_announced_every_two_seconds_until_the_first_update(build, syslog, bus):
    make_watched_files()
    signals = Signals()
    begin = time.monotonic()
    daemon = Daemon(build)
    assert signals.wait("ProxyMgrStateEvent", times=3) == (1,)
    assert time.monotonic() - begin > 3.9  # two pauses between announcements
    with Client() as client:
        client.update("off")
    signals.wait("notifyProxyConfigupdated")
    time.sleep(4.5)  # more than two pauses
    members = signals.members()
    assert "ProxyMgrStateEvent" not in members[members.index("notifyClearcache"):]
    signals.close()
    daemon.close()


def test_manual_mode_gives_the_manual_url(client):
    assert client.update("manual", proxyurl="http://10.0.0.1:8080", pacurl="http://p/x.pac") == 0
    assert client.config() == ("manual", "http://10.0.0.1:8080", "", "n", "", "")
    assert client.urls("http://a.example/") == ["manual", "http://10.0.0.1:8080"]


def test_manual_mode_with_an_empty_url_gives_an_empty_text(client):
    client.update("manual", proxyurl="")
    assert client.urls("http://a.example/") == ["manual", ""]


def test_pacurl_mode_keeps_the_pac_url_alone(client, web):
    client.update("pacurl", proxyurl="http://10.0.0.1:8080", pacurl=web.url("/x.pac"))
    assert client.config() == ("pacurl", "", web.url("/x.pac"), "n", "", "")


def test_off_and_wpad_keep_no_url(client):
    for mode in ("off", "wpad"):
        client.update(mode, proxyurl="http://p:1", pacurl="http://q/x.pac")
        assert client.config() == (mode, "", "", "n", "", "")


def test_authentication_keeps_name_and_password_yet_answers_n(client):
    client.update("manual", proxyurl="p:1", auth=True, user="joe", password="secret")
    assert client.config() == ("manual", "p:1", "", "n", "joe", "secret")
    client.update("manual", proxyurl="p:1", auth=False, user="joe", password="secret")
    assert client.config() == ("manual", "p:1", "", "n", "", "")


def test_modes_are_taken_in_any_letter_case_and_unknown_ones_are_off(client):
    client.update("MANUAL", proxyurl="p:1")
    assert client.config()[0] == "manual"
    client.update("Wpad")
    assert client.config()[0] == "wpad"
    for unknown in ("proxy", "", "offf"):
        client.update("manual", proxyurl="p:1")
        assert client.update(unknown) == 0
        assert client.config()[0] == "off"


def test_the_signal_carries_the_values_as_given(client, signals):
    client.update("MANUAL", proxyurl="p:1", pacurl="http://q/", auth=False, user="u", password="w")
    assert signals.wait("notifyProxyConfigupdated") == ("MANUAL", "p:1", "u", "w")
    client.update("pacurl", proxyurl="given", pacurl="", user="u", password="w")
    assert signals.wait("notifyProxyConfigupdated", 2) == ("pacurl", "given", "u", "w")


def test_an_update_clears_then_tells_then_replies(daemon, client):
    """All three messages use one connection, so they arrive in the order in which they were
    sent."""
    from jeepney import DBusAddress, HeaderFields, MatchRule, MessageType, message_bus
    from jeepney import new_method_call
    from jeepney.io.blocking import Proxy
    from support.bus import INTERFACE, NAME, PATH
    with Client() as other:
        other.update("off")  # ends the announcements
        rule = MatchRule(type="signal", interface=INTERFACE, path=PATH)
        Proxy(message_bus, other.connection, timeout=LIMIT).AddMatch(rule)
        call = new_method_call(DBusAddress(PATH, bus_name=NAME, interface=INTERFACE),
                               "updateProxyconfig", "sssbss", ("off", "", "", False, "", ""))
        other.connection.send(call)
        seen = []
        while MessageType.method_return not in seen:
            message = other.connection.receive(timeout=LIMIT)
            kind = message.header.message_type
            member = message.header.fields.get(HeaderFields.member)
            if member != "ProxyMgrStateEvent":
                seen.append(member if kind == MessageType.signal else kind)
        assert seen == ["notifyClearcache", "notifyProxyConfigupdated", MessageType.method_return]


def test_two_identical_updates_each_clear_and_say_so(client, signals, syslog):
    client.update("manual", proxyurl="p:1")
    client.update("manual", proxyurl="p:1")
    signals.wait("notifyClearcache", 2)
    assert signals.count("notifyClearcache") == 2
    syslog.wait(NOTICE, f"{UPDATE} notify clear cache new mode:1, pre mode:0")
    syslog.wait(NOTICE, f"{UPDATE} notify clear cache new mode:1, pre mode:1")


def test_the_lines_of_an_update_come_in_order(client, syslog, web):
    client.update("manual", proxyurl="m:1")
    syslog.clear()
    url = web.url("/none.pac")
    client.update("pacurl", proxyurl="p:1", pacurl=url, auth=True, user="u", password="w")
    syslog.wait(ERR, f"PACFetcher-retrievePacFile PAC file download failed url:{url}")
    syslog.expect_in_order(
        (INFO, "ProxyManagerDbusHandler-updateProxyconfig called "),
        (NOTICE, f"{UPDATE} mode:pacurl, proxyurl:p:1 pacurl:{url}"),
        (INFO, "cleanupProxyConfig() called"),
        (INFO, "str2ProxyMode() called mode:str2ProxyMode"),
        (NOTICE, f"{UPDATE} notify clear cache new mode:2, pre mode:1"),
        (INFO, "PACFetcher-updateProxyMgrConfig called"),
        (NOTICE, "PACFetcher-updateProxyMgrConfig mode:2"),
        (INFO, f"PACFetcher-updateProxyMgrConfig pacUrl:{url}"),
        (NOTICE, "PACFetcher-updateProxyMgrConfig proxy mode >= pacurl refetch"),
        (NOTICE, "PACFetcher-retrievePacFile proxy mode:2"),
        (NOTICE, f"PACFetcher-retrievePacFile Using user-provided PAC URL: '{url}'"),
        (NOTICE, f"PACFetcher-retrievePacFile try to fileDownload url:{url}"))


def test_clients_are_told_before_the_new_url_is_stored(client, syslog):
    """If an empty URL is stored, string2Char() logs a line. The position of this line shows the
    order."""
    client.update("pacurl", pacurl="")
    syslog.expect_in_order(
        (NOTICE, f"{UPDATE} notify clear cache new mode:2, pre mode:0"),
        (INFO, "string2Char: input is null, or length:0 <= 0"),
        (INFO, "PACFetcher-updateProxyMgrConfig called"))


def test_the_lines_of_questions_are_the_contracts(client, syslog):
    client.update("manual", proxyurl="m:1")
    syslog.clear()
    client.urls("http://a.example/")
    client.config()
    syslog.wait(INFO, "ProxyManagerServiceImpl-getProxyConfig called ")
    syslog.expect_in_order(
        (INFO, "ProxyManagerDbusHandler-getProxyurl called "),
        (NOTICE, "ProxyManagerServiceImpl-getProxyUrl proxy mode:1, request url:http://a.example/"),
        (INFO, "proxyMode2Str: proxyMode2Str() called mode:1"),
        (INFO, "proxyMode2Str: str mode:manual"),
        (NOTICE, "ProxyManagerServiceImpl-getProxyUrl manual, proxyUrl:m:1"),
        (INFO, "ProxyManagerDbusHandler-getProxyconfig called "),
        (INFO, "ProxyManagerServiceImpl-getProxyConfig called "))
