"""Compares the relay with tinyproxy, Squid, haproxy and socat, in one run on one machine.

The proxies are measured in turn, in several rounds, so that other work of the machine disturbs all of them
equally. A row compares medians. Squid, haproxy and socat are unpacked and not installed. tinyproxy is the
installed Debian package.

bench.sh --relay calls this program, as root: it needs its own namespaces.
"""

import argparse
import contextlib
import json
import os
import resource
import statistics
import subprocess
import sys

TREE = os.path.abspath(os.path.join(os.path.dirname(__file__), "../.."))
sys.path.insert(0, os.path.join(TREE, "tests"))

from support.bus import Bus, Client, wait_until  # noqa: E402
from support.daemon import Daemon, make_watched_files, trace  # noqa: E402
from support.own_network import own_network  # noqa: E402
from support.own_root import own_root  # noqa: E402
from support.programs_root import ProgramsRoot  # noqa: E402
from support.relay import Relay  # noqa: E402
from support.syslog_socket import Syslog  # noqa: E402

LIMIT = 600
# An address of this machine that is not loopback: the relay does not ask the daemon about loopback.
TARGET_ADDRESS = "192.0.2.1"
TARGET = f"{TARGET_ADDRESS}:9000"
RELAY, TINYPROXY, UPSTREAM, CHAINED, SQUID, HAPROXY, SOCAT, TLS, MICROSOCKS = (
    f"127.0.0.1:{port}" for port in (3128, 8888, 8889, 8890, 3129, 9001, 9002, 8443, 1080))
CLIENTS = 16
IDLE = 900  # tunnels; together with the earlier tunnels, below the limit of 1,024 for one user
MOST_IDLE = 9000
# The relay's connection limits for MOST_IDLE tunnels: a little more than that number.
RAISED = "max-connections = 9500\nmax-connections-of-user = 9500\n"
_TINYPROXY = """
Listen 127.0.0.1
Port {port}
MaxClients 1000
Timeout 600
Allow 127.0.0.1
LogLevel Critical
LogFile "/run/tinyproxy.{port}"
{extra}
"""
_SQUID = f"""
http_port {SQUID}
http_access allow all
cache deny all
cache_log /dev/null
access_log none
pid_filename none
shutdown_lifetime 0 seconds
netdb_filename none
client_persistent_connections on
server_persistent_connections on
"""
_HAPROXY = f"""
global
  maxconn 4000
defaults
  mode tcp
  timeout connect 60s
  timeout client 600s
  timeout server 600s
listen forward
  bind {HAPROXY}
  server target {TARGET}
listen secure
  bind {TLS} ssl crt /run/tls.pem
  server proxy {TINYPROXY}
"""


def listens(endpoint):
    with open("/proc/thread-self/net/tcp") as table:
        port = f":{int(endpoint.split(':')[1]):04X}"
        return any(line.split()[1].endswith(port) and line.split()[3] == "0A" for line in table)


