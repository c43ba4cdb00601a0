#!/usr/bin/env python3
"""Writes FOLDER/qvx-VERSION.spdx.json: the files of a release, and the works that they are built from, as SPDX 2.3.

    make_sbom.py QVX_READ FOLDER

What the program was built from is what the program says. The time is that of SOURCE_DATE_EPOCH.
"""

import datetime
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys

LICENCES = {
    "zlib": "Zlib",
    "libdeflate": "MIT",
    "snappy": "BSD-3-Clause",
    "OpenSSL": "Apache-2.0",
    "Boost": "BSL-1.0",
    "RapidJSON": "MIT",
}
LINKED = {"zlib": "DYNAMIC_LINK", "libdeflate": "DYNAMIC_LINK"}


def package(name, version, licence):
    return {
        "SPDXID": f"SPDXRef-{name}",
        "name": name,
        "versionInfo": version,
        "downloadLocation": "NOASSERTION",
        "filesAnalyzed": False,
        "licenseConcluded": licence,
        "licenseDeclared": licence,
        "copyrightText": "NOASSERTION",
    }


def main(program, folder):
    folder = pathlib.Path(folder)
    said = subprocess.run([program, "-V"], check=True, capture_output=True, text=True).stdout
    version = re.search(r"reader (\S+)", said)[1]
    parts = [(name, re.search(rf"^  {name} (\S+)$", said, re.MULTILINE)[1]) for name in LICENCES]
    files = []
    for number, path in enumerate(sorted(folder.iterdir())):
        content = path.read_bytes()
        files.append({
            "SPDXID": f"SPDXRef-File-{number}",
            "fileName": f"./{path.name}",
            "checksums": [{"algorithm": "SHA1", "checksumValue": hashlib.sha1(content).hexdigest()},
                          {"algorithm": "SHA256", "checksumValue": hashlib.sha256(content).hexdigest()}],
            "licenseConcluded": "Apache-2.0",
            "copyrightText": "NOASSERTION",
        })
    # A name that changes with the content, as SPDX asks for.
    identity = hashlib.sha256(json.dumps([files, parts]).encode()).hexdigest()
    created = datetime.datetime.fromtimestamp(int(os.environ["SOURCE_DATE_EPOCH"]), datetime.timezone.utc)
    relations = [("SPDXRef-DOCUMENT", "DESCRIBES", "SPDXRef-qvx")]
    relations += [("SPDXRef-qvx", LINKED.get(name, "STATIC_LINK"), f"SPDXRef-{name}") for name, _ in parts]
    relations += [("SPDXRef-qvx", "CONTAINS", file["SPDXID"]) for file in files]
    document = {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"qvx-{version}",
        "documentNamespace": f"https://quorvex.invalid/spdx/qvx-{version}-{identity}",
        "creationInfo": {"created": created.strftime("%Y-%m-%dT%H:%M:%SZ"), "creators": ["Tool: make_sbom.py"]},
        "packages": [package("qvx", version, "Apache-2.0")] + [package(name, of, LICENCES[name]) for name, of in parts],
        "files": files,
        "relationships": [{"spdxElementId": a, "relationshipType": relation, "relatedSpdxElement": b}
                          for a, relation, b in relations],
    }
    out = folder / f"qvx-{version}.spdx.json"
    out.write_text(json.dumps(document, indent=2) + "\n", encoding="utf-8")


if __name__ == "__main__":
    main(*sys.argv[1:])
