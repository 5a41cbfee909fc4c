"""Runs the same calls in a browser and in this tree's engine."""

import json
import os
import subprocess

import chromium
import firefox
from scripts import NAMES

_HERE = os.path.dirname(os.path.abspath(__file__))
# These numbers stay below the limits of a browser. A browser looks up at most 20 names in one
# evaluation, and limits the length of an alert.
LOOKUPS_AT_ONCE = 15
CALLS_AT_ONCE = 60


def _show():
    with open(os.path.join(_HERE, "show.js"), encoding="utf-8") as file:
        return file.read()


def _script(functions, calls):
    """The script that all engines load. It defines `scripts` and `calls`."""
    listed = ",\n".join(f"function () {{ return {call.expression} }}" for call in calls)
    return f"{_show()}var scripts = [{','.join(functions)}];\nvar calls = [{listed}];\n"


def _lookups(call):
    if call.expression.startswith("scripts"):
        return 2  # two lookups of the host: for one address family, and for both
    return call.expression.startswith(("dnsResolve", "isResolvable", "isInNet("))


def _groups(calls):
    """Puts the indexes of the calls into groups. One evaluation makes the calls of one group."""
    groups, lookups = [[]], 0
    for number, call in enumerate(calls):
        more = _lookups(call)
        if len(groups[-1]) == CALLS_AT_ONCE or lookups + more > LOOKUPS_AT_ONCE:
            groups.append([])
            lookups = 0
        groups[-1].append(number)
        lookups += more
    return groups


def browser_script(functions, calls, groups):
    """The script for a browser. For the host cN.test, it makes the calls of group N. Before each
    call, it sets the clock that Date shows to the time of that call."""
    return _script(functions, calls) + f"""
var seconds = {json.dumps([call.seconds for call in calls])}, groups = {json.dumps(groups)};
var clock = 0, log = alert, RealDate = Date;
Date = class extends RealDate {{
  constructor(...given) {{ if (given.length) super(...given); else super(clock * 1000); }}
}};
function FindProxyForURL(url, host) {{
  var asked = /^c(\\d+)\\.test$/.exec(host);
  if (asked) {{
    log('#' + asked[1] + '\\n' + groups[asked[1]].map(function (number) {{
      clock = seconds[number];
      return show(calls[number]);
    }}).join('\\n'));
  }}
  return 'PROXY 127.0.0.1:' + PROXY_PORT;
}}
"""


def answers_of_groups(groups, alerts):
    """The answers to the calls, taken from the alerts of browser_script()."""
    answers = {}
    for alert in alerts:
        if not alert.startswith("#"):
            continue
        head, *lines = alert[1:].split("\n")
        for number, line in zip(groups[int(head)], lines, strict=True):
            if answers.setdefault(number, line) != line:
                raise RuntimeError(f"two answers to call {number}: {answers[number]}, {line}")
    missing = sum(map(len, groups)) - len(answers)
    if missing:
        raise RuntimeError(f"{missing} calls were not answered")
    return [answers[number] for number in sorted(answers)]


def of_chromium(functions, calls, zone):
    groups = _groups(calls)
    urls = [f"http://c{number}.test/" for number in range(len(groups))]
    rules = ",".join(f"MAP {name} {f'[{ip}]' if ':' in ip else ip}" for name, ip in NAMES.items())
    script = browser_script(functions, calls, groups)
    shown = chromium.alerts(script, urls, zone, [f"--host-resolver-rules={rules}"])
    return answers_of_groups(groups, shown)


def of_firefox(calls, zone):
    groups = _groups(calls)
    urls = [f"http://c{number}.test/" for number in range(len(groups))]
    return answers_of_groups(groups, firefox.alerts(browser_script([], calls, groups), urls, zone))


def of_ours(build, functions, calls, zone, folder):
    path = os.path.join(folder, "ours.pac")
    with open(path, "w", encoding="utf-8") as file:
        file.write(_script(functions, calls) +
                   "function FindProxyForURL(url, host) { return show(calls[host]) }\n")
    questions = "".join(f"{call.seconds}\t\t{number}\n" for number, call in enumerate(calls))
    program = os.path.join(build, "out", "tests", "browser_answers")
    done = subprocess.run([program, path, *(f"{name}={ip}" for name, ip in NAMES.items())],
                          input=questions, capture_output=True, text=True, check=False,
                          env={**os.environ, "TZ": zone})
    if done.returncode != 0:
        raise RuntimeError(f"browser_answers: {done.stderr}")
    return done.stdout.splitlines()
