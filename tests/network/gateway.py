"""The gateway of a network: dnsmasq for DHCP and DNS, nginx for scripts, a web server for the rest.

One cable goes to an interface of the device, eth0 unless said. become() makes it the gateway of another network: the cable is
then plugged in elsewhere.
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
    """An IPv4 /24, an IPv6 /64 and a search domain; its gateway has the address ending in 1."""

    def __init__(self, number, domain):
        self.number = number
        self.domain = domain
        self.address = f"10.77.{number}.1"
        self.address6 = f"fd00:77:{number}::1"


OFFICE = Network(1, "eng.office.example")
HOME = Network(2, "lab.home.example")


class Gateway:
    """@param interface what the cable is called at the device
    @param name of its namespace: a second gateway has another
    @param router whether leases name it as the default route"""

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
        """The device's cable leads to `network` from here on; its carrier was gone for a moment."""
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
                # Left out: 255 bytes of option 252 fill a small client's packet.
                "--dhcp-option=option:router" + (f",{self.network.address}" if self._router else ""),
                "--dhcp-option=28"])
        # The options' file last: a later reading of it is of a later change.
        wait_until(lambda: self._dnsmasq.poll() is not None
                   or (os.path.exists(log) and f"read {self._run}dnsmasq.opts" in open(log).read()),
                   "dnsmasq has started")
        assert self._dnsmasq.poll() is None, open(log).read()

    def cable(self, state):
        """The cable is "up" or "down" at this end."""
        with self.inside():
            ip("link", "set", "port", state)

    def options(self, wpad=None, search=None, renew=None):
        """What leases say from here on. wpad: text or bytes of option 252; renew: after seconds."""
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
        """`name` resolves, to the gateway where no address is given."""
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
        """The device has addresses and its name server without any DHCP client."""
        network = self.network
        ip("link", "set", "eth0", "up")
        ip("addr", "add", network.address.rsplit(".", 1)[0] + ".2/24", "dev", "eth0")
        ip("addr", "add", f"{network.address6[:-1]}2/64", "dev", "eth0", "nodad")
        with open("/etc/resolv.conf", "w") as file:
            file.write(f"nameserver {network.address}\noptions timeout:5 attempts:2\n")

    def link_address(self):
        """The gateway's address that is valid on the cable alone; the device gets one beside it."""
        ip("addr", "add", "fe80::2/64", "dev", "eth0", "nodad")
        return "fe80::1"

    def stop_names(self):
        """The name server falls silent: its process stands still, its socket stays."""
        self._dnsmasq.send_signal(signal.SIGSTOP)

    def end_names(self):
        """Nothing listens on the name server's port any more."""
        end(self._dnsmasq)

    def resume_names(self):
        self._dnsmasq.send_signal(signal.SIGCONT)

    def serve(self, host, path, answer):
        """nginx serves a script that gives one answer for all, at http://host/path."""
        file = f"/run/www/{host}{path}"
        os.makedirs(os.path.dirname(file), exist_ok=True)
        with open(file, "w") as page:
            page.write(script(answer))
        self.start_nginx()

    def start_nginx(self, authority=None):
        """With an authority it serves https too, on the ports SECURE_PORTS."""
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
        """A web server whose bytes a test writes."""
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
    """An authority that the device trusts, and its server certificates."""
    authority = Authority("/run/authority")
    with open("/etc/ssl/certs/ca-certificates.crt", "a") as trusted:
        trusted.write(open(authority.certificate).read())
    return authority
