"""Fixtures: a Debian with programs that are unpacked and not installed, and the files of the build
that they use."""

import os
import pathlib
import shutil

import pytest
from support.bus import ADDRESS
from support.programs_root import ProgramsRoot
from support.real_proxies import RealProxies

EXAMPLES = pathlib.Path(__file__).parents[2] / "docs/examples/programs"
TRUSTED = "/etc/ssl/certs/ca-certificates.crt"


def pytest_addoption(parser):
    parser.addoption("--programs", required=True, help="what programs_root.sh has printed")


class Programs(ProgramsRoot):
    """Runs programs with this build's proxymanagerctl, this test's bus and its certificate."""

    def __init__(self, root, build):
        super().__init__(root)
        self.build = build
        os.makedirs(f"{self.path}/opt/build")
        for folder in ("bin", "lib"):
            shutil.copytree(f"{build}/out/{folder}", f"{self.path}/opt/build/{folder}", symlinks=True)
        shutil.copytree(EXAMPLES, f"{self.path}/opt/examples")
        self.variables = {"PATH": "/opt/build/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                          "DBUS_SYSTEM_BUS_ADDRESS": ADDRESS, "SSL_CERT_FILE": TRUSTED,
                          "NODE_EXTRA_CA_CERTS": "/run/site.pem"}

    def ask(self, *words, **variables):
        """Runs a program, which must succeed. Returns its output."""
        return self.run(*words, environment={**self.variables, **variables}).stdout

    def status(self, *words, **variables):
        done = self.run(*words, environment={**self.variables, **variables}, check=False)
        return done.returncode, done.stdout, done.stderr


@pytest.fixture
def proxies(own_network):
    proxies = RealProxies()
    yield proxies
    proxies.close()


@pytest.fixture
def programs(proxies, build, request):
    programs = Programs(request.config.getoption("--programs") + "/root", build)
    programs.trust(TRUSTED)
    yield programs
    programs.close()
