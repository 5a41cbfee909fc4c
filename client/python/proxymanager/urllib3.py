"""urllib3 asks the proxy manager for each URL.

    manager = PoolManager()
    manager.request("GET", "http://www.example.org/")

SOCKS proxies need python3-socks.
"""

from urllib.parse import unquote

import urllib3
from urllib3.exceptions import ConnectTimeoutError, MaxRetryError, NewConnectionError, ProxyError

from ._client import Client
from ._ways import DIRECT, Pools, of_the_environment, socks_answered, ways


class _Asking:
    """A pool manager that asks again for the URL of a redirect."""

    asker = None

    def send(self, method, url, **options):
        return super().urlopen(method, url, **options)

    # urllib3 calls this method for a redirect.
    def urlopen(self, method, url, **options):
        headers = dict(options.pop("headers", None) or {})
        headers.pop("Host", None)  # the old Host is the host of the first URL
        try:
            return self.asker.urlopen(method, url, headers=headers, **options)
        except Exception as failure:
            failure.of_redirect = True
            raise


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
    from urllib3.contrib.socks import SOCKSProxyManager  # raises ImportError without python3-socks

    class BySocks(_Asking, SOCKSProxyManager):
        pass

    user, _, password = unquote(parts.auth or "").partition(":")
    return BySocks(f"{parts.scheme}://{parts.netloc}", user or None, password or None, **options)


def _is_unreachable(error):
    """Returns whether no server has seen the request: no connection, or the library for SOCKS is missing."""
    if hasattr(error, "of_redirect"):
        return False  # the server that sent the redirect has seen the request
    if isinstance(error, ImportError):
        return True
    reason = error.reason if isinstance(error, MaxRetryError) else error
    if isinstance(reason, ProxyError):
        reason = reason.original_error
    return isinstance(reason, (NewConnectionError, ConnectTimeoutError)) and not socks_answered(reason)


class PoolManager(urllib3.PoolManager):
    """Sends each request through the first proxy of the answer that can be reached.

    Without an answer, the manager uses the proxy of the environment, unless the client has refuse=True.
    client: stays open; without one, the manager makes its own client, which ends with it
    options: options of urllib3.PoolManager, for the managers of all proxies
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
