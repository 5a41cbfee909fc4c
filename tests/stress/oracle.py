"""Finds out which answers of the daemon are right at which time, and checks the real answers.

If a question was asked at the time a and its answer was received at b, the daemon made the answer at some
time between a and b. The oracle does not know the exact time. The answer is right if some time in [a, b]
explains it: at that time, a configuration with the answer's mode and the script with this answer may have
been in force together.

The oracle takes all times from outside the daemon, never from reports of the daemon:

- A configuration may be in force from the call of its update. It may be in force until the reply of the
  next update, or until an answer is received that only a later configuration can give.
- A script may be in force from the time at which the server sends its last piece. It is certainly in force
  when a later request reaches the server (a walk ends with the first complete script), or when an answer of
  that script is received. Until then, the previous script may also answer. If an update is called before one
  of these events, the update may end the transfer. The script is then in doubt: the previous script may
  answer until an answer of this script, or a later script, is known.
- The death of a worker costs at most the answer in progress. Each death explains one missing answer, if its
  call overlaps the time from the signal to the end of the process. A death that overlaps the load of a
  script may end that load. Then this script never answers, and there is no answer until the next script.

If the end of an interval is not known yet, the oracle may accept a wrong answer, but it never refuses a
right one. So answers are judged some seconds after they were received.
"""

import bisect
import math
import re
import threading

HASTE = 5.0  # seconds after an answer; by then, all events that concern the answer have been reported
WRONG_KEPT = 20

_SERIAL = re.compile(r"(?:PROXY|SOCKS) s(\d+)\.")


def answer_of(serial, host):
    """Returns the answer of script `serial` for `host`, in the form of the daemon's list."""
    name = f"s{serial}.{host}:1"
    return ([f"PROXY {name}"], [f"PROXY {name}", "DIRECT"], [f"PROXY {name}"],
            [f"SOCKS {name}", f"PROXY second.{name}", "DIRECT"])[serial % 4]


class Config:
    """One configuration: its answers, and the time in which it may be in force."""

    def __init__(self, begin, mode, proxyurl="", pacurl="", user="", password=""):
        self.begin, self.end = begin, math.inf
        self.mode = mode if mode in ("off", "manual", "pacurl", "wpad") else "off"
        self.proxyurl = proxyurl if self.mode == "manual" else ""
        self.texts = (self.mode, self.proxyurl, pacurl if self.mode == "pacurl" else "", "n", user,
                      password)


class Load:
    """One complete script. From `begin` it may be loaded, and at `done` it is certainly loaded."""

    def __init__(self, begin, serial, answers, again=False):
        self.begin, self.done, self.end = begin, math.inf, math.inf
        self.serial, self.answers, self.again = serial, answers, again
        self.seen = False  # an answer of this script was received
        self.is_doubtful = False  # an update may have ended its transfer


class Kill:
    def __init__(self, begin):
        self.begin, self.end = begin, math.inf
        self.spent = False  # this death has explained a missing answer


