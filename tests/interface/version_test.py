#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds each place that names a version against the macros of the public header."""

import os
import pathlib
import re
import subprocess
import unittest

SOURCE = pathlib.Path(os.environ["SOURCE_DIR"])
BUILD = pathlib.Path(os.environ["BUILD_DIR"])
LIBRARY = pathlib.Path(os.environ["LIBRARY"])


def read(path):
    return path.read_text(encoding="utf-8")


def macro(name):
    return re.search(rf"^#define VELMORA_SVCMGR_{name} (\d+)$", read(SOURCE / "include/velmora_svcmgr.h"), re.M)[1]


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=60).stdout


MAJOR, MINOR, PATCH = (macro(f"VERSION_{part}") for part in ("MAJOR", "MINOR", "PATCH"))
VERSION = f"{MAJOR}.{MINOR}.{PATCH}"
SERIES = f"{MAJOR}.{MINOR}"


class TheVersionOfTheHeader(unittest.TestCase):
    def test_is_in_the_librarys_names(self):
        self.assertEqual(LIBRARY.name, f"libvelmora-svcmgr.so.{VERSION}")
        dynamic = output("readelf", "-dW", LIBRARY)
        self.assertEqual(re.search(r"\(SONAME\).*\[(.*)\]", dynamic)[1], f"libvelmora-svcmgr.so.{MAJOR}")

    def test_is_in_the_package_files(self):
        pc = read(BUILD / "src/velmora-svcmgr.pc")
        self.assertEqual(re.search(r"^Version: (.*)$", pc, re.M)[1], VERSION)
        config = read(BUILD / "src/velmora-svcmgr-config-version.cmake")
        self.assertEqual(re.search(r'^set\(PACKAGE_VERSION "(.*)"\)$', config, re.M)[1], VERSION)

    def test_is_what_the_programs_say(self):
        self.assertEqual(output(BUILD / "bin/svcmgrctl", "--version").split("\n")[0],
                         f"svcmgrctl {VERSION} (client API level {macro('API_LEVEL')})")
        self.assertEqual(output(BUILD / "bin/svcmgr-sim", "--version"), f"svcmgr-sim {VERSION}\n")

    def test_is_at_the_top_of_the_changelog(self):
        self.assertEqual(re.search(r"^## (\S+), API level (\d+)", read(SOURCE / "CHANGELOG.md"), re.M).groups(),
                         (VERSION, macro("API_LEVEL")))

    def test_is_in_the_names_and_the_changelog_of_the_debian_packages(self):
        self.assertEqual(re.match(r"velmora-svcmgr \(([^)]+)\)", read(SOURCE / "debian/changelog"))[1], VERSION)
        self.assertIn(f"Package: libvelmora-svcmgr{MAJOR}\n", read(SOURCE / "debian/control"))

    def test_is_no_older_than_what_the_debian_symbols_ask_for(self):
        lines = read(SOURCE / f"debian/libvelmora-svcmgr{MAJOR}.symbols").splitlines()
        self.assertEqual(lines[0], f"libvelmora-svcmgr.so.{MAJOR} libvelmora-svcmgr{MAJOR} #MINVER#")
        listed = {}
        for line in lines[2:]:
            symbol, version = line.split()
            listed[symbol] = version
            self.assertLessEqual([int(part) for part in version.split(".")], [int(MAJOR), int(MINOR), int(PATCH)])
        exported = set(re.findall(r" T (\S+)@@(\S+)", output("nm", "-D", "--defined-only", LIBRARY)))
        self.assertEqual({tuple(symbol.split("@")) for symbol in listed if symbol.startswith("velmora_")}, exported)

    def test_is_in_the_manual_pages(self):
        for page in sorted((SOURCE / "docs/man").glob("*.[1-9]")):
            title = re.search(r'^\.TH .*"velmora\\-svcmgr ([\d.]+)"', read(page), re.M)
            self.assertIsNotNone(title, page.name)
            self.assertIn(title[1], (SERIES, VERSION), page.name)

    def test_is_what_the_documentation_asks_for(self):
        for page in (SOURCE / "README.md", *(SOURCE / "docs").rglob("*.md"), SOURCE / "examples/CMakeLists.txt"):
            for asked in re.findall(r"find_package\(velmora-svcmgr ([\d.]+)", read(page)):
                self.assertEqual(asked, SERIES, page)

    def test_is_no_older_than_the_versions_of_the_functions(self):
        nodes = re.findall(r"^VELMORA_SVCMGR_(\d+)\.(\d+) \{$", read(SOURCE / "src/libvelmora-svcmgr.map"), re.M)
        self.assertTrue(nodes)
        for major, minor in nodes:
            self.assertEqual(major, MAJOR)
            self.assertLessEqual(int(minor), int(MINOR))


if __name__ == "__main__":
    unittest.main()
