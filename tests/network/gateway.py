"""The gateway of a network: dnsmasq for DHCP and DNS, nginx for scripts, and a web server that
sends any bytes.

One cable leads to an interface of the device, by default eth0. become() turns this gateway into
the gateway of another network, as if the cable were plugged into that network.
"""

import os
import signal
import subprocess

from authority import Authority
from lan import Namespace, end, ip
from support.bus import wait_until
from support.web import Web, script

_NGINX = """
user root;
worker_processes 1;
pid /run/nginx.pid;
error_log /run/nginx.error;
events {{ }}
http {{
  access_log /run/nginx.access;
  default_type application/octet-stream;
  types {{ application/x-ns-proxy-autoconfig pac dat; }}
  root /run/www/$host;
  server {{ listen 80; listen [::]:80; }}
  {secure}
}}
"""
_SECURE = """
  server {{
    listen {port} ssl; listen [::]:{port} ssl;
    ssl_certificate {name}.pem;
    ssl_certificate_key {name}.key;
  }}"""
SECURE_PORTS = {"good": 443, "expired": 8443, "stranger": 9443}


class Network:
    """An IPv4 /24, an IPv6 /64 and a search domain. The gateway's address ends with 1."""

    def __init__(self, number, domain):
        self.number = number
        self.domain = domain
        self.address = f"10.77.{number}.1"
        self.address6 = f"fd00:77:{number}::1"


OFFICE = Network(1, "eng.office.example")
HOME = Network(2, "lab.home.example")


