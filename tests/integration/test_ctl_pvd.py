"""Tests proxymanagerctl pvd: documents of proxy information, from files and from the network.

The order of rules is compared with a second implementation, on generated documents.
"""

import ipaddress
import json
import random
import socket
import ssl
import subprocess
import threading

import pytest
from support.bus import wait_until
from support.ctl import ANSWERED, NO_INPUT, REFUSED, USAGE
from support.own_network import hosts
from support.web import response

HOST = "proxy.example.test"
HEAD = {"identifier": f"{HOST}.", "expires": "2099-01-01T00:00:00Z", "prefixes": []}
TYPE = ("Content-Type: application/pvd+json",)
PROXY = {"protocol": "http-connect", "proxy": "p.example.test:8080"}


def document(**members):
    return json.dumps({**HEAD, **{name.replace("_", "-"): value for name, value in members.items()}})


def written(text, name="/tmp/document.json"):
    with open(name, "w") as file:
        file.write(text)
    return name


# --- From files ---


def test_people_see_what_a_document_says(ctl):
    name = written(document(
        proxies=[{**PROXY, "identifier": "main"}, {"protocol": "pigeon", "proxy": "x:1"}],
        proxy_match=[{"proxies": ["main"], "domains": ["*.Example.test"], "ports": ["80", "1-9"]},
                     {"proxies": [], "subnets": ["10.9.9.9/8"]}, {"proxies": [], "x_y": 1}]))
    result = ctl("pvd", "show", "--host", HOST, name)
    assert (result.status, result.errors) == (ANSWERED, "")
    assert result.output == f"""\
{HOST}.
  expires  2099-01-01T00:00:00Z
proxy p.example.test:8080
  protocol    http-connect
  identifier  main
proxy x:1
  protocol  pigeon
  ignored   its protocol is not known
rule 1
  ports    1-9
  domains  *.example.test
  proxies  main
rule 2
  subnets  10.0.0.0/8
  proxies  (none)
rule 3
  ignored  its key "x_y" is not known
""".replace("ports    1-9", "ports    80, 1-9")


def test_json_has_all_of_it(ctl):
    name = written(document(proxies=[PROXY], proxy_match=[{"proxies": [], "ports": ["80"]}]))
    assert ctl("pvd", "show", "--json", name).json == {
        "identifier": f"{HOST}.", "expires": "2099-01-01T00:00:00Z",
        "proxies": [{**PROXY, "identifier": None, "ignored": None}],
        "rules": [{"proxies": [], "domains": [], "subnets": [], "ports": ["80"], "ignored": None}],
        "warnings": ["the identifier was not compared with the proxy's name (--host)"]}


def test_what_does_not_hold_is_refused(ctl):
    result = ctl("pvd", "show", "--host", "other.test", written(document()))
    assert (result.status, result.output) == (REFUSED, "")
    assert result.errors == (f'proxymanagerctl: /tmp/document.json: it is of "{HOST}.", not of '
                             '"other.test"\n')
    result = ctl("pvd", "to-pac", written(document(
        proxies=[{"protocol": "https-connect", "proxy": "x:1"}])))
    assert (result.status, result.output) == (REFUSED, "")
    assert "the proxies for any traffic cannot be expressed" in result.errors
    assert ctl("pvd", "show", "/tmp/nowhere.json").status == NO_INPUT


def test_the_answer_of_what_no_rule_matches_can_be_given(ctl):
    result = ctl("pvd", "to-pac", "--otherwise", "PROXY known:8080", written(document()))
    assert result.status == ANSWERED
    assert 'return "PROXY known:8080";' in result.output
    for wrong in ('"; x', "", "a\nb"):
        assert ctl("pvd", "to-pac", "--otherwise", wrong, written(document())).status == USAGE


# --- The order of rules, by a second implementation ---


