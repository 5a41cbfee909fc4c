"""Asks the device's proxy manager which proxy to use for a URL.

    import proxymanager

    with proxymanager.Client() as client:
        for entry in client.proxies("http://www.example.org/"):
            print(entry.url)

The modules proxymanager.requests, proxymanager.urllib, proxymanager.urllib3 and proxymanager.httpx make
the HTTP library of that name ask for each URL.
"""

from ._client import Answer, Client, Entry, Kind
from ._errors import BadArgument, Error, NoAnswer, Status, TooSlow, Unavailable
from ._library import version

__all__ = ["Answer", "BadArgument", "Client", "Entry", "Error", "Kind", "NoAnswer", "Status", "TooSlow",
           "Unavailable"]
__version__ = version()
