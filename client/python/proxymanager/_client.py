"""A client, and what it answers."""

import ctypes
import enum
import os
import threading
import weakref
from typing import List, NamedTuple, Optional

from . import _library
from ._errors import Status, error, last_error

_LONGEST_MS = 0xFFFFFFFF  # of an unsigned: some 49 days


class Kind(enum.IntEnum):
    """What a program does with an entry."""

    UNUSABLE = 0  # not understood: try the next one
    DIRECT = 1
    HTTP = 2
    HTTPS = 3  # an HTTP proxy; the connection to it uses TLS
    SOCKS4 = 4
    SOCKS4A = 5
    SOCKS5 = 6  # the program looks names up
    SOCKS5H = 7  # the proxy looks names up


class Entry(NamedTuple):
    """One thing to try. A text without a value is empty."""

    kind: Kind
    text: str  # as the daemon gives it: "PROXY cache.example.org:8080"
    url: str  # "http://cache.example.org:8080"; "direct://"; empty if unusable
    scheme: str
    credentials: str  # "user:password", percent-encoded; part of url
    host: str
    port: int


class Answer(NamedTuple):
    """The daemon's answer for one URL.

    mode: "off", "manual", "pacurl", "wpad", or "local" if the daemon was not asked
    entries: in the order in which to try them; may be empty
    """

    mode: str
    entries: List[Entry]


def _entry(of):
    known = of.kind in Kind.__members__.values()
    return Entry(Kind(of.kind) if known else Kind.UNUSABLE, of.text.decode(), of.url.decode(),
                 of.scheme.decode(), of.credentials.decode(), of.host.decode(), of.port)


class Client:
    """Asks the daemon, and remembers its answers until they change.

    Threads may share a client. A forked process may use its copy, which connects again by itself.

    start_daemon: the bus may start the daemon for a question
    ask_local: the daemon is asked about this machine and this link, which are direct otherwise
    with_credentials: the configured user and password come into the URL of a manual proxy, if this
        program may read them
    refuse: an answer without an entry that can be used raises NoAnswer; the adapters then connect
        nowhere without an answer
    timeout: longest wait of a question in seconds, including the time to connect
    """

    def __init__(self, *, start_daemon: bool = True, ask_local: bool = False,
                 with_credentials: bool = False, refuse: bool = False, timeout: float = 15.0):
        self._timeout = _milliseconds(timeout)
        self.refuse = refuse
        self._flags = ((0 if start_daemon else _library.NO_START)
                       | (_library.ASK_LOCAL if ask_local else 0)
                       | (_library.WITH_CREDENTIALS if with_credentials else 0)
                       | (_library.REFUSE if refuse else 0))
        self._closed = False
        self._renew()
        _clients.add(self)

    def _renew(self):
        self._lock = threading.Lock()
        self._questions = 0
        self._handle = _library.client_new(self._flags)
        if not self._handle:
            raise error(Status.NO_MEMORY)

    def ask(self, url: str, timeout: Optional[float] = None) -> Answer:
        """The daemon's answer for a URL. With a timeout of 0, only one that is remembered.

        Raises an Error if there is none, and ValueError if the client is closed.
        """
        encoded = url.encode("utf-8", "surrogatepass")
        # C would see the URL end at the NUL.
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
        """The entries of the answer, in the order in which to try them."""
        return self.ask(url, timeout).entries

    def close(self):
        """Ends the connection; if questions wait in other threads, after the last of them."""
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
        """The handle if nobody uses it any more, for the caller to free; else None, which free ignores."""
        if self._questions:
            return None
        handle, self._handle = self._handle, None
        return handle


def _milliseconds(seconds):
    if not seconds >= 0:  # nor is NaN
        raise ValueError(f"a timeout is 0 or more seconds, not {seconds}")
    return int(min(seconds * 1000, _LONGEST_MS))


_clients = weakref.WeakSet()


def _after_fork():
    """In the child process: the handle belongs to the parent, and so do the threads that hold locks."""
    for client in list(_clients):
        if not client._closed:
            _library.client_free(client._handle)
            client._renew()


os.register_at_fork(after_in_child=_after_fork)
