"""The client and its answers."""

import ctypes
import enum
import os
import threading
import weakref
from typing import List, NamedTuple, Optional

from . import _library
from ._errors import Status, error, last_error

_LONGEST_MS = 0xFFFFFFFF  # the largest C unsigned: about 49 days


class Kind(enum.IntEnum):
    """How a program uses an entry."""

    UNUSABLE = 0  # an unknown form: try the next entry
    DIRECT = 1
    HTTP = 2
    HTTPS = 3  # an HTTP proxy; the connection to it uses TLS
    SOCKS4 = 4
    SOCKS4A = 5
    SOCKS5 = 6  # the program resolves host names
    SOCKS5H = 7  # the proxy resolves host names


class Entry(NamedTuple):
    """One proxy to try, or DIRECT. A text without a value is empty."""

    kind: Kind
    text: str  # from the daemon, for example "PROXY cache.example.org:8080"
    url: str  # "http://cache.example.org:8080"; "direct://"; empty if unusable
    scheme: str
    credentials: str  # "user:password", percent-encoded; part of url
    host: str
    port: int


class Answer(NamedTuple):
    """The daemon's answer for one URL.

    mode: "off", "manual", "pacurl", "wpad", or "local" if the daemon was not asked
    entries: in the order in which the program tries them; may be empty
    """

    mode: str
    entries: List[Entry]


def _entry(of):
    known = of.kind in Kind.__members__.values()
    return Entry(Kind(of.kind) if known else Kind.UNUSABLE, of.text.decode(), of.url.decode(),
                 of.scheme.decode(), of.credentials.decode(), of.host.decode(), of.port)


class Client:
    """Asks the daemon, and caches its answers until they change.

    Threads may share a client. A forked process may use its copy of a client, which connects again by itself.
    A pickled client becomes an open client with the same options.

    start_daemon: the bus may start the daemon for a question
    ask_local: asks the daemon also about this machine and this link; else they are always direct
    with_credentials: adds the configured user and password to the URL of a manual proxy, if this program
        may read them
    refuse: raises NoAnswer if no entry of an answer can be used; without an answer, the adapters then
        raise an error and do not connect
    timeout: longest wait for an answer in seconds, including the time to connect
    """

    def __init__(self, *, start_daemon: bool = True, ask_local: bool = False,
                 with_credentials: bool = False, refuse: bool = False, timeout: float = 15.0):
        self._timeout = _milliseconds(timeout)
        self.refuse = refuse
        self._flags = ((0 if start_daemon else _library.NO_START)
                       | (_library.ASK_LOCAL if ask_local else 0)
                       | (_library.WITH_CREDENTIALS if with_credentials else 0)
                       | (_library.REFUSE if refuse else 0))
        self._open()

    def _open(self):
        self._closed = False
        self._renew()
        _clients.add(self)

    def __reduce__(self):
        """Describes a copy, for example in a pickled session: the copy is a client with its own
        connection."""
        return _restored, (type(self), self._flags, self.refuse, self._timeout)

    def _renew(self):
        self._lock = threading.Lock()
        self._questions = 0
        self._handle = _library.client_new(self._flags)
        if not self._handle:
            raise error(Status.NO_MEMORY)

    def ask(self, url: str, timeout: Optional[float] = None) -> Answer:
        """Returns the daemon's answer for a URL. With a timeout of 0, returns only a cached answer.

        Raises an Error if there is no answer, and ValueError if the client is closed.
        """
        encoded = url.encode("utf-8", "surrogatepass")
        # For the C library, the URL would end at the NUL.
        if b"\0" in encoded:
            raise error(Status.BAD_ARGUMENT)
        limit = self._timeout if timeout is None else _milliseconds(timeout)
        answer = ctypes.c_void_p()
        self._begin()
        try:
            status = _library.get(self._handle, encoded, limit, ctypes.byref(answer))
            if status != Status.OK:
                raise last_error(status)
        finally:
            self._end()
        try:
            count = _library.answer_count(answer)
            return Answer(_library.answer_mode(answer).decode(),
                          [_entry(_library.answer_entry(answer, index).contents)
                           for index in range(count)])
        finally:
            _library.answer_unref(answer)

    def proxies(self, url: str, timeout: Optional[float] = None) -> List[Entry]:
        """Returns the entries of the answer, in the order in which the program tries them."""
        return self.ask(url, timeout).entries

    def close(self):
        """Ends the connection. If questions wait in other threads, the connection ends after the last of
        them."""
        with self._lock:
            self._closed = True
            handle = self._take()
        _library.client_free(handle)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def __del__(self):
        if getattr(self, "_handle", None):
            _library.client_free(self._handle)

    def _begin(self):
        with self._lock:
            if self._closed:
                raise ValueError("the client is closed")
            self._questions += 1

    def _end(self):
        with self._lock:
            self._questions -= 1
            handle = self._take() if self._closed else None
        _library.client_free(handle)

    def _take(self):
        """Returns the handle if no question uses it; the caller frees it. Else returns None, which
        client_free ignores."""
        if self._questions:
            return None
        handle, self._handle = self._handle, None
        return handle


def _restored(kind, flags, refuse, timeout):
    client = kind.__new__(kind)
    client._flags, client.refuse, client._timeout = flags, refuse, timeout
    client._open()
    return client


def _milliseconds(seconds):
    if not seconds >= 0:  # also false for NaN
        raise ValueError(f"a timeout is 0 or more seconds, not {seconds}")
    return int(min(seconds * 1000, _LONGEST_MS))


_clients = weakref.WeakSet()


def _after_fork():
    """Runs in the child process. Handle and locks belong to the parent's threads, so this function makes new
    ones."""
    for client in list(_clients):
        if not client._closed:
            _library.client_free(client._handle)
            client._renew()


os.register_at_fork(after_in_child=_after_fork)
