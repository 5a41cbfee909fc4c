"""Makes random calls of the helpers of PAC scripts: with sensible arguments, almost correct ones
and junk.

A call is a JavaScript expression and the time at which it is evaluated.
"""

import calendar
import datetime
import random
import zoneinfo
from dataclasses import dataclass

# Three zones. Berlin: Central Europe. Chatham: the offset is not a whole number of hours (it ends with
# 45 minutes), summer is in December, and for half of each day the date is not that of GMT. Los Angeles:
# for a third of each day the date is not that of GMT.
ZONES = ("Europe/Berlin", "Pacific/Chatham", "America/Los_Angeles")
UTC = datetime.timezone.utc

WEEKDAYS = ("SUN", "MON", "TUE", "WED", "THU", "FRI", "SAT")
MONTHS = ("JAN", "FEB", "MAR", "APR", "MAY", "JUN", "JUL", "AUG", "SEP", "OCT", "NOV", "DEC")

JUNK = (
    "undefined", "null", "true", "false", "0", "-0", "1", "-1", "1.5", "7", "15", "2026", "NaN",
    "Infinity", "-Infinity", "1e21", "2147483648", "4294967296", "-2147483649", "''", "' '", "'.'",
    "'abc'", "'0'", "'7'", "' 7 '", "'7abc'", "'1e3'", "'0x10'", "'-1'", "'null'", "'undefined'",
    "'NaN'", "'length'", "'__proto__'", "'constructor'", "'toString'", "{}", "[]", "[1]", "['a']",
    "['SUN']", "['JAN']", "['GMT']", "[1, 2]", "['10.0.0.1']", "new String('www.a.test')",
    "new String('GMT')", "new String('MON')", "new String('10.0.0.1')", "new String('*')",
    "new Number(3)", "new Boolean(false)", "Symbol('s')", "Symbol.iterator", "10n", "-3n",
    "/a.c/", "/./g", "function () {}", "(a, b) => a", "new Date(0)", "new Date(NaN)", "Math",
    "Object.create(null)", "{toString() { return 'a.test' }}", "{toString() { return '*' }}",
    "{toString() { return 'GMT' }}", "{toString() { return 5 }}", "{valueOf() { return 3 }}",
    "{toString() { return {} }, valueOf() { return {} }}",
    "{toString() { throw new RangeError('mine') }}", "{valueOf() { throw new EvalError('mine') }}",
    "{[Symbol.toPrimitive](hint) { return hint }}",
    "{[Symbol.toPrimitive]() { throw 'thrown text' }}", "{length: 3}",
    "{length: 3, substring(a, b) { return '.a' }}", "{length: '5', substring: String}",
    "{length: 1, indexOf: () => 0}", "{split: () => ['a', 'b', 'c']}", "{split: () => 7}",
    "{replace: () => 'a.*'}", "{replace() { return this }}", "{test: () => true}",
    "{exec: () => null}", "{match: () => null, indexOf: () => -1}",
    "{get length() { throw new URIError('mine') }}", "Object('a.test')", "new Proxy({}, {})",
    "new Proxy([], {})", "'\\u00e9'", "'\\ud800'", "'a\\0b'", "'\\u2028'", "'a\\nb'", "globalThis",
    "'" + "a" * 70 + "'",
)
LABELS = ("www", "a", "b", "corp", "x-1", "_srv", "WWW", "", "xn--bcher-kva", "b\\u00fccher", "10", "0x7f",
          "-", "a b", "com", "test", "example")
DOMAINS = (".test", ".a.test", "a.test", ".TEST", "test", ".", "", ".com", "example.com",
           ".example.com", "..", "t", ".corp.example.com", "m", "www.a.test.")
