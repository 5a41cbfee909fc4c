"""Tests apt, pip and npm with repositories of the test, and ssh. Each program uses the relay in
each mode."""

import base64
import gzip
import hashlib
import io
import json
import os
import subprocess
import tarfile
import zipfile

import pytest
from relay_world import ADDRESSES, MODES, RELAY, VARIABLES, serve
from support.real_proxies import SITE

TREE = os.path.abspath(os.path.join(os.path.dirname(__file__), "../.."))


def apt_repository():
    """Serves a repository with one package, which dpkg-deb makes."""
    os.makedirs("/run/package/DEBIAN")
    with open("/run/package/DEBIAN/control", "w") as control:
        control.write("Package: tiny\nVersion: 1\nArchitecture: all\nMaintainer: a <a@example.test>\n"
                      "Description: tiny\n")
    subprocess.run(["dpkg-deb", "--build", "/run/package", "/run/tiny.deb"], check=True,
                   capture_output=True)
    with open("/run/tiny.deb", "rb") as file:
        package = file.read()
    packages = (f"Package: tiny\nVersion: 1\nArchitecture: all\nMaintainer: a <a@example.test>\n"
                f"Filename: ./tiny.deb\nSize: {len(package)}\n"
                f"SHA256: {hashlib.sha256(package).hexdigest()}\nDescription: tiny\n\n").encode()
    release = (f"Origin: test\nDate: Thu, 01 Jan 2026 00:00:00 UTC\nSHA256:\n "
               f"{hashlib.sha256(packages).hexdigest()} {len(packages)} Packages\n")
    for path, content in (("/apt/Packages", packages), ("/apt/Release", release),
                          ("/apt/tiny.deb", package)):
        serve(path, content)


@pytest.mark.parametrize("mode", MODES)
def test_apt_updates_and_installs_by_the_packaged_snippet(world, mode):
    way = world.mode(mode)
    apt_repository()
    with open(f"{TREE}/packaging/relay/apt.conf") as snippet:
        world.programs.write("/etc/apt/apt.conf.d/60proxymanager-relay", snippet.read())
    world.programs.write("/etc/apt/sources.list.d/0000.list",
                         f"deb [trusted=yes] http://{SITE}/apt ./\n")
    world.programs.run("sh", "-c", "rm -f /etc/apt/sources.list")
    world.programs.run("sh", "-c",
                       "find /etc/apt/sources.list.d -type f ! -name 0000.list -delete")
    # These calls change only the test's own view of the unpacked system.
    world.programs.run("apt-get", "-o", "APT::Sandbox::User=root", "update")
    world.programs.run("apt-get", "-y", "-o", "APT::Sandbox::User=root", "install", "tiny")
    assert world.proxies.asked_from("/apt/") == {ADDRESSES[way]}


def wheel():
    content = io.BytesIO()
    with zipfile.ZipFile(content, "w") as archive:
        archive.writestr("tiny.py", "number = 42\n")
        archive.writestr("tiny-1.0.dist-info/METADATA", "Metadata-Version: 2.1\nName: tiny\nVersion: 1.0\n")
        archive.writestr("tiny-1.0.dist-info/WHEEL",
                         "Wheel-Version: 1.0\nGenerator: test\nRoot-Is-Purelib: true\nTag: py3-none-any\n")
        archive.writestr("tiny-1.0.dist-info/RECORD", "tiny.py,,\ntiny-1.0.dist-info/RECORD,,\n")
    return content.getvalue()


@pytest.mark.parametrize("mode", MODES)
def test_pip_installs(world, mode):
    way = world.mode(mode)
    serve("/pip/tiny/index.html",
          "<!doctype html><a href='/pip/tiny-1.0-py3-none-any.whl'>tiny-1.0-py3-none-any.whl</a>")
    serve("/pip/tiny-1.0-py3-none-any.whl", wheel())
    # This server gets the content type of a page only from the file's name.
    index = f"http://{SITE}/pip"
    world.programs.run("python3", "-m", "pip", "install", "--no-cache-dir", "--target", "/tmp/site",
                       "--index-url", index, "--trusted-host", SITE, "tiny", environment=VARIABLES)
    shown = world.programs.run("python3", "-c", "import tiny; print(tiny.number)",
                               environment={"PYTHONPATH": "/tmp/site"})
    assert shown.stdout == "42\n"
    assert world.proxies.asked_from("/pip/") == {ADDRESSES[way]}


def npm_package():
    content = io.BytesIO()
    text = json.dumps({"name": "tiny", "version": "1.0.0", "main": "index.js"}).encode()
    with tarfile.open(fileobj=content, mode="w") as archive:
        for name, data in (("package/package.json", text), ("package/index.js", b"module.exports = 42\n")):
            member = tarfile.TarInfo(name)
            member.size = len(data)
            archive.addfile(member, io.BytesIO(data))
    return gzip.compress(content.getvalue())


@pytest.mark.parametrize("mode", MODES)
def test_npm_installs(world, mode):
    way = world.mode(mode)
    tarball = npm_package()
    registry = f"http://{SITE}/npm"
    sha = base64.b64encode(hashlib.sha512(tarball).digest()).decode()
    version = {"name": "tiny", "version": "1.0.0",
               "dist": {"tarball": f"{registry}/tiny.tgz", "integrity": f"sha512-{sha}",
                        "shasum": hashlib.sha1(tarball).hexdigest()}}
    serve("/npm/tiny", json.dumps({"name": "tiny", "dist-tags": {"latest": "1.0.0"},
                                   "versions": {"1.0.0": version}}))
    serve("/npm/tiny.tgz", tarball)
    world.programs.run("npm", "install", "--prefix", "/tmp/npm", "--no-audit", "--no-fund",
                       "--registry", f"{registry}/", "--proxy", RELAY, "--https-proxy", RELAY, "tiny")
    shown = world.programs.run("node", "-e", "console.log(require('/tmp/npm/node_modules/tiny'))")
    assert shown.stdout == "42\n"
    assert world.proxies.asked_from("/npm/") == {ADDRESSES[way]}


@pytest.mark.parametrize("mode", MODES)
def test_ssh_runs_a_command_through_connect(world, mode):
    world.mode(mode)
    world.programs.run("mkdir", "-p", "/run/sshd")
    world.programs.run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", "/etc/ssh/test_host_key")
    world.programs.run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", "/tmp/key")
    world.programs.run("sh", "-c", "mkdir -p /root/.ssh && cp /tmp/key.pub /root/.ssh/authorized_keys && "
                       "chmod 700 /root /root/.ssh && chmod 600 /root/.ssh/authorized_keys")
    # In this test, tinyproxy allows tunnels only to port 443.
    world.proxies.start(
        "127.0.0.81:443", "/usr/sbin/sshd", "-D", "-f", "/dev/null", "-p", "443", "-o",
        "ListenAddress=127.0.0.81", "-h", "/etc/ssh/test_host_key", "-o", "PidFile=none", "-o",
        "PermitRootLogin=yes", "-o", "StrictModes=no", "-o", "UsePAM=no")
    said = world.programs.run(
        "ssh", "-p", "443", "-i", "/tmp/key", "-o", "StrictHostKeyChecking=no", "-o",
        "UserKnownHostsFile=/dev/null", "-o", "ProxyCommand=nc -X connect -x 127.0.0.1:3128 %h %p",
        "root@127.0.0.81", "echo", "there")
    assert said.stdout == "there\n", said.stderr
