"""requests asks the proxy manager for each URL.

    session = requests.Session()
    for scheme in ("http://", "https://"):
        session.mount(scheme, ProxyAdapter())
"""

import requests
import requests.adapters
import urllib3.exceptions

from ._client import Client
from ._ways import DIRECT, Pools, socks_answered, ways


def _is_unreachable(error):
    """Returns whether no connection was made, so no server has seen the request."""
    if isinstance(error, requests.exceptions.InvalidSchema):
        return True  # the library for SOCKS is missing
    reason = getattr(error.args[0] if error.args else None, "reason", None)
    if isinstance(reason, urllib3.exceptions.ProxyError):
        reason = reason.original_error
    return isinstance(reason, (urllib3.exceptions.NewConnectionError,
                               urllib3.exceptions.ConnectTimeoutError)) and not socks_answered(reason)


class ProxyAdapter(requests.adapters.HTTPAdapter):
    """Sends each request through the first proxy of the answer that can be reached.

    Without an answer, the adapter uses the proxies of the session and of the environment, unless the client
    has refuse=True.
    client: the adapter does not close it. Without a client, the adapter makes one and closes it at its end.
    options: options of requests.adapters.HTTPAdapter
    """

    __attrs__ = requests.adapters.HTTPAdapter.__attrs__ + ["_client", "_is_own"]

    def __init__(self, client=None, **options):
        self._client, self._is_own = client or Client(), client is None
        self._managers = Pools(self._made)
        super().__init__(**options)

    def __setstate__(self, state):
        self._managers = Pools(self._made)
        super().__setstate__(state)

    def _made(self, proxy):
        made = super().proxy_manager_for(proxy)
        self.proxy_manager.clear()  # the base class would keep the manager for ever
        return made

    def proxy_manager_for(self, proxy, **options):
        return super().proxy_manager_for(proxy, **options) if options else self._managers.get(proxy)

    def send(self, request, stream=False, timeout=None, verify=True, cert=None, proxies=None):
        found = ways(self._client, request.url)
        if found is None:
            return super().send(request, stream, timeout, verify, cert, proxies)
        # After a redirect, requests adds the password for the environment's proxy. This password is not for
        # the proxy of the answer.
        request.headers.pop("Proxy-Authorization", None)
        for way in found:
            by = {} if way == DIRECT else {"http": way, "https": way}
            try:
                return super().send(request, stream, timeout, verify, cert, by)
            except (requests.exceptions.ConnectionError, requests.exceptions.InvalidSchema) as failure:
                if not _is_unreachable(failure):
                    raise
                last = failure
        raise last

    def close(self):
        super().close()
        for manager in self._managers.take_all():
            manager.clear()
        # A session can be used after close(). The old client ends after its last question.
        if self._is_own:
            self._client = Client()