def second_answer(document, host, port):
    """The decision of a client that follows the rules of the document, for TCP to a host. The
    host is a name without addresses, or an address."""
    named = {}
    for proxy in document["proxies"]:
        words = {"http-connect": "PROXY", "socks5": "SOCKS"}
        if "unknown_key" not in proxy.get("mandatory", []):
            named.setdefault(proxy.get("identifier"), []).append(
                f"{words[proxy['protocol']]} {proxy['proxy']}")
    for rule in document["proxy-match"]:
        if "vendor_key" in rule:
            continue
        lists = [(rule.get("domains"), lambda value: matches_domain(value, host)),
                 (rule.get("subnets"), lambda value: matches_subnet(value, host)),
                 (rule.get("ports"), lambda value: matches_port(value, port))]
        if not all(values is None or any(map(holds, values)) for values, holds in lists):
            continue
        if not rule["proxies"]:
            return ["DIRECT"]
        found = [entry for identifier in dict.fromkeys(rule["proxies"])
                 for entry in named.get(identifier, [])]
        if found:
            return found
    return named.get(None, ["DIRECT"])


def matches_domain(pattern, host):
    labels = pattern.rstrip(".").lower().split(".")
    wanted = host.lower().split(".")
    if labels[0] == "*":
        return wanted[-len(labels[1:]):] == labels[1:]
    return labels == wanted


def matches_subnet(text, host):
    try:
        return ipaddress.ip_address(host.strip("[]")) in ipaddress.ip_network(text, strict=False)
    except ValueError:
        return False


def matches_port(text, port):
    first, _, last = text.partition("-")
    return int(first) <= port <= int(last or first)


NAMES = ["a.test", "b.a.test", "c.b.a.test", "ba.test", "test", "x.example"]
ADDRESSES = ["10.1.2.3", "10.200.0.1", "192.0.2.7", "[2001:db8::7]", "[2001:db9::7]"]
SUBNETS = ["10.0.0.0/8", "10.1.2.3", "10.128.0.0/9", "192.0.2.0/30", "0.0.0.0/0", "2001:db8::/32",
           "2001:db8::/31", "::/0", "10.1.2.9/28"]
DOMAINS = NAMES + [f"*.{name}" for name in NAMES] + ["A.Test.", "*.B.a.TEST."]
PORTS = ["80", "443", "1-79", "80-8080", "8080", "1-65535"]


def generated(seed):
    dice = random.Random(seed)

    def some(values):
        return dice.sample(values, dice.randint(1, 3))

    def maybe(name, values):
        return {name: some(values)} if dice.random() < 0.4 else {}

    proxies = [{"protocol": dice.choice(["http-connect", "http-connect", "socks5"]),
                "proxy": f"p{number}.test:{number + 1}",
                **({"identifier": dice.choice("abcd")} if dice.random() < 0.8 else {}),
                **({"mandatory": ["unknown_key"], "unknown_key": 1} if dice.random() < 0.15 else {})}
               for number in range(dice.randint(0, 6))]
    rules = [{"proxies": [dice.choice("abcde") for _ in range(dice.randint(0, 3))],
              **maybe("domains", DOMAINS), **maybe("subnets", SUBNETS), **maybe("ports", PORTS),
              **({"vendor_key": 1} if dice.random() < 0.1 else {})}
             for _ in range(dice.randint(0, 6))]
    return {**HEAD, "proxies": proxies, "proxy-match": rules}


def test_the_order_of_rules_is_that_of_a_second_implementation(ctl):
    places = [(host, port) for host in NAMES + ADDRESSES for port in (79, 80, 443, 8080, 9000)]
    urls = [f"http://{host}:{port}/" for host, port in places]
    for seed in range(60):
        made = generated(seed)
        script = ctl("pvd", "to-pac", "-", script=json.dumps(made))
        assert script.status == ANSWERED, (seed, script.errors)
        name = written(script.output, "/tmp/made.pac")
        answers = ctl("pac", "eval", "--offline", "--json", name, *urls).json
        for (host, port), answer in zip(places, answers):
            expected = "; ".join(second_answer(made, host, port))
            assert answer["result"] == expected, (seed, host, port, made)


def test_names_are_absolute_and_get_no_search_suffix(ctl):
    name = written(document(proxies=[{**PROXY, "identifier": "a"}],
                            proxy_match=[{"proxies": ["a"], "domains": ["intranet.example.test"]}]))
    script = written(ctl("pvd", "to-pac", name).output, "/tmp/made.pac")
    answers = ctl("pac", "eval", "--offline", "--json", script, "http://intranet/",
                  "http://INTRANET.Example.test./").results
    assert answers == ["DIRECT", "PROXY p.example.test:8080"]


