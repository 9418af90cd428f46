#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Do the programs that show manual pages find nothing wrong with ours?"""
import os
import pathlib
import shutil
import subprocess
import unittest

PAGES = sorted((pathlib.Path(os.environ["SOURCE_DIR"]) / "docs/man").iterdir())


def complaints(command, page, **environment):
    run = subprocess.run([*command, str(page)], capture_output=True, text=True, timeout=120,
                         env={**os.environ, "LC_ALL": "C.UTF-8", **environment})
    return run


class EveryPage(unittest.TestCase):
    def test_is_laid_out_by_man_without_a_warning_at_any_width(self):
        self.assertTrue(shutil.which("man"), "man-db is not here")
        for page in PAGES:
            for width in "60", "80", "140":
                run = complaints(["man", "--warnings", "-E", "UTF-8", "-Tutf8", "-l"], page, MANWIDTH=width)
                self.assertEqual((run.returncode, run.stderr), (0, ""), f"{page.name} at {width}")
                self.assertGreater(len(run.stdout), 500)

    def test_passes_the_lint_of_mandoc(self):
        self.assertTrue(shutil.which("mandoc"), "mandoc is not here")
        for page in PAGES:
            run = complaints(["mandoc", "-T", "lint", "-W", "warning"], page)
            # A date would be that of a release, and there is a version instead.
            told = [line for line in (run.stdout + run.stderr).splitlines() if "missing date" not in line]
            self.assertEqual(told, [])

    def test_is_found_by_what_it_describes(self):
        self.assertTrue(shutil.which("lexgrog"), "man-db is not here")
        for page in PAGES:
            run = complaints(["lexgrog"], page)
            self.assertEqual(run.returncode, 0, run.stdout)


if __name__ == "__main__":
    unittest.main()
