"""The relay on its usual port, in front of real proxies: those of support.real_proxies, Squid with
Digest authentication, and haproxy, which accepts TLS connections and forwards them to a tinyproxy.

Programs get the relay as their only proxy. The server's log shows which proxy forwarded their
requests.
"""

import os
import subprocess

from support.bus import wait_until
from support.real_proxies import (DIRECT, HTTP, HTTP_PROXY, PAGE, PASSWORD, SITE, SOCKS,
                                  SOCKS_PROXY, USER, RealProxies, by_network, by_script)
from support.relay import Relay

RELAY = "http://127.0.0.1:3128"
VARIABLES = {"http_proxy": RELAY, "https_proxy": RELAY, "all_proxy": RELAY}
LIMIT = 300
DIGEST, TLS = "by Digest", "by TLS"
DIGEST_PROXY = "127.0.0.12:3128"
TLS_NAME = "secure.example.test"
SOCKET_NAME = "socket.example.test"
# In these tests, tinyproxy allows tunnels only to port 443.
SOCKET_AT = ("127.0.0.82", 443)
TLS_PROXY = f"https://{TLS_NAME}:8443"
_TLS_ADDRESS, _BEHIND_TLS = "127.0.0.14:8443", "127.0.0.13:8888"
_WAYS = {"127.0.0.12": DIGEST, "127.0.0.13": TLS}
ADDRESSES = {DIRECT: "127.0.0.1", HTTP: "127.0.0.8", SOCKS: "127.0.0.9", DIGEST: "127.0.0.12",
             TLS: "127.0.0.13"}
# The way that requests take in each mode; no two modes have the same way.
MODES = {"off": DIRECT, "manual": DIGEST, "pacurl": HTTP, "wpad": SOCKS}
_LOCATIONS = "location /upload/ { dav_methods PUT; create_full_put_path on; client_max_body_size 0; }"

_SQUID = f"""
http_port {DIGEST_PROXY}
tcp_outgoing_address 127.0.0.12
auth_param digest program /usr/lib/squid/digest_file_auth /run/squid.users
auth_param digest children 2
auth_param digest realm device
acl known proxy_auth REQUIRED
http_access allow known
http_access deny all
cache deny all
cache_log /dev/null
access_log none
pid_filename none
shutdown_lifetime 0 seconds
netdb_filename none
dns_nameservers 127.0.0.1
"""
_HAPROXY = f"""
defaults
  mode tcp
  timeout connect 60s
  timeout client 300s
  timeout server 300s
listen secure
  bind {_TLS_ADDRESS} ssl crt /run/secure.pem
  server tinyproxy {_BEHIND_TLS}
"""


class Proxies(RealProxies):
    def __init__(self, programs):
        super().__init__(_WAYS, _LOCATIONS)
        self._programs = programs
        with open("/etc/hosts", "a") as file:
            file.write(f"{_TLS_ADDRESS.split(':')[0]} {TLS_NAME}\n{SOCKET_AT[0]} {SOCKET_NAME}\n")
        self._certify()
        programs.write("/etc/hosts", open("/etc/hosts").read())
        programs.trust("/etc/ssl/certs/ca-certificates.crt")
        self._start_squid()
        self._start_http_proxy(_BEHIND_TLS)
        self._start_haproxy()

    @staticmethod
    def _certify():
        done = subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
             "-nodes", "-days", "30", "-subj", f"/CN={TLS_NAME}", "-addext",
             f"subjectAltName=DNS:{TLS_NAME}", "-keyout", "/run/secure.key", "-out", "/run/secure.crt"],
            capture_output=True, text=True)
        assert done.returncode == 0, done.stderr
        with open("/run/secure.crt") as certificate, open("/run/secure.key") as key, \
                open("/run/secure.pem", "w") as both, \
                open("/etc/ssl/certs/ca-certificates.crt", "a") as trusted:
            text = certificate.read()
            both.write(text + key.read())
            trusted.write(text)

    def _start_squid(self):
        with open("/run/squid.conf", "w") as file:
            file.write(_SQUID)
        with open("/run/squid.users", "w") as file:
            file.write(f"{USER}:{PASSWORD}\n")
        self._start(DIGEST_PROXY, *self._programs.command("squid", "-N", "-f", "/run/squid.conf"))

    def _start_haproxy(self):
        with open("/run/haproxy.conf", "w") as file:
            file.write(_HAPROXY)
        self._start(_TLS_ADDRESS, *self._programs.command("haproxy", "-db", "-f", "/run/haproxy.conf"))

    def start(self, endpoint, *command):
        """Starts a server of the test in the unpacked system."""
        self._start(endpoint, *self._programs.command(*command))

    def asked_from(self, path):
        """The addresses from which the server got requests for paths that begin with `path`."""
        self.has_been_asked_by("nobody")  # after this, all earlier requests are in the log
        with open("/run/nginx.access") as log:
            return {line.split()[0] for line in log if f" {path}" in line}


