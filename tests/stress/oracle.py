"""What the daemon may answer at which moment, and the judgement over what it did answer.

An answer that was asked for at a and received at b was made at one moment in between, which nobody
outside knows. It is right where some moment in [a, b] explains it: one at which a configuration
with the answer's mode, and the script that gives the answer, may have been in force together.

Moments come from outside the daemon alone, never from what it says of itself:

- A configuration may be in force from the call of its update on. It is until the reply of the next
  update, or until an answer is received that only a later one gives.
- A script may be in force from the moment at which the server sends the last piece of it. It surely
  is once a later request reaches the server (a walk ends with the first script that came whole), or
  an answer by that script is received. The script before it may answer until then. An update that
  is called in between ends the transfer if it still lasts: then the script is in doubt, and the one
  before it may answer until an answer by it, or a later script, is known.
- A worker's death is the answer in flight at most: each explains one missing answer whose call
  meets the time from the signal to the end of the process. One that meets the loading of a script
  may be the end of that load; then there is no answer until the next script, and none by this one.

Bounds that are learned late make the judgement milder, never wrong, so answers are judged some
seconds after they came.
"""

import bisect
import math
import re
import threading

HASTE = 5.0  # seconds after which whatever bears on an answer has been told
WRONG_KEPT = 20

_SERIAL = re.compile(r"(?:PROXY|SOCKS) s(\d+)\.")


def answer_of(serial, host):
    """What script `serial` says of `host`, as the daemon lists it."""
    name = f"s{serial}.{host}:1"
    return ([f"PROXY {name}"], [f"PROXY {name}", "DIRECT"], [f"PROXY {name}"],
            [f"SOCKS {name}", f"PROXY second.{name}", "DIRECT"])[serial % 4]


class Config:
    """One configuration: what it answers and when it may be in force."""

    def __init__(self, begin, mode, proxyurl="", pacurl="", user="", password=""):
        self.begin, self.end = begin, math.inf
        self.mode = mode if mode in ("off", "manual", "pacurl", "wpad") else "off"
        self.proxyurl = proxyurl if self.mode == "manual" else ""
        self.texts = (self.mode, self.proxyurl, pacurl if self.mode == "pacurl" else "", "n", user,
                      password)


class Load:
    """One script that came whole: from `begin` on it may be loaded, by `done` it is."""

    def __init__(self, begin, serial, answers, again=False):
        self.begin, self.done, self.end = begin, math.inf, math.inf
        self.serial, self.answers, self.again = serial, answers, again
        self.seen = False  # an answer by it
        self.is_doubtful = False  # an update may have ended its transfer


class Kill:
    def __init__(self, begin):
        self.begin, self.end = begin, math.inf
        self.spent = False  # it has explained a missing answer


class Oracle:
    """Told what happens, by any thread; judges what was answered. Times are of one clock."""

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
        self.doubtful = 0  # loads that may never have been made
        self._last_update = self._last_request = -math.inf
        self.wrong, self.wrong_count = [], 0

    # What happens.

    def update_called(self, now, mode, proxyurl="", pacurl="", user="", password=""):
        with self._lock:
            self.configs.append(Config(now, mode, proxyurl, pacurl, user, password))
            self._last_update = now
            newest = self.loads[-1]
            if newest.done == math.inf and not newest.is_doubtful:
                newest.is_doubtful = True
                self.doubtful += 1

    def update_replied(self, now):
        """The update called last has been answered."""
        with self._lock:
            self._configs_end(len(self.configs) - 1, now)

    def script_sent(self, now, serial, answers=True):
        """The last piece of a script is about to be sent; `answers`: the engine takes it."""
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
        """The daemon asks the server for something: the walk before is over."""
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
        """getProxyurl for a URL of `host`."""
        with self._lock:
            self._answers.append((asked, now, host, tuple(urls)))
            serial = _serial_of(urls)
            if serial is not None:
                self._script_seen(serial, now)
            elif urls and urls[0] == "manual":
                self._config_seen(lambda config: config.proxyurl == urls[-1], now)

    def configured(self, asked, now, texts):
        """getProxyconfig."""
        with self._lock:
            self._answers.append((asked, now, None, tuple(texts)))
            self._config_seen(lambda config: config.texts == tuple(texts), now)

    def _over(self, load, now):
        """The walk that brought `load` is over."""
        if load.is_doubtful and not load.seen:
            load.done = min(load.done, now)
        else:
            self._loaded(load, now)

    def _loaded(self, load, now):
        """`load` is in force by now, if not for long: none before it answers any more."""
        load.done = min(load.done, now)
        index = self.loads.index(load, max(0, len(self.loads) - 8))
        for before in reversed(self.loads[:index][-8:]):
            before.end = min(before.end, load.done)

    def _script_seen(self, serial, now):
        same = [load for load in self.loads[-8:] if load.serial == serial]
        for load in same:
            # One in doubt may not have been loaded if the answer can be its repeat's.
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

    # The judgement.

    def judge(self, until=math.inf):
        """Judges the answers that came before `until`."""
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
        """How many pairs of a configuration and a script explain it."""
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
    """The answer of a configuration that needs no script; never one of one that does."""
    return (config.mode, config.proxyurl) if config.mode in ("off", "manual") else None


def _meet(interval, begin, end):
    return interval.begin <= end and interval.end >= begin and begin <= end


def _meeting(intervals, begin, end):
    """Those of `intervals` that meet [begin, end]; both their ends never fall."""
    if begin > end:
        return []
    last = bisect.bisect_right(intervals, end, key=lambda each: each.begin)
    first = last
    while first > 0 and intervals[first - 1].end >= begin:
        first -= 1
    return intervals[first:last]
