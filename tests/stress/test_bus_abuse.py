"""Hostile programs on the bus: the daemon needs little memory, and it still answers other programs.

The tests measure the median round trip of another client, without and with the abuse, in turns of the same
run. Between two messages, the hostile programs pause for two round trips of the other client with an idle
daemon. If a message costs the daemon about as much as an ordinary call, the daemon has time for others. If a
message costs several times as much, or has later effects, the daemon has no time for the other programs, and
the median increases. Without the pauses, each call would wait behind all earlier calls, because this is the
order of the bus. Of several turns, the turn with the shortest times counts: other work of the machine makes
answers later, never earlier.
"""

import bisect
import itertools
import os
import statistics
import struct
import time

import measure
import pytest
from abuser import CONNECTIONS, Abuse, Abuser, call
from jeepney import DBusAddress, HeaderFields, MessageType, new_method_call
from support.bus import Bus, Client, wait_until
from support.daemon import Daemon, make_watched_files, trace
from support.deaf_bus import DeafBus
from support.web import Web, script

GROWTH = 1024  # KiB; at rest, the daemon has 1.7 MiB of its own written memory
PAUSE = 2.0  # round trips between two messages
SLOWER = 3.0  # limit for the median round trip of another client, divided by its median without abuse
TURNS = 8
CALLS_A_TURN = 150
STEPS_A_TURN = 50  # least number of steps of the abuse in a turn
FILES = 16  # maximum number of open files that the system bus passes on with one message
WAIT = 60.0  # seconds; limit for another client's wait for one answer, on any machine
ANSWER = ["manual", "http://proxy:3128"]

# Sockets buffer some 200 KiB in each direction, and one read returns 2 KiB of calls.
TAKEN_AT_MOST = 2 << 20  # bytes of calls
MUCH = 100_000  # calls with 40 MB in total; a queue of all their answers would be 30 times GROWTH


@pytest.fixture
def deaf_bus(root):
    bus = DeafBus()
    yield bus
    bus.close()


@pytest.fixture
def quiet(root):
    """Lets the daemon log only errors, because these tests do not check its lines."""
    trace("baseseverity=3\n")
    make_watched_files()


def test_a_bus_that_does_not_read_is_not_read_either(build, quiet, deaf_bus, sanitizer):
    bus, daemon = deaf_bus, Daemon(build, address=deaf_bus.address, start=False).spawn()
    bus.accept()
    question = call("getProxyurl", "s", ("http://a.example/" + "x" * 200,)).serialise(1)
    bus.ask(question, 1)
    bus.answers(1)
    before = measure.private_dirty(daemon.pid)
    asked = bus.ask(question, MUCH)
    growth = measure.private_dirty(daemon.pid) - before
    print(f"{asked} calls taken, {asked * len(question) >> 10} KiB, growth {growth} KiB")
    assert asked * len(question) < TAKEN_AT_MOST
    if not sanitizer:
        assert growth < GROWTH
    # When the bus reads again, no answer is lost.
    answers = bus.answers(asked)
    serials = [serial for serial, _ in answers]
    # 64 questions may wait. Further questions are answered at once, before those that wait.
    assert sorted(serials) == list(range(min(serials), min(serials) + asked))
    assert all(body == (["off", ""],) for _, body in answers)
    daemon.process.kill()  # killed here: no other client can ask this bus whether the daemon is gone
    daemon.process.wait(60)


@pytest.fixture
def busy(build, quiet):
    """A daemon in mode manual on a bus like the system bus, and another client that asks it."""
    bus = Bus()
    daemon = Daemon(build)
    with Client() as client:
        client.update("manual", proxyurl=ANSWER[1])
        yield Busy(daemon, client, ANSWER)
        client.update("off")
    daemon.close()
    bus.close()


