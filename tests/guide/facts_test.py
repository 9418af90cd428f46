#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Do the guides say what the library's sources say? Tables are compared with them."""
import os
import pathlib
import re
import subprocess
import unittest

ROOT = pathlib.Path(os.environ["SOURCE_DIR"])
GUIDES = ROOT / "docs" / "guide"
HEADER = (ROOT / "include/velmora_svcmgr.h").read_text()


def guide(name):
    return (GUIDES / name).read_text()


def source(name):
    return (ROOT / "src" / name).read_text()


def enumerators(prefix):
    return {name: int(value) for name, value in re.findall(rf"^  ({prefix}\w+) = (-?\d+)", HEADER, re.M)}


def rows(text, pattern):
    return [match.groups() for match in re.finditer(rf"^\| *{pattern}", text, re.M)]


def section(text, title):
    found = re.search(rf"^#+ {re.escape(title)}\n(.*?)(?=^#|\Z)", text, re.M | re.S)
    assert found, title
    return found[1]


def headings(path):
    """As links name them."""
    titles = re.findall(r"^#+ (.*)$", path.read_text(), re.M)
    return {re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-") for title in titles}


def all_guides():
    return {path.name: path.read_text() for path in GUIDES.glob("*.md")}


class TheErrorsGuide(unittest.TestCase):
    def test_lists_each_code_with_its_number_and_a_remedy(self):
        listed = rows(guide("errors.md"), r"`(SVCMGR_ERROR_\w+)` \| (-?\d+) \| (\S[^|]+) \| (\S[^|]+) \|$")
        self.assertEqual({name: int(number) for name, number, _, _ in listed}, enumerators("SVCMGR_ERROR_"))

    def test_lists_what_the_cxx_face_has_codes_for(self):
        text = re.search(r"enum OwnError : int \{(.*?)\};", (ROOT / "include/velmora_svcmgr.hpp").read_text(), re.S)[1]
        wanted = re.findall(r"^  (k\w+) = (\d+),", text, re.M)
        self.assertEqual(rows(guide("errors.md"), r"`(k\w+)` \| (\d+) \|"), wanted)

    def test_translates_the_results_of_the_agent_as_the_library_does(self):
        table = re.search(r"kErrorOfAgentResult\[\] = \{(.*?)\};", source("SvcMgrAppProxyCallback.cc"), re.S)[1]
        wanted = re.findall(r"/\* +(\d+) \*/ (\w+)", table)
        self.assertEqual(len(wanted), 11)
        self.assertEqual(rows(guide("errors.md"), r"(\d+) \| `(SVCMGR_ERROR_\w+)` \|"), wanted)

    def test_translates_the_results_of_an_update_as_the_library_does(self):
        table = re.search(r"kStatusOfResult\[\] = \{(.*?)\};", source("UpdateStatusEventHandler.cc"), re.S)[1]
        wanted = [(result, status) for result, status in re.findall(r"/\* +(\d+) \*/ (\w+)", table)
                  if status != "SVCMGR_UPDATE_STATUS_FAILED"]
        listed = rows(guide("errors.md"), r"(\d+) \| `(SVCMGR_UPDATE_STATUS_\w+)` \| (\d+) \|")
        self.assertEqual([row[:2] for row in listed], wanted)
        for _, name, number in listed:
            self.assertEqual(int(number), enumerators("SVCMGR_UPDATE_STATUS_")[name])


class TheGuides(unittest.TestCase):
    def test_explain_every_trap_of_the_header(self):
        traps = re.findall(r"^ \* +(\d+)\. ", HEADER.partition(" * Traps")[2], re.M)
        self.assertEqual([int(number) for number in traps], list(range(1, len(traps) + 1)))
        named = set()
        for text in all_guides().values():
            for group in re.findall(r"\btraps? (\d+(?:(?:, | and | to )\d+)*)", text):
                numbers = [int(number) for number in re.findall(r"\d+", group)]
                named |= set(range(numbers[0], numbers[-1] + 1)) if " to " in group else set(numbers)
        self.assertEqual(named, {int(number) for number in traps})

    def test_name_what_the_header_declares(self):
        declared = set(re.findall(r"\b(?:velmora_svcmgr_|SVCMGR_)\w+", HEADER))
        programs = "".join(path.read_text() for path in (ROOT / "examples").iterdir() if path.is_file())
        for name, text in all_guides().items():
            for word in re.findall(r"\b(?:velmora_svcmgr_|SVCMGR_(?:ERROR|CONNECTION|UPDATE|AI)_)[A-Za-z_0-9]*\w\b", text):
                if word.endswith("_") or f"{word}*" in text or f"{word}.h" in text:
                    continue
                self.assertTrue(word in declared or word in programs, f"{name}: {word}")

    def test_link_to_what_is_there(self):
        places = [*ROOT.glob("*.md"), ROOT / "examples/README.md", ROOT / "tests/README.md", *(ROOT / "docs").rglob("*.md")]
        for place in places:
            prose = re.sub(r"^ *```.*?^ *```$", "", place.read_text(), flags=re.M | re.S)
            for path, fragment in re.findall(r"\]\(([^)#]*)(?:#([^)]*))?\)", prose):
                if re.match(r"[a-z]+:", path):
                    continue
                target = place.parent / path if path else place
                self.assertTrue(target.exists(), f"{place}: {path}")
                if fragment:
                    self.assertIn(fragment, headings(target), f"{place}: {path}#{fragment}")

    def test_are_listed_in_their_index(self):
        listed = set(re.findall(r"\]\(([\w-]+\.md)\)", guide("README.md")))
        self.assertEqual(listed, {name for name in all_guides() if name != "README.md"})


class TheWireGuide(unittest.TestCase):
    def test_lists_the_methods_with_their_numbers(self):
        text = re.search(r"enum class Method : int \{(.*?)\};", source("svcmgr_protocol.h"), re.S)[1]
        wanted = [(number, name) for name, number in re.findall(r"^  (\w+) = (\d+),", text, re.M)]
        self.assertEqual(rows(section(guide("wire-format.md"), "Methods"), r"(\d+) \| `(\w+)` \|"), wanted)

    def test_lists_the_delegates_with_their_numbers(self):
        text = re.search(r"enum class DelegateId : int \{(.*?)\};", source("svcmgr_protocol.h"), re.S)[1]
        wanted = [(number, name) for name, number in re.findall(r"^  (\w+) = (\d+),", text, re.M)]
        self.assertEqual(rows(section(guide("wire-format.md"), "Delegates"), r"(\d+) \| `(\w+)` \|"), wanted)

    def test_lists_the_keys_of_the_events_that_the_library_reads(self):
        keys = set()
        for name in ("UpdateObserver.cc", "UpdateStatusEventHandler.cc", "ModelUpdateEventHandler.cc"):
            keys |= set(re.findall(r'(?:HoldsTexts?|ReadNumber)\(data, "(\w+)"\)', source(name)))
        self.assertGreaterEqual(len(keys), 8)
        listed = rows(section(guide("wire-format.md"), "Events"), r'`\.(?:\w+)` \| "(\w+)" \|')
        self.assertEqual({row[0] for row in listed}, keys)


class TheSecurityDocument(unittest.TestCase):
    def test_names_tests_that_there_are(self):
        text = (ROOT / "docs/security.md").read_text()
        named = {(suite, name) for suite, name in re.findall(r"`(\w+)\.(\w+)`", text) if name[0].isupper()}
        self.assertGreater(len(named), 50)
        there = set()
        for path in [*(ROOT / "tests").rglob("*.cc")]:
            there |= set(re.findall(r"^TEST(?:_[FP])?\(\s*(\w+),\s*(\w+)\)", path.read_text(), re.M))
        self.assertEqual(sorted(named - there), [])

    def test_names_files_that_there_are(self):
        text = (ROOT / "docs/security.md").read_text()
        named = re.findall(r"`((?:src|platform|agent|tools|base|tests|fuzz)/[\w./-]+)`", text)
        self.assertGreater(len(named), 10)
        self.assertEqual([name for name in named if not (ROOT / name).exists()], [])


class ThePortingGuide(unittest.TestCase):
    def test_lists_the_functions_that_the_library_needs_of_the_platform(self):
        symbols = subprocess.run(["nm", "-D", "--undefined-only", os.environ["LIBRARY"]],
                                 check=True, capture_output=True, text=True).stdout
        families = r"rpc_port_|bundle_|dlog_|event_|app_|package_|get_error_message"
        needed = set(re.findall(rf"\bU ((?:{families})\w*)$", symbols, re.M))
        self.assertGreater(len(needed), 30)
        listed = set(re.findall(rf"`((?:{families})\w*)`", section(guide("porting.md"), "What the platform must supply")))
        self.assertEqual(listed, needed)


if __name__ == "__main__":
    unittest.main()
