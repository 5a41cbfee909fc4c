"""Random whole scripts. They have rules like those that authors write, for URLs and for names with given
addresses."""

from calls import MONTHS, WEEKDAYS, Call, Calls

# There are only a few names, because one evaluation tries many scripts, and a browser limits the number
# of names that it looks up in one evaluation.
NAMES = {"www.corp.test": "10.1.2.3", "intra.corp.test": "192.168.7.7", "six.test": "2001:db8::1",
         "far.example.com": "203.0.113.9", "mail.example.com": "172.16.4.4"}
HOSTS = (*NAMES, "missing.test", "intranet", "localhost", "10.1.2.3", "192.168.7.200", "2001:db8::7",
         "WWW.Corp.Test", "a.b.c.d.example.com")
PATHS = ("", "/", "/index.html", "/video/clip.mp4?x=1", "/a.b/c?d=e&f", "/%7Euser/")
NETS = (("10.0.0.0", "255.0.0.0"), ("10.1.2.0", "255.255.255.0"), ("192.168.0.0", "255.255.0.0"),
        ("172.16.0.0", "255.240.0.0"), ("203.0.113.9", "255.255.255.255"), ("0.0.0.0", "0.0.0.0"))
PREFIXES = ("10.0.0.0/8", "2001:db8::/32", "::/0", "192.168.7.0/24", "::ffff:10.0.0.0/104", "10.0.0.0/33")
ANSWERS = ("'DIRECT'", "'PROXY one.test:8080'", "'PROXY one.test:8080; DIRECT'", "'SOCKS s.test:1080'",
           "`PROXY ${host}:3128`", "'PROXY ' + proxies[0]", "fallback", "''", "null", "undefined", "7",
           "{ toString() { return 'DIRECT' } }", "[ 'DIRECT' ]", "new String('DIRECT')", "answerOf(host)")
# _odd() leaves out calls that begin with these texts: lookups, because the rules of the scripts look up
# only known names, and brackets, because they are an intended difference.
NOT_ODD = ("dnsResolve", "isResolvable", "isInNet", "myIpAddress", "isPlainHostName('[")


