"""The exceptions for a question without an answer."""

import enum

from . import _library


class Status(enum.IntEnum):
    """The result of a question, with the numbers of the client library."""

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

    status: a Status, or a number of a later release of the library
    error: the errno if there is no connection to the bus, else 0
    name, text: the name and the text of the error on the bus; both may be empty or contain any characters
    """

    def __init__(self, status, error=0, name="", text=""):
        known = status in Status.__members__.values()
        self.status = Status(status) if known else status
        self.error, self.name, self.text = error, name, text
        message = _library.status_text(status).decode()
        super().__init__(f"{message}: {text}" if text else message)


class Unavailable(Error):
    """There is no bus or no daemon, or the bus policy does not allow this program to ask."""


class TooSlow(Error, TimeoutError):
    """The daemon did not answer within the limit."""


class BadArgument(Error, ValueError):
    """The URL is too long or not valid."""


class NoAnswer(Error):
    """No entry of the answer can be used, and the client has refuse=True."""


_CLASSES = {Status.NO_BUS: Unavailable, Status.NO_DAEMON: Unavailable, Status.DENIED: Unavailable,
            Status.TOO_SLOW: TooSlow, Status.BAD_ARGUMENT: BadArgument, Status.NO_ANSWER: NoAnswer}


def error(status, *details):
    """Returns the exception for a status that is not OK."""
    return _CLASSES.get(status, Error)(status, *details)


def last_error(status):
    """Returns the exception for `status`, with the bus error of the calling thread's last
    question."""
    failure = _library.last_failure().contents
    return error(status, failure.error, failure.name.decode(errors="replace"),
                 failure.text.decode(errors="replace"))
