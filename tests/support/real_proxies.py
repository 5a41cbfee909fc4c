"""Debian's web server and two of Debian's proxies, on the loopback interface of the test's network.

Each proxy has its own source address, and the server has a folder for each client address. So the
content of a fetched file shows which way the request took, for every program. The files are `way`,
and the repository `way.git` with that file. Names are looked up in the test's /etc/hosts.
"""

import os
import socket
import subprocess

from .bus import wait_until
from .own_network import hosts
from .watched import append_and_settle
from .web import script

SITE = "www.example.test"
PAGE = f"http://{SITE}/way"
SITE_ADDRESS = "127.0.0.80"
HTTP_PROXY = "127.0.0.8:8888"
SOCKS_PROXY = "127.0.0.9:1080"
PASSWORD_PROXY = "127.0.0.10:8888"
PASSWORD_SOCKS_PROXY = "127.0.0.11:1080"
USER, PASSWORD = "user", "secret"
# The way that a request took, by the client address that the server sees.
DIRECT, HTTP, SOCKS = "directly", "by HTTP", "by SOCKS"
PASSWORD_HTTP, PASSWORD_SOCKS = "by HTTP with a password", "by SOCKS with a password"
_WAYS = {"127.0.0.1": DIRECT, "127.0.0.8": HTTP, "127.0.0.9": SOCKS, "127.0.0.10": PASSWORD_HTTP,
         "127.0.0.11": PASSWORD_SOCKS}

_NGINX = f"""
pid /run/nginx.pid;
error_log /run/nginx.error;
events {{ }}
http {{
  access_log /run/nginx.access;
  default_type application/octet-stream;
  root /run/www/$remote_addr;
  ssl_certificate /run/site.pem;
  ssl_certificate_key /run/site.key;
  server {{ listen {SITE_ADDRESS}:80; listen {SITE_ADDRESS}:443 ssl; LOCATIONS }}
}}
"""
_TINYPROXY = """
Listen {address}
Port {port}
Bind {address}
Allow 127.0.0.0/8
ConnectPort 443
LogFile "/run/tinyproxy.{address}"
"""


def _read(path):
    with open(path) as file:
        return file.read()


def _run(*command, **options):
    done = subprocess.run(command, capture_output=True, text=True, **options)
    assert done.returncode == 0, f"{command}: {done.stderr}"


def _make_pages(ways):
    for address, way in ways.items():
        folder = f"/run/www/{address}"
        os.makedirs(f"{folder}/tree")
        for file in (f"{folder}/way", f"{folder}/tree/way"):
            with open(file, "w") as page:
                page.write(way)
        git = ("git", "-C", f"{folder}/tree", "-c", "user.name=a", "-c", "user.email=a@example.test")
        environment = {"PATH": os.environ["PATH"], "HOME": "/run"}
        for step in (("init", "-q"), ("add", "way"), ("commit", "-q", "-m", way),
                     ("update-server-info",)):
            _run(*git, *step, env=environment)
        os.rename(f"{folder}/tree/.git", f"{folder}/way.git")


def _make_certificate():
    """A certificate that programs trust in this test's /etc."""
    _run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
         "-nodes", "-days", "30", "-subj", f"/CN={SITE}", "-addext", f"subjectAltName=DNS:{SITE}",
         "-keyout", "/run/site.key", "-out", "/run/site.pem")
    with open("/etc/ssl/certs/ca-certificates.crt", "a") as trusted:
        trusted.write(_read("/run/site.pem"))


def _listens(endpoint):
    """Whether a program in this network listens at `endpoint`."""
    address, port = endpoint.split(":")
    # The form of /proc/net/tcp: the bytes of the address from last to first, and state 0A.
    local = "".join(f"{int(part):02X}" for part in reversed(address.split("."))) + f":{int(port):04X}"
    with open("/proc/thread-self/net/tcp") as table:
        return any(line.split()[1] == local and line.split()[3] == "0A" for line in table)


class RealProxies:
    """A server and proxies. They run until close()."""

    def __init__(self, ways=(), locations=""):
        """@param ways further ways, by their addresses
        @param locations text for the server's configuration"""
        # A lookup for one address family returns no address if the machine has only loopback
        # addresses of this family.
        _run("ip", "address", "add", "192.0.2.1/32", "dev", "lo")
        hosts(**{SITE: SITE_ADDRESS, "wpad.example.test": "127.0.0.1"})
        _make_certificate()
        _make_pages({**_WAYS, **dict(ways)})
        self._running = []
        self._marks = 0
        self._start_server(locations)
        self._start_http_proxy(HTTP_PROXY)
        self._start_http_proxy(PASSWORD_PROXY, f"BasicAuth {USER} {PASSWORD}\n")
        self._start_socks_proxy(SOCKS_PROXY)
        self._start_socks_proxy(PASSWORD_SOCKS_PROXY, "-u", USER, "-P", PASSWORD)

    def _start(self, endpoint, *command):
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        self._running.append(process)
        wait_until(lambda: _listens(endpoint) or process.poll() is not None, f"{command[0]} listens")
        assert process.poll() is None, f"{command}: status {process.returncode}"

    def _start_server(self, locations):
        with open("/run/nginx.conf", "w") as file:
            file.write(_NGINX.replace("LOCATIONS", locations))
        self._start(f"{SITE_ADDRESS}:443", "nginx", "-e", "/run/nginx.error", "-c",
                    "/run/nginx.conf", "-g", "daemon off; master_process off;")

    def _start_http_proxy(self, endpoint, extra=""):
        address, port = endpoint.split(":")
        file = f"/run/tinyproxy.{address}.conf"
        with open(file, "w") as config:
            config.write(_TINYPROXY.format(address=address, port=port) + extra)
        self._start(endpoint, "tinyproxy", "-d", "-c", file)

    def _start_socks_proxy(self, endpoint, *options):
        address, port = endpoint.split(":")
        self._start(endpoint, "microsocks", "-i", address, "-p", port, "-b", address, *options)

    def has_been_asked_by(self, program):
        """Whether the server has seen a request of the program. For requests of git, the server sees the name
        of libcurl."""
        self._marks += 1
        mark = f"/mark{self._marks}"
        # The server is one process, and logs each request when it has answered it. So all earlier
        # requests are in the log before this one.
        with socket.create_connection((SITE_ADDRESS, 80), 60) as connection:
            connection.sendall(f"GET {mark} HTTP/1.0\r\n\r\n".encode())
            while connection.recv(65536):
                pass
        wait_until(lambda: f" {mark} " in _read("/run/nginx.access"), "the server says the request")
        return f'"{program}/' in _read("/run/nginx.access")

    def close(self):
        for process in self._running:  # each is one process, which can be killed at any time
            process.kill()
            process.wait()


def by_script(client, web, answer):
    """Makes the daemon use the script at an address. `web` serves it on port 80."""
    web.routes["/proxy.pac"] = script(answer)
    client.update("pacurl", pacurl="http://127.0.0.1/proxy.pac")
    _wait_for(client, "pacurl", answer)


def by_network(client, web, syslog, answer):
    """Makes the daemon use the script that it finds through a search domain."""
    web.routes["/wpad.dat"] = script(answer)
    append_and_settle("/tmp/.resolv.conf.dnsmasq", "search example.test\n", syslog)
    client.update("wpad")
    _wait_for(client, "wpad", answer)


def _wait_for(client, mode, answer):
    wait_until(lambda: client.urls(PAGE) == [mode, *answer.split("; ")], "the script answers")
