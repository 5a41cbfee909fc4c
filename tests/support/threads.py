"""Reads the kernel's information about the threads of a process. A thread may end meanwhile."""

import os


def of_threads(pid, file):
    """{thread: text of its `file`} for all threads that still run."""
    texts = {}
    for thread in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{thread}/{file}") as text:
                texts[int(thread)] = text.read()
        except (FileNotFoundError, ProcessLookupError):
            pass  # the thread ended after the listing, or after the opening
    return texts


def thread_names(pid):
    return [text.strip() for text in of_threads(pid, "comm").values()]


def thread_statuses(pid):
    """{thread: {field: value}}, from the `status` of each thread."""
    return {thread: {field: value.strip() for field, value in
                     (line.split(":", 1) for line in text.splitlines())}
            for thread, text in of_threads(pid, "status").items()}
