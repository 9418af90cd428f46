#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Do the manual pages say what the header, the programs and the guides say?"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(os.environ["SOURCE_DIR"])
PAGES = ROOT / "docs/man"
sys.path.insert(0, str(ROOT / "tools/manual_pages"))

import header  # noqa: E402
import manual_pages  # noqa: E402

HEADER = header.Header(ROOT / "include/velmora_svcmgr.h")
# Pages of others that ours refer to.
OF_OTHERS = {"abort(3)", "fork(2)", "free(3)", "pytest(1)", "wireshark(1)", "tshark(1)", "jq(1)",
             "bash(1)", "zsh(1)", "fish(1)", "less(1)"}


def plain(text):
    """The text of a page without its markup."""
    text = re.sub(r'^\.\\".*\n', "", text, flags=re.M)
    text = re.sub(r"\\f[BIRP]|\\&", "", text)
    text = re.sub(r"^\.(?:[BI]|[BIR]{2}) +(.*)$", lambda match: one_word(match[1]), text, flags=re.M)
    return text.replace("\\-", "-").replace("\\(dq", '"').replace("\\(aq", "'").replace("\\e", "\\")


def one_word(arguments):
    """The arguments of .BR and its like, which it joins."""
    return "".join(quoted or bare for quoted, bare in re.findall(r'"([^"]*)"|([^ "]+)', arguments))


def pages():
    return {path.name: path.read_text(encoding="utf-8") for path in sorted(PAGES.iterdir())}


def names(text):
    """What a page describes, as whatis finds it."""
    lines = re.search(r"^\.SH NAME\n(.*?)^\.SH ", text, re.M | re.S)[1]
    return re.split(r", *", re.sub(r"^\..*\n", "", plain(lines), flags=re.M).split(" - ")[0].strip())


def sections(text):
    return re.findall(r'^\.SH "?([^"\n]+)"?', text, re.M)


def aliases(text):
    found = re.search(r'^\.\\" Aliases: (.*)$', text, re.M)
    return found[1].split() if found else []


class MadePages(unittest.TestCase):
    def test_are_those_of_their_sources(self):
        with tempfile.TemporaryDirectory() as folder:
            manual_pages.main(ROOT, pathlib.Path(folder))
            made = {path.name: path.read_text(encoding="utf-8") for path in pathlib.Path(folder).iterdir()}
        self.assertEqual(set(made), {name for name, text in pages().items() if "Made by" in text})
        for name, text in made.items():
            self.assertEqual(pages()[name], text, f"{name} is not that of its source: run ./dev docs")

    def test_describe_everything_that_the_header_declares(self):
        text = (ROOT / "include/velmora_svcmgr.h").read_text()
        declared = set(re.findall(r"^(?:int (\w+)\(|typedef void \(\*(\w+)\)|\} (velmora_\w+);|typedef struct .* (\w+);)",
                                  text, re.M))
        declared = {name for group in declared for name in group if name}
        exported = set(re.findall(r"velmora_svcmgr_\w+", (ROOT / "src/libvelmora-svcmgr.map").read_text()))
        self.assertLess(exported, declared)
        described = [name for page, text in pages().items() if page.endswith(".3")
                     for name in names(text)]
        self.assertEqual(len(described), len(set(described)))
        self.assertLessEqual(declared, set(described))

    def test_have_an_alias_for_each_name(self):
        for page, text in pages().items():
            self.assertEqual({page.rpartition(".")[0], *aliases(text)}, set(names(text)), page)

    def test_name_each_code_that_a_function_returns(self):
        for title, declarations in HEADER.sections:
            for each in declarations:
                page = next(text for name, text in pages().items() if name.endswith(".3") and each.name in names(text))
                errors = page.partition(".SH ERRORS")[2]
                part = errors.partition(f".SS {each.name}()")[2].partition("\n.SS ")[0]
                for codes, _ in each.comment.results:
                    for code in codes:
                        self.assertIn(f"\\fB{code}\\fR", part, f"{title}: {each.name}")
                for name, number, _ in each.values:
                    self.assertIn(f"{name} = {number}", plain(page))

    def test_hold_every_convention_and_every_trap(self):
        overview = " ".join(plain(pages()["velmora_svcmgr.7"]).split())
        self.assertGreaterEqual(len(HEADER.traps), 25)
        for text in [*HEADER.conventions.values(), *HEADER.traps.values()]:
            words = re.sub(r"\(\d\)", "", text).replace("()", "").replace("`", "")
            self.assertIn(words, re.sub(r"\(\d\)", "", overview))

    def test_of_packages_name_the_keys_that_are_read(self):
        reader = (ROOT / "platform/capi-appfw-package-manager/snapshot_reader.cc").read_text()
        keys = set(re.findall(r'kPackageGroup, "(\w+)"', reader))
        self.assertGreaterEqual(len(keys), 2)
        self.assertEqual(set(re.findall(r"^(\w+) in \[Package\]$", plain(pages()["svcmgr-package.5"]), re.M)), keys)


