#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Does the check of the HTML manual's links tell a dead one from one that leads somewhere?"""
import os
import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.environ["SOURCE_DIR"], "tools/html_manual"))

import check_links  # noqa: E402


class TheCheck(unittest.TestCase):
    def check(self, **files):
        with tempfile.TemporaryDirectory() as folder:
            for name, text in files.items():
                path = pathlib.Path(folder, name.replace("__", "/").replace("_", "."))
                path.parent.mkdir(exist_ok=True)
                path.write_text(text)
            return check_links.check(pathlib.Path(folder))

    def test_passes_links_to_files_and_to_places_in_them(self):
        count, dead, elsewhere = self.check(
            a_html='<a href="b.html#here">b</a> <a href="#top">t</a> <p id="top"> <img src="p.svg"> <a href="in/c.html">c</a>',
            b_html='<a name="here"></a>', p_svg="<svg/>", in__c_html='<a href="../a.html">a</a>')
        self.assertEqual((count, dead, elsewhere), (5, set(), set()))

    def test_finds_a_file_that_is_not_there(self):
        self.assertEqual(self.check(a_html='<a href="b.html">')[1], {("a.html", "b.html")})

    def test_finds_a_place_that_is_not_there(self):
        dead = self.check(a_html='<a href="b.html#gone"> <a href="#gone">', b_html="")[1]
        self.assertEqual(dead, {("a.html", "b.html#gone"), ("a.html", "#gone")})

    def test_finds_a_picture_and_a_script_that_are_not_there(self):
        dead = self.check(a_html='<img src="p.svg"><script src="s.js"></script>')[1]
        self.assertEqual(dead, {("a.html", "p.svg"), ("a.html", "s.js")})

    def test_finds_what_the_menu_leads_to(self):
        dead = self.check(a_html='', menudata_js='{text:"x",url:"a.html"},{text:"y",url:"gone.html"}')[1]
        self.assertEqual(dead, {("menudata.js", "gone.html")})

    def test_tells_links_to_other_sites_apart(self):
        _, dead, elsewhere = self.check(a_html='<a href="https://site.example/"> <a href="javascript:void(0)">')
        self.assertEqual((dead, elsewhere), (set(), {"https://site.example/"}))


if __name__ == "__main__":
    unittest.main()