class Busy:
    def __init__(self, daemon, client, answer):
        self.daemon, self.client, self._answer = daemon, client, answer
        self.median()  # warm-up
        self.round_trip = statistics.median(self.ask() for _ in range(CALLS_A_TURN))
        self.memory = measure.private_dirty(daemon.pid)
        self.descriptors = measure.descriptors(daemon.pid)

    def ask(self):
        begin = time.monotonic()
        assert self.client.urls("http://other.example/", timeout=WAIT) == self._answer
        return time.monotonic() - begin

    def median(self, enough=lambda: True):
        """Makes CALLS_A_TURN calls, and further calls until `enough` returns true. Returns the median time of
        a call in seconds.

        The median is weighted by time: a client that makes one call after the other makes only few calls
        while they are slow."""
        times, end = [], time.monotonic() + WAIT
        while len(times) < CALLS_A_TURN or (not enough() and time.monotonic() < end):
            times.append(self.ask())
        times.sort()
        passed = list(itertools.accumulate(times))
        return times[bisect.bisect_left(passed, passed[-1] / 2)]

    def stays_small(self):
        growth = measure.private_dirty(self.daemon.pid) - self.memory
        print(f"memory grew by {growth} KiB")
        assert growth < GROWTH

    def rests(self):
        """Waits until nothing is left of the abuse: the calls in the bus are answered, and the files are
        closed."""
        self.ask()
        wait_until(lambda: measure.descriptors(self.daemon.pid) == self.descriptors,
                   "the descriptors are those of the begin", WAIT)
        self.stays_small()


def in_turn(steps):
    """Returns a step that runs the next of `steps` at each call."""
    following = itertools.cycle(steps)
    return lambda: next(following)()


def sender(messages, read=True):
    """Ten connections that send one message after the other."""
    templates = itertools.cycle([bytearray(each.serialise(1)) for each in messages])
    abusers = itertools.cycle([Abuser() for _ in range(CONNECTIONS)])

    def step():
        abuser = next(abusers)
        if abuser.waits == 0:
            abuser.queue(next(templates))
        assert abuser.flush(), "the bus has hung up"
        if read:
            assert abuser.read(), "the bus has hung up"
    return step


def reconnecting(data):
    """Connections that send `data`. Because of this, the bus closes each of them."""
    def step():
        abuser = Abuser()
        abuser.socket.setblocking(True)
        try:
            abuser.socket.sendall(data)
            while abuser.socket.recv(65536):
                pass
        except OSError:
            pass  # the bus closes the connection during the sending
        abuser.close()
    return step


def nested(depth):
    value = "s", "deep"
    for _ in range(depth):
        value = "v", value
    return value


def introspection():
    return call("Introspect", interface="org.freedesktop.DBus.Introspectable")


def match_rules():
    """Returns requests for more match rules than the bus allows for a connection."""
    return [to_bus("AddMatch", f"type='signal',interface='com.x{number}.y',arg0='{number}'")
            for number in range(600)]


def to_bus(member, text):
    bus = DBusAddress("/org/freedesktop/DBus", "org.freedesktop.DBus", "org.freedesktop.DBus")
    return new_method_call(bus, member, "s", (text,))


def of_kind(kind):
    """A message to the daemon that is not a call. If it is a reply, there was no call for it."""
    message = call("notifyClearcache", "s", ("x",))
    message.header.message_type = kind
    if kind != MessageType.signal:
        message.header.fields[HeaderFields.reply_serial] = 7
        message.header.fields[HeaderFields.error_name] = "com.zentu.Nothing"
    return message


def not_utf8():
    data = bytearray(call("getProxyurl", "s", ("http://XXXX/",)).serialise(1000))
    at = data.index(b"XXXX")
    data[at:at + 4] = b"\xff\xc0\x80\xfe"
    return data


def too_deep():
    """A message with 33 nested arrays; the bus allows 32."""
    data = bytearray(call("getProxyurl", "a" * 32 + "s", ([],)).serialise(1000))
    at = data.index(b"a" * 32 + b"s")
    data[at:at + 33] = b"a" * 33
    return data


def with_files():
    """Calls with as many open files as the bus passes on."""
    abusers = itertools.cycle([Abuser(enable_fds=True) for _ in range(CONNECTIONS)])
    files = [os.open("/dev/null", os.O_RDONLY) for _ in range(FILES)]
    template = bytearray(call("getProxyurl", "h" * FILES, tuple(files)).serialise(1, fds=[]))

    def step():
        abuser = next(abusers)
        abuser.send_with(template, files)
        assert abuser.read(), "the bus has hung up"
    return step


