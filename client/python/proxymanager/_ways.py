"""Shared code of the adapters for HTTP libraries. A "way" is the URL of a proxy, or DIRECT."""

import collections
import threading
import urllib.parse
import urllib.request

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


class Pools:
    """The connection pools for the last proxies that were used."""

    def __init__(self, make):
        self._make = make
        self._lock = threading.Lock()
        self._pools = collections.OrderedDict()

    def get(self, way):
        with self._lock:
            if way not in self._pools:
                self._pools[way] = self._make(way)
                if len(self._pools) > _MOST_PROXIES:
                    # It is not closed, because a response may still be read. Its connections end with it.
                    self._pools.popitem(last=False)
            self._pools.move_to_end(way)
            return self._pools[way]

    def take_all(self):
        with self._lock:
            pools, self._pools = list(self._pools.values()), collections.OrderedDict()
        return pools
