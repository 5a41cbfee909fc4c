"""Tests hostile scripts, each in the running daemon. For each script, a question ends within six
seconds, possibly without an answer. The next question, about a host for which the script behaves
well, gets the right answer. The daemon's own memory does not grow, and at most one worker is left.
"""


import pytest
from support.bus import LIMIT, shortest, wait_until
from support.daemon import lives
from support.syslog_socket import ERR, INFO
from support.web import response

WITHIN = 6.0  # seconds; the limit of an evaluation is 5 s
GROWTH = 3 << 20  # bytes; more than the daemon's allocator keeps after a question

# IN_A_CALL has the code that the script runs for the host "bad.example". Every other host gets
# "PROXY good:1". The scripts in ENDS_WELL end by themselves.
ENDS_WELL = ("alert_flood", "ten_thousand_names")
IN_A_CALL = {
    "giant_claimed_length": "return [].indexOf.call({ length: 2 ** 50 }, 1) + '';",
    "loop_around_promises": "for (;;) new Promise(function () { for (;;); });",
    "endless_loop": "for (;;);",
    "endless_loop_in_finally": "try { return 'DIRECT'; } finally { for (;;); }",
    "endless_loop_in_a_getter": "return ({ get x() { for (;;); } }).x;",
    "catastrophic_expression": "return /^(a+)+$/.test('a'.repeat(64) + 'b') ? 'DIRECT' : '';",
    "endless_comparator": "[3, 1, 2].sort(function () { for (;;); });",
    "caught_endless_loop": "for (;;) { try { for (;;); } catch (e) { } }",
    "recursion": "(function f() { return f() + 1; })();",
    "recursion_through_proxy": "var p = new Proxy({}, { get: function (t, k) { return p[k]; } });"
                               " return p.x;",
    "recursion_through_to_string": "var o = { toString: function () { return '' + o; } };"
                                   " return '' + o;",
    "array_bomb": "var a = []; for (;;) a.push(new Array(1000).fill(7));",
    "string_bomb": "var s = 'x'; for (;;) s += s;",
    "map_bomb": "var m = new Map(); for (var i = 0; ; i++) m.set(i, 'k' + i);",
    "typed_array_bomb": "var l = []; for (;;) l.push(new Uint8Array(1 << 20).fill(1));",
    "result_of_100_mib": "return 'x'.repeat(100 << 20);",
    "throws_null": "throw null;",
    "alert_flood": "for (var i = 0; i < 100000; i++) alert('flood ' + i); return 'DIRECT';",
    "ten_thousand_names": "for (var i = 0; i < 10000; i++) dnsResolve('n' + i + '.invalid');"
                          " return 'DIRECT';",
    "result_that_is_an_object": "return { toString: function () { for (;;); } };",
    "thrown_object_with_a_getter": "throw { get message() { for (;;); } };",
}

SCRIPT = """function FindProxyForURL(url, host) {
  if (host === "bad.example") { %s }
  return "PROXY good:1";
}
"""


def load(client, web, syslog, text):
    web.routes["/x.pac"] = response(text)
    before = syslog.count(INFO, "PacParser-parsePacFile pac init")
    client.update("pacurl", pacurl=web.url("/x.pac"))
    syslog.wait(INFO, "PacParser-parsePacFile pac init", before + 1)


def memory(pid):
    """The bytes that only this process has written. Pages that it only reads are left out,
    because other programs may share them at any time."""
    with open(f"/proc/{pid}/smaps_rollup") as rollup:
        return sum(int(line.split()[1]) * 1024 for line in rollup
                   if line.startswith("Private_Dirty"))