def test_a_name_matches_a_subnet_by_its_addresses(ctl):
    name = written(document(proxies=[PROXY], proxy_match=[{"proxies": [], "subnets": ["10.0.0.0/8"]}]))
    script = written(ctl("pvd", "to-pac", name).output, "/tmp/made.pac")
    answers = ctl("pac", "eval", "--json", "--resolve", "in.test=10.1.1.1", "--resolve",
                  "out.test=11.1.1.1", script, "http://in.test/", "http://out.test/",
                  "http://unknown.test/").results
    assert answers == ["DIRECT", "PROXY p.example.test:8080", "PROXY p.example.test:8080"]


def test_ports_are_those_of_the_scheme_unless_given(ctl):
    name = written(document(proxies=[PROXY], proxy_match=[{"proxies": [], "ports": ["443"]}]))
    script = written(ctl("pvd", "to-pac", name).output, "/tmp/made.pac")
    urls = ["https://a/", "wss://a/", "http://a:443/", "http://u:443@a/", "http://a/",
            "https://[::1]:80/", "https://[::443]/", "unknown://a/"]
    proxy = "PROXY p.example.test:8080"
    assert ctl("pac", "eval", "--offline", "--json", script, *urls).results == [
        "DIRECT", "DIRECT", "DIRECT", proxy, proxy, proxy, "DIRECT", proxy]


def test_a_document_narrows_what_its_proxies_get_and_widens_nothing(ctl, port80, client):
    name = written(document(proxies=[{**PROXY, "identifier": "a"}],
                            proxy_match=[{"proxies": [], "domains": ["direct.test"]},
                                         {"proxies": ["a"], "ports": ["80"]}]))
    result = ctl("pvd", "to-pac", "--otherwise", "PROXY known.test:1", name)
    port80.routes["/p.pac"] = result.output
    client.update("pacurl", pacurl="http://127.0.0.1/p.pac")
    wait_until(lambda: len(client.urls("http://a.test/")) > 1, "the script answers")
    # The last rule also matches this machine. The policy for this machine has priority over this
    # rule.
    urls = ["http://direct.test/", "http://a.test/", "http://b.test:81/", "http://localhost/"]
    assert [client.urls(url)[1:] for url in urls[:3]] == [
        ["DIRECT"], ["PROXY p.example.test:8080"], ["PROXY known.test:1"]]
    assert [ctl("get", "--format", "raw", url).output for url in urls] == [
        "DIRECT\n", "PROXY p.example.test:8080\n", "PROXY known.test:1\n", "DIRECT\n"]


# --- From the network ---


class TlsServer:
    """Answers each path with the test's answer, on port 443 of loopback, and stores the
    requests."""

    def __init__(self):
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
             "-nodes", "-days", "30", "-subj", f"/CN={HOST}", "-addext",
             f"subjectAltName=DNS:{HOST}", "-keyout", "/run/site.key", "-out", "/run/site.pem"],
            check=True, capture_output=True)
        with open("/etc/ssl/certs/ca-certificates.crt", "a") as trusted, open("/run/site.pem") as own:
            trusted.write(own.read())
        hosts(**{HOST: "127.0.0.1", "other.example.test": "127.0.0.1"})
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain("/run/site.pem", "/run/site.key")
        self.routes, self.requests = {}, []
        self._listener = context.wrap_socket(socket.create_server(("127.0.0.1", 443)),
                                             server_side=True)
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except ssl.SSLError:
                continue  # the client does not accept the certificate
            except OSError:
                return
            with connection:
                request = b""
                while b"\r\n\r\n" not in request and (more := connection.recv(65536)):
                    request += more
                if not request:
                    continue  # this client does not accept the certificate either
                self.requests.append(request.decode())
                path = request.decode().split(" ")[1]
                connection.sendall(self.routes.get(path, response(status="404 Not Found")))

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._thread.join(60)


@pytest.fixture
def server(own_network):
    server = TlsServer()
    yield server
    server.close()


WELL_KNOWN = "/.well-known/pvd"


