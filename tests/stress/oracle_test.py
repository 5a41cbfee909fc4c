"""Tests the oracle of the soak test with a model of the daemon: it accepts right answers, and finds each
kind of wrong answer.

The model answers like the daemon. It chooses the time of each answer within its call. The model can have
the faults that the soak test must find.
"""

import random

import pytest
from oracle import Oracle, answer_of

URLS = [f"h{number}.example" for number in range(6)]


class Model:
    """A daemon in logical time. Each call takes some time, and its effect happens at one point of this
    time."""

    def __init__(self, seed, fault=None):
        self.choice, self.fault = random.Random(seed), fault
        self.oracle = Oracle()
        self.now, self.serial = 0.0, 0
        self.config = self.config_before = ("off", "", "", "n", "", "")
        self.script = self.script_before = None  # number; 0 if the engine has refused the script
        self.answers_kept = {}
        self.dead = 0

    def passes(self, longest=0.1):
        self.now += self.choice.uniform(1e-6, longest)
        return self.now

    def update(self):
        number = self.choice.randrange(1000, 1 << 30)
        mode = self.choice.choice(("off", "manual", "pacurl", "wpad"))
        given = {"mode": mode, "proxyurl": f"m{number}:80", "pacurl": f"http://x/{number}",
                 "user": f"u{number}"}
        self.oracle.update_called(self.passes(), **given)
        self.config_before = self.config
        self.config = (mode, given["proxyurl"] * (mode == "manual"),
                       given["pacurl"] * (mode == "pacurl"), "n", given["user"], "")
        self.passes()
        self.oracle.update_replied(self.passes())

    def load(self):
        """The server sends a script, and the daemon loads it. The next request shows that it is loaded."""
        again = self.script and self.choice.random() < 0.2
        refused = not again and self.choice.random() < 0.2
        if not again:
            self.serial += 1
        self.oracle.request_came(self.passes())
        self.oracle.script_sent(self.passes(), self.serial, not refused)
        self.ask()  # still answered by the previous script
        self.passes()
        self.script_before = self.script
        self.script = 0 if refused else self.serial
        if not again and self.fault != "the cache is not emptied":
            self.answers_kept.clear()
        self.oracle.request_came(self.passes())

    def kill(self):
        """The worker dies during one question."""
        death = self.oracle.kill_sent(self.passes())
        self.dead = 2 if self.fault == "a death costs two answers" else 1
        host = self.choice.choice(URLS)
        self.answers_kept.pop(host, None)
        self.ask(host)
        self.oracle.kill_over(death, self.passes())
        if self.dead:
            self.ask(self.choice.choice([each for each in URLS if each not in self.answers_kept]
                                        or URLS))
        self.dead = 0

    def entries(self, host):
        if host in self.answers_kept:
            return self.answers_kept[host]
        script = self.script
        if self.fault == "the script before answers on" and self.script_before:
            script = self.script_before
        if not script:
            return []
        if self.dead:
            self.dead -= 1
            return []
        if self.fault == "another host's answer" and self.choice.random() < 0.05:
            host = self.choice.choice(URLS)
        self.answers_kept[host] = list(answer_of(script, host))
        if self.fault == "an entry is lost" and self.choice.random() < 0.05:
            return self.answers_kept[host][:-1] or ["DIRECT"]
        if self.fault == "a script of the future" and self.choice.random() < 0.05:
            return list(answer_of(script + 1, host))
        if self.fault == "no answer for no reason" and self.choice.random() < 0.05:
            return []
        return self.answers_kept[host]

    def ask(self, host=None):
        host = host or self.choice.choice(URLS)
        asked = self.passes()
        config = self.config
        if self.fault == "the configuration before" and self.choice.random() < 0.05:
            config = self.config_before
        mode = config[0]
        urls = [mode] + (self.entries(host) if mode in ("pacurl", "wpad") else [config[1]])
        if self.fault == "a mode that is none" and self.choice.random() < 0.02:
            urls = ["on", ""]
        self.passes(0.01)
        self.oracle.answered(asked, self.passes(0.01), host, urls)
        asked = self.passes(0.01)
        self.oracle.configured(asked, self.passes(0.01), config)

    def run(self, steps=600):
        steps_of = (self.ask,) * 20 + (self.update,) * 3 + (self.load,) * 3 + (self.kill,)
        for _ in range(steps):
            self.choice.choice(steps_of)()
            if self.choice.random() < 0.1:
                self.oracle.judge(self.now - 0.5)
        self.oracle.judge()
        return self.oracle


def test_a_right_daemon_gives_no_wrong_answer():
    for seed in range(30):
        oracle = Model(seed).run()
        assert oracle.wrong_count == 0, (seed, oracle.wrong)
        assert oracle.judged > 1000
        assert oracle.without_script and oracle.missing_by_kill
        # Nearly every answer has only one explanation, so the check is meaningful.
        assert oracle.ambiguous < oracle.judged / 20


FAULTS = ("the cache is not emptied", "the script before answers on", "another host's answer",
          "an entry is lost", "a script of the future", "no answer for no reason",
          "the configuration before", "a mode that is none", "a death costs two answers")