class Scripts:
    def __init__(self, seed, zone):
        self.calls = Calls(f"scripts {seed}", zone)
        self.random = self.calls.random

    def draw(self, count):
        """@return `count` functions that return FindProxyForURL, and calls of them as `scripts[i]`"""
        functions, calls = [], []
        for number in range(count):
            functions.append(self._script())
            moment = self.calls.moment()
            for _ in range(4):
                host = self._pick(*HOSTS)
                shown = f"[{host}]" if ":" in host else host
                url = f"{self._pick('http', 'https', 'ftp', 'ws')}://{shown}{self._pick(*PATHS)}"
                calls.append(Call(f"scripts[{number}]()('{url}', '{host}')", moment))
        return functions, calls

    def _pick(self, *choices):
        return self.random.choice(choices)

    def _script(self):
        head = [self._pick("", "", "'use strict';"),
                "var proxies = ['one.test:8080', 'two.test:3128'];",
                self._pick("const", "let", "var") + " fallback = 'PROXY last.test:80; DIRECT';",
                "function answerOf(host) {",
                f"  {self._pick('if', 'while')} ({self._condition()}) return {self._answer(False)};",
                f"  return {self._answer(False)};", "}"]
        body = [line for _ in range(self.random.randint(1, 5)) for line in self._statement(1)]
        whole = ["function FindProxyForURL(url, host) {", *body, f"  return {self._answer()};", "}"]
        return "function () {\n" + "\n".join([*head, *whole, "return FindProxyForURL;"]) + "\n}"

    def _answer(self, calls=True):
        return self._pick(*ANSWERS[:7], *ANSWERS[:7], *(ANSWERS if calls else ANSWERS[:-1]))

    def _statement(self, depth):
        pad = "  " * depth
        kind = self._pick("if", "if", "if", "else", "nested", "some", "for", "try", "switch", "var", "map")
        inner = lambda: [f"{pad}  return {self._answer()};"]  # noqa: E731
        if kind == "nested" and depth < 3:
            return [f"{pad}if ({self._condition()}) {{", *self._statement(depth + 1), pad + "}"]
        if kind == "else":
            return [f"{pad}if ({self._condition()}) {{", *inner(), f"{pad}}} else if ({self._condition()}) {{",
                    *inner(), pad + "}"]
        if kind == "some":
            return [f"{pad}if (['.corp.test', 'example.com', ''].some(d => dnsDomainIs(host, d) && "
                    f"{self._condition()})) return {self._answer()};"]
        if kind == "for":
            return [f"{pad}for (var i = 0; i < proxies.length; i++)",
                    f"{pad}  if ({self._condition()} && i == {self._pick(0, 1, 2)}) return proxies[i];"]
        if kind == "try":
            return [f"{pad}try {{", f"{pad}  if ({self._odd()}) return {self._answer()};",
                    f"{pad}}} catch (error) {{", f"{pad}  if ({self._condition()}) return error.name;", pad + "}"]
        if kind == "switch":
            return [f"{pad}switch ({self._pick('dnsDomainLevels(host)', 'host', 'new Date().getDay()')}) {{",
                    f"{pad}case {self._pick(0, 1, 2, 3)}: return {self._answer()};",
                    f"{pad}case 'intranet': if ({self._condition()}) return {self._answer()};", pad + "}"]
        if kind == "var":
            return [f"{pad}var ip = {self._pick('dnsResolve(host)', 'myIpAddress()', 'dnsResolveEx(host)')};",
                    f"{pad}if (ip && isInNet(ip, {self._net()})) return `PROXY ${{ip}}:8080`;"]
        if kind == "map":
            return [pad + "{", f"{pad}const zones = new Map([['corp', 1], ['example', 2]]);",
                    f"{pad}for (const [zone, n] of zones) if (host.includes(zone) && {self._condition()}) "
                    "return `${zone}${n}`;", pad + "}"]
        return [f"{pad}if ({self._condition()}) {{", *inner(), pad + "}"]

    def _net(self):
        return "'{}', '{}'".format(*self._pick(*NETS))

    def _condition(self):
        return self._pick(
            "isPlainHostName(host)", f"dnsDomainIs(host, '{self._pick('.corp.test', '.com', 'test', '.Test')}')",
            f"localHostOrDomainIs(host, '{self._pick('www.corp.test', 'intranet.corp.test')}')",
            f"dnsDomainLevels(host) {self._pick('>', '==', '<')} {self._pick(0, 1, 2)}",
            f"shExpMatch({self._pick('url', 'host')}, '{self._pick('*.corp.test', '*/video/*', 'http*', '*.(com|org)', '1?.*', '*://*:*')}')",
            f"isInNet({self._pick('host', 'dnsResolve(host)', 'myIpAddress()')}, {self._net()})",
            f"isInNetEx({self._pick('host', 'dnsResolveEx(host)')}, '{self._pick(*PREFIXES)}')",
            "isResolvable(host)", "isResolvableEx(host)", "isValidIpAddress(host)",
            "sortIpAddressList(host + ';::1')", "convert_addr(myIpAddress()) < 0",
            f"weekdayRange('{self._pick(*WEEKDAYS)}', '{self._pick(*WEEKDAYS)}')",
            f"dateRange({self.random.randint(1, 28)}, '{self._pick(*MONTHS)}', {self.random.randint(1, 31)}, '{self._pick(*MONTHS)}')",
            f"timeRange({self.random.randint(0, 12)}, {self.random.randint(12, 23)})",
            f"timeRange({self.random.randint(0, 23)}, 30, {self.random.randint(0, 23)}, 15{self._pick('', ', `GMT`')})",
            "url.substring(0, 6) == 'https:'", "/^[a-z]+:\\/\\/[^/]*corp/i.test(url)", "host.split('.').length > 2",
            "new Date().getHours() % 2", "host.match(/(\\w+)\\.(\\w+)$/)?.[2] == 'test'", "host in wdays",
            "url.length > 30", self._odd())

    def _odd(self):
        """Any call of a helper that does not look up a name."""
        while True:
            expression = self.calls.draw().expression
            if not expression.startswith(NOT_ODD):
                return expression
