"""A server of PAC scripts that answers correctly, slowly, wrongly or not at all. Random numbers with a seed
choose the kind of answer.

The server sends a new script, or the last script again. Each script has a number, which its answers contain.
Before the server sends the last piece of a script, it reports this to the oracle.
"""

import functools
import hashlib
import random
import threading
import time

from oracle import answer_of
from support.web import Web, reset, response

# The kinds of answers and their frequency. The last two kinds continue until the daemon's own
# limits end them.
KINDS = {
    "well": 40, "again": 8, "slowly": 10, "redirect": 5, "404 script": 4,
    "404": 5, "refused": 5, "cut": 5, "endless": 4, "announced": 3, "redirects": 3, "reset": 3,
    "empty": 3, "late": 2, "endless load": 0.4, "silent": 0.3,
}
PIECES = 8
ENDLESS = b"// more and more FindProxyForURL\n" * 2000
SILENCE = 31.0  # seconds; the daemon waits 30 s for a download


def _function(serial):
    texts = answer_of(serial, "HOST")
    # The daemon ignores blanks before an entry and omits an unknown entry.
    result = "; ".join((*texts, "HTTPS unknown:1") if serial % 3 == 0 else texts)
    result = result.replace("HOST", '" + host + "').replace("; ", ";  \\t" if serial % 2 else ";")
    work = "var n = 0; while (n < 200000) n++;" if serial % 4 == 2 else ""
    return f'function FindProxyForURL(url, host) {{ {work} return "{result}"; }}\n'


def script_text(serial, broken=False, endless=False):
    """Returns script `serial`. Its digest has no zero byte, because the daemon compares digests only up to
    the first zero byte."""
    body = "for (;;);\n" * endless + _function(serial) + "} else {\n" * broken
    for salt in range(1000):
        text = f"// {serial} {salt}\n{body}".encode()
        if 0 not in hashlib.md5(text).digest():
            return text
    raise AssertionError("no digest without a zero byte")


class PacServer:
    """Answers requests for every path. If `well` is set, all further answers are correct."""

    def __init__(self, oracle, seed, port=0):
        self._oracle, self._choice = oracle, random.Random(f"{seed}/server")
        self._lock = threading.Lock()
        self._serial = 0
        self._last = None  # the last script's number, its text, and whether it has answers
        self.well = False
        self.counts = dict.fromkeys(KINDS, 0)
        self._web = Web("127.0.0.1", port)
        self._web.routes = self
        self.url = self._web.url

    def close(self):
        self._web.close()

    def get(self, path):
        """Takes the place of the method of Web's dictionary of routes: `path` may be any path."""
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
        while True:  # until the daemon ends the connection
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
