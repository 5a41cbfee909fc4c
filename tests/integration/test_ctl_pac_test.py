"""Tests proxymanagerctl pac test and pac bench, which check a script against cases, and measure
it."""

import os
import xml.etree.ElementTree

import pytest
from support.ctl import ANSWERED, BAD_DATA, NO_ANSWER, NO_INPUT, REFUSED, USAGE, Ctl

SCRIPT = """var asked = 0;
function FindProxyForURL(url, host) {
  asked++;
  if (isPlainHostName(host)) return "DIRECT";
  if (host == "bad.example") return missing;
  if (host == "count.example") return "PROXY p:" + asked;
  if (dnsResolve(host) == "192.0.2.7") return "PROXY shop:1";
  if (shExpMatch(url, "*/a*")) return "PROXY a:1;DIRECT";
  if (weekdayRange("MON")) return "PROXY mon:1";
  return "PROXY " + myIpAddress() + ":8080; DIRECT";
}
"""


@pytest.fixture
def ctl(build):
    return Ctl(os.path.join(build, "out", "bin", "proxymanagerctl"))


def write(name, content):
    path = os.path.join("/tmp", name)
    with open(path, "w", encoding="utf-8") as file:
        file.write(content)
    return path


@pytest.fixture
def script():
    return write("a.pac", SCRIPT)


GOOD = """# in a world of their own
http://intranet/ -> DIRECT
http://shop.example/ --resolve shop.example=192.0.2.7 -> PROXY shop:1
http://bad.example/ -> (error)
--at 2026-03-03T09:00 --tz Europe/Berlin
http://www.example/ -> PROXY 127.0.0.1:8080; DIRECT
http://www.example/ --my-ip 10.1.2.3 -> PROXY 10.1.2.3:8080;DIRECT
http://www.example/ --at 2026-03-02T09:00 -> PROXY mon:1
http://www.example/a -> PROXY a:1; DIRECT
http://www.example/ --host other -> DIRECT
"""


def test_cases_that_hold_pass_in_each_format(ctl, script):
    cases = write("cases", GOOD)
    result = ctl("pac", "test", script, cases)
    assert (result.status, result.output, result.errors) == (ANSWERED, "8 cases passed\n", "")
    tap = ctl("pac", "test", "--format", "tap", script, "-", script=GOOD).output.splitlines()
    assert tap[:3] == ["TAP version 14", "1..8", "ok 1 - -:2 http://intranet/"] and len(tap) == 10
    junit = ctl("pac", "test", "--format", "junit", script, cases)
    suite = xml.etree.ElementTree.fromstring(junit.output).find("testsuite")
    assert junit.status == ANSWERED
    assert (suite.get("tests"), suite.get("failures"), suite.get("errors")) == ("8", "0", "0")


def test_a_case_that_fails_shows_both_answers(ctl, script):
    cases = write("cases", "http://a/ -> DIRECT\nhttp://a/ -> PROXY p:1\n"
                           "http://bad.example/ -> DIRECT\n")
    result = ctl("pac", "test", script, cases)
    assert (result.status, result.errors) == (NO_ANSWER, "")
    assert result.output == f"""\
{cases}:2: http://a/
  expected  PROXY p:1
  got       DIRECT
{cases}:3: http://bad.example/
  expected  DIRECT
  got       (error) line 5: ReferenceError: missing is not defined
2 of 3 cases failed
"""
    for format in ("tap", "junit"):
        assert ctl("pac", "test", "--format", format, script, cases).status == NO_ANSWER


def test_a_script_that_does_not_load_fails_in_each_format(ctl):
    cases = write("cases", "http://a/ -> DIRECT")
    text = ctl("pac", "test", "-", cases, script="(")
    tap = ctl("pac", "test", "--format", "tap", "-", cases, script="(")
    junit = ctl("pac", "test", "--format", "junit", "-", cases, script="(")
    assert text.status == tap.status == junit.status == REFUSED
    assert text.output == "" and text.errors.startswith("proxymanagerctl: standard input: line 1: ")
    assert tap.output.startswith("TAP version 14\nBail out! standard input: line 1: ")
    suite = xml.etree.ElementTree.fromstring(junit.output).find("testsuite")
    assert (suite.get("tests"), suite.get("errors")) == ("1", "1")


