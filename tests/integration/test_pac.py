"""Tests mode pacurl, end to end: the daemon answers clients with a script from a web server."""

import os

import pytest
from support.bus import wait_until
from support.syslog_socket import DEBUG, ERR, INFO, NOTICE, WARNING
from support.web import Held, reset, response, script

PAC = "/tmp/proxymanager.pac"
TEMPORARY = PAC + ".tmp"


def use(client, web, path="/x.pac"):
    client.update("pacurl", pacurl=web.url(path))


def load(client, web, syslog, text, path="/x.pac"):
    """Serves `text` as the script, configures it, and waits until the engine has loaded it."""
    web.routes[path] = text
    before = syslog.count(INFO, "PacParser-parsePacFile pac init")
    use(client, web, path)
    syslog.wait(INFO, "PacParser-parsePacFile pac init", before + 1)


def test_a_script_answers_for_its_clients(client, web, syslog):
    load(client, web, syslog, """
        function FindProxyForURL(url, host) {
          if (isPlainHostName(host)) return "DIRECT";
          if (dnsDomainIs(host, ".example.com")) return "PROXY 10.0.0.1:8080; DIRECT";
          if (shExpMatch(url, "*/video/*")) return "SOCKS 10.0.0.2:1080";
          return "";
        }""")
    assert client.urls("http://intranet/") == ["pacurl", "DIRECT"]
    assert client.urls("http://www.example.com/") == ["pacurl", "PROXY 10.0.0.1:8080", "DIRECT"]
    assert client.urls("http://tv.example.org/video/1") == ["pacurl", "SOCKS 10.0.0.2:1080"]
    assert client.urls("http://other.example.org/") == ["pacurl"]


def test_the_lines_of_a_first_script_come_in_order(client, web, syslog):
    url = web.url("/x.pac")
    text = script("DIRECT")
    load(client, web, syslog, text)
    syslog.expect_in_order(
        (NOTICE, "PACFetcher-updateProxyMgrConfig proxy mode >= pacurl refetch"),
        (NOTICE, "PACFetcher-retrievePacFile proxy mode:2"),
        (NOTICE, f"PACFetcher-retrievePacFile Using user-provided PAC URL: '{url}'"),
        (NOTICE, f"PACFetcher-retrievePacFile try to fileDownload url:{url}"),
        (INFO, "PACFetcher-fileDownload called"),
        (DEBUG, "PACFetcher-fileDownload result success:true, code:200"),
        (NOTICE, f"PACFetcher-retrievePacFile PAC file download success url:{url}"),
        (NOTICE, f"ProxyManagerServiceImpl-pacFileUpdated pacFileName:{PAC}"),
        (INFO, "PacParser-parsePacFile called "),
        (INFO, "PacParser-readPacFile called "),
        (NOTICE, f"PacParser-readPacFile PAC file name:{PAC}"),
        (INFO, "PacParser-doMd5Hash called "),
        (NOTICE, "PacParser-readPacFile content of pac file has been updated, notify"),
        (INFO, "PacParser-clearProxyUrlCache called "),
        (NOTICE, f"ProxyManagerServiceImpl-pacContentUpdated pacFileName:{PAC}"),
        (NOTICE, f"PacParser-readPacFile content of pac file: \n{text}"),
        (INFO, "PacParser-parsePacFile pac init"))


def test_the_lines_of_a_question_name_each_proxy(client, web, syslog):
    load(client, web, syslog, script("PROXY p:1; DIRECT"))
    syslog.clear()
    client.urls("http://a.example/")
    client.urls("http://a.example/again")
    syslog.wait(NOTICE, "PacParser-getProxy get proxy url from cache")
    syslog.expect_in_order(
        (NOTICE, "ProxyManagerServiceImpl-getProxyUrl proxy mode:2, request url:http://a.example/"),
        (NOTICE, "PacParser-getProxy requestUrl:http://a.example/"),
        (NOTICE, "ProxyManagerServiceImpl-getProxyUrl proxyUrl:PROXY p:1"),
        (NOTICE, "ProxyManagerServiceImpl-getProxyUrl proxyUrl:DIRECT"),
        (NOTICE, "PacParser-getProxy get proxy url from cache"))


