"""What the adapters of HTTP libraries share."""

import collections
import threading
import urllib.parse
import urllib.request

from ._client import Kind
from ._errors import Error

DIRECT = ""
_MOST_PROXIES = 32  # with connections that are kept; a script may name any number


def ways(client, url):
    """The proxies to try for a URL, in order: their URLs, and DIRECT.

    None if the proxy manager leaves the choice to the program: in mode off, and without an answer. A
    client that refuses raises the Error instead.
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
    """The way that the program's environment names, as Python's urllib reads it."""
    parts = urllib.parse.urlsplit(url)
    proxies = urllib.request.getproxies()
    proxy = proxies.get(parts.scheme) or proxies.get("all") or DIRECT
    if not proxy or urllib.request.proxy_bypass(parts.netloc.rpartition("@")[2]):
        return DIRECT
    return proxy if "://" in proxy else f"http://{proxy}"


class Pools:
    """What keeps connections, for the last proxies that were used."""

    def __init__(self, make):
        self._make = make
        self._lock = threading.Lock()
        self._pools = collections.OrderedDict()

    def get(self, way):
        with self._lock:
            if way not in self._pools:
                self._pools[way] = self._make(way)
                if len(self._pools) > _MOST_PROXIES:
                    # Not closed: a response may still be read. Its connections end with it.
                    self._pools.popitem(last=False)
            self._pools.move_to_end(way)
            return self._pools[way]

    def take_all(self):
        with self._lock:
            pools, self._pools = list(self._pools.values()), collections.OrderedDict()
        return pools
