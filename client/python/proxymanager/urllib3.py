"""urllib3 asks the proxy manager for each URL.

    manager = PoolManager()
    manager.request("GET", "http://www.example.org/")

Proxies of SOCKS need python3-socks.
"""

from urllib.parse import unquote

import urllib3
from urllib3.exceptions import ConnectTimeoutError, MaxRetryError, NewConnectionError, ProxyError

from ._client import Client
from ._ways import DIRECT, Pools, of_the_environment, ways


class _Asking:
    """A manager that follows a redirect by asking again."""

    asker = None

    def send(self, method, url, **options):
        return super().urlopen(method, url, **options)

    # urllib3 calls it for a redirect.
    def urlopen(self, method, url, **options):
        headers = dict(options.pop("headers", None) or {})
        headers.pop("Host", None)  # which it took from the first URL
        return self.asker.urlopen(method, url, headers=headers, **options)


class _Direct(_Asking, urllib3.PoolManager):
    pass


class _ByHttp(_Asking, urllib3.ProxyManager):
    pass


def _manager(way, options):
    if way == DIRECT:
        return _Direct(**options)
    parts = urllib3.util.parse_url(way)
    if not parts.scheme.startswith("socks"):
        headers = urllib3.make_headers(proxy_basic_auth=unquote(parts.auth)) if parts.auth else None
        return _ByHttp(f"{parts.scheme}://{parts.netloc}", proxy_headers=headers, **options)
    from urllib3.contrib.socks import SOCKSProxyManager  # ImportError without python3-socks

    class BySocks(_Asking, SOCKSProxyManager):
        pass

    user, _, password = unquote(parts.auth or "").partition(":")
    return BySocks(f"{parts.scheme}://{parts.netloc}", user or None, password or None, **options)


def _is_unreachable(error):
    """Whether nobody has seen the request: no connection was made, or there is no library for SOCKS."""
    if isinstance(error, ImportError):
        return True
    reason = error.reason if isinstance(error, MaxRetryError) else error
    if isinstance(reason, ProxyError):
        reason = reason.original_error
    return isinstance(reason, (NewConnectionError, ConnectTimeoutError))


class PoolManager(urllib3.PoolManager):
    """Sends each request by the first proxy of the answer that can be reached.

    Without an answer the proxy of the environment holds, unless the client refuses.
    client: asked, and left open; None makes one that ends with the manager
    options: those of urllib3.PoolManager, for the managers of all proxies
    """

    def __init__(self, client=None, **options):
        super().__init__(**options)
        self._client = client or Client()
        self._managers = Pools(lambda way: self._made(way, options))

    def _made(self, way, options):
        made = _manager(way, options)
        made.asker = self
        return made

    def urlopen(self, method, url, redirect=True, **options):
        found = ways(self._client, url)
        if found is None:
            found = [of_the_environment(url)]
        for way in found:
            try:
                return self._managers.get(way).send(method, url, redirect=redirect, **options)
            except (urllib3.exceptions.HTTPError, ImportError) as failure:
                if not _is_unreachable(failure):
                    raise
                last = failure
        raise last

    def clear(self):
        super().clear()
        for manager in self._managers.take_all():
            manager.clear()