@pytest.mark.slow
@pytest.mark.parametrize("name", sorted(IN_A_CALL))
def test_a_hostile_call_costs_its_own_answer_at_most(daemon, client, web, syslog, name, sanitizer):
    before = []

    def prepare():  # repeated for each try, because a load empties the cache
        load(client, web, syslog, SCRIPT % IN_A_CALL[name])
        assert client.urls("http://good.example/") == ["pacurl", "PROXY good:1"]
        before[:] = [memory(daemon.pid)]

    def ask():
        answer = client.urls("http://bad.example/", timeout=LIMIT)
        assert answer == (["pacurl", "DIRECT"] if name in ENDS_WELL else ["pacurl"])

    took = shortest(WITHIN, ask, before=prepare)
    if not sanitizer:
        assert took < WITHIN
    assert client.urls("http://next.example/") == ["pacurl", "PROXY good:1"]
    if not sanitizer:
        assert memory(daemon.pid) - before[0] < GROWTH
    wait_until(lambda: len(daemon.children()) == 1, "one worker is left")


REDEFINED = """
Object.prototype.toString = Object.prototype.valueOf = function () { for (;;); };
Array.prototype.push = Array.prototype.join = Array.prototype[Symbol.iterator] = undefined;
String.prototype.split = String.prototype.indexOf = null;
Object.prototype.get = Object.prototype.set = 1;
RegExp.prototype.exec = RegExp.prototype.test = null;
function FindProxyForURL(url, host) {
  return shExpMatch(host, "*.example") && dnsDomainLevels(host) == 1 ? "PROXY good:1" : "DIRECT";
}
"""


def test_redefined_prototypes_do_not_reach_the_helpers(client, web, syslog):
    load(client, web, syslog, REDEFINED)
    assert client.urls("http://a.example/") == ["pacurl", "PROXY good:1"]
    load(client, web, syslog, SCRIPT % "")
    assert client.urls("http://a.example/") == ["pacurl", "PROXY good:1"]


@pytest.mark.parametrize("name, text", [
    ("loop_at_load", "for (;;); function FindProxyForURL() { return 'DIRECT'; }"),
    ("bomb_at_load", "var s = 'x'; for (;;) s += s; function FindProxyForURL() {}"),
    ("brackets", "function FindProxyForURL() {} " + "[" * 200_000),
], ids=lambda value: value if value.isidentifier() else "")
def test_a_hostile_load_is_refused_and_the_next_script_works(daemon, client, web, syslog, name,
                                                             text):
    load(client, web, syslog, SCRIPT % "")
    load(client, web, syslog, text)
    syslog.wait(ERR, "PacParser-parsePacFile pac init, mpac is null")
    wait_until(lambda: not daemon.children(), "no worker is left")
    assert client.urls("http://a.example/") == ["pacurl"]
    load(client, web, syslog, SCRIPT % "")
    assert client.urls("http://a.example/") == ["pacurl", "PROXY good:1"]


def test_half_a_megabyte_in_one_function_is_borne(client, web, syslog):
    body = "x = x + 1; " * 45_000
    text = f'function FindProxyForURL() {{ var x = 0; {body} return "PROXY p" + x + ":1"; }}'
    assert 480_000 < len(text) < 512_000
    load(client, web, syslog, text)
    assert client.urls("http://a.example/") == ["pacurl", "PROXY p45000:1"]


def test_a_busy_worker_follows_a_daemon_that_was_killed(daemon, client, web, syslog):
    import threading
    load(client, web, syslog, SCRIPT % IN_A_CALL["giant_claimed_length"])
    (worker,) = daemon.children()

    def ask():
        from support.bus import Client
        try:
            with Client() as other:
                other.urls("http://bad.example/")
        except Exception:
            pass  # the daemon has ended

    asking = threading.Thread(target=ask)
    asking.start()
    syslog.wait_match(5, ".*getProxy requestUrl:http://bad.example/")
    daemon.kill()
    asking.join(LIMIT)
    wait_until(lambda: not lives(worker), "the worker is gone")


def test_no_process_is_left_over(daemon, client, web, syslog):
    load(client, web, syslog, SCRIPT % IN_A_CALL["endless_loop"])
    client.urls("http://bad.example/")
    client.urls("http://good.example/")
    workers = daemon.children()
    assert workers
    assert daemon.stop() == 0
    wait_until(lambda: not any(lives(pid) for pid in workers), "the workers are gone")
