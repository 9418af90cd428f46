#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the manual pages that are made: sections 3 and 7 from the public header and the guides,
section 5 from the documents of the formats.

    manual_pages.py ROOT FOLDER
"""

import pathlib
import sys

import package_page
import reference_pages
import scenario_page
from header import Header


def main(root, folder):
    version = Header(root / "include/velmora_svcmgr.h").version
    for module in (scenario_page, package_page, reference_pages):
        for name, lines in module.pages(root, version).items():
            (folder / name).write_text("\n".join(lines) + "\n", encoding="utf-8")


if __name__ == "__main__":
    main(*map(pathlib.Path, sys.argv[1:]))