class EveryPage(unittest.TestCase):
    def test_refers_to_pages_that_are_there(self):
        there = {f"{name}({page[-1]})" for page, text in pages().items() for name in names(text)}
        for page, text in pages().items():
            for word in re.findall(r"[\w.-]+\(\d\)", plain(text)):
                self.assertIn(word, there | OF_OTHERS, page)

    def test_leads_to_others(self):
        for page, text in pages().items():
            self.assertIn("SEE ALSO", sections(text), page)
            self.assertTrue(re.search(r"^\.SH SEE ALSO\n(?:.*\n)*\.BR [\w\\-]+ \(\d\)", text, re.M), page)

    def test_bears_its_own_name_and_section(self):
        for page, text in pages().items():
            name, _, section = page.rpartition(".")
            found = re.search(r'^\.TH (\S+) (\d) "" "velmora\\-svcmgr ([\d.]+)"', text, re.M)
            self.assertTrue(found, page)
            self.assertEqual((found[1].replace("\\-", "-"), found[2], found[3]), (name.upper(), section, HEADER.version))

    def test_is_in_the_guides_to_all_documents_only_by_a_name_that_exists(self):
        for place in [ROOT / "README.md", *(ROOT / "docs").rglob("*.md")]:
            for section, name in re.findall(r"`man (\d) ([\w-]+)`", place.read_text()):
                self.assertIn(f"{name}.{section}", pages(), place)


class PagesOfPrograms(unittest.TestCase):
    def helps(self, program, *words):
        """What --help says for the program and each of its commands."""
        run = subprocess.run([program, *words, "--help"], capture_output=True, text=True, check=True, timeout=120)
        yield words, run.stdout
        listed = re.search(r"^(?:Subc|C)ommands:\n(.*?)(?:\n\n|\Z)", run.stdout, re.M | re.S)
        for command in re.findall(r"^  (\w[\w-]*)", listed[1], re.M) if listed else []:
            if command != "help":
                yield from self.helps(program, *words, command)

    def test_name_each_command_and_each_option(self):
        for variable, page in ("SVCMGRCTL", "svcmgrctl.1"), ("SVCMGR_SIM", "svcmgr-sim.1"):
            text = plain(pages()[page])
            commands = options = 0
            for words, told in self.helps(os.environ[variable]):
                commands += 1
                self.assertRegex(text, r"(?<![\w-])" + " ".join(words), page)
                for line in re.findall(r"^ +(-.*)$", told, re.M):
                    # The names stand in front of what the option takes and does.
                    for option in re.findall(r"(?<![\w-])--?[a-z][a-z-]*", re.split(r"\s", line)[0]):
                        options += 1
                        self.assertRegex(text, rf"(?<![\w-]){option}(?![\w-])", f"{page}: {' '.join(words)}")
            self.assertGreaterEqual(commands, 7, page)
            self.assertGreaterEqual(options, 10, page)

    def test_name_the_fields_of_each_command(self):
        section = re.search(r"^\.SH FIELDS\n(.*?)^\.SH ", pages()["svcmgrctl.1"], re.M | re.S)[1]
        documented = {}
        for command, names in re.findall(r"^\.TP\n\.B (.*)\n((?:[^.].*\n)+)", section, re.M):
            documented[command.replace("\\-", "-")] = re.findall(r"\w+", names)
        told = {}
        for words, text in self.helps(os.environ["SVCMGRCTL"]):
            for option, names in re.findall(r"^Fields(?: with (--[\w-]+))?: ((?:.*\n)+?)\n", text, re.M):
                told[" ".join([*words, option]).strip()] = re.findall(r"\w+", names)
        self.assertGreaterEqual(len(told), 17)
        self.assertEqual(documented, told)

    def test_have_all_that_a_reader_looks_for(self):
        for page in "svcmgrctl.1", "svcmgr-sim.1":
            for wanted in ("NAME", "SYNOPSIS", "DESCRIPTION", "COMMANDS", "OPTIONS", "EXIT STATUS", "ENVIRONMENT",
                           "FILES", "BUGS", "EXAMPLES", "SEE ALSO"):
                self.assertIn(wanted, sections(pages()[page]), page)


class InstalledPages(unittest.TestCase):
    def test_are_found_by_each_name(self):
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run([os.environ["CMAKE"], "--install", os.environ["DOCS_BUILD_DIR"], "--prefix", folder],
                           check=True, capture_output=True, timeout=120)
            man = pathlib.Path(folder) / "share/man"
            installed = {path.name: path for path in man.rglob("*.[0-9]")}
            for page, text in pages().items():
                section = page[-1]
                if section == "1" or page == "svcmgr-scenario.5":
                    continue  # installed with their programs
                self.assertEqual(installed[page].read_text(), text)
                for alias in aliases(text):
                    self.assertEqual(installed[f"{alias}.{section}"].read_text(), f".so man{section}/{page}\n")
            for path in installed.values():
                self.assertEqual(path.parent.name, f"man{path.suffix[1:]}")


if __name__ == "__main__":
    unittest.main()