class World:
    def __init__(self, build, client, programs, port80, syslog):
        self.client, self.programs = client, programs
        self._port80, self._syslog = port80, syslog
        self.proxies = Proxies(programs)
        self.relay = Relay(build, listen=("127.0.0.1:3128", "[::1]:3128"))
        client.update("off")
        self.relay.start()

    def close(self):
        try:
            self.relay.stop()
        finally:
            self.proxies.close()

    def manual(self, url, way, **options):
        self.client.update("manual", url, **options)
        self._follows(way)

    def digest(self):
        self.manual(f"http://{DIGEST_PROXY}", DIGEST, auth=True, user=USER, password=PASSWORD)

    def mode(self, mode):
        """Sets the mode. @return the way that requests take in this mode"""
        if mode == "off":
            self.client.update("off")
        elif mode == "manual":
            self.digest()
        elif mode == "pacurl":
            by_script(self.client, self._port80, f"PROXY 127.0.0.1:9; PROXY {HTTP_PROXY}")
        else:
            by_network(self.client, self._port80, self._syslog, f"SOCKS {SOCKS_PROXY}")
        self._follows(MODES[mode])
        return MODES[mode]

    def _follows(self, way):
        """Waits until requests take this way: the daemon's signal may arrive after the first
        request."""
        def taken():
            return self.run("curl", "-sS", "--max-time", "60", PAGE, check=False).stdout
        wait_until(lambda: taken() == way, f"the relay goes {way}")

    @staticmethod
    def run(*command, check=True, environment=None):
        """Runs a program of the machine, with the relay as its proxy."""
        done = subprocess.run(command, capture_output=True, text=True, timeout=LIMIT, cwd="/run",
                              stdin=subprocess.DEVNULL,
                              env={"PATH": "/usr/bin:/bin", "HOME": "/run", **VARIABLES,
                                   **(environment or {})})
        assert not check or done.returncode == 0, f"{command}: {done.stderr}"
        return done


def serve(path, content):
    """Makes a file below the server's root for each way, so that every request finds it."""
    for address in ADDRESSES.values():
        file = f"/run/www/{address}{path}"
        os.makedirs(os.path.dirname(file), exist_ok=True)
        with open(file, "wb") as page:
            page.write(content if isinstance(content, bytes) else content.encode())


def big_file(path, megabytes):
    """Makes a file of random bytes that the server serves for each way. @return the first of its
    paths"""
    names = [f"/run/www/{address}{path}" for address in ADDRESSES.values()]
    for name in names:
        os.makedirs(os.path.dirname(name), exist_ok=True)
    with open(names[0], "wb") as file:
        for _ in range(megabytes):
            file.write(os.urandom(1 << 20))
    for name in names[1:]:
        os.link(names[0], name)
    return names[0]


RESOURCES = 50
DONE = f"/page/done/{RESOURCES}/websocket"


def browser_pages():
    """Makes a page that loads fifty scripts and uses a websocket. Then the page shows what it has
    received, and requests DONE. Returns the page's URL without the scheme."""
    page = ["<!doctype html><meta charset=utf-8><title>begun</title><script>var loaded = 0;</script>"]
    for number in range(RESOURCES):
        serve(f"/page/{number}.js", "loaded++;\n")
        page.append(f"<script src='/page/{number}.js'></script>")
    page.append(f"""<script>
      const socket = new WebSocket("ws://{SOCKET_NAME}:{SOCKET_AT[1]}/echo");
      socket.onopen = () => socket.send("websocket");
      socket.onerror = () => {{ document.title = "the websocket failed"; }};
      socket.onmessage = (message) => {{
        document.body.textContent = loaded + " scripts, " + message.data;
        document.title = "done";
        fetch("/page/done/" + loaded + "/" + message.data);
      }};
    </script><body></body>""")
    serve("/page/index.html", "\n".join(page))
    return f"//{SITE}/page/index.html"