QUADS = (
    "10.0.0.1", "10.1.2.3", "192.168.0.1", "127.0.0.1", "0.0.0.0", "255.255.255.255",
    "255.255.255.0", "255.255.0.0", "255.0.0.0", "255.0.255.0", "10.0.0.0", "10.0.0.256",
    "300.1.1.1", "010.000.000.001", "08.9.1.1", "0x0a.0.0.1", "0xA.0x0.0.1", "1.2.3", "1.2.3.4.5",
    "1", "", "1.2.3.4 ", " 1.2.3.4", "1.2.3.4.", ".1.2.3.4", "1..3.4", "1.2.3.-4", "+1.2.3.4",
    "1.2.3.4e0", "1.2.3.a", "0001.2.3.4", "1.2.3.0004", "167772161", "0x0a000001", "1.2.3.4\\n",
    "1.2.3.4/8", "1e1.0.0.1", "1.2.3.4%0", "\\u0661.2.3.4", "999.999.999.999", "1,2,3,4",
    "01.02.03.04", "00.00.00.00", "4294967296.1.1.1", "1.65536", "1.2.65535", "127.1",
)
SIXES = (
    "::", "::1", "2001:db8::1", "2001:DB8:0:0:0:0:0:1", "2001:db8::1:0:0:1", "fe80::1", "fe80::1%1",
    "fe80::1%lo", "::ffff:10.0.0.1", "::ffff:0a00:0001", "::10.0.0.1", "[::1]", "[2001:db8::1]",
    "[::1", "::1]", "1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7", "1:2:3:4:5:6:7:8:9", "1::2::3", ":::", ":",
    "2001:db8::g", "12345::", "::1 ", " ::1", "1:2:3:4:5:6:1.2.3.4", "::1.2.3", "::256.1.1.1",
    "0:0:0:0:0:0:0:0", "2001:db8::", "fec0::1", "ff02::1", "::1%", "64:ff9b::10.0.0.1",
    "::01.2.3.4", "::0x1.2.3.4", "a::", "a", "[::ffff:1.2.3.4]", "2002:a00:1::",
)
PATTERNS = (
    "*", "?", "", "*.test", "www.*", "*a*", "*.a.test", "www.a.test", "w?w*", "**", "*?*", "http://*",
    "http://www.a.test/*", "*.TEST", "a|b", "(a|b).test", "(www|corp).*", "[a-z]*", "[^.]*", "a+",
    "w{3}.a.test", "w{3,}", "\\\\d+", "\\\\w*", "^www*", "*test$", "$", "^", "(", ")", "[", "]", "{", "}",
    "(?", "(?:a)", "(?=www)*", "(?<!a)b", "a{2,1}", "\\\\", "\\\\b*", "\\\\u0061", "\\\\x61*", "a\\\\.test",
    "[z-a]", "*.[a-z]{4}", "/*", "*/", "*/path?*", "\\\\.", "x*y*z", "\\u00e9*", "\\n", "*\\n*", "a\\u2028b",
    "(?<n>a)\\\\k<n>", "\\\\k", "\\\\1(a)", "(a)\\\\1", "[.]", "[*]", "[?]", "\\\\*", "\\\\?", "*\\\\", "a**b", "+",
    "++", "a++", "a|", "|", "|b", "[]", "[^]", "-", "#", " ", "\\\\c", "\\\\p{L}*", "[[:alpha:]]*",
    "(?i:WWW).*", "{1}", "a{1", "a{,1}", "x{1,2}{3}", "\\0", "\\\\0", "\\\\/", "/",
)
URLS = ("http://www.a.test/path?x", "http://www.a.test/", "https://b.example.com/", "www.a.test",
        "www.a.testx", "a", "b", "aa", "abc", "", "a.test", "xatest", "aba", "a.b.c", "a\\nb", "a\\u2028b",
        "\\u00e9t\\u00e9", "\\\\", "a*b", "10.0.0.1", "WWW.A.TEST", "axb", "x{1", "|", "..", "/path", "\\0",
        "\\ud83d\\ude00", "[]", "+", "^www", "test$", "corp.x")


def quoted(text):
    return "'" + text.replace("'", "\\'") + "'"


def js_string(text):
    """A string literal. `text` is already escaped for JavaScript, except for single quotes."""
    return quoted(text)


@dataclass(frozen=True)
class Call:
    expression: str
    seconds: int  # since 1970


