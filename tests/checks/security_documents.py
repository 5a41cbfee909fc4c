#!/usr/bin/env python3
"""Fails if the SBOM or the list of the engine's known vulnerabilities is incomplete.

usage: security_documents.py CMAKE BUILD | --self-test CMAKE

- Each installed program is in the SBOM, with each library that the program is linked with.
- Each package URL of Debian names an installed package with its installed version. The engine has
  the same URL in both documents: the URL of its package, or of upstream's release if it was built
  from source.
- Each hole of docs/security/engine_holes.json is in the VEX document once, with a state. Its
  proof exists, unless the hole is in triage. Each proof belongs to a hole.
- The copies in docs/security/ (one of them comes with the source tarball) name the same holes,
  programs and compiled-in parts as the documents of the build.
"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest.mock
import urllib.parse

TREE = pathlib.Path(__file__).resolve().parents[2]
FOLDER = TREE / "docs/security"
PROOFS = TREE / "tests/hostile_engine/proofs"
DOCUMENTS = ("sbom.cdx.json", "vex.cdx.json")


def read(path):
    return json.loads(pathlib.Path(path).read_text(encoding="utf-8"))


def sonames(path):
    dynamic = subprocess.run(["readelf", "-dW", path], check=True, capture_output=True, text=True)
    return re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic.stdout)


def programs_in(prefix):
    for path in pathlib.Path(prefix).rglob("*"):
        if path.is_file() and not path.is_symlink() and path.read_bytes()[:4] == b"\x7fELF":
            yield path


def names_of(document):
    """The content that is compared: components, or holes and their states."""
    if "vulnerabilities" in document:
        return {(hole["id"], hole["analysis"]["state"]) for hole in document["vulnerabilities"]}
    return {component["name"] for component in document["components"]}


def built_parts(sbom):
    """The programs and the parts that are compiled into them. Shared libraries are left out,
    because they are different on each machine."""
    return {component["name"] for component in sbom["components"]
            if component["type"] == "application" or ".so" not in component["name"]}


def in_sbom(sbom, programs):
    uses = {entry["ref"]: set(entry["dependsOn"]) for entry in sbom["dependencies"]}
    names = names_of(sbom)
    for path in programs:
        # The SBOM has a library under the beginning of its file's name, for example libx.so.1 for
        # libx.so.1.2.3.
        name = next((ref for ref in uses if path.name.startswith(ref)), None)
        if name is None:
            yield f"{path.name} is not in the SBOM"
            continue
        for soname in sonames(path):
            if soname not in uses[name] or soname not in names:
                yield f"the SBOM lacks {soname}, which {path.name} is linked with"


def urls_of(document):
    return {part["name"]: part["purl"] for part in document["components"] if "purl" in part}


def not_installed(document):
    installed = subprocess.run(["dpkg-query", "-W", "-f", "${Package}@${Version}\n"], check=True,
                               capture_output=True, text=True).stdout.splitlines()
    for name, url in urls_of(document).items():
        package = urllib.parse.unquote(url).partition("pkg:deb/debian/")[2]
        if package and package not in installed:
            yield f"{name} has the package URL {url}, but that package is not installed"


def of_engine(documents, expected):
    for name, document in documents.items():
        url = urls_of(document).get("quickjs-ng")
        if url != expected:
            yield f"the engine's package URL in {name} is {url} instead of {expected}"


def of_holes(vex, holes):
    listed = [hole["id"] for hole in vex["vulnerabilities"]]
    for hole in holes:
        if listed.count(hole["id"]) != 1:
            yield f"the VEX document has {hole['id']} {listed.count(hole['id'])} times"
        if hole.get("state") != "in_triage" and not (PROOFS / hole["proof"]).is_file():
            yield f"{hole['id']} has no proof {hole['proof']}"
    proofs = {hole.get("proof") for hole in holes}
    for path in sorted(PROOFS.glob("*.js")):
        if path.name not in proofs:
            yield f"{path.name} is the proof of no hole"


def findings(cmake, build):
    with tempfile.TemporaryDirectory() as prefix:
        # The error stream is not captured, so that a warning about an old engine is visible.
        subprocess.run([cmake, "--install", build, "--prefix", prefix], check=True,
                       stdout=subprocess.DEVNULL)
        made = {name: read(next(pathlib.Path(prefix).rglob(name))) for name in DOCUMENTS}
        yield from in_sbom(made["sbom.cdx.json"], programs_in(prefix))
    built, copies = made["sbom.cdx.json"], {name: read(FOLDER / name) for name in DOCUMENTS}
    yield from not_installed(built)
    yield from of_engine(made, urls_of(built)["quickjs-ng"])
    # The copies in the tree come from a build that compiles the engine. Other builds use a package of it.
    version = next(part["version"] for part in copies["sbom.cdx.json"]["components"]
                   if part["name"] == "quickjs-ng")
    yield from of_engine(copies, f"pkg:generic/quickjs-ng@{version}")
    for difference in built_parts(built) ^ built_parts(copies["sbom.cdx.json"]):
        yield f"docs/security/sbom.cdx.json and what is built differ in {difference}"
    yield from of_holes(made["vex.cdx.json"], read(FOLDER / "engine_holes.json")["holes"])
    for difference in names_of(made["vex.cdx.json"]) ^ names_of(copies["vex.cdx.json"]):
        yield f"docs/security/vex.cdx.json and what is built differ in {difference}"


def run(cmake, folder, version, header, **more):
    variables = {"PROGRAMS": sys.executable, "VERSION": "1", "ENGINE_VERSION": version,
                 "ENGINE_HEADER": header, "OBJDUMP": "objdump", "OUTPUT": folder,
                 "HOLES": FOLDER / "engine_holes.json",
                 "COPYRIGHT": TREE / "packaging/debian/copyright", **more}
    command = [cmake, *(f"-D{name}={value}" for name, value in variables.items()), "-P",
               TREE / "cmake/security_documents.cmake"]
    return subprocess.run(command, check=False, capture_output=True, text=True)


def self_test(cmake):
    with tempfile.TemporaryDirectory() as folder:
        header = pathlib.Path(folder, "quickjs.h")
        header.touch()
        # A release counts as old after 183 days (half a year). If the version is listed, the dates
        # of the header file and of the source have no effect.
        good = run(cmake, folder, "0.16.2", header, TODAY="2027-02-19")
        assert good.returncode == 0 and "days old" not in good.stderr, good.stderr
        stale = run(cmake, folder, "0.16.2", header, TODAY="2027-02-20")
        assert stale.returncode == 0 and "2026-08-20 is 184 days old" in stale.stderr, stale.stderr
        old = run(cmake, folder, "0.11.0", header)
        assert old.returncode != 0 and "CVE-2025-62494" in old.stderr, old.stderr
        # For a version that is not listed, the date of its header file counts.
        fresh = run(cmake, folder, "99.0", header)
        assert fresh.returncode == 0 and "days old" not in fresh.stderr, fresh.stderr
        subprocess.run(["touch", "-d", "7 months ago", header], check=True)
        with unittest.mock.patch.dict(os.environ, SOURCE_DATE_EPOCH="946684800"):
            aged = run(cmake, folder, "99.0", header)
        assert aged.returncode == 0 and "days old" in aged.stderr, aged.stderr
        sbom = read(pathlib.Path(folder, "sbom.cdx.json"))
        assert "libc.so.6" in names_of(sbom), sbom
        assert '"proxymanagerd:released"' in json.dumps(sbom), sbom
        made = {name: read(pathlib.Path(folder, name)) for name in DOCUMENTS}
        vex = made["vex.cdx.json"]
        lines = list(of_engine(made, "pkg:generic/quickjs-ng@99.0"))
        assert not lines, lines
        lines = list(of_engine(made, "pkg:generic/quickjs-ng@98.0"))
        assert len(lines) == 2, lines
        # With a header of libc6-dev instead of libqjs-dev, the SBOM must name libc6-dev as the
        # package.
        assert run(cmake, folder, "0.17.0", "/usr/include/stdio.h").returncode == 0
        packaged = read(pathlib.Path(folder, "sbom.cdx.json"))
        assert urls_of(packaged)["quickjs-ng"].startswith("pkg:deb/debian/libc6-dev@"), packaged
        lines = list(not_installed(packaged))
        assert not lines, lines
        maps_on_demand = pathlib.Path(folder, "program")
        maps_on_demand.write_bytes(pathlib.Path(sys.executable).read_bytes() + b"\0libuuid.so.1\0")
        assert run(cmake, folder, "0.16.2", header, PROGRAMS=maps_on_demand).returncode == 0
        sbom_on_demand = read(pathlib.Path(folder, "sbom.cdx.json"))
        uuid = [part for part in sbom_on_demand["components"] if part["name"] == "libuuid.so.1"]
        assert uuid and "libuuid1@" in uuid[0]["purl"], sbom_on_demand
    missing = list(in_sbom(sbom, [pathlib.Path("/bin/true")]))
    assert missing == ["true is not in the SBOM"], missing
    lines = list(not_installed({"components": [{"name": "a", "purl": "pkg:deb/debian/quickjs-ng@0"}]}))
    assert len(lines) == 1, lines
    hole = {"id": "CVE-1", "proof": "none.js"}
    lacking = list(of_holes({"vulnerabilities": []}, [hole]))
    assert any("CVE-1 0 times" in line for line in lacking), lacking
    assert any("no proof" in line for line in lacking), lacking
    assert any(line.endswith(".js is the proof of no hole") for line in lacking), lacking
    triage = {hole["id"] for hole in vex["vulnerabilities"] if hole["analysis"]["state"] == "in_triage"}
    listed = {hole["id"] for hole in read(FOLDER / "engine_holes.json")["holes"] if "proof" not in hole}
    assert triage == listed, (triage, listed)


def main():
    if sys.argv[1] == "--self-test":
        self_test(sys.argv[2])
        return
    found = list(findings(sys.argv[1], sys.argv[2]))
    if found:
        sys.exit("\n".join(found))


main()
