"""Tests that a machine does not let be made."""

import os

import pytest

SKIPPED = 77  # CTest's number for a test that could not be made


def refuse_or_skip(trouble):
    """Ends the run if this machine lacks what the tests of a folder need: as failed if everything is
    to be tested (CI is set), else as skipped. `trouble` is the reason; None or "" if nothing lacks."""
    if trouble:
        required = os.environ.get("CI", "") not in ("", "0", "false")
        pytest.exit(trouble, returncode=1 if required else SKIPPED)
