# SPDX-License-Identifier: Apache-2.0
"""The places for faults, and the choice among them."""

import itertools
import tempfile
import unittest
from pathlib import Path

import mutants
import mutate

SAMPLE = '''\
#include "header<1>.h"
// if (a == 1) return SVCMGR_ERROR_NONE;
int Example(int a) {
  const int b = 5;
  Call(a, b < 7 && a > 0);
  if (a == b) return SVCMGR_ERROR_NONE;
  Log("a text; with = signs");
  return SVCMGR_ERROR_IO_ERROR;
}
'''


def faults(kind, source=SAMPLE):
    """What the lines of a source become, fault by fault."""
    before = source.split("\n")
    changed = []
    for mutant in mutants.find("example.cc", source):
        if mutant.kind == kind:
            after = mutant.apply(source).split("\n")
            changed += [b.strip() for a, b in zip(before, after) if a != b]
    return changed


def choice(sources, seed, number):
    return [mutant.identity
            for mutant in itertools.islice(mutants.choose(sources, seed), number)]


class Finding(unittest.TestCase):
    def test_turns_comparisons_and_their_junctions(self):
        self.assertEqual(faults("comparison"), [
            "Call(a, b <= 7 && a > 0);", "Call(a, b < 7 || a > 0);", "Call(a, b < 7 && a >= 0);",
            "if (a != b) return SVCMGR_ERROR_NONE;"])

    def test_moves_constants_up_and_down(self):
        self.assertEqual(faults("constant"), [
            "const int b = 6;", "const int b = 4;",
            "Call(a, b < 8 && a > 0);", "Call(a, b < 6 && a > 0);", "Call(a, b < 7 && a > 1);"])

    def test_moves_octal_and_hexadecimal_constants(self):
        self.assertEqual(faults("constant", "int mode = 0644;"), ["int mode = 0645;", "int mode = 0643;"])
        self.assertEqual(faults("constant", "int mask = 0x10;"), ["int mask = 17;", "int mask = 15;"])
        self.assertEqual(faults("constant", "int none = 0;"), ["int none = 1;"])

    def test_turns_truth(self):
        self.assertEqual(faults("constant", "bool f() { return true; }"),
                         ["bool f() { return false; }"])

    def test_exchanges_codes(self):
        self.assertIn("if (a == b) return SVCMGR_ERROR_IO_ERROR;", faults("code"))
        self.assertIn("return SVCMGR_ERROR_NONE;", faults("code"))

    def test_changes_literals_outside_of_includes(self):
        self.assertEqual(faults("literal"), ['Log("");', 'Log("a text; with = signs~");'])

    def test_deletes_statements_but_no_declaration_and_no_bare_return(self):
        self.assertEqual(faults("deleted statement"), [";", ";", ";"])

    def test_deletes_a_statement_of_several_lines_and_keeps_the_lines(self):
        source = "void f() {\n  Call(1,\n       2);\n}\n"
        [mutant] = [m for m in mutants.find("example.cc", source) if m.kind == "deleted statement"]
        self.assertEqual(mutant.apply(source), "void f() {\n  \n;\n}\n")

    def test_negates_conditions_also_of_the_frames_checks(self):
        self.assertEqual(faults("negated condition"), ["if (!(a == b)) return SVCMGR_ERROR_NONE;"])
        self.assertEqual(
            faults("negated condition", "int f() { RETURN_ERROR_IF(g(a, b), \"text\", c); }"),
            ["int f() { RETURN_ERROR_IF(!(g(a, b)), \"text\", c); }"])

    def test_names_the_line(self):
        self.assertEqual({m.line for m in mutants.find("example.cc", SAMPLE)}, {4, 5, 6, 7, 8})


class Choosing(unittest.TestCase):
    SOURCES = {"a.cc": SAMPLE, "b.cc": SAMPLE.replace("Example", "Other")}

    def test_is_the_same_for_the_same_seed(self):
        self.assertEqual(choice(self.SOURCES, 1, 20), choice(dict(self.SOURCES), 1, 20))
        self.assertNotEqual(choice(self.SOURCES, 1, 20), choice(self.SOURCES, 2, 20))

    def test_takes_all_kinds_in_turn(self):
        kinds = [m.kind for m in itertools.islice(mutants.choose(self.SOURCES, 1), 6)]
        self.assertEqual(kinds, list(mutants.KINDS))

    def test_keeps_its_order_when_something_is_added_before(self):
        grown = dict(self.SOURCES, **{"a.cc": "int Before() { return Call(77); }\n" + SAMPLE})
        before = choice(self.SOURCES, 1, 1000)
        after = [identity for identity in choice(grown, 1, 1000) if identity in set(before)]
        by_kind = lambda order: sorted(order, key=lambda identity: identity.split("\0")[1])
        self.assertEqual(by_kind(after), by_kind(before))

    def test_makes_one_fault_of_a_kind_at_each_place(self):
        chosen = list(mutants.choose(self.SOURCES, 1))
        places = {(m.file, m.kind, m.start) for m in chosen}
        self.assertEqual(len(places), len(chosen))


class ThePlatform(unittest.TestCase):
    def libraries(self, lists):
        with tempfile.TemporaryDirectory() as folder:
            for name, text in lists.items():
                path = Path(folder, "platform", name, "CMakeLists.txt")
                path.parent.mkdir(parents=True)
                path.write_text(text)
            return mutate.AREAS["platform"].libraries(Path(folder))

    def test_is_all_libraries_that_the_tree_makes_of_it(self):
        self.assertEqual(
            self.libraries({"one": "# A comment.\nsvcmgr_platform_library(one-library\n  SOURCES a.cc)\n",
                            "two": "svcmgr_platform_library(two SOURCES b.cc)\n",
                            "none": "add_library(none b.cc)\n"}),
            (("svcmgr_one-library", "platform/one"), ("svcmgr_two", "platform/two")))

    def test_without_a_library_allows_no_result(self):
        with self.assertRaisesRegex(mutate.CannotGo, "makes a library"):
            self.libraries({"none": "add_library(none b.cc)\n"})


if __name__ == "__main__":
    unittest.main()
