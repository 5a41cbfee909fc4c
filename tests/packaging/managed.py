"""A clean system whose NetworkManager has two links, each with a DHCP server that sends option
252."""

from machine import Machine

# The system has only these two networks. The values that a network announces contain its name.
NETWORKS = {"office": ("eth0", "10.77.1", 100), "home": ("eth1", "10.77.2", 200)}
# This list is the same for all tests of network managers, so that they share one root.
PACKAGES = ("network-manager", "connman", "dnsmasq-base", "iproute2")


class Managed(Machine):
    """A system whose NetworkManager has two links."""

    def plug_in(self):
        # ConnMan would also manage the links, so it is turned off.
        self.run("systemctl", "disable", "--now", "connman")
        # NetworkManager must not make connections itself.
        (self.root / "etc/NetworkManager/conf.d/test.conf").write_text(
            "[main]\nno-auto-default=*\n")
        self.run("systemctl", "restart", "NetworkManager")
        for name, (interface, net, metric) in NETWORKS.items():
            self.make_network(name, interface, net)
            self.run("nmcli", "connection", "add", "type", "ethernet", "con-name", name,
                     "ifname", interface, "autoconnect", "no", "ipv6.method", "disabled",
                     "ipv4.route-metric", str(metric))

    def make_network(self, name, interface, net):
        self.run("ip", "netns", "add", name)
        self.run("ip", "link", "add", interface, "type", "veth", "peer", "name", "port",
                 "netns", name)
        self.run("ip", "-n", name, "address", "add", f"{net}.1/24", "dev", "port")
        self.run("ip", "-n", name, "link", "set", "port", "up")
        self.run("systemd-run", f"--unit=gateway-{name}", "nsenter", f"--net=/run/netns/{name}",
                 "dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--user=root",
                 "--pid-file=", "--bind-interfaces", "--interface=port", "--no-resolv",
                 "--no-hosts", f"--dhcp-range={net}.50,{net}.150,1h", "--dhcp-authoritative",
                 "--no-ping", f"--dhcp-leasefile=/run/{name}.leases",
                 f"--dhcp-option=252,http://{name}.example/proxy.pac",
                 f"--dhcp-option=option:domain-name,{name}.example",
                 f"--dhcp-option=option:domain-search,{name}.example")

    def nmcli(self, *words):
        return self.run("nmcli", "--wait", "90", *words)

    def cable(self, network, state):
        self.run("ip", "-n", network, "link", "set", "port", state)

    def text(self, path):
        return self.run("cat", path, check=False).stdout
