"""httpx asks the proxy manager for each URL.

    with httpx.Client(transport=ProxyTransport()) as client:
        client.get("http://www.example.org/")

AsyncProxyTransport is for httpx.AsyncClient. SOCKS proxies need python3-socksio. httpx supports only
SOCKS version 5, with host names that the proxy resolves.
"""

import anyio.to_thread
import httpcore
import httpx

from ._client import Client
from ._ways import DIRECT, Pools, of_the_environment, ways

# Before release 0.18, httpcore can use TLS inside of TLS only asynchronously.
_HAS_TLS_IN_TLS = tuple(map(int, httpcore.__version__.split(".")[:2])) >= (0, 18)
# Raised if no connection was made, and also if a TLS handshake failed.
_FAILED = (httpx.ConnectError, httpx.ConnectTimeout)


def _proxy(way):
    """Returns httpx's proxy for a way. Raises ValueError if httpx does not support the proxy."""
    return None if way == DIRECT else httpx.Proxy(way.replace("socks5h:", "socks5:", 1))


def _ways(client, request):
    """Returns the ways to try for a request, from the proxy manager or from the environment."""
    url = str(request.url)
    found = ways(client, url)
    return [of_the_environment(url)] if found is None else found


class _Attempt:
    """Records whether the connection for a request was made. If so, the next way is not tried."""

    def __init__(self, request, is_async=False):
        self.is_connected = False
        self._request, self._extensions = request, request.extensions
        self._trace = self._note_async if is_async else self._note

    def __enter__(self):
        self._request.extensions = {**self._extensions, "trace": self._trace}

    def __exit__(self, *_):
        self._request.extensions = self._extensions

    def _note(self, event, details):
        self.is_connected = self.is_connected or event.endswith("connect_tcp.complete")
        callers = self._extensions.get("trace")
        return callers(event, details) if callers else None

    async def _note_async(self, event, details):
        awaitable = self._note(event, details)
        if awaitable is not None:
            await awaitable


class _Transports:
    """The transports of the proxies, and the client that answers questions."""

    def __init__(self, client, kind, options):
        self.client, self._is_own = client or Client(), client is None
        self._pools = Pools(lambda way: kind(proxy=_proxy(way), **options))

    def get(self, way):
        """Returns the transport for a way, or None if httpx cannot use this proxy."""
        try:
            return self._pools.get(way)
        except (ValueError, ImportError):
            return None

    def end(self):
        """Closes the client if this object has made it. Returns the transports, which the caller closes."""
        if self._is_own:
            self.client.close()
        return self._pools.take_all()


def _no_way(found):
    return httpx.ProxyError(f"no proxy of the answer can be used: {' '.join(found)}")


class ProxyTransport(httpx.BaseTransport):
    """Sends each request through the first proxy of the answer that can be reached.

    Without an answer, the transport uses the proxy of the environment, unless the client has refuse=True.
    client: stays open; without one, the transport makes its own client and closes it
    options: options of httpx.HTTPTransport, for the transports of all proxies
    """

    def __init__(self, client=None, **options):
        self._transports = _Transports(client, httpx.HTTPTransport, options)

    def handle_request(self, request):
        found = _ways(self._transports.client, request)
        last = _no_way(found)
        if request.url.scheme == "https" and not _HAS_TLS_IN_TLS:
            found = [way for way in found if not way.startswith("https:")]
        for transport in filter(None, map(self._transports.get, found)):
            attempt = _Attempt(request)
            try:
                with attempt:
                    return transport.handle_request(request)
            except _FAILED as failure:
                if attempt.is_connected:
                    raise
                last = failure
        raise last

    def close(self):
        for transport in self._transports.end():
            transport.close()


class AsyncProxyTransport(httpx.AsyncBaseTransport):
    """Does the same as ProxyTransport, for httpx.AsyncClient. A thread waits for the answer, so the event
    loop continues.

    options: options of httpx.AsyncHTTPTransport
    """

    def __init__(self, client=None, **options):
        self._transports = _Transports(client, httpx.AsyncHTTPTransport, options)

    async def handle_async_request(self, request):
        found = await anyio.to_thread.run_sync(_ways, self._transports.client, request)
        last = _no_way(found)
        for transport in filter(None, map(self._transports.get, found)):
            attempt = _Attempt(request, is_async=True)
            try:
                with attempt:
                    return await transport.handle_async_request(request)
            except _FAILED as failure:
                if attempt.is_connected:
                    raise
                last = failure
        raise last

    async def aclose(self):
        for transport in self._transports.end():
            await transport.aclose()