class Calls:
    """Makes random calls. The same seed and zone always give the same calls."""

    def __init__(self, seed, zone):
        self.random = random.Random(f"{seed} {zone}")
        self.zone = zoneinfo.ZoneInfo(zone)
        self._changes = list(self._zone_changes())
        self._kinds = {
            "isPlainHostName": self._hosts, "dnsDomainIs": self._domains,
            "localHostOrDomainIs": self._local, "dnsDomainLevels": self._hosts,
            "isResolvable": self._hosts, "dnsResolve": self._hosts, "isInNet": self._net,
            "convert_addr": self._quads, "myIpAddress": self._none, "shExpMatch": self._patterns,
            "weekdayRange": self._weekdays, "dateRange": self._dates, "timeRange": self._times,
            "alert": self._quads, "isResolvableEx": self._hosts, "dnsResolveEx": self._hosts,
            "isInNetEx": self._prefixes, "myIpAddressEx": self._none,
            "sortIpAddressList": self._list, "isValidIpAddress": self._quads,
        }
        weights = {"dateRange": 9, "timeRange": 6, "weekdayRange": 5, "shExpMatch": 5, "isInNet": 3,
                   "isInNetEx": 4, "sortIpAddressList": 4, "myIpAddress": 0.2, "myIpAddressEx": 0.2,
                   "alert": 0.3}
        self._names = list(self._kinds)
        self._weights = [weights.get(name, 2) for name in self._names]

    def draw(self):
        name = self.random.choices(self._names, self._weights)[0]
        arguments = self._mangled(self._kinds[name]())
        return Call(f"{name}({', '.join(arguments)})", self.moment())

    # --- arguments ---

    def _pick(self, *choices):
        return self.random.choice(choices)

    def _mangled(self, arguments):
        """Returns the arguments. Sometimes one is junk, one is missing, or there are too many."""
        arguments = list(arguments)
        chance = self.random.random()
        if chance < 0.22 and arguments:
            arguments[self.random.randrange(len(arguments))] = self.random.choice(JUNK)
        elif chance < 0.28:
            arguments = [self.random.choice(JUNK) for _ in range(self.random.randrange(5))]
        elif chance < 0.33 and arguments:
            arguments.pop(self.random.randrange(len(arguments)))
        elif chance < 0.37:
            arguments.append(self.random.choice(JUNK))
        return arguments

    def _name(self):
        labels = [self.random.choice(LABELS) for _ in range(self.random.randint(1, 4))]
        return ".".join(labels) + self._pick("", "", "", ".", ".test", ".a.test", ".example.com")

    def _host(self):
        names = self._pick(*[self._name()] * 9, "localhost", "localhost.", "a.localhost")
        return js_string(self._pick(names, names, self.random.choice(QUADS),
                                    self.random.choice(SIXES)))

    def _hosts(self):
        return [self._host()]

    def _none(self):
        return []

    def _domains(self):
        if self.random.random() < 0.3:
            host, cut = self._name(), self.random.randint(0, 12)
            return [js_string(host), js_string(host[cut:] if "\\" not in host else host)]
        return [self._host(), js_string(self.random.choice(DOMAINS))]

    def _local(self):
        host = self._name()
        if self.random.random() < 0.6:
            first = host.split(".")[0]
            return [js_string(self._pick(host, first, first + ".", first[:1], host + ".a")),
                    js_string(host)]
        return [js_string(host), self._host()]

    def _net(self):
        quad = lambda: js_string(self.random.choice(QUADS))  # noqa: E731
        return [self._pick(self._host(), quad(), quad()), quad(), quad()]

    def _patterns(self):
        return [js_string(self._pick(self.random.choice(URLS), self._name())),
                js_string(self.random.choice(PATTERNS) + self._pick(*[""] * 6, self.random.choice(PATTERNS)))]

    def _quads(self):
        return [js_string(self._pick(self.random.choice(QUADS), self.random.choice(QUADS),
                                     self.random.choice(SIXES)))]

    def _prefixes(self):
        address = self._pick(self.random.choice(QUADS), self.random.choice(SIXES))
        base = self._pick(address, self.random.choice(QUADS), self.random.choice(SIXES))
        length = self._pick(*range(0, 130), *range(0, 33), "", "08", "+8", "-1", " 8", "8 ", "0x8", "1e1",
                            "4294967304", "/8", "a", "255.0.0.0", "008", "00", "8.0", "64/8")
        slash = self._pick(*["/"] * 20, "", " /", "/ ", "\\\\")
        return [js_string(address), js_string(f"{base}{slash}{length}")]

    def _list(self):
        good = ("10.0.0.1", "10.0.0.1", "9.255.0.1", "192.168.1.1", "::1", "2001:db8::1", "2001:db8::2",
                "2001:DB8::1", "::ffff:10.0.0.2", "::ffff:9.0.0.1", "fe80::1", "255.255.255.255", "0.0.0.0",
                "127.0.0.1", "::", "2002:a00:1::", "fec0::1", "ff02::1", "172.16.3.4", "169.254.1.1",
                "2001::1", "3ffe::1", "::10.0.0.1")
        entries = [self.random.choice(good) for _ in range(self.random.randint(0, 7))]
        if self.random.random() < 0.25:
            entries.insert(self.random.randint(0, len(entries)),
                           self._pick("", "", " ", "\\t", self.random.choice(QUADS),
                                      self.random.choice(SIXES), self._name()))
        blank = lambda: self._pick(*[""] * 9, " ", "\\t", "  ", "\\n", "\\u00a0", "\\r", "\\v")  # noqa: E731
        joiner = self._pick(*[";"] * 12, ",", ";;", " ")
        text = joiner.join(blank() + entry + blank() for entry in entries)
        return [js_string(self._pick("", "", "", "", ";") + text + self._pick("", "", "", "", ";"))]

    def _gmt(self, arguments):
        chance = self.random.random()
        if chance < 0.3:
            arguments.append("'GMT'")
        elif chance < 0.34:
            arguments.append(self._pick("'gmt'", "'Gmt'", "'UTC'", "' GMT'", "'GMT '", "new String('GMT')"))
        elif chance < 0.36:
            arguments.insert(0, "'GMT'")
        return arguments

    def _weekday(self):
        return quoted(self._pick(*WEEKDAYS, *WEEKDAYS, *WEEKDAYS, "sun", "Mon", "SUNDAY", "", "GMT"))

    def _weekdays(self):
        return self._gmt([self._weekday() for _ in range(self._pick(0, 1, 1, 2, 2, 2, 2, 3))])

    def _number(self, low, high):
        number = self.random.randint(low, high)
        if self.random.random() < 0.06:
            number = self._pick(low - 1, high + 1, -number, number + 0.5, 0, 100, 1e9)
        return self._pick(*[str(number)] * 8, f"'{number}'", f"'{number}x'", f"'0{number}'")

    def _times(self):
        shape = self._pick((1,), (1,), (1, 1), (1, 1), (2, 2), (2, 2), (2, 2), (3, 3), (3, 3), (1, 2), (3, 2), (3, 3, 1))
        arguments = [self._number(0, limit) for count in shape for limit in (23, 59, 59)[:count]]
        return self._gmt(arguments)

    def _day(self):
        return self._number(1, 31)

    def _month(self):
        return quoted(self._pick(*MONTHS, *MONTHS, *MONTHS, "jan", "Feb", "JANUARY", "XXX"))

    def _year(self):
        year = self._pick(2023, 2024, 2024, 2025, 2026, 2027, 1999, 1970, 1969, 99, 32, 10000)
        return self._pick(*[str(year)] * 6, f"'{year}'")

    def _dates(self):
        day, month, year = self._day, self._month, self._year
        shape = self._pick(
            (day,), (month,), (year,), (day, day), (month, month), (year, year), (day, month) * 2,
            (day, month) * 2, (month, year) * 2, (month, year) * 2, (day, month, year) * 2,
            (day, month, year) * 2, (day, month), (day, month, year), (month, year), (month, day),
            (day, year) * 2, (year, month, day) * 2, (day, month, year, day), (day, month, year, day, month),
            (day, month, year) * 2 + (day,), tuple(self._pick(day, month, year) for _ in range(self._pick(2, 3, 4, 5, 6, 7, 8))))
        return self._gmt([part() for part in shape])

    # --- moments ---

    def _zone_changes(self):
        """The times from 1999 to 2030 at which summer time begins or ends in the zone."""
        hour, at = 3600, int(datetime.datetime(1999, 1, 1, tzinfo=UTC).timestamp())
        end = int(datetime.datetime(2030, 1, 1, tzinfo=UTC).timestamp())
        offset = lambda seconds: datetime.datetime.fromtimestamp(seconds, self.zone).utcoffset()  # noqa: E731
        before = offset(at)
        while at < end:
            after = offset(at + 24 * hour)
            if after != before:
                low, high = at, at + 24 * hour
                while high - low > 1:
                    middle = (low + high) // 2
                    low, high = (middle, high) if offset(middle) == before else (low, middle)
                yield high
            before, at = after, at + 24 * hour

    def moment(self):
        pick, randint = self._pick, self.random.randint
        year = pick(2023, 2024, 2024, 2025, 2026, 2026, 2027, 1999, 2000, 2100)
        kind = pick("any", "any", "month", "month", "year", "summer", "leap")
        if kind == "summer":
            return self.random.choice(self._changes) + pick(0, -1, 1, -3600, 3600, randint(-90000, 90000))
        zone = pick(self.zone, UTC)
        if kind == "year":
            middle = datetime.datetime(year, 1, 1, tzinfo=zone)
        elif kind == "leap":
            middle = datetime.datetime(2024, pick(2, 2, 3), 1, tzinfo=zone) + datetime.timedelta(days=pick(0, 28))
        elif kind == "month":
            middle = datetime.datetime(year, randint(1, 12), 1, tzinfo=zone)
        else:
            month = randint(1, 12)
            middle = datetime.datetime(year, month, randint(1, calendar.monthrange(year, month)[1]),
                                       randint(0, 23), randint(0, 59), randint(0, 59), tzinfo=zone)
        around = pick(0, -1, 1, -3600, 3600, 86399, 86400, -86400, randint(-50000, 50000))
        return int(middle.timestamp()) + around