def test_a_host_gives_the_document_of_its_well_known_url(ctl, server):
    server.routes[WELL_KNOWN] = response(document(proxies=[PROXY]).encode(), headers=TYPE)
    # The port is always 443, not that of the proxy, and no proxy of the environment is used.
    for host in (HOST, f"{HOST}:8080", f"{HOST}."):
        result = ctl("pvd", "show", "--json", host, environment={"https_proxy": "http://127.0.0.1:9"})
        assert (result.status, result.errors) == (ANSWERED, "")
        assert result.json["warnings"] == []
    request = server.requests[0].lower()
    assert request.startswith(f"get {WELL_KNOWN} http/1.1\r\nhost: {HOST}\r\n")
    assert "\r\naccept: application/pvd+json\r\n" in request
    assert "cookie" not in request and "user-agent" not in request


def test_a_url_gives_its_own_document(ctl, server):
    server.routes["/mine?x=1"] = response(document().encode(), headers=TYPE)
    assert ctl("pvd", "show", f"https://{HOST}/mine?x=1").status == ANSWERED
    assert [request.split(" ")[1] for request in server.requests] == ["/mine?x=1"]


def test_only_https_is_fetched(ctl, server):
    for url in (f"http://{HOST}/", f"ftp://{HOST}/", f"file://{HOST}/etc/passwd"):
        result = ctl("pvd", "show", url)
        assert (result.status, result.errors) == (
            USAGE, "proxymanagerctl: a document is fetched by https alone\n")
    server.routes[WELL_KNOWN] = response(status="302 Found",
                                         headers=(f"Location: http://{HOST}{WELL_KNOWN}",))
    assert ctl("pvd", "show", HOST).status == NO_INPUT
    assert len(server.requests) == 1


def test_a_redirect_is_followed(ctl, server):
    server.routes[WELL_KNOWN] = response(status="302 Found", headers=("Location: /there",))
    server.routes["/there"] = response(document().encode(), headers=TYPE)
    assert ctl("pvd", "show", HOST).status == ANSWERED


def test_the_document_of_another_host_is_refused(ctl, server):
    server.routes[WELL_KNOWN] = response(
        json.dumps({**HEAD, "identifier": "other.example.test"}).encode(), headers=TYPE)
    result = ctl("pvd", "show", HOST)
    assert result.status == REFUSED and "not of" in result.errors


def test_the_certificate_has_to_be_the_hosts(ctl, server):
    server.routes[WELL_KNOWN] = response(document().encode(), headers=TYPE)
    result = ctl("pvd", "show", "other.example.test")
    assert result.status == NO_INPUT and "cannot fetch" in result.errors
    assert server.requests == []


def test_a_failure_is_no_information_and_is_not_tried_again(ctl, server):
    assert ctl("pvd", "show", HOST).status == NO_INPUT
    assert len(server.requests) == 1


def test_each_run_fetches_once_and_keeps_nothing(ctl, server):
    server.routes[WELL_KNOWN] = response(document().encode(), headers=TYPE)
    for count in (1, 2):
        assert ctl("pvd", "show", HOST).status == ANSWERED
        assert len(server.requests) == count


def test_nothing_is_fetched_without_being_asked(ctl, server):
    name = written(document(proxies=[{**PROXY, "proxy": f"{HOST}:443"}]))
    for command in ("show", "to-pac"):
        assert ctl("pvd", command, "--host", HOST, name).status == ANSWERED
    assert server.requests == []


def test_no_document_is_learnt_from_router_advertisements(ctl, server):
    # The program reads no router advertisements: only the user names the source of a document.
    for command in ("show", "to-pac"):
        assert ctl("pvd", command).status == USAGE
    # A document with prefixes is one that a router announces.
    server.routes[WELL_KNOWN] = response(json.dumps({**HEAD, "prefixes": ["2001:db8::/32"]}).encode(),
                                         headers=TYPE)
    assert "\"prefixes\" is not empty" in ctl("pvd", "to-pac", HOST).errors


def test_a_document_without_its_type_is_a_warning_and_a_long_one_is_refused(ctl, server):
    server.routes[WELL_KNOWN] = response(document().encode())
    assert ctl("pvd", "show", "--json", HOST).json["warnings"] == [
        "the server does not call it application/pvd+json"]
    server.routes[WELL_KNOWN] = response(b" " * (256 * 1024 + 1), headers=TYPE)
    result = ctl("pvd", "show", HOST)
    assert result.status == REFUSED and "it is longer than 256 KiB" in result.errors
