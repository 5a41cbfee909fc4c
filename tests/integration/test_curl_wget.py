"""Tests curl and wget as docs/programs/curl-wget.md describes them: with the settings for the
relay, and with the script that asks for each URL. The test takes the settings and the script from
that page.
"""

import os
import pathlib
import re
import shutil
import subprocess

import pytest
from support.bus import wait_until
from support.ctl import LIMIT, NO_ANSWER
from support.own_network import hosts
from support.real_proxies import (DIRECT, HTTP, HTTP_PROXY, PAGE, SITE, SITE_ADDRESS, SOCKS, SOCKS_PROXY,
                                  by_script)
from support.relay import Relay

pytestmark = pytest.mark.usefixtures("own_network")

TREE = pathlib.Path(__file__).parents[2]
PAGE_OF_BOTH = TREE / "docs/programs/curl-wget.md"
EACH_URL = TREE / "docs/examples/programs/each_url.sh"
OTHER = "other.example.test"
OTHER_PAGE = f"http://{OTHER}/way"
BY_HOST = f"""function FindProxyForURL(url, host) {{
  return host == "{OTHER}" ? "PROXY {HTTP_PROXY}" : "SOCKS {SOCKS_PROXY}";
}}"""
CURL = ("curl", "-sS", "--fail", "--max-time", "60")
WGET = ("wget", "-q", "--tries=1", "--timeout=60", "-O", "-")
NOWHERE = "http://127.0.0.1:9"


class Home:
    """Runs programs in the environment of a user with a home folder. proxymanagerctl is in the
    PATH."""

    def __init__(self, ctl):
        self.path = pathlib.Path("/run/home")
        self.path.mkdir()
        shutil.copy(EACH_URL, "/run/home/each_url")
        self._variables = ctl.variables({"PATH": f"/run/home:{os.path.dirname(ctl.path)}:/usr/bin:/bin",
                                         "HOME": str(self.path)})

    def run(self, *command, **variables):
        done = subprocess.run(command, env={**self._variables, **variables}, capture_output=True, text=True,
                              stdin=subprocess.DEVNULL, timeout=LIMIT, cwd=self.path)
        return done.returncode, done.stdout, done.stderr


@pytest.fixture
def home(ctl, proxies):
    hosts(**{SITE: SITE_ADDRESS, OTHER: SITE_ADDRESS})
    return Home(ctl)


@pytest.fixture
def relay(build, proxies, client):
    relay = Relay(build)
    yield relay
    relay.stop()


def decide_by_host(client, web):
    web.routes["/p.pac"] = BY_HOST
    client.update("pacurl", pacurl="http://127.0.0.1/p.pac")
    wait_until(lambda: len(client.urls(PAGE)) > 1, "the script answers")


def test_the_settings_of_the_page_lead_curl_and_wget_through_the_relay(home, relay, client, port80):
    text = PAGE_OF_BOTH.read_text(encoding="utf-8")
    for name in (".curlrc", ".wgetrc"):
        (home.path / name).write_text(re.search(rf"`~/\{name}`:\n\n```\n(.*?)```", text, re.DOTALL)[1])
    decide_by_host(client, port80)
    relay.start()
    for program in (CURL, WGET):
        assert home.run(*program, PAGE) == (0, SOCKS, "")
        assert home.run(*program, f"https://{SITE}/way") == (0, SOCKS, "")
        assert home.run(*program, OTHER_PAGE) == (0, HTTP, "")
    for program, without in ((CURL, "-q"), (WGET, "--no-config")):
        assert home.run(*program, PAGE, http_proxy=NOWHERE) == (0, SOCKS, "")
        name, *options = program
        assert home.run(name, without, *options, PAGE) == (0, DIRECT, "")
        # The answer shows that the relay was not used: the relay would use SOCKS.
        assert home.run(name, without, *options, PAGE, http_proxy=f"http://{HTTP_PROXY}") == (0, HTTP, "")


def test_the_script_asks_for_each_url(home, client, port80):
    decide_by_host(client, port80)
    assert home.run("each_url", *CURL, PAGE, OTHER_PAGE, PAGE) == (0, SOCKS + HTTP + SOCKS, "")
    assert home.run("each_url", *CURL, "--referer", "http://a.example/", "--", PAGE, OTHER_PAGE) == (
        0, SOCKS + HTTP, "")
    by_script(client, port80, f"SOCKS {SOCKS_PROXY}; PROXY {HTTP_PROXY}")
    assert home.run("each_url", *WGET, PAGE, OTHER_PAGE) == (0, HTTP + HTTP, "")


def test_the_script_goes_on_after_a_failure_and_reports_it(home, client, port80):
    decide_by_host(client, port80)
    status, output, errors = home.run("each_url", *CURL, f"{PAGE}/none", OTHER_PAGE)
    assert (status, output) == (22, HTTP) and "404" in errors
    # A file name with blanks stays one word, and so does a URL with special characters of the
    # shell.
    status, output, _ = home.run("each_url", *CURL, "-o", "a b", f"{PAGE}?a=$(b)&c=*")
    assert (status, (home.path / "a b").read_text()) == (0, SOCKS)
    by_script(client, port80, "PROXY -unusable:1")
    assert home.run("each_url", *CURL, PAGE)[0] == NO_ANSWER
    for words in ((), ("curl", "-s")):
        status, output, errors = home.run("each_url", *words)
        assert (status, output) == (64, "") and "each_url" in errors
