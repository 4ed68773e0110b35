#!/usr/bin/python3
"""Writes the SPDX 2.3 document of a package: its programs, and the Debian packages they run with.

Usage: sbom.py PACKAGE VERSION ROOT    ROOT is the tree that the package is made of
"""
import datetime
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys

COMPILER = re.match(r"\d+", subprocess.run(["g++", "-dumpversion"], check=True, text=True,
                                           capture_output=True).stdout)[0]
CXX_LIBRARY = f"libstdc++-{COMPILER}-dev"
LICENSES = {  # of the libraries' packages, as their copyright files state them
    "libc6": "LGPL-2.1-or-later", "libgcc-s1": "GPL-3.0-or-later WITH GCC-exception-3.1",
    "libstdc++6": "GPL-3.0-or-later WITH GCC-exception-3.1",
    CXX_LIBRARY: "GPL-3.0-or-later WITH GCC-exception-3.1", "libssl3": "Apache-2.0",
    "libssl1.1": "OpenSSL",
    "libdbus-1-3": "AFL-2.1 OR GPL-2.0-or-later", "libcjson1": "MIT",
    "libcrypt1": "LGPL-2.1-or-later", "libmosquitto1": "EPL-2.0 OR BSD-3-Clause",
    "libsqlite3-0": "blessing",
    "libsdbus-c++1": "LGPL-2.1-or-later WITH LGPL-exception-1.1",
    "libsdbus-c++2": "LGPL-2.1-or-later WITH LGPL-exception-1.1", "libboost-dev": "BSL-1.0",
    "nlohmann-json3-dev": "MIT", "libcli11-dev": "BSD-3-Clause"}
COMPILED_IN = {"remote-access-daemon": [CXX_LIBRARY],
               "remote-access-backend": ["libboost-dev", "nlohmann-json3-dev", "libcli11-dev"],
               "remote-access-operator": ["libboost-dev", "nlohmann-json3-dev", "libcli11-dev"]}
TABLE = pathlib.Path(__file__).resolve().parent / "architectures"
ROWS = [line.split(maxsplit=4) for line in TABLE.read_text().splitlines() if line[:1] != "#"]
DEBIAN_NAMES = {machine: name for name, _, _, _, machine in ROWS}  # by the name that readelf uses


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def is_program(path):
    with open(path, "rb") as file:
        return file.read(4) == b"\x7fELF"


def needed(path):
    return re.findall(r"\(NEEDED\).*\[(.+)\]", output("readelf", "-dW", path))


def architecture_of(path):
    machine = re.search(r"Machine:\s+(.*)", output("readelf", "-hW", path))[1].strip()
    if machine not in DEBIAN_NAMES:
        raise SystemExit(f"sbom.py: {path}: unknown architecture {machine}; "
                         f"known: {', '.join(DEBIAN_NAMES)}")
    return DEBIAN_NAMES[machine]


def owner(library, architecture):
    """(package, version) that brings a library for the architecture."""
    for line in output("dpkg-query", "-S", f"*/{library}").splitlines():
        name = line.split(": ")[0]
        package, _, of = name.partition(":")
        if of == architecture:
            if package.endswith("-cross"):
                continue
            return package, output("dpkg-query", "-W", "-f", "${Version}", name)
    raise SystemExit(f"sbom.py: no package of {architecture} brings {library}")


def built_in(name, architecture):
    """(package, version) of what is compiled in. The C++ library's archive comes with the cross
    compiler, which is among the host's packages and not in the target's database."""
    cross = f"{name}-{architecture}-cross"
    here = {key: value for key, value in os.environ.items() if key != "DPKG_ADMINDIR"}
    native = output("dpkg", "--print-architecture").strip()
    if name.startswith("libstdc++") and architecture != native:
        return name, subprocess.run(["dpkg-query", "-W", "-f", "${Version}", cross], check=True,
                                    capture_output=True, text=True, env=here).stdout
    return name, output("dpkg-query", "-W", "-f", "${Version}", name)


def entry(name, version, license_id):
    return {"SPDXID": "SPDXRef-" + re.sub(r"[^A-Za-z0-9.]", "-", name), "name": name,
            "versionInfo": version, "downloadLocation": "NOASSERTION", "filesAnalyzed": False,
            "licenseConcluded": license_id, "licenseDeclared": license_id,
            "copyrightText": "NOASSERTION"}


def main(package, version, root):
    programs = sorted(path for path in pathlib.Path(root).rglob("*")
                      if path.is_file() and not path.is_symlink() and is_program(path))
    libraries = {owner(library, architecture_of(path))
                 for path in programs for library in needed(path) if not library.startswith("ld-")}
    libraries |= {built_in(name, architecture_of(programs[0]))
                  for name in COMPILED_IN.get(package, ())}
    time = datetime.datetime.fromtimestamp(int(os.environ.get("SOURCE_DATE_EPOCH", "0")),
                                           datetime.timezone.utc)
    entries = [entry(package, version, "Apache-2.0"),
               *(entry(name, number, LICENSES[name.removesuffix("t64")])
                 for name, number in sorted(libraries))]
    digest = hashlib.sha256("".join(str(item) for item in entries).encode()).hexdigest()
    document = {
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"{package}-{version}", "documentNamespace": f"urn:sha256:{digest}",
        "creationInfo": {"created": time.strftime("%Y-%m-%dT%H:%M:%SZ"),
                         "creators": ["Tool: packaging/sbom.py"]},
        "packages": entries,
        "relationships": [
            {"spdxElementId": "SPDXRef-DOCUMENT", "relationshipType": "DESCRIBES",
             "relatedSpdxElement": entries[0]["SPDXID"]},
            *({"spdxElementId": entries[0]["SPDXID"], "relatedSpdxElement": item["SPDXID"],
               "relationshipType":
                   "STATIC_LINK" if item["name"].endswith("-dev") else "DYNAMIC_LINK"}
              for item in entries[1:])]}
    target = pathlib.Path(root) / f"usr/share/doc/{package}/sbom.spdx.json"
    target.parent.mkdir(parents=True, exist_ok=True)
    target.write_text(json.dumps(document, indent=1) + "\n")


if __name__ == "__main__":
    main(*sys.argv[1:])