def test_what_is_wrong_with_the_cases_has_its_line_and_a_status(ctl, script):
    def refused(text, status=BAD_DATA):
        result = ctl("pac", "test", script, "-", script=text)
        assert (result.status, result.output) == (status, "")
        return result.errors

    assert refused("") == "proxymanagerctl: standard input: there is no case in it\n"
    assert refused("http://a/ -> DIRECT\nhttp://b/\n").startswith(
        "proxymanagerctl: standard input:2: there is no \"->\"")
    assert "2: --at: \"soon\" is no date" in refused("#\nhttp://a/ --at soon -> DIRECT")
    assert ctl("pac", "test", script, "/no/such").status == NO_INPUT
    assert ctl("pac", "test", "/no/such", "-", script="http://a/ -> DIRECT").status == NO_INPUT
    assert ctl("pac", "test", "-", "-", script="").status == USAGE
    assert ctl("pac", "test", script, "-", "--tz", "Nowhere", script="").status == USAGE


def test_cases_of_one_world_share_a_script_and_those_of_another_do_not(ctl, script):
    cases = """http://count.example/ -> PROXY p:1
        http://count.example/ -> PROXY p:2
        http://count.example/ --my-ip 10.0.0.1 -> PROXY p:1
        http://count.example/ --my-ip 10.0.0.1 -> PROXY p:2
        http://count.example/ -> PROXY p:1"""
    assert ctl("pac", "test", script, "-", script=cases).output == "5 cases passed\n"


def test_no_name_of_the_device_gets_into_a_case(ctl, script, root):
    with open("/etc/hosts", "w") as file:
        file.write("192.0.2.7 shop.example\n")
    assert ctl.eval(SCRIPT, "http://shop.example/") == ["PROXY shop:1"]
    result = ctl("pac", "test", "--at", "2026-03-03", script, "-",
                 script="http://shop.example/ -> PROXY 127.0.0.1:8080; DIRECT")
    assert result.output == "1 case passed\n"


def test_bench_counts_what_the_cache_answers_and_what_it_answers_wrongly(ctl, script):
    urls = ["http://www.example/b", "http://www.example/a", "http://printer/", "http://printer/x",
            "http://bad.example/", "http://bad.example/"]
    result = ctl("pac", "bench", "--offline", "--at", "2026-03-03", "--json", "--repeat", "3", script,
                 *urls)
    assert result.status == NO_ANSWER and result.errors == ""
    found = result.json
    assert (found["urls"], found["hosts"], found["evaluations"], found["unanswered"]) == (6, 3, 18, 2)
    # A missing answer is not cached, so bad.example is never a cache hit.
    assert found["cache"]["hits"] == 2 and found["cache"]["share"] == pytest.approx(1 / 3)
    assert (found["cache"]["stale"], found["cache"]["stale_url"]) == (1, "http://www.example/a")
    assert 0 < found["median_us"] <= found["worst_us"]
    assert 0 < found["cache"]["saved_share"] < 1 and found["worst_url"] in urls
    people = ctl("pac", "bench", "--offline", script, *urls[:4])
    assert people.status == ANSWERED
    assert "4 of 4 URLs on 2 hosts, 0 URLs without an answer" in people.output


def test_bench_replays_the_daemons_cache_of_fifty_hosts(ctl, script):
    def hits(count):
        urls = "\n".join(f"http://h{number}/" for number in range(count)) + "\nhttp://h0/\n"
        return ctl("pac", "bench", "--json", "--offline", script, "-f", "-",
                   script=urls).json["cache"]["hits"]

    assert (hits(50), hits(51)) == (1, 0)


def test_the_worst_evaluation_of_a_bench_is_the_slow_one(ctl):
    script = """function FindProxyForURL(url, host) {
      if (host == "slow") for (var end = Date.now() + 1500; Date.now() < end;) ;
      return "DIRECT"; }"""
    found = ctl("pac", "bench", "--json", "-", "http://a/", "http://slow/", "http://b/",
                script=script).json
    assert found["worst_url"] == "http://slow/" and found["worst_us"] >= 1_400_000
    assert ctl("pac", "bench", "-", "http://a/", script="(").status == REFUSED
    assert ctl("pac", "bench", "--repeat", "0", "-", "http://a/", script="").status == USAGE


def test_bench_shows_what_part_of_the_time_helpers_take(ctl):
    def helpers(loop):
        text = f"""isPlainHostName("at load");
            function FindProxyForURL(url, host) {{
              for (var i = 0; i < 20000; i++) {loop}
              return "DIRECT"; }}"""
        return ctl("pac", "bench", "--offline", "--json", "-", "http://a/", "http://b/",
                   script=text).json["helpers"]

    busy = helpers('shExpMatch("a" + i + "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx", "*" + i + "*y*");')
    assert busy["calls"] == 40000 and busy["us"] > 0 and 0 < busy["share"] <= 1
    idle = helpers("host + i;")
    assert (idle["calls"], idle["share"]) == (0, 0)
