# SPDX-License-Identifier: Apache-2.0
"""The searches and their counts, with targets that only say what they were asked for."""

import contextlib
import io
import json
import tempfile
import threading
import unittest
from pathlib import Path

import fuzz


class ASearch(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        for name in ("programs", "fast", "corpora"):
            (self.folder / name).mkdir()
        wanted = fuzz.WANTED_FAST, fuzz.WANTED_SLOW
        fuzz.WANTED_FAST, fuzz.WANTED_SLOW = 1000, 10
        self.addCleanup(lambda: setattr(fuzz, "WANTED_FAST", wanted[0]))
        self.addCleanup(lambda: setattr(fuzz, "WANTED_SLOW", wanted[1]))

    def target(self, name, executions=400, status=0, where="programs"):
        """A program that writes down its arguments, and claims to have run so often."""
        path = self.folder / where / name
        path.write_text(f"#!/bin/sh\necho \"$@\" >>{self.folder}/{where}.calls\n"
                        f"echo 'stat::number_of_executed_units: {executions}'\n"
                        f"echo 'stat::average_exec_per_sec: 100'\nexit {status}\n")
        path.chmod(0o755)

    def search(self, *words, kind="search"):
        fast = [str(self.folder / "fast")] if kind == "fast" else []
        length, *targets = words
        self.out, self.err = io.StringIO(), io.StringIO()
        with contextlib.redirect_stdout(self.out), contextlib.redirect_stderr(self.err):
            return fuzz.main([kind, *(str(self.folder / name) for name in ("programs", "corpora", "")),
                              length, *fast, *targets])

    def calls(self, where="programs"):
        path = self.folder / f"{where}.calls"
        return path.read_text().splitlines() if path.exists() else []

    def counts(self):
        return json.loads((self.folder / "executions.json").read_text())

    def test_adds_up_what_was_run(self):
        self.target("one_fuzz")
        self.assertEqual(self.search("5"), 0)
        self.assertEqual(self.search("5"), 0)
        self.assertEqual(self.counts(), {"one_fuzz": {"sanitized": 800, "fast": 0}})
        self.assertRegex(self.out.getvalue(), r"one_fuzz +400 +100 +800 +0 +80 % of 1,000")

    def test_takes_the_seconds_and_the_known_inputs(self):
        self.target("one_fuzz")
        self.search("5")
        self.assertIn("-max_total_time=5 ", self.calls()[0])
        self.assertIn(str(self.folder / "corpora/one_fuzz"), self.calls()[0])
        self.assertNotIn("-runs", self.calls()[0])

    def test_goes_on_until_it_is_enough(self):
        self.target("one_fuzz")
        self.assertEqual(self.search("wanted"), 0)
        self.assertEqual(self.counts()["one_fuzz"]["sanitized"], 1200)
        self.assertEqual([call.split()[1] for call in self.calls()],
                         ["-runs=1000", "-runs=600", "-runs=200"])

    def test_asks_less_of_a_slow_target(self):
        self.target("walk_fuzz", executions=10)
        self.search("wanted")
        self.assertEqual([call.split()[1] for call in self.calls()], ["-runs=10"])

    def test_does_nothing_where_it_is_enough(self):
        self.target("one_fuzz", executions=1000)
        self.search("wanted")
        self.search("wanted")
        self.assertEqual(len(self.calls()), 1)

    def test_runs_those_alone_that_are_named(self):
        self.target("one_fuzz")
        self.target("two_fuzz")
        self.search("5", "two")
        self.assertEqual(list(self.counts()), ["two_fuzz"])

    def test_refuses_a_name_that_it_does_not_know(self):
        self.target("one_fuzz")
        with self.assertRaises(SystemExit) as end:
            self.search("5", "three")
        self.assertEqual(end.exception.code, 2)

    def test_ends_with_1_if_something_was_found(self):
        self.target("one_fuzz", status=77)
        self.target("two_fuzz")
        self.assertEqual(self.search("wanted"), 1)
        self.assertIn("one_fuzz found something", self.err.getvalue())
        self.assertEqual(self.counts()["two_fuzz"]["sanitized"], 1200)

    def test_shows_to_the_sanitizers_what_it_gathered_without_them(self):
        self.target("one_fuzz")
        self.target("one_fuzz", where="fast", executions=900)
        self.assertEqual(self.search("5", kind="fast"), 0)
        self.assertEqual(self.counts(), {"one_fuzz": {"sanitized": 0, "fast": 900}})
        self.assertIn("-max_len=", self.calls("fast")[0])
        self.assertEqual([call.split()[0] for call in self.calls()], ["-runs=0"])
        self.assertIn(str(self.folder / "corpus/one_fuzz"), self.calls()[0])

    def test_ends_with_1_if_only_the_sanitizers_find_something(self):
        self.target("one_fuzz", status=77)
        self.target("one_fuzz", where="fast")
        self.assertEqual(self.search("5", kind="fast"), 1)
        self.assertIn("one_fuzz found something", self.err.getvalue())

    def test_counts_what_both_ways_have_run(self):
        self.target("one_fuzz")
        self.target("one_fuzz", where="fast", executions=600)
        self.search("5")
        self.search("wanted", kind="fast")
        self.assertRegex(self.out.getvalue(), r"one_fuzz +600 +100 +400 +600 +100 % of 1,000")

    def test_loses_no_count_beside_another(self):
        counts = [fuzz.Counts(self.folder / "executions.json") for _ in range(4)]
        threads = [threading.Thread(target=lambda each=each: [each.add("one_fuzz", "fast", 1)
                                                             for _ in range(50)])
                   for each in counts]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(self.counts()["one_fuzz"]["fast"], 200)

    def test_tells_what_it_takes(self):
        for words in ([], ["search"], ["search", "a", "b", "c", "soon"], ["fast", "a", "b", "c", "5"]):
            with self.subTest(words=words), contextlib.redirect_stderr(io.StringIO()) as err:
                self.assertEqual(fuzz.main(words), 2)
                self.assertIn("usage:", err.getvalue())


if __name__ == "__main__":
    unittest.main()
