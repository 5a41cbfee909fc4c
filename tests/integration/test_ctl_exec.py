"""proxymanagerctl exec."""

import signal

from support.ctl import ANSWERED, VARIABLES, said


def test_exec_gives_the_command_the_proxy_of_the_url(ctl, client):
    def variables(url, before):
        output = ctl("exec", url, "--", "env", environment=before).output
        lines = dict(line.split("=", 1) for line in output.splitlines())
        assert lines["PATH"] == "/usr/bin:/bin"
        return {name: value for name, value in lines.items() if name in VARIABLES}

    client.update("manual", "http://a.example:8080")
    proxied = {**{name: "http://a.example:8080" for name in VARIABLES},
               "no_proxy": "localhost,127.0.0.1,::1", "NO_PROXY": "localhost,127.0.0.1,::1"}
    assert variables("http://b/", {"http_proxy": "old", "NO_PROXY": "*"}) == proxied
    for name in ("no_proxy", "NO_PROXY"):
        del proxied[name]
    for url in ("http://localhost:80/", "http://[::1]:80/", "http://u:p@localhost/", "LOCALHOST",
                "localhost?x"):
        assert variables(url, {"NO_PROXY": "*"}) == proxied, url
    client.update("off")
    assert variables("http://b/", {"http_proxy": "old", "NO_PROXY": "*", "ALL_PROXY": ""}) == {}


def test_exec_ends_as_the_command_does(ctl, client):
    assert ctl("exec", "http://a/", "--", "sh", "-c", 'exit "$1"', "sh", "7").status == 7
    assert ctl("exec", "http://a/", "--", "sh", "-c", "kill -9 $$").status == -signal.SIGKILL
    echo = ctl("exec", "http://a/", "--", "printf", "%s|", "--json", "--", "-h", "")
    assert (echo.status, echo.output) == (ANSWERED, "--json|--|-h||")
    assert ctl("exec", "http://a/", "--", "cat", script="through").output == "through"
    assert said(ctl("exec", "http://a/", "--", "no-such-command")) == (
        127, "cannot run no-such-command: No such file or directory")
    assert said(ctl("exec", "http://a/", "--", "/etc/passwd")) == (
        126, "cannot run /etc/passwd: Permission denied")
