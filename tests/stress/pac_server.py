"""A server of PAC scripts that answers well, slowly, wrongly or not at all, by a seeded choice.

Every script that it sends is a new one, with a number that its answers carry, or the last one once
more. It tells the oracle before it sends the last piece of one.
"""

import functools
import hashlib
import random
import threading
import time

from oracle import answer_of
from support.web import Web, reset, response

# Kind of answer and how often it comes. The last two hold the daemon up for its own limits.
KINDS = {
    "well": 40, "again": 8, "slowly": 10, "redirect": 5, "404 script": 4,
    "404": 5, "refused": 5, "cut": 5, "endless": 4, "announced": 3, "redirects": 3, "reset": 3,
    "empty": 3, "late": 2, "endless load": 0.4, "silent": 0.3,
}
PIECES = 8
ENDLESS = b"// more and more FindProxyForURL\n" * 2000
SILENCE = 31.0  # seconds; the daemon waits 30 for a download


def _function(serial):
    texts = answer_of(serial, "HOST")
    # Blanks before an entry do not count, and an unknown one is left out.
    result = "; ".join((*texts, "HTTPS unknown:1") if serial % 3 == 0 else texts)
    result = result.replace("HOST", '" + host + "').replace("; ", ";  \\t" if serial % 2 else ";")
    work = "var n = 0; while (n < 200000) n++;" if serial % 4 == 2 else ""
    return f'function FindProxyForURL(url, host) {{ {work} return "{result}"; }}\n'


def script_text(serial, broken=False, endless=False):
    """Script `serial`, of a digest without a zero byte: the daemon compares digests up to one."""
    body = "for (;;);\n" * endless + _function(serial) + "} else {\n" * broken
    for salt in range(1000):
        text = f"// {serial} {salt}\n{body}".encode()
        if 0 not in hashlib.md5(text).digest():
            return text
    raise AssertionError("no digest without a zero byte")


class PacServer:
    """Answers every path. `well` makes it answer well alone, from then on."""

    def __init__(self, oracle, seed, port=0):
        self._oracle, self._choice = oracle, random.Random(f"{seed}/server")
        self._lock = threading.Lock()
        self._serial = 0
        self._last = None  # number, text and whether it answers, of the script sent last
        self.well = False
        self.counts = dict.fromkeys(KINDS, 0)
        self._web = Web("127.0.0.1", port)
        self._web.routes = self
        self.url = self._web.url

    def close(self):
        self._web.close()

    def get(self, path):
        """The route for any path, for Web."""
        return functools.partial(self._answer, path)

    def last_serial(self):
        with self._lock:
            return self._last and self._last[0]

    def _answer(self, path, connection, web):
        self._oracle.request_came(time.monotonic())
        web.requests.clear()
        with self._lock:
            kind = self._choice.choices(list(KINDS), KINDS.values())[0]
            wait = self._choice.uniform(0.1, 1.5)
            if path.startswith("/to/") or self.well:
                kind = "well"
            elif path.startswith("/again/"):
                kind = "redirects"
            if kind == "again" and self._last is None:
                kind = "well"
            self.counts[kind] += 1
        getattr(self, "_" + kind.replace(" ", "_"))(connection, wait)

    def _script(self, connection, text, serial, answers, pause=0.0, **options):
        message = response(text, **options)
        step = len(message) // PIECES + 1
        pieces = [message[at:at + step] for at in range(0, len(message), step)]
        for piece in pieces[:-1] if pause else ():
            connection.sendall(piece)
            time.sleep(pause / PIECES)
        with self._lock:
            self._last = serial, text, answers
            self._oracle.script_sent(time.monotonic(), serial, answers)
        connection.sendall(pieces[-1] if pause else message)

    def _new(self, connection, answers=True, pause=0.0, options=(), **text):
        with self._lock:
            self._serial += 1
            serial = self._serial
        self._script(connection, script_text(serial, **text), serial, answers, pause,
                     **dict(options))

    def _well(self, connection, _):
        self._new(connection)

    def _again(self, connection, _):
        with self._lock:
            serial, text, answers = self._last
        self._script(connection, text, serial, answers)

    def _slowly(self, connection, wait):
        self._new(connection, pause=wait)

    def _redirect(self, connection, _):
        connection.sendall(response(status="302 Found", headers=("Location: /to/script",)))

    def _404_script(self, connection, _):
        self._new(connection, options={"status": "404 Not Found"})

    def _404(self, connection, _):
        connection.sendall(response("<html>not here</html>", status="404 Not Found"))

    def _refused(self, connection, _):
        self._new(connection, answers=False, broken=True)

    def _endless_load(self, connection, _):
        self._new(connection, answers=False, endless=True)

    def _cut(self, connection, _):
        message = response(_function(0) + " " * 1000)
        connection.sendall(message[:-500])

    def _endless(self, connection, _):
        connection.sendall(response(length=False))
        while True:  # until the daemon has had enough
            connection.sendall(ENDLESS)

    def _announced(self, connection, _):
        connection.sendall(response(length=False)[:-2] + b"Content-Length: 512001\r\n\r\n")

    def _redirects(self, connection, _):
        connection.sendall(response(status="302 Found", headers=("Location: /again/",)))

    def _reset(self, connection, _):
        reset(connection)

    def _empty(self, connection, _):
        pass

    def _late(self, connection, wait):
        time.sleep(wait)

    def _silent(self, connection, _):
        time.sleep(SILENCE)