def test_new_content_is_announced_and_answers_change(client, web, syslog, signals):
    load(client, web, syslog, script("PROXY old:1"))
    assert client.urls("http://a/") == ["pacurl", "PROXY old:1"]
    signals.clear()
    load(client, web, syslog, script("PROXY new:1"))
    signals.wait("notifyClearcache", 2)  # one signal for the update, one for the new script
    assert client.urls("http://a/") == ["pacurl", "PROXY new:1"]


def test_the_same_content_is_announced_for_the_update_alone(client, web, syslog, signals):
    load(client, web, syslog, script("PROXY p:1"))
    client.urls("http://a/")
    signals.wait("notifyClearcache", 2)
    signals.clear()
    load(client, web, syslog, script("PROXY p:1"))
    signals.wait("notifyClearcache")
    client.check_started()
    assert signals.count("notifyClearcache") == 1
    syslog.wait(NOTICE, "PacParser-readPacFile contents of old and new pac files are the same")


def test_answers_survive_pacurl_off_pacurl(client, web, syslog):
    load(client, web, syslog, script("PROXY p:1"))
    client.urls("http://a/")
    client.update("off")
    assert client.urls("http://a/") == ["off", ""]
    syslog.clear()
    load(client, web, syslog, script("PROXY p:1"))
    assert client.urls("http://a/") == ["pacurl", "PROXY p:1"]
    syslog.wait(NOTICE, "PacParser-getProxy get proxy url from cache")


def test_before_the_first_script_there_is_no_answer(client, web, syslog):
    web.routes["/x.pac"] = held = Held(script("DIRECT"))
    use(client, web)
    web.wait("/x.pac")
    assert client.urls("http://a/") == ["pacurl"]
    syslog.wait(WARNING, "PacParser-getProxy mPac is empty, may casued by pac file update")
    held.release()
    syslog.wait(INFO, "PacParser-parsePacFile pac init")
    assert client.urls("http://a/") == ["pacurl", "DIRECT"]


def refused(client, web, syslog, route, transfer):
    """Asserts that the old script stays in force, the temporary file is removed, and the lines
    about the refusal are logged."""
    load(client, web, syslog, script("PROXY old:1"))
    with open(PAC) as file:
        before = file.read()
    web.routes["/bad.pac"] = route
    use(client, web, "/bad.pac")
    syslog.wait(ERR, f"PACFetcher-retrievePacFile PAC file download failed url:"
                     f"{web.url('/bad.pac')}")
    assert client.urls("http://a/") == ["pacurl", "PROXY old:1"]
    wait_until(lambda: not os.path.exists(TEMPORARY), "the temporary file is removed")
    with open(PAC) as file:
        assert file.read() == before
    failed = (f"PACFetcher-fileDownload failed to remove file {TEMPORARY} after unsuccessful "
              "download: 0")
    assert syslog.count(ERR, failed) == (0 if transfer else 1)


def test_keeps_the_old_script_when_the_page_is_not_found(client, web, syslog):
    refused(client, web, syslog, None, transfer=True)
    syslog.wait(DEBUG, "PACFetcher-fileDownload result success:true, code:404")


def test_takes_a_script_that_comes_with_404(client, web, syslog):
    load(client, web, syslog, response(script("PROXY p:404"), status="404 Not Found"))
    assert client.urls("http://a/") == ["pacurl", "PROXY p:404"]


def test_keeps_the_old_script_when_the_connection_is_reset(client, web, syslog):
    def half(connection, _):
        connection.sendall(response(script("PROXY new:1"))[:-20])
        reset(connection)
    refused(client, web, syslog, half, transfer=False)


def test_keeps_the_old_script_when_the_body_is_cut_short(client, web, syslog):
    refused(client, web, syslog,
            lambda connection, _: connection.sendall(response(script("PROXY new:1"))[:-20]),
            transfer=False)


