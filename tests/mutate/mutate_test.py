# SPDX-License-Identifier: Apache-2.0
"""How ./dev mutate looks for the test that finds a fault. Nothing is built."""

import re
import tempfile
import time
import unittest
from pathlib import Path
from types import SimpleNamespace

import mutate
from mutants import Mutant

ROOT = Path(__file__).resolve().parents[2]
A, B, C, DEAR = ("one_test", "A.A"), ("one_test", "B.B"), ("two_test", "C.C"), ("two_test", "D.D")
SECONDS = {A: 0.1, B: 0.1, C: 0.1, DEAR: 5}


def mutant(line, file="src/a.cc"):
    return Mutant(file, "constant", 0, 1, "1", line, f"{file}\0{line}")


class Area(unittest.TestCase):
    def test_has_all_programs_of_its_folders(self):
        for area, folder in (("src", "unit"), ("platform", "platform")):
            texts = [path.read_text() for path in (ROOT / "tests" / folder).rglob("CMakeLists.txt")]
            programs = re.findall(r"svcmgr_gtest\((\w+)$", "\n".join(texts), re.M)
            self.assertIn({"src": "unit_header_test", "platform": "rpc_port_test"}[area], programs)
            self.assertEqual([program for program in programs
                              if not re.fullmatch(mutate.AREAS[area].programs, program)], [])


class TheOrder(unittest.TestCase):
    RUNS = {"src/a.cc": {10: {B, C, DEAR}, 20: {A, DEAR}}}

    def order(self, line, hint=None, file="src/a.cc", finders=()):
        order = mutate.Knowledge(SECONDS, self.RUNS).order(mutant(line, file), hint, finders)
        self.assertCountEqual(order, SECONDS)
        return order

    def test_has_the_tests_that_run_the_line_first_and_the_dear_one_last_of_them(self):
        self.assertEqual(self.order(10)[2:], [DEAR, A])
        self.assertEqual(self.order(20)[:2], [A, DEAR])

    def test_has_the_test_that_found_the_fault_before_all_others(self):
        self.assertEqual(self.order(10, A)[0], A)
        self.assertEqual(self.order(10, DEAR)[0], DEAR)

    def test_has_the_program_first_that_found_most_in_the_file_and_in_it_that_test(self):
        self.assertEqual(self.order(10, finders=[C, C, B])[0], C)
        self.assertEqual(self.order(10, finders=[C, B, B])[0], B)
        runs = {"src/a.cc": {10: {A, B, C}}}
        order = mutate.Knowledge(SECONDS, runs).order
        self.assertEqual(order(mutant(10), None, [A, B, A])[:2], [A, B])
        self.assertEqual(order(mutant(10), None, [A, B, B])[:2], [B, A])

    def test_has_each_test_without_a_hint_that_is_no_test_any_more(self):
        self.assertEqual(self.order(10, ("gone_test", "A.A")), self.order(10))

    def test_takes_the_rest_of_a_statement_for_its_first_line(self):
        self.assertEqual(self.order(11)[3], A)
        self.assertEqual(self.order(999)[:2], [A, DEAR])

    def test_has_the_tests_that_run_anything_of_the_file_first_before_its_first_statement(self):
        runs = {"src/a.cc": {10: {C}}}
        self.assertEqual(mutate.Knowledge(SECONDS, runs).order(mutant(1))[0], C)

    def test_has_all_tests_of_a_file_that_nothing_runs_the_dear_one_last(self):
        self.assertEqual(self.order(1, file="src/b.h")[3], DEAR)