class Oracle:
    """Gets reports of all events, from any thread, and judges the answers. All times are of one clock."""

    def __init__(self):
        self._lock = threading.Lock()
        self.configs = [Config(-math.inf, "off")]
        self.loads = [Load(-math.inf, None, False)]  # no script yet
        self.loads[0].done = -math.inf
        self.kills = []
        self._answers = []
        self.judged = self.ambiguous = self.without_script = 0
        self.missing_by_kill = self.missing_by_lost_load = 0
        self.content_changes = 0
        self.doubtful = 0  # loads that may never have happened
        self._last_update = self._last_request = -math.inf
        self.wrong, self.wrong_count = [], 0

    # The events.

    def update_called(self, now, mode, proxyurl="", pacurl="", user="", password=""):
        with self._lock:
            self.configs.append(Config(now, mode, proxyurl, pacurl, user, password))
            self._last_update = now
            newest = self.loads[-1]
            if newest.done == math.inf and not newest.is_doubtful:
                newest.is_doubtful = True
                self.doubtful += 1

    def update_replied(self, now):
        """Records that the last update has been answered."""
        with self._lock:
            self._configs_end(len(self.configs) - 1, now)

    def script_sent(self, now, serial, answers=True):
        """Records that the last piece of a script is about to be sent. `answers` is true if the engine
        accepts the script."""
        with self._lock:
            before = self.loads[-1]
            self._over(before, now)
            again = before.serial == serial
            self.content_changes += not again
            self.loads.append(Load(now, serial, answers, again))
            if self._last_update > self._last_request:
                self.loads[-1].is_doubtful = True
                self.doubtful += 1

    def request_came(self, now):
        """Records that the daemon has sent a request to the server, so the previous walk is
        over."""
        with self._lock:
            self._over(self.loads[-1], now)
            self._last_request = now

    def kill_sent(self, now):
        with self._lock:
            self.kills.append(Kill(now))
            return self.kills[-1]

    def kill_over(self, kill, now):
        with self._lock:
            kill.end = now

    def answered(self, asked, now, host, urls):
        """Records the answer of getProxyurl for a URL of `host`."""
        with self._lock:
            self._answers.append((asked, now, host, tuple(urls)))
            serial = _serial_of(urls)
            if serial is not None:
                self._script_seen(serial, now)
            elif urls and urls[0] == "manual":
                self._config_seen(lambda config: config.proxyurl == urls[-1], now)

    def configured(self, asked, now, texts):
        """Records the answer of getProxyconfig."""
        with self._lock:
            self._answers.append((asked, now, None, tuple(texts)))
            self._config_seen(lambda config: config.texts == tuple(texts), now)

    def _over(self, load, now):
        """Handles the end of the walk that fetched `load`."""
        if load.is_doubtful and not load.seen:
            load.done = min(load.done, now)
        else:
            self._loaded(load, now)

    def _loaded(self, load, now):
        """Records that `load` has been in force. A later load may be in force by now, but no earlier
        script can answer."""
        load.done = min(load.done, now)
        index = self.loads.index(load, max(0, len(self.loads) - 8))
        for before in reversed(self.loads[:index][-8:]):
            before.end = min(before.end, load.done)

    def _script_seen(self, serial, now):
        same = [load for load in self.loads[-8:] if load.serial == serial]
        for load in same:
            # If the answer can also come from a repetition of this script, a load in doubt has
            # perhaps not happened.
            if not load.again and (len(same) == 1 or load.seen or not load.is_doubtful):
                self._loaded(load, now)
                load.seen = True

    def _configs_end(self, index, now):
        for config in reversed(self.configs[max(0, index - 8):index]):
            config.end = min(config.end, now)

    def _config_seen(self, gives, now):
        matching = [index for index in range(max(0, len(self.configs) - 8), len(self.configs))
                    if gives(self.configs[index])]
        if len(matching) == 1:
            self._configs_end(matching[0], now)

    # The check of the answers.

    def judge(self, until=math.inf):
        """Judges the answers that were received before `until`."""
        with self._lock:
            due = sorted((answer for answer in self._answers if answer[1] < until),
                         key=lambda answer: answer[1])
            self._answers = [answer for answer in self._answers if answer[1] >= until]
            for answer in due:
                self._judge(*answer)

    def _judge(self, asked, now, host, texts):
        self.judged += 1
        configs = _meeting(self.configs, asked, now)
        if not texts:
            explained = 0
        elif host is None:
            explained = sum(config.texts == texts for config in configs)
        elif texts[0] in ("off", "manual"):
            explained = sum(_plain(config) == texts for config in configs)
        else:
            explained = self._by_scripts(asked, now, host, texts,
                                         [each for each in configs if each.mode == texts[0]])
        self.ambiguous += explained > 1
        if not explained:
            self.wrong_count += 1
            if len(self.wrong) < WRONG_KEPT:
                self.wrong.append(self._describe(asked, now, host, texts, configs))

    def _by_scripts(self, asked, now, host, texts, configs):
        """Returns how many pairs of a configuration and a script explain the answer."""
        spans = [(max(asked, config.begin), min(now, config.end)) for config in configs]
        if len(texts) == 1:
            return self._missing(spans)
        serial = _serial_of(texts)
        if serial is None or list(texts[1:]) != answer_of(serial, host):
            return 0
        return sum(load.serial == serial and load.answers
                   for begin, end in spans for load in _meeting(self.loads, begin, end))

    def _missing(self, spans):
        meeting = [load for begin, end in spans for load in _meeting(self.loads, begin, end)]
        if any(not load.answers for load in meeting):
            self.without_script += 1
            return 1
        for kill in self.kills:
            if not kill.spent and any(_meet(kill, *span) for span in spans):
                kill.spent = True
                self.missing_by_kill += 1
                return 1
        if any(self._may_be_lost(load) for load in meeting):
            self.missing_by_lost_load += 1
            return 1
        return 0

    def _may_be_lost(self, load):
        return (load.again or not load.seen) and any(
            _meet(kill, load.begin, load.done) for kill in self.kills)

    def _describe(self, asked, now, host, texts, configs):
        told = [f"asked at {asked:.4f}, answered at {now:.4f}, of {host}: {texts}"]
        told += [f"  configuration {each.begin:.4f} to {each.end:.4f}: {each.texts}"
                 for each in configs]
        told += [f"  script {each.serial} {each.begin:.4f}, loaded by {each.done:.4f}, to "
                 f"{each.end:.4f}, answers: {each.answers}"
                 for each in _meeting(self.loads, asked - 1, now + 1)]
        told += [f"  death {each.begin:.4f} to {each.end:.4f}, spent: {each.spent}"
                 for each in self.kills if _meet(each, asked - 1, now + 1)]
        return "\n".join(told)


def _serial_of(urls):
    found = _SERIAL.match(urls[1]) if len(urls) > 1 else None
    return int(found[1]) if found else None


def _plain(config):
    """Returns the answer of a configuration that needs no script, else None."""
    return (config.mode, config.proxyurl) if config.mode in ("off", "manual") else None


def _meet(interval, begin, end):
    return interval.begin <= end and interval.end >= begin and begin <= end


def _meeting(intervals, begin, end):
    """Returns the elements of `intervals` that overlap [begin, end]. The begins of `intervals`, and
    their ends, are in ascending order."""
    if begin > end:
        return []
    last = bisect.bisect_right(intervals, end, key=lambda each: each.begin)
    first = last
    while first > 0 and intervals[first - 1].end >= begin:
        first -= 1
    return intervals[first:last]
