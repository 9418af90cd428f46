#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Would the guides' test notice a guide that is wrong?"""
import pathlib
import tempfile
import unittest

import guide_test
from guide_test import Wrong


def check(text, files=None):
    """Checks a guide in a folder that holds these files; how many commands it ran."""
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        for path, content in (files or {}).items():
            (folder / path).parent.mkdir(parents=True, exist_ok=True)
            (folder / path).write_text(content)
        return guide_test.check_guide(text, folder, folder, {"PATH": "/usr/bin:/bin"}, 60)


def fenced(info, text):
    return f"Words.\n\n```{info}\n{text}\n```\n"


class AGuide(unittest.TestCase):
    def refuse(self, text, files=None):
        with self.assertRaises(Wrong):
            check(text, files)

    def test_with_a_block_that_nothing_checks_is_refused(self):
        self.refuse(fenced("", "cc app.c"))
        self.refuse(fenced("c", "int main(void);"))
        self.refuse(fenced("sh", "cc app.c"))
        self.refuse(fenced("console ignored", "$ false"))
        self.refuse(fenced("text", "$ false"))
        self.refuse("Words.\n\n    cc app.c\n")
        self.refuse("Words.\n\n```text\nno end\n")

    def test_whose_command_fails_is_refused(self):
        self.assertEqual(check(fenced("console", "$ true\n$ true")), 2)
        self.refuse(fenced("console", "$ false\n$ true"))
        self.refuse(fenced("console", "$ exit 0\n$ true"))

    def test_may_say_that_its_last_command_fails(self):
        self.assertEqual(check(fenced("console fails", "$ true\n$ echo no; false\nno")), 2)
        self.refuse(fenced("console fails", "$ true"))
        self.refuse(fenced("console fails", "$ false\n$ false"))

    def test_that_shows_another_output_is_refused(self):
        self.assertEqual(check(fenced("console", "$ echo a b; echo c; echo d\na ...\n...\nd")), 1)
        self.assertEqual(check(fenced("console", "$ echo any")), 1)
        self.assertEqual(check(fenced("console", "$ echo a >&2\na")), 1)
        self.refuse(fenced("console", "$ echo a\nb"))
        self.refuse(fenced("console", "$ echo a; echo b\na"))
        self.refuse(fenced("console", "$ true\na"))
        self.refuse(fenced("console", "output\n$ true"))

    def test_keeps_one_shell_for_its_commands(self):
        text = fenced("console", "$ export A=b\n$ cd /") + fenced("console", "$ echo \\\n  $A $PWD\nb /")
        self.assertEqual(check(text), 3)

    def test_writes_the_files_that_it_shows(self):
        self.assertEqual(check(fenced("c file=d/a.c", "$HOME") + fenced("console", "$ cat d/a.c\n$HOME")), 1)

    def test_whose_excerpt_differs_is_refused(self):
        files = {"a.c": "one\n  two\n    three\nfour\n"}
        check(fenced("c from=a.c", "two\n  three\nfour"[:11]), files)
        check(fenced("c from=a.c", "one\n...\nfour"), files)
        self.refuse(fenced("c from=a.c", "one\nthree"), files)
        self.refuse(fenced("c from=a.c", "four\n...\none"), files)
        self.refuse(fenced("c from=a.c", "two\nthree"), files)

    def test_whose_commands_are_run_by_a_test_that_does_not_exist_is_refused(self):
        files = {"tests/a_test.cc": "TEST(TheDemo, Runs) {}"}
        self.assertEqual(check(fenced("console tested-by=TheDemo", "$ false"), files), 0)
        self.refuse(fenced("console tested-by=NoSuch", "$ false"), files)


if __name__ == "__main__":
    unittest.main()
