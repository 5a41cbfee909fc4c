"""Fixtures: what the tests of the daemon as a process have."""

import importlib.util
import os
import sys

_HERE = os.path.dirname(os.path.abspath(__file__))
_INTEGRATION = os.path.join(_HERE, "..", "integration")
sys.path[:0] = [_HERE, _INTEGRATION]
_spec = importlib.util.spec_from_file_location("integration_fixtures",
                                               os.path.join(_INTEGRATION, "conftest.py"))
_fixtures = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(_fixtures)
# Fixtures and hooks count where they are names of this file.
pytest_addoption, pytest_configure = _fixtures.pytest_addoption, _fixtures.pytest_configure
build, sanitizer, root = _fixtures.build, _fixtures.sanitizer, _fixtures.root
syslog, bus, daemon = _fixtures.syslog, _fixtures.bus, _fixtures.daemon
client = _fixtures.client
make_watched_files, trace = _fixtures.make_watched_files, _fixtures.trace
