"""Shared code of the adapters for HTTP libraries. A "way" is the URL of a proxy, or DIRECT."""

import collections
import os
import threading
import urllib.parse
import urllib.request
import weakref

try:
    import socks
except ImportError:
    socks = None

from ._client import Kind
from ._errors import Error

DIRECT = ""
_MOST_PROXIES = 32  # proxies with open connections; a script may name any number of proxies


def ways(client, url):
    """Returns the ways for a URL, in the order in which to try them.

    Returns None if the proxy manager leaves the choice to the program: in mode off, and without an answer.
    Without an answer, a client with refuse=True raises the Error instead.
    """
    try:
        answer = client.ask(url)
    except Error:
        if client.refuse:
            raise
        return None
    found = [DIRECT if entry.kind == Kind.DIRECT else entry.url for entry in answer.entries
             if entry.kind != Kind.UNUSABLE]
    return found if found and answer.mode != "off" else None


def of_the_environment(url):
    """Returns the way from the environment variables, as Python's urllib reads them."""
    parts = urllib.parse.urlsplit(url)
    proxies = urllib.request.getproxies()
    proxy = proxies.get(parts.scheme) or proxies.get("all") or DIRECT
    if not proxy or urllib.request.proxy_bypass(parts.netloc.rpartition("@")[2]):
        return DIRECT
    return proxy if "://" in proxy else f"http://{proxy}"


def socks_answered(error):
    """Returns whether a SOCKS proxy accepted a connection before this error, for example to refuse the request."""
    while error and socks:
        if isinstance(error, socks.ProxyError):
            return not isinstance(error, socks.ProxyConnectionError)
        error = error.__cause__ or error.__context__
    return False


class Pools:
    """The connection pools for the last proxies that were used."""

    def __init__(self, make):
        self._make = make
        self._renew()
        _all_pools.add(self)

    def _renew(self):
        self._lock = threading.Lock()
        self._pools = collections.OrderedDict()

    def get(self, way):
        with self._lock:
            if way not in self._pools:
                self._pools[way] = self._make(way)
                if len(self._pools) > _MOST_PROXIES:
                    # The pool is not closed, because the program may still read a response. Its connections end
                    # with the pool.
                    self._pools.popitem(last=False)
            self._pools.move_to_end(way)
            return self._pools[way]

    def take_all(self):
        with self._lock:
            pools, self._pools = list(self._pools.values()), collections.OrderedDict()
        return pools


_all_pools = weakref.WeakSet()


def _after_fork():
    """Runs in the child process. Lock and connections belong to the parent's threads, so this function makes
    new ones."""
    for pools in list(_all_pools):
        pools._renew()


os.register_at_fork(after_in_child=_after_fork)