class Memory(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = Path(folder.name) / "memory.json"

    def test_of_the_tests_is_kept_for_the_same_sources_alone(self):
        mutate.Knowledge(SECONDS, TheOrder.RUNS).save(self.path, "these")
        known = mutate.Knowledge.load(self.path, "these")
        self.assertEqual((known.seconds, known.runs), (SECONDS, TheOrder.RUNS))
        self.assertIsNone(mutate.Knowledge.load(self.path, "others"))

    def test_of_what_found_a_fault_is_kept_for_the_next_run(self):
        mutate.Hints(self.path).add(mutant(1), A)
        self.assertEqual(mutate.Hints(self.path).get(mutant(1)), A)
        self.assertFalse(mutate.Hints(self.path).get(mutant(2)))
        self.assertEqual(mutate.Hints(self.path).of_file("src/a.cc"), [A])
        self.assertEqual(mutate.Hints(self.path).of_file("src/a.c"), [])

    def test_of_equal_counts_gives_their_lines_to_each_test(self):
        counts = mutate.Counts(mutate.AREAS["src"], self.path)
        counts.tests["same"] = [A, B]
        runs = {}
        counts._read({"data_file": "same.gcda", "files": [
            {"file": "src/a.cc", "lines": [{"line_number": 1, "count": 2},
                                           {"line_number": 2, "count": 0}]},
            {"file": "platform/a.cc", "lines": [{"line_number": 1, "count": 2}]}]}, runs)
        self.assertEqual(runs, {"src/a.cc": {1: {A, B}}})


class Judging(unittest.TestCase):
    """Of the tests B alone runs the line; what fails how often is said beforehand."""

    def judge(self, failures, built=lambda program: True):
        self.ran = []
        remaining = dict(failures)

        def run_test(test, limit):
            self.ran.append(test)
            remaining[test] = remaining.get(test, 0) - 1
            return ("it fails" if remaining[test] >= 0 else None), 0

        build = SimpleNamespace(
            make=lambda program: SimpleNamespace(returncode=0 if built(program) else 1),
            run_test=run_test,
            run_tests=lambda tests, limit: ((test, *run_test(test, limit)) for test in tests))
        hints = mutate.Hints(Path("/nonexistent/hints.json"))
        return mutate.judge(build, mutate.Knowledge(SECONDS, {"src/a.cc": {10: {B}}}), hints, mutant(10))

    def test_ends_with_the_first_test_that_fails(self):
        self.assertEqual(self.judge({B: 1}), B)
        self.assertEqual(self.ran, [B])

    def test_calls_a_fault_alive_once_all_tests_have_passed(self):
        self.assertIsNone(self.judge({}))
        self.assertCountEqual(self.ran, SECONDS)

    def test_believes_a_test_that_does_not_run_the_line_when_it_fails_again(self):
        self.assertEqual(self.judge({C: 2}), C)
        self.assertIsNone(self.judge({C: 1}))
        self.assertCountEqual(self.ran, [*SECONDS, C])

    def test_takes_a_program_that_is_not_built_for_a_test_that_fails(self):
        self.assertEqual(self.judge({}, lambda program: program != "two_test")[0], "two_test")


class Running(unittest.TestCase):
    """A program whose cases are commands of the shell."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        (self.folder / "tests").mkdir()
        (self.folder / "bin").mkdir()
        program = self.folder / "bin" / "a_test"
        program.write_text('#!/bin/sh\neval "${1#--gtest_filter=}"\n')
        program.chmod(0o755)
        self.build = mutate.Build(None, self.folder, None)

    def run_test(self, command, limit=60):
        return self.build.run_test(("a_test", command), limit)[0]

    def test_tells_a_test_that_fails_from_one_that_passes(self):
        self.assertIsNone(self.run_test("true"))
        self.assertEqual(self.run_test("echo reason; false"), "reason\n")
        self.assertTrue(self.run_test("kill -9 $$"))

    def test_ends_a_test_that_does_not_end(self):
        self.assertEqual(self.run_test("sleep 600", 0.2), "it does not end")

    def test_neither_waits_for_what_a_test_leaves_behind_nor_lets_it_live(self):
        begun = time.monotonic()
        self.assertIsNone(self.run_test("sleep 600 & echo $! > left; true"))
        self.assertLess(time.monotonic() - begun, 300)
        left = int((self.folder / "tests" / "left").read_text())
        while self.lives(left):
            self.assertLess(time.monotonic() - begun, 300)

    def test_ends_the_others_once_it_has_seen_enough(self):
        begun = time.monotonic()
        for test, wrong, _ in self.build.run_tests(
                [("a_test", "sleep 600"), ("a_test", "false")], lambda _: 600):
            self.assertEqual((test[1], bool(wrong)), ("false", True))
            break
        self.assertLess(time.monotonic() - begun, 300)

    @staticmethod
    def lives(process):
        try:
            return Path(f"/proc/{process}/stat").read_text().split(") ")[1][0] != "Z"
        except FileNotFoundError:
            return False


if __name__ == "__main__":
    unittest.main()