class World:
    """All proxies. Each proxy is started when it is first needed, and ends with this object."""

    def __init__(self, build, programs, ends):
        self.build, self.programs, self._ends = build, programs, ends
        self.processes = {}
        subprocess.run(["ip", "address", "add", f"{TARGET_ADDRESS}/32", "dev", "lo"], check=True)
        self.start(TARGET, f"{build}/out/bench/relay_server", TARGET.split(":")[1])
        self._tinyproxy(TINYPROXY, "")
        self._tinyproxy(UPSTREAM, "")
        self._tinyproxy(CHAINED, f"Upstream http {UPSTREAM}")
        self._write("/run/squid.conf", _SQUID)
        self.start(SQUID, *programs.command("squid", "-N", "-f", "/run/squid.conf"))
        self._certificate()
        self._write("/run/haproxy.conf", _HAPROXY)
        self.start(HAPROXY, *programs.command("haproxy", "-db", "-f", "/run/haproxy.conf"))
        self.start(SOCAT, *programs.command("socat", "-b", "65536", f"TCP-LISTEN:{SOCAT.split(':')[1]},fork,reuseaddr,"
                                            "bind=127.0.0.1,backlog=1024", f"TCP:{TARGET}"))
        self.start(MICROSOCKS, "microsocks", "-i", "127.0.0.1", "-p", MICROSOCKS.split(":")[1])
        self.client = ends.enter_context(Client())

    @staticmethod
    def _write(path, text):
        with open(path, "w") as file:
            file.write(text)

    def _tinyproxy(self, endpoint, extra):
        port = endpoint.split(":")[1]
        self._write(f"/run/tinyproxy.{port}.conf", _TINYPROXY.format(port=port, extra=extra))
        self.start(endpoint, "tinyproxy", "-d", "-c", f"/run/tinyproxy.{port}.conf")

    @staticmethod
    def _certificate():
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                        "ec_paramgen_curve:prime256v1", "-nodes", "-days", "30", "-subj", "/CN=127.0.0.1",
                        "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", "/run/tls.key", "-out",
                        "/run/tls.crt"], check=True, capture_output=True)
        with open("/run/tls.crt") as certificate, open("/run/tls.key") as key, \
                open("/run/tls.pem", "w") as both, \
                open("/etc/ssl/certs/ca-certificates.crt", "a") as trusted:
            text = certificate.read()
            both.write(text + key.read())
            trusted.write(text)

    def start(self, endpoint, *command):
        with open("/run/errors", "w") as errors:
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=errors, stderr=errors)
        self._ends.callback(process.wait)
        self._ends.callback(process.kill)
        wait_until(lambda: listens(endpoint) or process.poll() is not None, f"{command[0]} listens")
        with open("/run/errors") as errors:
            assert process.poll() is None, f"{command}: {errors.read()}"
        self.processes[endpoint] = process.pid

    @contextlib.contextmanager
    def relay(self, configuration=""):
        relay = Relay(self.build, configuration).start()
        try:
            yield relay
        finally:
            relay.stop()

    def way(self, proxyurl):
        """Configures the daemon: connections go through the proxy at the URL, or directly if the URL is
        empty."""
        self.client.update("manual" if proxyurl else "off", proxyurl)

    def load(self, what, proxy, clients, seconds):
        done = subprocess.run([f"{self.build}/out/bench/relay_load", what, proxy, TARGET, str(clients),
                               str(seconds)], capture_output=True, text=True, timeout=LIMIT)
        assert done.returncode == 0, f"{what} through {proxy}: {done.stderr}"
        return float(done.stdout)

    @contextlib.contextmanager
    def idle(self, count):
        load = subprocess.Popen([f"{self.build}/out/bench/relay_load", "idle", RELAY, TARGET, str(count), "0"],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        try:
            yield int(load.stdout.readline() or 0)
        finally:
            load.stdin.close()
            load.wait(LIMIT)
            load.stdout.close()


def in_turn(world, what, ways, clients, seconds, rounds):
    """Returns {name: median} for {name: (address of the proxy, manual proxy of the daemon)}."""
    figures = {name: [] for name in ways}
    for turn in range(rounds + 1):
        for name, (proxy, proxyurl) in ways.items():
            if proxy == RELAY:
                world.way(proxyurl)
                wait_for_way(world)
            figure = world.load(what, proxy, clients, seconds)
            if turn > 0:  # the first round warms up
                figures[name].append(figure)
    return {name: statistics.median(values) for name, values in figures.items()}


def wait_for_way(world):
    """Makes requests for 0.4 s, so that the relay receives the daemon's signal about the new
    configuration."""
    for _ in range(20):
        world.load("latency", RELAY, 1, 0.02)


def private_kib(pid):
    with open(f"/proc/{pid}/smaps_rollup") as file:
        return sum(int(line.split()[1]) for line in file if line.startswith("Private_"))


def connections_to(endpoint):
    """Returns the number of connections to the endpoint, counted on the side of the clients."""
    port = f":{int(endpoint.split(':')[1]):04X}"
    with open("/proc/thread-self/net/tcp") as table:
        return sum(line.split()[2].endswith(port) and line.split()[3] == "01" for line in table)


def memory(world, relay, proxyurl, count=IDLE):
    """Returns the private memory of one idle tunnel in KiB. Some tunnels exist before the measurement,
    because the first tunnels also need memory that the relay allocates only once."""
    world.way(proxyurl)
    wait_for_way(world)
    with world.idle(count // 10):
        before = private_kib(relay.process.pid)
        with world.idle(count) as held:
            assert held == count
            way = proxyurl.rpartition("/")[2] or TARGET
            assert connections_to(way) >= count, f"the tunnels do not go to {way}"
            return (private_kib(relay.process.pid) - before) / count


def compared(world, rounds, seconds):
    """Yields rows: description, figures by name, goals as (other proxy, least ratio), unit."""
    with world.relay():
        yield ("direct tunnels", in_turn(world, "tunnels", {
            "relay": (RELAY, ""), "tinyproxy": (TINYPROXY, "")}, CLIENTS, seconds, rounds),
               [("tinyproxy", 1.0)], "/s")
        yield ("tunnels through an HTTP proxy", in_turn(world, "tunnels", {
            "relay": (RELAY, f"http://{UPSTREAM}"), "tinyproxy with upstream": (CHAINED, "")},
            CLIENTS, seconds, rounds), [("tinyproxy with upstream", 1.0)], "/s")
        yield ("responses of 64 KiB, kept", in_turn(world, "responses", {
            "relay": (RELAY, ""), "squid": (SQUID, "")}, CLIENTS, seconds, rounds),
               [("squid", 1.0)], "/s")
        yield ("bulk of one transfer", in_turn(world, "bulk", {
            "relay": (RELAY, ""), "socat": (f"plain:{SOCAT}", ""), "haproxy": (f"plain:{HAPROXY}", ""),
            "no proxy": ("-", "")}, 1, seconds, rounds), [("socat", 0.9), ("haproxy", 0.9)], "MB/s")


def processor_seconds(pid):
    with open(f"/proc/{pid}/stat") as file:
        user, system = file.read().rpartition(")")[2].split()[11:13]
    return (int(user) + int(system)) / os.sysconf("SC_CLK_TCK")


def costs(world, rounds, seconds):
    """Yields rows: description, and the CPU time in microseconds that each proxy needs for a tunnel. On a
    machine with other work, the CPU time is more reliable than rates."""
    with world.relay() as relay:
        for what, proxyurl, name, other in (
                ("direct", "", "tinyproxy", TINYPROXY),
                ("through an HTTP proxy", f"http://{UPSTREAM}", "tinyproxy with upstream", CHAINED)):
            world.way(proxyurl)
            wait_for_way(world)
            figures = {}
            for key, proxy, pid in (("relay", RELAY, relay.process.pid), (name, other, world.processes[other])):
                begin = processor_seconds(pid)
                count = sum(world.load("tunnels", proxy, CLIENTS, seconds) * seconds for _ in range(rounds))
                figures[key] = (processor_seconds(pid) - begin) * 1e6 / count
            yield what, figures, name


def latencies(world, rounds, seconds):
    with world.relay():
        return in_turn(world, "latency", {"relay": (RELAY, ""), "no proxy": ("-", "")}, 1, seconds, rounds)


def memories(world):
    for what, proxyurl, goal in (("direct", "", 16), ("over an HTTP proxy", f"http://{UPSTREAM}", 16),
                                 ("over a SOCKS proxy", f"socks5h://{MICROSOCKS}", 16),
                                 ("over an HTTPS proxy", f"https://{TLS}", 64)):
        with world.relay() as relay:
            # If the relay uses tinyproxy, there are fewer tunnels: tinyproxy accepts 1,000 clients at most.
            yield what, memory(world, relay, proxyurl, IDLE if not proxyurl else IDLE // 2), goal


def most_idle(world):
    world.way("")
    with world.relay(RAISED):
        wait_for_way(world)
        with world.idle(MOST_IDLE) as held:
            return held


def measured(build, programs_folder, rounds, seconds):
    with contextlib.ExitStack() as ends:
        ends.enter_context(own_root(TREE, build))
        ends.enter_context(own_network())
        trace("baseseverity=3\n")
        ends.enter_context(contextlib.closing(Syslog()))
        ends.enter_context(contextlib.closing(Bus()))
        make_watched_files()
        ends.enter_context(contextlib.closing(Daemon(build)))
        programs = ends.enter_context(contextlib.closing(ProgramsRoot(programs_folder + "/root")))
        return rows_of(World(build, programs, ends), rounds, seconds)


def rows_of(world, rounds, seconds):
    """Returns the rows, and prints each row when it has been measured."""
    rows = []

    def add(what, figures, goal, is_reached, unit):
        shown = ", ".join(f"{name} {value:.0f}" for name, value in figures.items())
        print(f"{what:<34} {shown} {unit}; goal {goal}: {'reached' if is_reached else 'MISSED'}", flush=True)
        rows.append({"what": what, "figures": figures, "goal": goal, "reached": is_reached, "unit": unit})

    for what, figures, goals, unit in compared(world, rounds, seconds):
        for other, share in goals:
            ratio = figures["relay"] / figures[other]
            add(what, figures, f"{share:.1f} of {other}, is {ratio:.2f}", ratio >= share, unit)
    for what, figures, other in costs(world, rounds, seconds):
        ratio = figures["relay"] / figures[other]
        add(f"processor, a tunnel {what}", figures, f"at most 1.0 of {other}, is {ratio:.2f}", ratio <= 1, "us")
    figures = latencies(world, rounds, seconds)
    added = figures["relay"] - figures["no proxy"]
    add("a request on a kept connection", figures, f"150 us more, is {added:.0f}", added <= 150, "us")
    for what, kib, goal in memories(world):
        add(f"an idle tunnel {what}", {"relay": kib}, f"{goal} KiB, is {kib:.1f}", kib <= goal, "KiB")
    held = most_idle(world)
    add("idle tunnels held", {"relay": held}, f"{MOST_IDLE}", held == MOST_IDLE, "")
    return rows


def main():
    parser = argparse.ArgumentParser(description="Measures the relay beside other proxies.")
    parser.add_argument("--build", required=True, help="build folder with the benchmarks")
    parser.add_argument("--programs", required=True, help="what programs_root.sh has printed")
    parser.add_argument("--json", help="file that takes the figures")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=2, help="of one figure")
    options = parser.parse_args()
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    rows = measured(os.path.abspath(options.build), options.programs, options.rounds, options.seconds)
    if options.json:
        with open(options.json, "w") as file:
            json.dump(rows, file, indent=2)
            file.write("\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