def test_keeps_the_old_script_when_the_body_is_too_large(client, web, syslog):
    refused(client, web, syslog, response(script("PROXY new:1") + " " * 512_000), transfer=False)


def test_keeps_the_old_script_when_an_unannounced_body_never_ends(client, web, syslog):
    sent = []

    def endless(connection, _):
        connection.sendall(response(script("PROXY new:1"), length=False))
        while True:
            connection.sendall(b" " * 65536)
            sent.append(65536)
    refused(client, web, syslog, endless, transfer=False)
    assert sum(sent) < 16 << 20


def test_a_redirect_to_a_file_is_refused(client, web, syslog):
    with open("/run/secret.pac", "w") as file:
        file.write(script("PROXY secret:1"))
    refused(client, web, syslog,
            response(status="302 Found", headers=("Location: file:///run/secret.pac",)),
            transfer=False)


def test_a_file_url_is_refused(client, web, syslog):
    with open("/run/secret.pac", "w") as file:
        file.write(script("PROXY secret:1"))
    client.update("pacurl", pacurl="file:///run/secret.pac")
    syslog.wait(ERR, "PACFetcher-retrievePacFile PAC file download failed "
                     "url:file:///run/secret.pac")
    assert client.urls("http://a/") == ["pacurl"]


def test_a_refused_script_leaves_no_answer_until_the_next(client, web, syslog):
    load(client, web, syslog, script("PROXY old:1"))
    load(client, web, syslog, "function FindProxyForURL( {", "/broken.pac")
    syslog.wait(ERR, "PacParser-parsePacFile pac init, mpac is null")
    syslog.wait_match(ERR, "pac_engine: .*SyntaxError.*")
    assert client.urls("http://a/") == ["pacurl"]
    load(client, web, syslog, script("PROXY new:1"), "/good.pac")
    assert client.urls("http://a/") == ["pacurl", "PROXY new:1"]


def test_an_update_without_a_pac_url_fetches_nothing(client, web, syslog):
    client.update("pacurl", pacurl="")
    syslog.wait(ERR, "PACFetcher-retrievePacFile proxy mode is PACURL, proxyconfig.pacurl is empty")
    assert web.paths() == []


def test_questions_are_answered_from_the_old_script_while_a_new_one_comes(client, web, syslog):
    load(client, web, syslog, script("PROXY old:1"))
    web.routes["/slow.pac"] = held = Held(script("PROXY new:1"))
    use(client, web, "/slow.pac")
    web.wait("/slow.pac")
    for i in range(20):
        assert client.urls(f"http://h{i}/") == ["pacurl", "PROXY old:1"]
    held.release()
    syslog.wait(INFO, "PacParser-parsePacFile pac init", 2)
    assert client.urls("http://h1/") == ["pacurl", "PROXY new:1"]


def test_another_configuration_ends_the_transfer_and_is_fetched_once(client, web, syslog):
    web.routes["/slow.pac"] = held = Held(script("PROXY slow:1"))
    web.routes["/next.pac"] = script("PROXY next:1")
    use(client, web, "/slow.pac")
    web.wait("/slow.pac")
    use(client, web, "/next.pac")
    syslog.wait(INFO, "PacParser-parsePacFile pac init")
    assert client.urls("http://a/") == ["pacurl", "PROXY next:1"]
    held.release()
    assert web.paths() == ["/slow.pac", "/next.pac"]
    syslog.wait(ERR, f"PACFetcher-retrievePacFile PAC file download failed url:{web.url('/slow.pac')}")


def test_mode_off_ends_the_transfer_and_fetches_nothing(client, web, syslog):
    web.routes["/slow.pac"] = held = Held(script("PROXY slow:1"))
    use(client, web, "/slow.pac")
    web.wait("/slow.pac")
    client.update("off")
    syslog.wait(ERR, f"PACFetcher-retrievePacFile PAC file download failed url:{web.url('/slow.pac')}")
    held.release()
    assert client.urls("http://a/") == ["off", ""]
    assert web.paths() == ["/slow.pac"]
    assert not os.path.exists("/tmp/proxymanager.pac")


