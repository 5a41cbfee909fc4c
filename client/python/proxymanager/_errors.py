"""What a question without an answer raises."""

import enum

from . import _library


class Status(enum.IntEnum):
    """How a question ended, with the numbers of the client library."""

    OK = 0
    NO_BUS = 1
    NO_DAEMON = 2
    DENIED = 3
    TOO_SLOW = 4
    BAD_REPLY = 5
    CANCELLED = 6
    BAD_ARGUMENT = 7
    NO_MEMORY = 8
    BUSY = 9
    FORKED = 10
    NO_ANSWER = 11


class Error(Exception):
    """A question has no answer.

    status: a Status, or a number that a later release of the library has
    error: errno if there was no connection to the bus, else 0
    name, text: the error on the bus; both may be empty, and may hold anything
    """

    def __init__(self, status, error=0, name="", text=""):
        known = status in Status.__members__.values()
        self.status = Status(status) if known else status
        self.error, self.name, self.text = error, name, text
        message = _library.status_text(status).decode()
        super().__init__(f"{message}: {text}" if text else message)


class Unavailable(Error):
    """There is no bus or no daemon, or the bus does not let this program ask."""


class TooSlow(Error, TimeoutError):
    """The daemon did not answer within the limit."""


class BadArgument(Error, ValueError):
    """The URL is too long, or no URL."""


class NoAnswer(Error):
    """No entry of the answer can be used, and the client was made with refuse=True."""


_CLASSES = {Status.NO_BUS: Unavailable, Status.NO_DAEMON: Unavailable, Status.DENIED: Unavailable,
            Status.TOO_SLOW: TooSlow, Status.BAD_ARGUMENT: BadArgument, Status.NO_ANSWER: NoAnswer}


def error(status, *details):
    """The exception for a status, which is not OK."""
    return _CLASSES.get(status, Error)(status, *details)


def last_error(status):
    """The exception for the calling thread's last question, with what the bus reported."""
    failure = _library.last_failure().contents
    return error(status, failure.error, failure.name.decode(errors="replace"),
                 failure.text.decode(errors="replace"))