CALL = call("getProxyurl", "s", ("http://a.example/",))
ABUSES = {
    "calls": lambda: sender([CALL]),
    "calls_whose_replies_are_not_read": lambda: sender([CALL, introspection()], read=False),
    "calls_without_replies": lambda: sender([call("getProxyurl", "s", ("http://a/",), reply=False)]),
    "strings_of_60_kb": lambda: sender([
        call("getProxyurl", "s", ("http://" + "a" * 60_000,)),
        call("getProxyurl", "s", ("x" * 60_000,)),
        call("N" * 255, "s", ("x" * 60_000,)),
    ]),
    "unknown_names": lambda: sender([
        call("Nothing"), call("Nothing", interface="com.nobody.Nothing"),
        call("getProxyurl", "s", ("http://a/",), path="/nowhere"),
        call("Get", "ss", ("a", "b"), interface="org.freedesktop.DBus.Properties"),
    ]),
    "wrong_signatures": lambda: sender([
        call("getProxyurl"), call("getProxyurl", "i", (1,)), call("getProxyurl", "as", (["a"],)),
        call("updateProxyconfig", "s", ("off",)),
        call("updateProxyconfig", "sssssss", ("off",) * 7),
        call("updateProxyconfig", "(sssbss)", (("off", "", "", False, "", ""),)),
    ]),
    "deep_containers": lambda: sender([
        call("getProxyurl", "a" * 32 + "s", ([],)),
        call("getProxyurl", "(" * 32 + "s" + ")" * 32, (_structs(32),)),
        call("getProxyurl", "v", (nested(60),)),
        call("Nothing", "v", (nested(60),)),
    ]),
    "what_is_no_call": lambda: sender([
        of_kind(MessageType.signal), of_kind(MessageType.method_return),
        of_kind(MessageType.error)]),
    "match_rules": lambda: sender(match_rules()),
    "open_files": with_files,
    "text_that_is_not_utf8": lambda: reconnecting(not_utf8()),
    "a_signature_that_is_too_deep": lambda: reconnecting(too_deep()),
    "a_message_that_is_too_long": lambda: reconnecting(
        CALL.serialise(1)[:4] + struct.pack("<I", 60 << 20) + CALL.serialise(1)[8:] + b"x" * 65536),
}


def _structs(depth):
    value = "deep"
    for _ in range(depth):
        value = (value,)
    return value


# The factor by which long messages, and messages that need a new connection each time, are less frequent.
SELDOM = {"strings_of_60_kb": 10, "text_that_is_not_utf8": 20, "a_signature_that_is_too_deep": 20,
          "a_message_that_is_too_long": 20}


@pytest.mark.slow
@pytest.mark.parametrize("name", ABUSES)
def test_others_hardly_notice(busy, name):
    step = ABUSES[name]()
    pace = PAUSE * busy.round_trip * SELDOM.get(name, 1)
    ratios = []
    with Abuse(step, pace) as abuse:
        for _ in range(TURNS):
            unloaded = busy.median()
            enough = abuse.steps() + STEPS_A_TURN
            with abuse.going():
                loaded = busy.median(lambda: abuse.steps() >= enough)
            assert abuse.steps() >= enough, "the abuse does not go on"
            ratios.append(loaded / unloaded)
            if min(ratios) <= SLOWER:
                break
        print(f"{name}: {abuse.steps()} steps, every {1e6 * pace:.0f} us, medians "
              f"{1e6 * unloaded:.0f} and {1e6 * loaded:.0f} us, ratio {min(ratios):.2f}")
    assert min(ratios) <= SLOWER
    busy.rests()


FLOOD = 100_000
PENDING = 100  # calls of one connection; the system bus allows 128


