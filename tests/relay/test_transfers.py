"""Tests curl, wget and git over Squid with Digest and over a TLS proxy, large uploads, and resumed
downloads."""

import hashlib
import os

import pytest
from relay_world import ADDRESSES, DIGEST, MODES, TLS, TLS_PROXY, big_file
from support.bus import wait_until
from support.real_proxies import PAGE, SITE

CURL = ("curl", "-sS", "--fail", "--max-time", "300")
WGET = ("wget", "-q", "--tries=1", "--timeout=60", "-O", "-")
GIT = ("sh", "-c", 'rm -rf /run/clone && git clone -q "$0" /run/clone && cat /run/clone/way')
MEGABYTES = 100


def ways(world):
    taken = set()
    for scheme in ("http", "https"):
        for command in ((*CURL, f"{scheme}://{SITE}/way"), (*WGET, f"{scheme}://{SITE}/way"),
                        (*GIT, f"{scheme}://{SITE}/way.git")):
            taken.add(world.run(*command).stdout)
    return taken


def digest_of(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha256").hexdigest()


def test_a_proxy_that_wants_digest_gets_it_from_the_relay(world):
    world.digest()
    assert ways(world) == {DIGEST}


def test_a_proxy_behind_tls_is_reached_and_its_certificate_is_checked(world):
    world.manual(TLS_PROXY, TLS)
    assert ways(world) == {TLS}
    # The certificate of the proxy does not contain this address.
    world.client.update("manual", TLS_PROXY.replace("secure.example.test", "127.0.0.14"))
    wait_until(lambda: world.run(*CURL, PAGE, check=False).returncode == 22, "502 of the relay")


@pytest.mark.parametrize("mode", MODES)
def test_a_large_upload_arrives_whole(world, mode):
    way = world.mode(mode)
    source = big_file("/source", MEGABYTES)
    for scheme, options in (("http", ()), ("http", ("-H", "Transfer-Encoding: chunked")), ("https", ())):
        target = f"/run/www/{ADDRESSES[way]}/upload/it"
        world.run(*CURL, "-T", source, *options, f"{scheme}://{SITE}/upload/it")
        assert digest_of(target) == digest_of(source)
        os.remove(target)


@pytest.mark.parametrize("mode", MODES)
def test_a_download_that_was_cut_is_resumed(world, mode):
    world.mode(mode)
    source = big_file("/source", MEGABYTES)
    for scheme in ("http", "https"):
        url = f"{scheme}://{SITE}/source"
        cut = world.run("curl", "-sS", "--limit-rate", "50M", "--max-time", "1", "-o", "/run/got", url,
                        check=False)
        assert cut.returncode == 28, "the time ended it"
        assert 0 < os.path.getsize("/run/got") < os.path.getsize(source)
        world.run(*CURL, "-C", "-", "-o", "/run/got", url)
        assert digest_of("/run/got") == digest_of(source)
        os.remove("/run/got")
