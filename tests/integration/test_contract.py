"""Tests the contract on the bus: names, signatures, introspection, and wrong calls."""

import os
import xml.etree.ElementTree as ElementTree

import pytest
from jeepney import HeaderFields, MessageType
from support.bus import INTERFACE, LIMIT, BusError, Client

XML = os.path.join(os.path.dirname(__file__), "../../dbus/com.zentu.ProxyManagerServiceInterface.xml")
INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs"
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"


def described(text):
    """{kind and name: [(argument, type, direction)]} of the only interface in an
    introspection."""
    node = ElementTree.fromstring(text)
    interface = node.find(f"interface[@name='{INTERFACE}']")
    assert interface is not None, text
    table = {}
    for member in interface:
        default = "in" if member.tag == "method" else "out"
        table[(member.tag, member.get("name"))] = [
            (arg.get("name"), arg.get("type"),
             arg.get("direction", default) if member.tag == "method" else "out")
            for arg in member.findall("arg")]
    return table


CONTRACT = {
    ("method", "checkServicestarted"): [("isStarted", "b", "out")],
    ("method", "getProxyurl"): [("requestUrl", "s", "in"), ("proxyUrl", "as", "out")],
    ("method", "getProxyconfig"): [("proxyconfig", "(ssssss)", "out")],
    ("method", "updateProxyconfig"): [
        ("mode", "s", "in"), ("proxyurl", "s", "in"), ("pacurl", "s", "in"),
        ("enableauth", "b", "in"), ("userName", "s", "in"), ("password", "s", "in"),
        ("httpCode", "i", "out")],
    ("signal", "notifyProxyConfigupdated"): [
        ("proxymode", "s", "out"), ("proxyurl", "s", "out"), ("username", "s", "out"),
        ("password", "s", "out")],
    ("signal", "notifyClearcache"): [],
    ("signal", "ProxyMgrStateEvent"): [("eventType", "i", "out")],
}


def test_introspection_equals_the_contract(client):
    introspected = described(client.introspect())
    assert introspected == CONTRACT
    assert list(introspected) == list(CONTRACT), "the order"
    with open(XML) as file:
        assert described(file.read()) == CONTRACT


def test_replies_have_the_contracts_signatures(client):
    for member, signature, body, expected in (
            ("checkServicestarted", None, (), "b"), ("getProxyurl", "s", ("http://a/",), "as"),
            ("getProxyconfig", None, (), "(ssssss)"),
            ("updateProxyconfig", "sssbss", ("off", "", "", False, "", ""), "i")):
        reply = client.raw(member, signature, body)
        assert reply.header.fields[HeaderFields.signature] == expected


def test_check_service_started_is_true(client):
    assert client.check_started() is True


def test_the_fourth_member_is_n_without_authentication(client):
    assert client.config() == ("off", "", "", "n", "", "")


def test_a_call_without_an_interface_is_answered(client):
    assert client.call("checkServicestarted", interface=None) == (True,)
    assert client.call("getProxyurl", "s", ("http://a/",), interface=None) == (["off", ""],)
    with pytest.raises(BusError) as error:
        client.call("noSuchMethod", interface=None)
    assert error.value.name == UNKNOWN_METHOD
    assert client.check_started()


@pytest.mark.parametrize("member, signature, body", [
    ("getProxyurl", None, ()),
    ("getProxyurl", "i", (7,)),
    ("getProxyurl", "as", (["http://a/"],)),
    ("getProxyurl", "v", (("s", "http://a/"),)),
    ("getProxyurl", "(s)", (("http://a/",),)),
    ("updateProxyconfig", "ssssss", ("manual", "p:1", "", "true", "", "")),
    ("updateProxyconfig", "sssb", ("manual", "p:1", "", True)),
    ("updateProxyconfig", "(sss)bss", (("manual", "p:1", ""), True, "", "")),
    ("updateProxyconfig", None, ()),
])
def test_malformed_arguments_are_refused_and_change_nothing(client, signals, member, signature,
                                                             body):
    with pytest.raises(BusError) as error:
        client.call(member, signature, body)
    assert error.value.name == INVALID_ARGS
    assert client.config() == ("off", "", "", "n", "", "")
    client.update("manual", proxyurl="good")  # signals of the bad call would come before this call's signals
    assert signals.wait("notifyProxyConfigupdated")[1] == "good"
    assert signals.count("notifyProxyConfigupdated") == 1
    assert signals.count("notifyClearcache") == 1


def test_surplus_arguments_are_ignored(client):
    assert client.call("getProxyurl", "ss", ("http://a/", "more")) == (["off", ""],)
    assert client.call("checkServicestarted", "s", ("more",)) == (True,)


def test_unknown_members_interfaces_and_paths_are_named_so(client):
    for options in ({"member": "noSuchMethod"},
                    {"member": "getProxyurl", "interface": "com.zentu.Other"},
                    {"member": "getProxyurl", "path": "/com/zentu/Other"},
                    {"member": "Get", "interface": "org.freedesktop.DBus.Properties",
                     "signature": "ss", "body": (INTERFACE, "x")},
                    {"member": "Set", "interface": "org.freedesktop.DBus.Properties",
                     "signature": "ssv", "body": (INTERFACE, "x", ("s", "y"))}):
        with pytest.raises(BusError) as error:
            client.call(**options)
        assert error.value.name.startswith("org.freedesktop.DBus.Error.Unknown"), options
    assert client.check_started()


def test_ping_is_answered(client):
    assert client.call("Ping", interface="org.freedesktop.DBus.Peer") == ()


def test_a_descriptor_in_a_property_harms_nothing(daemon):
    from jeepney import DBusAddress, new_method_call
    from jeepney.io.blocking import open_dbus_connection
    from support.bus import ADDRESS, NAME, PATH
    with open("/dev/null") as null, \
            open_dbus_connection(ADDRESS, enable_fds=True, auth_timeout=LIMIT) as connection:
        address = DBusAddress(PATH, bus_name=NAME, interface="org.freedesktop.DBus.Properties")
        reply = connection.send_and_get_reply(
            new_method_call(address, "Set", "ssv", (INTERFACE, "x", ("h", null.fileno()))),
            timeout=LIMIT)
        assert reply.header.message_type == MessageType.error
    with Client() as client:
        assert client.check_started()


def test_texts_beyond_ascii_travel_whole(client):
    assert client.update("manual", proxyurl="http://прокси.example:8080") == 0
    assert client.urls("http://a/") == ["manual", "http://прокси.example:8080"]


def test_text_that_is_not_utf8_ends_the_sender_alone(client):
    from jeepney import DBusAddress, new_method_call
    from support.bus import NAME, PATH
    with Client() as hostile:
        message = new_method_call(DBusAddress(PATH, bus_name=NAME, interface=INTERFACE),
                                  "getProxyurl", "s", ("http://aXXXX/",))
        hostile.connection.sock.sendall(
            message.serialise(serial=4711).replace(b"XXXX", b"\xff\xfe\x80\xc0"))
        with pytest.raises((OSError, TimeoutError)):
            while True:
                hostile.connection.receive(timeout=LIMIT)
    assert client.check_started()
