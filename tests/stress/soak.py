#!/usr/bin/env python3
"""A soak test of the daemon: all kinds of load at once, for any time.

usage: soak.py --build=BUILD [--seed=N] MINUTES

Eight clients ask questions, and one client changes the configuration. The server of scripts answers
correctly, slowly, wrongly or not at all. The watched files change, the worker is killed, and the daemon
gets SIGHUP. oracle.py checks every answer. At the end, the daemon must have the same descriptors, threads
and processes as at the beginning, and no more memory. Then it must end with status 0.

Random numbers decide what each actor does. Each actor has its own sequence, made from the seed, so the same
seed gives the same steps. The time of each step also depends on the machine.
"""

import argparse
import os
import random
import signal
import sys
import threading
import time

_HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(_HERE, ".."), os.path.join(_HERE, "../network")]

import measure  # noqa: E402
from lan import device_network  # noqa: E402
from oracle import HASTE, Oracle  # noqa: E402
from pac_server import PacServer  # noqa: E402
from support.bus import Bus, Client, Signals, wait_until  # noqa: E402
from support.daemon import Daemon, lives  # noqa: E402
from support.own_root import own_root  # noqa: E402
from watched_files import WatchedFiles, prepare  # noqa: E402

CLIENTS = 8
# A call may wait for an update. The update may wait for a walk over four candidates (30 s each) and for
# the load of a script (5.25 s). In addition, the machine may be busy.
CALL_LIMIT = 300.0
STOP_LIMIT = 300.0
PROGRESS = 10.0  # seconds between two lines
# The announcing thread ends with the first update. During the work, two more threads are allowed.
THREADS_AT_REST = 5
THREADS_AT_MOST = 7
PROCESSES_AT_REST = 2  # daemon and worker
# During the work, one more process is allowed: the previous script's worker while it is being
# ended.
PROCESSES_AT_MOST = 3
DESCRIPTORS_MORE = 12  # for one download, one script and the worker's sockets at the same time


