#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds the SPDX document of an installation against the files that are there: spdx_test.py PREFIX."""

import hashlib
import pathlib
import re
import sys

prefix = pathlib.Path(sys.argv[1])
document = prefix / "share/velmora-svcmgr/velmora-svcmgr.spdx"
text = document.read_text(encoding="utf-8")
faults = []

for field in ("SPDXVersion: SPDX-2.3", "DataLicense: CC0-1.0", "SPDXID: SPDXRef-DOCUMENT",
              "PackageName: velmora-svcmgr", "PackageLicenseDeclared: Apache-2.0", "FilesAnalyzed: true"):
    if field not in text.splitlines():
        faults.append(f"there is no '{field}'")
for field in (r"Created: \d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", r"DocumentNamespace: \S+", r"PackageVersion: [\d.]+"):
    if not re.search(rf"^{field}$", text, re.M):
        faults.append(f"there is no '{field}'")

listed, identifiers, sums = {}, set(), []
for record in text.split("\nFileName: ")[1:]:
    name, *fields = record.splitlines()
    values = dict(field.split(": ", 1) for field in fields if ": " in field)
    listed[name] = values
    if values["SPDXID"] in identifiers:
        faults.append(f"{values['SPDXID']} is there twice")
    identifiers.add(values["SPDXID"])
    checksums = dict(re.findall(r"^FileChecksum: (SHA\d+): ([0-9a-f]+)$", record, re.M))
    data = (prefix / name).read_bytes()
    if checksums != {"SHA1": hashlib.sha1(data).hexdigest(), "SHA256": hashlib.sha256(data).hexdigest()}:
        faults.append(f"{name} has other checksums")
    if values["LicenseConcluded"] != "Apache-2.0":
        faults.append(f"{name} has the licence {values['LicenseConcluded']}")
    sums.append(checksums["SHA1"])

there = {f"./{path.relative_to(prefix)}" for path in prefix.rglob("*")
         if path.is_file() and not path.is_symlink() and path != document}
faults += [f"{name} is installed, not listed" for name in sorted(there - set(listed))]
faults += [f"{name} is listed, not installed" for name in sorted(set(listed) - there)]
code = re.search(r"^PackageVerificationCode: ([0-9a-f]{40}) \(excludes: \./(\S+)\)$", text, re.M)
if not code or code[1] != hashlib.sha1("".join(sorted(sums)).encode()).hexdigest():
    faults.append("the verification code is wrong")
elif prefix / code[2] != document:
    faults.append("the document does not exclude itself")

print("\n".join(faults) or f"{len(listed)} files")
sys.exit(bool(faults) or not listed)