def flood(busy, template, read):
    """A process of the lowest priority sends FLOOD calls over ten connections, as fast as possible.
    Meanwhile, the other client continues to ask. Returns the waits of the other client and the number of
    errors."""
    abusers = [Abuser() for _ in range(CONNECTIONS)]
    done, ended = os.pipe()
    pid = os.fork()
    if pid == 0:
        os.nice(19)
        errors = run_flood(abusers, bytearray(template), read)
        os.write(ended, struct.pack("q", errors))
        os._exit(0)
    os.close(ended)
    for abuser in abusers:
        abuser.close()
    waits = []
    while os.waitpid(pid, os.WNOHANG)[0] == 0:
        waits.append(busy.ask())
        time.sleep(0.001)
        measured = measure.private_dirty(busy.daemon.pid) - busy.memory
        assert measured < GROWTH
    errors, = struct.unpack("q", os.read(done, 8))
    os.close(done)
    return waits, errors


def run_flood(abusers, template, read):
    each = FLOOD // len(abusers)
    while any(abuser.sent < each or abuser.waits or (read and abuser.unanswered)
              for abuser in abusers):
        for abuser in abusers:
            room = PENDING - abuser.unanswered if read else PENDING if not abuser.waits else 0
            abuser.queue(template, max(0, min(room, each - abuser.sent)))
            abuser.flush()
            if read:
                abuser.read()
    return sum(abuser.errors for abuser in abusers)


@pytest.mark.slow
def test_a_hundred_thousand_calls_are_all_answered(busy):
    waits, errors = flood(busy, CALL.serialise(1), read=True)
    print(f"{len(waits)} answers meanwhile, the slowest {1000 * max(waits):.0f} ms")
    assert errors == 0
    assert waits
    busy.rests()


@pytest.mark.slow
@pytest.mark.parametrize("reply", (True, False), ids=("unread", "unwanted"))
def test_a_hundred_thousand_replies_that_nobody_reads(busy, reply):
    message = call("getProxyurl", "s", ("http://a.example/",), reply=reply)
    waits, _ = flood(busy, message.serialise(1), read=False)
    print(f"{len(waits)} answers meanwhile, the slowest {1000 * max(waits):.0f} ms")
    assert waits
    busy.rests()


GIANT = 60 << 20
COPIES = 8  # copies of a giant string at the same time, from the message to the log line
WIDE = f'<limit name="max_message_size">{512 << 20}</limit>' + "".join(
    f'<limit name="{name}">{1 << 30}</limit>' for name in ("max_incoming_bytes",
                                                           "max_outgoing_bytes"))


@pytest.fixture
def wide(build, quiet):
    """A daemon with a script on a bus that allows long messages. The system bus does not allow such
    messages."""
    bus, web = Bus(extra=WIDE), Web()
    web.routes["/x.pac"] = script("PROXY p:1")
    daemon = Daemon(build)
    with Client() as client:
        client.update("pacurl", pacurl=web.url("/x.pac"))
        answer = ["pacurl", "PROXY p:1"]
        wait_until(lambda: client.urls("http://other.example/") == answer, "the script answers", WAIT)
        yield Busy(daemon, client, answer), web.url("/x.pac")
    daemon.close()
    web.close()
    bus.close()


@pytest.mark.slow
def test_strings_of_60_mb_are_not_kept(wide):
    """The allocator keeps some memory after the first round. The second round must not need more."""
    busy, pacurl = wide
    giant = "x" * GIANT
    for _ in range(2):
        busy.memory = measure.private_dirty(busy.daemon.pid)
        with Client() as client:
            for url in ("http://" + giant, giant):
                # The URL is longer than any URL for which a script is evaluated.
                assert client.urls(url, timeout=WAIT) == ["pacurl"]
            # No program listens for the signal with the password.
            assert client.update("manual", auth=True, password=giant, timeout=WAIT) == 0
            assert client.update("pacurl", pacurl=pacurl, timeout=WAIT) == 0
    highest = measure.highest_rss(busy.daemon.pid)
    print(f"highest: {highest >> 10} MiB, now {busy.memory} KiB")
    busy.rests()
    assert busy.memory << 10 < GIANT
    assert highest << 10 < COPIES * GIANT