class Soak:
    def __init__(self, build, seed, minutes):
        self.seed, self.seconds = seed, minutes * 60
        self.oracle = Oracle()
        self.server = PacServer(self.oracle, seed, port=80)
        self.bus = Bus()
        self.log = WatchedFiles.empty_log()
        prepare()
        self.daemon = Daemon(build)
        self.signals = Signals()
        self.files = WatchedFiles(self.random("files"))
        self.ended = threading.Event()
        self.failures = []
        self.counts = dict.fromkeys(("calls", "updates", "file changes", "deaths", "SIGHUP"), 0)
        self.slowest = 0.0
        self.memory, self.resident = measure.Series(), measure.Series()
        self.most = {"descriptors": 0, "threads": 0, "processes": 0}

    def random(self, actor):
        return random.Random(f"{self.seed}/{actor}")

    def fail(self, text):
        print(text, flush=True)
        self.failures.append(text)

    # The actors. Each has its own thread.

    def act(self, name, step, pause):
        """Repeats `step` until the end. Between two steps, it waits for a time that `pause` returns."""
        choice = self.random(name)
        try:
            while not self.ended.wait(pause(choice)):
                step(choice)
        except Exception as error:  # noqa: BLE001: any exception is a failure of the run
            self.fail(f"{name}: {type(error).__name__}: {error}")
            self.ended.set()

    def ask(self, client, choice):
        kind = choice.random()
        host = f"h{int(choice.paretovariate(0.7)) % 150}.example"
        path = choice.choice(("", "/", "/a/b?c=d", ":8080/x"))
        begin = time.monotonic()
        if kind < 0.92:
            urls = client.urls(f"http://{host}{path}", timeout=CALL_LIMIT)
            self.oracle.answered(begin, time.monotonic(), host, urls)
        elif kind < 0.98:
            texts = client.call("getProxyconfig", timeout=CALL_LIMIT)[0]
            self.oracle.configured(begin, time.monotonic(), texts)
        elif not client.call("checkServicestarted", timeout=CALL_LIMIT)[0]:
            raise AssertionError("checkServicestarted is false")
        self.slowest = max(self.slowest, time.monotonic() - begin)
        self.counts["calls"] += 1

    def update(self, client, mode, pacurl):
        number = self.counts["updates"] = self.counts["updates"] + 1
        texts = {"mode": mode, "proxyurl": f"m{number}.example:80", "pacurl": pacurl,
                 "user": f"user{number}", "password": f"secret{number}"}
        self.oracle.update_called(time.monotonic(), **texts)
        result = client.update(auth=True, timeout=CALL_LIMIT, **texts)
        self.oracle.update_replied(time.monotonic())
        if result != 0:
            raise AssertionError(f"updateProxyconfig: {result}")

    def reconfigure(self, client, choice):
        mode = choice.choices(("off", "manual", "pacurl", "wpad", "nonsense"),
                              (12, 15, 45, 25, 3))[0]
        number = choice.randrange(10000)
        pacurl = choice.choices((self.server.url(f"/pac/{number}"), "", "http://127.0.0.1:9/x",
                                 "file:///etc/passwd", "no url at all"), (90, 3, 3, 2, 2))[0]
        self.update(client, mode, pacurl)

    def change_a_file(self, choice):
        self.files.change(choice)
        self.counts["file changes"] += 1

    def kill_the_worker(self, choice):
        how = choice.choices((signal.SIGKILL, signal.SIGSEGV, signal.SIGSTOP), (5, 4, 1))[0]
        stopped_for = choice.uniform(0, 8)
        for worker in self.daemon.children()[:1]:
            death = self.oracle.kill_sent(time.monotonic())
            self.counts["deaths"] += 1
            gone = lambda: measure.state(worker) in (None, "Z", "X")
            try:
                os.kill(worker, how)
                end = time.monotonic() + stopped_for
                while how == signal.SIGSTOP and not gone() and time.monotonic() < end:
                    time.sleep(0.02)
                os.kill(worker, signal.SIGKILL)
            except ProcessLookupError:
                pass
            wait_until(gone, "the worker ends", 60, pause=0.002)
            self.oracle.kill_over(death, time.monotonic())

    def hang_up(self, choice):
        self.files.trace(choice)
        self.daemon.signal(signal.SIGHUP)
        self.counts["SIGHUP"] += 1

    def actors(self, clients):
        """Returns the names, steps and pauses of the actors."""
        for number, client in enumerate(clients[1:]):
            yield (f"client {number}", lambda choice, client=client: self.ask(client, choice),
                   lambda choice: choice.expovariate(1 / 0.03))
        yield ("reconfigurer", lambda choice: self.reconfigure(clients[0], choice),
               lambda choice: choice.uniform(0.05, 2.5))
        yield "files", self.change_a_file, lambda choice: choice.uniform(0.1, 4)
        yield "killer", self.kill_the_worker, lambda choice: choice.uniform(0.2, 5)
        yield "hang-up", self.hang_up, lambda choice: choice.uniform(0.5, 8)

    # The run.

    def settle(self, client):
        """Installs a correct script, and waits until nothing is in progress. The daemon's resources are
        then comparable."""
        self.server.well = True
        self.update(client, "pacurl", self.server.url("/settle"))
        self.update(client, "pacurl", self.server.url("/settle"))  # the call waits for a walk that has begun

        def newest():
            begin = time.monotonic()
            urls = client.urls("http://settled.example/", timeout=CALL_LIMIT)
            self.oracle.answered(begin, time.monotonic(), "settled.example", urls)
            return f" s{self.server.last_serial()}." in urls[-1] + urls[1 % len(urls)]
        wait_until(newest, "the script is in force", CALL_LIMIT, pause=0.05)
        held = []

        def rests():
            held.append(self.holds())
            return (held[-1:] == held[-2:-1] and held[-1]["threads"] == THREADS_AT_REST
                    and held[-1]["processes"] == PROCESSES_AT_REST)
        wait_until(rests, "the daemon rests", 60, pause=0.3)
        return held[-1]

    def holds(self):
        pid = self.daemon.pid
        return {"descriptors": measure.descriptors(pid), "threads": measure.threads(pid),
                "processes": 1 + len(self.daemon.children())}

    def sample(self):
        now = time.monotonic()
        self.memory.add(now, measure.private_dirty(self.daemon.pid))
        self.resident.add(now, measure.rss(self.daemon.pid))
        for name, value in self.holds().items():
            self.most[name] = max(self.most[name], value)

    def progress(self, begin):
        oracle = self.oracle
        oracle.judge(time.monotonic() - HASTE)
        print(f"{time.monotonic() - begin:6.0f} s  {self.counts['calls']} calls, "
              f"{oracle.judged} judged, {oracle.wrong_count} wrong, {self.counts['updates']} "
              f"updates, {len(oracle.loads) - 1} scripts, {self.counts['deaths']} deaths, "
              f"{self.memory.last()} KiB", flush=True)

    def run(self):
        clients = [Client() for _ in range(CLIENTS + 1)]
        at_begin = self.settle(clients[0])
        self.server.well = False
        threads = [threading.Thread(target=self.act, args=actor) for actor in self.actors(clients)]
        begin = shown = time.monotonic()
        for thread in threads:
            thread.start()
        while time.monotonic() - begin < self.seconds and not self.ended.wait(1.0):
            if self.daemon.process.poll() is not None:
                self.fail(f"the daemon ended with {self.daemon.process.returncode}")
                break
            self.sample()
            if time.monotonic() - shown >= PROGRESS:
                shown = time.monotonic()
                self.progress(begin)
        self.ended.set()
        for thread in threads:
            thread.join(CALL_LIMIT)
            if thread.is_alive():
                self.fail("an actor does not end")
        return at_begin, self.end(clients)

    def end(self, clients):
        """Makes the last measurements, and ends the daemon."""
        if self.daemon.process.poll() is not None:
            return None
        at_end = self.settle(clients[0])
        self.update(clients[0], "off", "")
        self.signals.wait("notifyProxyConfigupdated", self.counts["updates"], CALL_LIMIT)
        self.cpu = measure.cpu_seconds(self.daemon.pid)
        workers = self.daemon.children()
        for client in clients:
            client.close()
        status = self.daemon.stop(STOP_LIMIT)
        if status != 0:
            self.fail(f"the daemon ended with {status}")
        try:
            wait_until(lambda: not any(lives(pid) for pid in workers), "the workers are gone")
        except AssertionError:
            self.fail(f"workers are left: {workers}")
        self.oracle.judge()
        return at_end

    def judge(self, at_begin, at_end):
        """Checks the results and prints what is wrong. Returns whether all is right."""
        oracle = self.oracle
        for wrong in oracle.wrong:
            print("wrong answer " + wrong)
        expected = self.counts["updates"] + oracle.content_changes
        said = self.signals.count("notifyClearcache")
        checks = [
            ("no wrong answer", oracle.wrong_count == 0),
            ("most answers have one explanation", oracle.ambiguous * 2 <= oracle.judged),
            ("a notifyClearcache for each update and each new script",
             abs(said - expected) <= oracle.doubtful),
            (f"memory grows less than {measure.LEVEL_KIB} KiB",
             self.memory.growth() < measure.LEVEL_KIB),
            ("descriptors, threads and processes are those of the begin", at_begin == at_end),
            ("never too many threads", self.most["threads"] <= THREADS_AT_MOST),
            ("never too many processes", self.most["processes"] <= PROCESSES_AT_MOST),
            ("never too many descriptors",
             self.most["descriptors"] <= at_begin["descriptors"] + DESCRIPTORS_MORE),
        ]
        for what, holds in checks:
            if not holds:
                self.fail(f"not so: {what}")
        self.table(at_begin, at_end, said, expected)
        return not self.failures

    def table(self, at_begin, at_end, said, expected):
        oracle, per_call = self.oracle, 1000 * self.cpu / max(1, self.counts["calls"])
        rows = [("seed", self.seed), ("seconds", round(self.seconds))]
        rows += list(self.counts.items())
        rows += [
            ("answers judged", oracle.judged),
            ("  wrong", oracle.wrong_count),
            ("  with more than one explanation", oracle.ambiguous),
            ("  without entries: no script then", oracle.without_script),
            ("  without entries: worker killed", oracle.missing_by_kill),
            ("  without entries: killed while loading", oracle.missing_by_lost_load),
            ("scripts sent, of them new", f"{len(oracle.loads) - 1}, {oracle.content_changes}"),
            ("notifyClearcache, expected", f"{said}, {expected}"),
            ("slowest call, s", f"{self.slowest:.2f}"),
            ("CPU of daemon and workers, s", f"{self.cpu:.1f} ({per_call:.2f} ms a call)"),
            ("own memory, KiB: highest, last", f"{self.memory.highest()}, {self.memory.last()}"),
            ("own memory, growth after warm-up, KiB", round(self.memory.growth())),
            ("own memory, slope, KiB a minute", f"{self.memory.slope():+.1f}"),
            ("resident, slope, KiB a minute", f"{self.resident.slope():+.1f}"),
        ]
        rows += [(f"{name}: begin, most, end", f"{at_begin[name]}, {self.most[name]}, "
                  f"{at_end[name] if at_end else '-'}") for name in at_begin]
        rows.append(("server: " + ", ".join(f"{kind} {count}" for kind, count in
                                            self.server.counts.items()), ""))
        print("\n" + "\n".join(f"{name:<42}{value}".rstrip() for name, value in rows), flush=True)


def minutes(text):
    value = float(text)
    if not 0 < value <= 24 * 60:
        raise argparse.ArgumentTypeError("minutes: more than none, a day at most")
    return value


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("minutes", type=minutes)
    parser.add_argument("--build", required=True, type=os.path.abspath)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 32))
    options = parser.parse_args()
    print("seed", options.seed, flush=True)
    tree = os.path.abspath(os.path.join(_HERE, "../.."))
    with own_root(tree, options.build), device_network():
        soak = Soak(options.build, options.seed, options.minutes)
        good = soak.judge(*soak.run())
        soak.signals.close()
        soak.server.close()
        soak.bus.close()
    print("passed" if good else "FAILED: " + "; ".join(soak.failures))
    # The program does not wait for threads that hang.
    sys.stdout.flush()
    os._exit(0 if good else 1)


if __name__ == "__main__":
    main()
