"""Python's own urllib.request asks the proxy manager for each URL.

    opener = urllib.request.build_opener(ProxyHandler())
    opener.open("http://www.example.org/")

SOCKS proxies need python3-socks. A proxy that expects TLS cannot be used.
"""

import base64
import copy
import http.client
import socket
import urllib.error
import urllib.parse
import urllib.request

from ._client import Client
from ._ways import DIRECT, of_the_environment, socks, socks_answered, ways


class _Unreachable(OSError):
    """No connection was made, so no server has seen the request."""


def _connecting(way):
    """Returns a replacement for socket.create_connection. The replacement connects by SOCKS if the way is
    SOCKS."""
    def create(address, timeout=socket._GLOBAL_DEFAULT_TIMEOUT, source_address=None):
        try:
            if not way.scheme.startswith("socks"):
                return socket.create_connection(address, timeout, source_address)
            seconds = socket.getdefaulttimeout() if timeout is socket._GLOBAL_DEFAULT_TIMEOUT else timeout
            return socks.create_connection(
                address, seconds, source_address,
                proxy_type=socks.SOCKS4 if way.scheme.startswith("socks4") else socks.SOCKS5,
                proxy_addr=way.hostname, proxy_port=way.port,
                proxy_rdns=way.scheme in ("socks4a", "socks5h"),
                proxy_username=urllib.parse.unquote(way.username or "") or None,
                proxy_password=urllib.parse.unquote(way.password or "") or None)
        except OSError as failure:
            if socks_answered(failure):
                raise
            raise _Unreachable(str(failure)) from failure

    return create


def _by(way, request):
    """Returns a copy of the request for an HTTP proxy."""
    sent = copy.copy(request)
    sent.headers, sent.unredirected_hdrs = dict(request.headers), dict(request.unredirected_hdrs)
    if way.scheme == "http":
        if way.username:
            pair = f"{urllib.parse.unquote(way.username)}:{urllib.parse.unquote(way.password or '')}"
            sent.add_header("Proxy-authorization", "Basic " + base64.b64encode(pair.encode()).decode())
        sent.set_proxy(way.netloc.rpartition("@")[2], "http")
    return sent


# An opener omits a default handler if the class of a given handler is a subclass of the default handler's
# class.
class ProxyHandler(urllib.request.ProxyHandler, urllib.request.HTTPSHandler,
                   urllib.request.HTTPHandler):
    """Opens each http and https URL through the first proxy of the answer that can be reached.

    Without an answer, the handler uses the proxy of the environment, unless the client has refuse=True.
    client: stays open; without one, the handler makes its own client, which ends with it
    context: for TLS connections
    """

    handler_order = urllib.request.HTTPHandler.handler_order

    def __init__(self, client=None, context=None):
        urllib.request.HTTPSHandler.__init__(self, context=context)
        self._client = client or Client()
        self._tls = context

    def http_open(self, request):
        return self._open(http.client.HTTPConnection, request)

    def https_open(self, request):
        return self._open(http.client.HTTPSConnection, request, context=self._tls)

    def _open(self, kind, request, **options):
        found = ways(self._client, request.full_url)
        if found is None:
            found = [of_the_environment(request.full_url)]
        last = urllib.error.URLError(f"no proxy of the answer can be used: {' '.join(found)}")
        for way in map(urllib.parse.urlsplit, found):
            if way.scheme == "https" or way.scheme.startswith("socks") and not socks:
                continue

            def connection(*arguments, way=way, **named):
                made = kind(*arguments, **named)
                made._create_connection = _connecting(way)
                return made

            try:
                return self.do_open(connection, _by(way, request), **options)
            except urllib.error.URLError as failure:
                if not isinstance(failure.reason, _Unreachable):
                    raise
                last = urllib.error.URLError(failure.reason.__cause__)
        raise last