def test_the_same_configuration_during_a_fetch_makes_exactly_one_further_fetch(client, web, syslog):
    web.routes["/slow.pac"] = held = Held(script("PROXY slow:1"))
    use(client, web, "/slow.pac")
    web.wait("/slow.pac")
    # The calls are answered while the transfer continues.
    for _ in range(5):
        use(client, web, "/slow.pac")
    assert web.paths() == ["/slow.pac"]
    held.release()
    syslog.wait(INFO, "PacParser-parsePacFile pac init", 2)
    assert client.urls("http://a/") == ["pacurl", "PROXY slow:1"]
    assert web.paths() == ["/slow.pac"] * 2


@pytest.mark.parametrize("path", ["/usr/local/lumad/dhcp.conf", "/tmp/.resolv.conf.dnsmasq"])
@pytest.mark.parametrize("change", ["write", "touch", "chmod"])
def test_a_change_of_a_watched_file_fetches_again(client, web, syslog, path, change):
    syslog.wait_match(INFO, r"PACFetcher-wait_for_changes fd:\d+, interval:1800")
    load(client, web, syslog, script("PROXY old:1"))
    web.routes["/x.pac"] = script("PROXY new:1")
    if change == "write":
        with open(path, "a") as file:
            file.write("# changed\n")
    elif change == "touch":
        os.utime(path)
    else:
        os.chmod(path, 0o600)
    syslog.wait(NOTICE, "PACFetcher-dhcpCfgWatchThreadFunc proxy mode is wpad or pac-url refetch")
    syslog.wait(NOTICE, "PacParser-readPacFile content of pac file has been updated, notify", 2)
    syslog.wait(INFO, "PacParser-parsePacFile pac init", 2)
    assert client.urls("http://a/") == ["pacurl", "PROXY new:1"]


def test_a_change_of_a_watched_file_in_mode_off_is_read_and_ignored(client, web, syslog):
    waiting = r"PACFetcher-wait_for_changes fd:\d+, interval:1800"
    syslog.wait_match(INFO, waiting)
    client.update("off")
    os.utime("/tmp/.resolv.conf.dnsmasq")
    syslog.wait_match(INFO, r"PACFetcher-dhcpCfgWatchThreadFunc read len:\d+")
    syslog.wait_match(INFO, waiting, times=2)
    assert not [text for text in syslog.texts() if "refetch" in text]


def test_the_fifty_first_host_evicts_the_least_recently_used(client, web, syslog):
    load(client, web, syslog, script("DIRECT"))
    for i in range(50):
        client.urls(f"http://h{i}/")
    client.urls("http://h0/")
    client.urls("http://h50/")
    syslog.wait(INFO, "remove deleteNode key:h1")
    assert syslog.count(INFO, "remove deleteNode key:h0") == 0


def test_a_killed_worker_costs_one_answer_at_most(daemon, client, web, syslog):
    import signal
    load(client, web, syslog, script("PROXY p:1"))
    assert client.urls("http://a/") == ["pacurl", "PROXY p:1"]
    for i in range(5):
        (worker,) = daemon.children()
        os.kill(worker, signal.SIGKILL)
        answers = [client.urls(f"http://h{i}-{j}/") for j in range(3)]
        assert answers.count(["pacurl", "PROXY p:1"]) >= 2, answers
    wait_until(lambda: len(daemon.children()) == 1, "one worker is left")


def test_no_worker_runs_before_the_first_script_nor_after_the_end(daemon, client, web, syslog):
    assert daemon.children() == []
    load(client, web, syslog, script("DIRECT"))
    (worker,) = daemon.children()
    with open(f"/proc/{daemon.pid}/maps") as maps:
        assert "quickjs" not in maps.read()
    assert daemon.stop() == 0
    wait_until(lambda: not os.path.exists(f"/proc/{worker}"), "the worker is gone")
