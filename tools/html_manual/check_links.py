#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Says which links of a folder of HTML files lead to nothing, without a network.

    check_links.py FOLDER

Links, pictures, style sheets, scripts and the entries of Doxygen's menu must lead to a file below the
folder, and to a place in it where they name one. Links to other sites are listed: there should be few.
"""

import html.parser
import pathlib
import re
import sys
import urllib.parse


class Page(html.parser.HTMLParser):
    def __init__(self, text):
        super().__init__(convert_charrefs=True)
        self.links = []
        self.places = set()
        self.feed(text)

    def handle_starttag(self, tag, attrs):
        attributes = dict(attrs)
        self.places |= {attributes[name] for name in ("id", "name") if attributes.get(name)}
        self.links += [attributes[name] for name in ("href", "src", "data") if attributes.get(name)]


def pages(folder):
    return {path.relative_to(folder).as_posix(): Page(path.read_text(encoding="utf-8"))
            for path in sorted(folder.rglob("*.html"))}


def menu(folder):
    """What Doxygen's menu leads to, which stands in a script."""
    data = folder / "menudata.js"
    return re.findall(r'url:"([^"]*)"', data.read_text(encoding="utf-8")) if data.exists() else []


def check(folder):
    """How many links there are, the dead ones, and those that lead elsewhere."""
    read = pages(folder)
    links = [(name, link) for name, page in read.items() for link in page.links]
    links += [("menudata.js", link) for link in menu(folder)]
    dead, elsewhere = set(), set()
    for name, link in links:
        parts = urllib.parse.urlsplit(link)
        if parts.scheme == "javascript" or parts.scheme == "data":
            continue
        if parts.scheme or parts.netloc:
            elsewhere.add(link)
            continue
        base = "" if name == "menudata.js" else str(pathlib.PurePosixPath(name).parent)
        path = urllib.parse.unquote(parts.path)
        target = str(pathlib.PurePosixPath(base, path)) if path else name
        if not (folder / target).is_file():
            dead.add((name, link))
        elif parts.fragment and target in read and urllib.parse.unquote(parts.fragment) not in read[target].places:
            dead.add((name, link))
    return len(links), dead, elsewhere


def main(folder):
    count, dead, elsewhere = check(pathlib.Path(folder))
    for name, link in sorted(dead):
        print(f"{name}: {link} leads to nothing", file=sys.stderr)
    for link in sorted(elsewhere):
        print(f"{link} leads elsewhere", file=sys.stderr)
    print(f"{count} links, {len(dead)} of them dead, {len(elsewhere)} to other sites")
    return 1 if dead or elsewhere or not count else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