class Gateway:
    """@param interface name of the device's end of the cable
    @param name the gateway's namespace; a second gateway needs another name
    @param router whether leases name the gateway as the default route"""

    def __init__(self, network=OFFICE, interface="eth0", name="gateway", router=False):
        self._namespace = Namespace(name)
        self._interface = interface
        self._router = router
        self._run = "/run/" if name == "gateway" else f"/run/{name}."
        self._dnsmasq = self._nginx = None
        self._names = {}
        self._webs = []
        self.network = None
        ip("link", "add", interface, "type", "veth", "peer", "name", "port", "netns", name)
        with self.inside():
            ip("link", "set", "lo", "up")
        self.become(network)

    def inside(self):
        return self._namespace.inside()

    def become(self, network):
        """From now on, the device's cable leads to `network`. The carrier of the cable is lost for
        a moment."""
        if self._dnsmasq:
            end(self._dnsmasq)
        self.network = network
        self._names = {}
        with self.inside():
            ip("link", "set", "port", "down")
        # The kernel does not report a carrier that is lost and returns at once.
        wait_until(lambda: "state DOWN" in ip("link", "show", self._interface)
                   or "LOWERLAYERDOWN" in ip("link", "show", self._interface), "it has no carrier")
        with self.inside():
            ip("addr", "flush", "dev", "port")
            ip("addr", "add", f"{network.address}/24", "dev", "port")
            ip("addr", "add", f"{network.address6}/64", "dev", "port", "nodad")
            ip("addr", "add", "fe80::1/64", "dev", "port", "nodad")
            ip("link", "set", "port", "up")
        self.options()
        self._write_names()
        self._start_dnsmasq()

    def _start_dnsmasq(self):
        log = f"{self._run}dnsmasq.log"
        if os.path.exists(log):
            os.remove(log)
        network = self.network.address.rsplit(".", 1)[0]
        with self.inside():
            self._dnsmasq = subprocess.Popen([
                "dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--user=root",
                "--pid-file=", f"--log-facility={log}", "--log-dhcp", "--log-queries",
                "--bind-interfaces", "--interface=port", "--except-interface=lo",
                "--no-resolv", "--no-hosts", f"--addn-hosts={self._run}dnsmasq.hosts", "--address=/#/",
                f"--dhcp-range={network}.50,{network}.150,255.255.255.0,2m",
                "--dhcp-authoritative", "--no-ping", f"--dhcp-leasefile={self._run}dnsmasq.leases",
                f"--dhcp-optsfile={self._run}dnsmasq.opts",
                # These options are left out, because 255 bytes of option 252 fill the packet of a
                # small client.
                "--dhcp-option=option:router" + (f",{self.network.address}" if self._router else ""),
                "--dhcp-option=28"])
        # At its start, dnsmasq reads the file of the options last. So if it reads this file
        # again, the reason is a later change.
        wait_until(lambda: self._dnsmasq.poll() is not None
                   or (os.path.exists(log) and f"read {self._run}dnsmasq.opts" in open(log).read()),
                   "dnsmasq has started")
        assert self._dnsmasq.poll() is None, open(log).read()

    def cable(self, state):
        """Sets the gateway's end of the cable "up" or "down"."""
        with self.inside():
            ip("link", "set", "port", state)

    def options(self, wpad=None, search=None, renew=None):
        """Sets the values of leases from now on. wpad: text or bytes of option 252; renew:
        seconds until the renewal."""
        search = self.network.domain if search is None else search
        lines = []
        if search:
            lines += [f"option:domain-name,{search.split()[0]}",
                      "option:domain-search," + ",".join(search.split())]
        if wpad is not None:
            data = wpad.encode() if isinstance(wpad, str) else wpad
            lines.append("252," + ":".join(f"{byte:02x}" for byte in data))
        if renew:
            lines.append(f"option:T1,{renew}")
        with open(f"{self._run}dnsmasq.opts", "w") as file:
            file.write("\n".join(lines) + "\n")
        self._reload()

    def name(self, name, address=None):
        """Makes `name` resolve to `address`. By default, this is the gateway's address."""
        self._names[name] = address or self.network.address
        self._write_names()

    def _write_names(self):
        with open(f"{self._run}dnsmasq.hosts", "w") as file:
            file.write("".join(f"{address} {name}\n" for name, address in self._names.items()))
        self._reload()

    def _reload(self):
        if not self._dnsmasq or self._dnsmasq.poll() is not None:
            return
        said = f"{self._run}dnsmasq.log"
        before = open(said).read().count(f"read {self._run}dnsmasq.opts")
        self._dnsmasq.send_signal(signal.SIGHUP)
        wait_until(lambda: open(said).read().count(f"read {self._run}dnsmasq.opts") > before,
                   "dnsmasq has read its options again")

    def connect_device(self):
        """Gives the device addresses and a name server without a DHCP client."""
        network = self.network
        ip("link", "set", "eth0", "up")
        ip("addr", "add", network.address.rsplit(".", 1)[0] + ".2/24", "dev", "eth0")
        ip("addr", "add", f"{network.address6[:-1]}2/64", "dev", "eth0", "nodad")
        with open("/etc/resolv.conf", "w") as file:
            file.write(f"nameserver {network.address}\noptions timeout:5 attempts:2\n")

    def link_address(self):
        """Returns the gateway's link-local address. The device also gets a link-local address."""
        ip("addr", "add", "fe80::2/64", "dev", "eth0", "nodad")
        return "fe80::1"

    def stop_names(self):
        """Stops the process of the name server. Its socket stays open, so questions get neither an
        answer nor an error."""
        self._dnsmasq.send_signal(signal.SIGSTOP)

    def end_names(self):
        """Ends the name server, so nothing listens on its port."""
        end(self._dnsmasq)

    def resume_names(self):
        self._dnsmasq.send_signal(signal.SIGCONT)

    def serve(self, host, path, answer):
        """Makes nginx serve a script at http://host/path. The script gives one answer for all
        URLs."""
        file = f"/run/www/{host}{path}"
        os.makedirs(os.path.dirname(file), exist_ok=True)
        with open(file, "w") as page:
            page.write(script(answer))
        self.start_nginx()

    def start_nginx(self, authority=None):
        """With a certificate authority, nginx also serves https, on the ports SECURE_PORTS."""
        if self._nginx:
            return
        secure = ""
        if authority:
            secure = "".join(_SECURE.format(port=port, name=os.path.join(authority.folder, name))
                             for name, port in SECURE_PORTS.items())
        with open("/run/nginx.conf", "w") as file:
            file.write(_NGINX.format(secure=secure))
        with self.inside():
            self._nginx = subprocess.Popen(["nginx", "-e", "/run/nginx.error", "-c",
                                            "/run/nginx.conf", "-g", "daemon off;"])
        wait_until(lambda: self._nginx.poll() is not None or os.path.exists("/run/nginx.pid"),
                   "nginx has started")
        assert self._nginx.poll() is None, open("/run/nginx.error").read()

    def web(self, port=8080):
        """A web server. The test sets the bytes that it sends."""
        with self.inside():
            web = Web(self.network.address, port)
        web.base = f"http://{self.network.address}:{port}"
        self._webs.append(web)
        return web

    def close(self):
        for web in self._webs:
            web.close()
        if self._dnsmasq:
            self.resume_names()
        for process in (self._nginx, self._dnsmasq):
            if process:
                end(process)
        self._namespace.close()


def trusted_authority():
    """Makes a certificate authority (CA) with its server certificates. Adds the authority to the
    device's trusted CAs."""
    authority = Authority("/run/authority")
    with open("/etc/ssl/certs/ca-certificates.crt", "a") as trusted:
        trusted.write(open(authority.certificate).read())
    return authority
