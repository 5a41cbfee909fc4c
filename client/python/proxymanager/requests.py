"""requests asks the proxy manager for each URL.

    session = requests.Session()
    for scheme in ("http://", "https://"):
        session.mount(scheme, ProxyAdapter())
"""

import requests
import requests.adapters
import urllib3.exceptions

from ._client import Client
from ._ways import DIRECT, ways


def _is_unreachable(error):
    """Returns whether no connection was made, so no server has seen the request."""
    if isinstance(error, (requests.exceptions.ConnectTimeout, requests.exceptions.InvalidSchema)):
        return True  # InvalidSchema: the library for SOCKS is missing
    reason = getattr(error.args[0] if error.args else None, "reason", None)
    if isinstance(reason, urllib3.exceptions.ProxyError):
        reason = reason.original_error
    return isinstance(reason, (urllib3.exceptions.NewConnectionError,
                               urllib3.exceptions.ConnectTimeoutError))


class ProxyAdapter(requests.adapters.HTTPAdapter):
    """Sends each request through the first proxy of the answer that can be reached.

    Without an answer, it uses the proxies of the session and of the environment, unless the client has
    refuse=True.
    client: stays open; without one, the adapter makes its own client and closes it
    options: options of requests.adapters.HTTPAdapter
    """

    def __init__(self, client=None, **options):
        self._client, self._is_own = client or Client(), client is None
        super().__init__(**options)

    def send(self, request, stream=False, timeout=None, verify=True, cert=None, proxies=None):
        found = ways(self._client, request.url)
        if found is None:
            return super().send(request, stream, timeout, verify, cert, proxies)
        # After a redirect, requests adds the password for the environment's proxy. It is not for this proxy.
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
        if self._is_own:
            self._client.close()
