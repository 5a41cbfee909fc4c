"""Runs proxymanagerctl as a process."""

import json
import os
import pty
import re
import select
import subprocess
import time

from .bus import wait_until
from .web import script

LIMIT = 60  # seconds for any run: a script may take 5 to load and 5 for each URL
ANSWERED, NO_ANSWER, REFUSED = 0, 1, 2
USAGE, BAD_DATA, NO_INPUT, UNAVAILABLE, OUTPUT, TRY_AGAIN, PROTOCOL, DENIED = (
    64, 65, 66, 69, 74, 75, 76, 77)
START_IT = 'start it, for instance with "systemctl start proxymanagerd"'
NOT_ALLOWED = "root may, and so may members of the group proxymanager"
MAX_URL = 65535  # bytes
# The arguments of each command, for tests in which the arguments have no effect.
COMMANDS = {"get": ["http://a/"], "config": [], "off": [], "manual": ["http://p:1"],
            "pacurl": ["http://p/x.pac"], "wpad": [], "exec": ["http://a/", "--", "true"],
            "status": [], "watch": []}
# The value of no_proxy that exec and get --format env set: this machine and the local link.
NO_PROXY = "localhost,.localhost,127.0.0.1,::1,127.0.0.0/8,0.0.0.0,169.254.0.0/16,fe80::/10"
# The variables that exec and get --format env may set.
VARIABLES = ["ALL_PROXY", "HTTPS_PROXY", "HTTP_PROXY", "NO_PROXY", "all_proxy", "http_proxy",
             "https_proxy", "no_proxy"]


class Result:
    def __init__(self, status, output, errors):
        self.status = status
        self.output = output.decode()
        self.errors = errors.decode()
        assert "Sanitizer" not in self.errors, self.errors

    @property
    def json(self):
        return json.loads(self.output)

    @property
    def results(self):
        return [answer["result"] for answer in self.json]


class Ctl:
    """Runs the program, by default without a bus."""

    def __init__(self, path, bus="unix:path=/run/no_bus", wrapper=()):
        self.path = path
        self.bus = bus
        self.wrapper = list(wrapper)

    def variables(self, environment=None):
        variables = {"PATH": "/usr/bin:/bin", "LC_ALL": "C", "DBUS_SYSTEM_BUS_ADDRESS": self.bus,
                     **(environment or {})}
        variables.update({name: value for name, value in os.environ.items()
                          if name.endswith("SAN_OPTIONS")})
        return {name: value for name, value in variables.items() if value is not None}

    def __call__(self, *arguments, script=b"", wrapper=(), environment=None, stdout=subprocess.PIPE):
        run = subprocess.run([*wrapper, *self.wrapper, self.path, *arguments],
                             env=self.variables(environment), stderr=subprocess.PIPE,
                             input=script if isinstance(script, bytes) else script.encode(),
                             stdout=stdout, timeout=LIMIT)
        return Result(run.returncode, run.stdout or b"", run.stderr)

    def eval(self, script, *arguments, **options):
        """Evaluates `script`, which it gives through standard input, and returns the answers."""
        result = self("pac", "eval", "--json", "-", *arguments, script=script, **options)
        assert result.status == ANSWERED, result.errors + result.output
        return result.results

    def start(self, *arguments, environment=None):
        """Runs the program while the test continues; its output is read line by line."""
        return Running([*self.wrapper, self.path, *arguments], self.variables(environment))

    def on_terminal(self, *arguments, environment=None):
        """Runs the program at a pseudo-terminal."""
        return Terminal([*self.wrapper, self.path, *arguments],
                        self.variables({"TERM": "xterm", **(environment or {})}))


class Reader:
    """Collects the text from a descriptor, and waits for expected text."""

    def __init__(self, fd):
        self._fd = fd
        self.seen = ""

    def wait(self, pattern, limit=LIMIT):
        """Reads until `pattern` is found after the last match. Returns the match."""
        end = time.monotonic() + limit
        while not (found := re.search(pattern, self.seen, re.DOTALL)):
            assert self._more(end), f"no {pattern!r} in {self.seen!r}"
        self.seen = self.seen[found.end():]
        return found

    def rest(self, limit=LIMIT):
        end = time.monotonic() + limit
        while self._more(end):
            pass
        rest, self.seen = self.seen, ""
        return rest

    def _more(self, end):
        ready, _, _ = select.select([self._fd], [], [], max(end - time.monotonic(), 0))
        assert ready, f"nothing more within the time: {self.seen!r}"
        try:
            piece = os.read(self._fd, 65536)
        except OSError:  # no process has the terminal open any more
            piece = b""
        self.seen += piece.decode("utf-8", "replace")
        return piece != b""


class Running:
    def __init__(self, command, variables):
        self.process = subprocess.Popen(command, env=variables, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.output = Reader(self.process.stdout.fileno())

    def end(self, number=None):
        """Waits for the end, after the signal `number` if one is given. Returns the status and
        the text of standard error."""
        if number is not None:
            self.process.send_signal(number)
        status = self.process.wait(LIMIT)
        errors = self.process.stderr.read().decode()
        self.process.stdout.close()
        self.process.stderr.close()
        assert "Sanitizer" not in errors, errors
        return status, errors


class Terminal:
    """A process whose standard descriptors are its controlling terminal."""

    def __init__(self, command, variables):
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            os.execvpe(command[0], command, variables)
        self.output = Reader(self.fd)

    def type(self, text):
        os.write(self.fd, text.encode())

    def end(self):
        """The rest of the output, and the status."""
        rest = self.output.rest()
        _, status = os.waitpid(self.pid, 0)
        os.close(self.fd)
        return os.waitstatus_to_exitcode(status), rest


def said(result):
    """The status, and the one line of standard error."""
    assert result.output == "" and result.errors.count("\n") == 1, result.errors
    return result.status, result.errors.removeprefix("proxymanagerctl: ").rstrip("\n")


def rows(output):
    """The table's values by their names; None for the title."""
    lines = output.splitlines()
    return {None: lines[0], **{line[2:].split("  ")[0]: line[2:].split("  ", 1)[1].strip()
                               for line in lines[1:]}}


def answering(client, web, answer, **options):
    """Makes the daemon use a script that returns `answer` for all URLs."""
    web.routes["/p.pac"] = script(answer)
    client.update("pacurl", pacurl=web.url("/p.pac"), **options)
    # The daemon first accepts this configuration; an earlier script answers until the new script is loaded.
    taken = [piece.strip() for piece in answer.split(";")
             if piece.strip().split(" ")[0] in ("DIRECT", "PROXY", "SOCKS")]
    wait_until(lambda: client.urls("http://ready.example/")[1:] == taken, "the script answers")


def commands(*left_out):
    return [(name, arguments) for name, arguments in COMMANDS.items() if name not in left_out]


def sleeps(pid):
    with open(f"/proc/{pid}/stat") as stat:
        return stat.read().rpartition(")")[2].split()[0] == "S"