@pytest.mark.parametrize("fault", FAULTS, ids=lambda fault: fault.replace(" ", "_"))
def test_each_fault_is_found(fault):
    found = sum(Model(seed, fault).run().wrong_count > 0 for seed in range(10))
    assert found == 10, f"{fault}: found in {found} of 10 runs"


def loaded(oracle, now, serial, **options):
    oracle.request_came(now)
    oracle.script_sent(now, serial, **options)


def pacurl(oracle, now):
    oracle.update_called(now, "pacurl", pacurl="x")
    oracle.update_replied(now + 0.5)


def wrong(oracle):
    oracle.judge()
    return oracle.wrong_count


def two_scripts():
    oracle = Oracle()
    pacurl(oracle, 1)
    loaded(oracle, 2, 1)
    loaded(oracle, 10, 2)
    return oracle


OLD, NEW = (["pacurl", *answer_of(number, "h")] for number in (1, 2))


def test_an_old_script_answers_until_the_new_one_is_known_to():
    oracle = two_scripts()
    oracle.answered(11, 12, "h", OLD)  # the new script may still be loading
    oracle.answered(13, 14, "h", NEW)
    oracle.answered(13.5, 15, "h", OLD)  # asked before the answer NEW was received
    assert wrong(oracle) == 0
    oracle.answered(14.1, 15, "h", OLD)
    assert wrong(oracle) == 1


def test_a_later_request_says_that_the_script_is_loaded():
    oracle = two_scripts()
    oracle.request_came(12)
    oracle.answered(11.9, 13, "h", OLD)
    assert wrong(oracle) == 0
    oracle.answered(12.1, 13, "h", OLD)
    assert wrong(oracle) == 1


def test_an_update_called_after_the_script_puts_it_in_doubt_until_it_answers():
    oracle = two_scripts()
    pacurl(oracle, 14)
    oracle.request_came(15)
    oracle.answered(15.2, 16, "h", OLD)
    assert wrong(oracle) == 0
    oracle.answered(16, 17, "h", NEW)
    oracle.answered(17.1, 18, "h", OLD)
    assert wrong(oracle) == 1


def test_an_answer_by_the_repeat_does_not_say_that_the_doubtful_one_was_loaded():
    oracle = two_scripts()
    pacurl(oracle, 14)
    loaded(oracle, 15, 2)
    oracle.answered(15.2, 16, "h", OLD)  # the update ended the first transfer of the second script
    oracle.answered(16, 17, "h", NEW)
    assert wrong(oracle) == 0
    oracle.request_came(18)
    oracle.answered(18.1, 19, "h", OLD)
    assert wrong(oracle) == 1


def test_no_script_answers_before_it_was_sent():
    oracle = two_scripts()
    oracle.answered(9, 9.9, "h", NEW)
    assert wrong(oracle) == 1


def test_mode_and_script_must_have_been_in_force_together():
    oracle = two_scripts()
    oracle.answered(10.5, 10.9, "h", NEW)
    oracle.update_called(11, "off")
    oracle.update_replied(11.5)
    loaded(oracle, 12, 3)
    assert wrong(oracle) == 0
    # pacurl ended at 11.5, and the third script began at 12. Both overlap the call, but they do not
    # overlap each other.
    oracle.answered(11.2, 13, "h", ["pacurl", *answer_of(3, "h")])
    assert wrong(oracle) == 1


def test_each_death_explains_one_missing_answer():
    oracle = two_scripts()
    oracle.answered(11, 12, "h", NEW)
    death = oracle.kill_sent(20)
    oracle.kill_over(death, 21)
    oracle.answered(20.5, 22, "h", ["pacurl"])
    assert wrong(oracle) == 0
    oracle.answered(20.6, 22, "h", ["pacurl"])
    assert wrong(oracle) == 1


def test_a_death_explains_no_answer_asked_for_after_it():
    oracle = two_scripts()
    oracle.answered(11, 12, "h", NEW)
    oracle.kill_over(oracle.kill_sent(20), 21)
    oracle.answered(21.1, 22, "h", ["pacurl"])
    assert wrong(oracle) == 1


def test_a_script_lost_while_loading_has_no_answers_at_all():
    oracle = two_scripts()
    oracle.kill_over(oracle.kill_sent(10.1), 10.2)
    oracle.request_came(10.5)
    for at in (11, 12, 13):
        oracle.answered(at, at + 0.5, "h", ["pacurl"])
    assert wrong(oracle) == 0 and oracle.missing_by_lost_load == 3
    oracle.answered(14, 14.5, "h", NEW)
    oracle.answered(15, 15.5, "h", ["pacurl"])
    assert wrong(oracle) == 1


def test_a_refused_script_has_no_answers():
    oracle = two_scripts()
    loaded(oracle, 20, 3, answers=False)
    oracle.request_came(21)
    oracle.answered(22, 23, "h", ["pacurl"])
    assert wrong(oracle) == 0
    oracle.answered(22, 23, "h", ["pacurl", *answer_of(3, "h")])
    assert wrong(oracle) == 1
