"""Asks the device's proxy manager which proxy to use for a URL.

    import proxymanager

    with proxymanager.Client() as client:
        for entry in client.proxies("http://www.example.org/"):
            print(entry.url)

With the modules proxymanager.requests, proxymanager.urllib, proxymanager.urllib3 and proxymanager.httpx,
the HTTP library of the same name asks for each URL.
"""

from ._client import Answer, Client, Entry, Kind
from ._errors import BadArgument, Error, NoAnswer, Status, TooSlow, Unavailable
from ._library import version

__all__ = ["Answer", "BadArgument", "Client", "Entry", "Error", "Kind", "NoAnswer", "Status", "TooSlow",
           "Unavailable"]
__version__ = version()
