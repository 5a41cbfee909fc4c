"""Changes a watched file, and waits until the daemon has handled the change."""

import os
import re

from .bus import wait_until
from .syslog_socket import INFO

_READ = re.compile(r"PACFetcher-dhcpCfgWatchThreadFunc read len:(\d+)")
_EVENT = 16  # bytes of an inotify event without a name


def _bytes_read(syslog):
    return sum(int(match[1]) for match in map(_READ.fullmatch, syslog.texts()) if match)


def _waits_again(syslog):
    """Whether the daemon has handled the event that it read last: then the thread waits again."""
    of_the_thread = [text for text in syslog.texts() if _READ.fullmatch(text)
                     or text.startswith("PACFetcher-wait_for_changes ")]
    return of_the_thread and not _READ.fullmatch(of_the_thread[-1])


def append_and_settle(path, text, syslog):
    """Appends `text` and waits until the daemon has read both events, the change and the closing.
    If the daemon read one of the events later, in a mode with a script, it would request one more fetch."""
    syslog.wait_match(INFO, r"PACFetcher-wait_for_changes fd:\d+, interval:1800")
    before = _bytes_read(syslog)
    file = os.open(path, os.O_WRONLY | os.O_APPEND)
    os.write(file, text.encode())
    os.close(file)
    wait_until(lambda: _bytes_read(syslog) >= before + 2 * _EVENT and _waits_again(syslog),
               "both events are read and seen to")
