#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes the HTML manual with Doxygen: the C interface, the C++ face, the guides with their pictures,
the examples and the manual pages.

    html_manual.py ROOT FOLDER

FOLDER/html/index.html is where to begin; FOLDER/stage holds what Doxygen was given.
"""

import html
import pathlib
import re
import shutil
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "manual_pages"))

from header import Header  # noqa: E402
from reference_pages import FAMILIES  # noqa: E402

# In the order in which the manual lists them.
DOCUMENTS = [
    "README.md", "docs/guide/README.md", "docs/guide/first-application.md", "docs/guide/threads.md",
    "docs/guide/ownership.md", "docs/guide/errors.md", "docs/guide/connection.md", "docs/guide/models.md",
    "docs/guide/testing.md", "docs/guide/porting.md", "docs/guide/building.md", "docs/guide/wire-format.md",
    "docs/scenarios.md", "docs/testing.md", "docs/desktop-platform.md", "docs/client-api-level.md",
    "docs/performance.md", "docs/embedded.md", "docs/reliability.md", "docs/security.md", "docs/traceability.md",
    "docs/request.md", "examples/README.md", "ARCHITECTURE.md", "tests/README.md", "fuzz/README.md", "CONTRIBUTING.md",
    "CHANGELOG.md",
]
# Blocks that Doxygen colours; others stay as they are.
COLOURED = {"c": ".c", "cpp": ".cpp", "python": ".py"}
TRAPS = re.compile(r"\btraps? \d+(?:(?:,\s+|\s+and\s+|\s+to\s+)\d+)*")


def page_id(path):
    return re.sub(r"\W", "_", str(path).lower())


class Manual:
    def __init__(self, root, folder):
        self.root = root
        self.folder = folder
        self.stage = folder / "stage"
        self.header = Header(root / "include/velmora_svcmgr.h")
        self.names = {name for each in self.header.declarations()
                      for name in (each.name, *(value for value, _, _ in each.values))}
        self.examples = sorted(path.relative_to(root) for path in (root / "examples").iterdir()
                               if path.suffix in (".c", ".cc", ".py", ".sh") or path.name in ("Makefile", "CMakeLists.txt"))
        self.pages = sorted((root / "docs/man").iterdir())
        self.targets = self.what_links_lead_to()

    def what_links_lead_to(self):
        """Path in the tree to what Doxygen knows it as."""
        targets = {name: page_id(name) for name in DOCUMENTS}
        targets |= {str(path): page_id(path) for path in [*self.examples, pathlib.Path("LICENSE")]}
        targets |= {f"docs/man/{path.name}": page_id(path.name) for path in self.pages}
        for name in DOCUMENTS:
            if name.endswith("/README.md"):
                targets[name.removesuffix("/README.md")] = page_id(name)
        return targets | {"README.md": "index", "include/velmora_svcmgr.h": "c_interface",
                          "include/velmora_svcmgr.hpp": "velmora_svcmgr.hpp"}

    # ---- Documents ----

    def link(self, place, match):
        text, target = match[1], match[2]
        if re.match(r"[a-z]+:", target):
            return match[0]
        path, _, fragment = target.partition("#")
        if not path:
            return f"[{text}](@ref {self.heading_id(place, fragment)})"
        full = str((self.root / place.parent / path).resolve().relative_to(self.root.resolve()))
        if full not in self.targets:
            raise SystemExit(f"{place}: {target} leads to nothing that the manual has")
        return f"[{text}](@ref {self.targets[full]})"

    @staticmethod
    def heading_id(place, title):
        return page_id(place) + "__" + re.sub(r"\W+", "_", title.lower()).strip("_")

    @staticmethod
    def picture(match):
        alt, target = " ".join(match[1].split()), pathlib.Path(match[2]).name
        return (f'<a class="picture" href="{target}"><img src="{target}" alt="{html.escape(alt)}"/></a>')

    def code(self, match):
        """A name of the interface in `code` leads to its description."""
        if match[1] in self.names:
            return f'<code>@ref {match[1]} "{match[1]}"</code>'
        # A target of CMake is no member of a class.
        return f"<code>{match[1]}</code>".replace("::", "\\::") if "-svcmgr::" in match[1] else match[0]

    def prose(self, place, text):
        text = re.sub(r"!\[([^]]*)\]\(([^)]*)\)", self.picture, text)
        text = re.sub(r"\[([^]\[]*)\]\(([^)\s]*)\)", lambda match: self.link(place, match), text)
        text = re.sub(r"`([^`\n]+)`", self.code, text)
        return TRAPS.sub(trap_reference, text)

    def document(self, name):
        place = pathlib.Path(name)
        text = re.sub(r"\A<!--.*?-->\n", "", (self.root / name).read_text(encoding="utf-8"))
        lines = []
        for index, part in enumerate(re.split(r"^( *```.*?^ *```)$", text, flags=re.M | re.S)):
            if index % 2:
                first, rest = part.split("\n", 1)
                word = re.match(r" *```(\w*)", first)[1]
                lines.append(f"```{{{COLOURED.get(word, '.unparsed')}}}\n{rest}")
            else:
                lines.append(self.prose(place, part))
        text = "".join(lines)
        label = "" if name == "README.md" else f" {{#{page_id(name)}}}"
        text = re.sub(r"\A# (.*)$", lambda match: f"# {match[1]}{label or ' {#mainpage}'}", text, flags=re.M)
        seen = {}

        def labelled(match):
            label = self.heading_id(place, match[2])
            seen[label] = seen.get(label, 0) + 1
            return f"{match[1]} {match[2]} {{#{label}{seen[label] if seen[label] > 1 else ''}}}"

        return re.sub(r"^(##+) (.*)$", labelled, text, flags=re.M)

    def examples_page(self, path):
        text = (self.root / path).read_text(encoding="utf-8")
        kind = {".c": ".c", ".cc": ".cpp", ".py": ".py"}.get(path.suffix, ".unparsed")
        return f"# {path.name} {{#{page_id(path)}}}\n\n~~~{{{kind}}}\n{text}~~~\n"

    # ---- Manual pages ----

    def fragment(self, page):
        """A manual page as HTML, with references to those pages that the manual has."""
        made = subprocess.run(["mandoc", "-T", "html", "-O", "fragment,man=%N_%S.html", str(page)],
                              check=True, capture_output=True, text=True).stdout
        there = {path.name.replace(".", "_") + ".html": f"{page_id(path.name)}.html" for path in self.pages}
        for path in self.pages:
            found = re.search(r'^\.\\" Aliases: (.*)$', path.read_text(encoding="utf-8"), re.M)
            for alias in found[1].split() if found else []:
                there[f"{alias}_3.html"] = f"{page_id(path.name)}.html"
        def reference(match):
            target = there.get(f"{match[1]}_{match[2]}.html")
            return f'<a href="{target}"><b>{match[1]}</b></a>({match[2]})' if target else match[0]

        made = re.sub(r'<a class="Xr" href="[^"]*">(.*?)</a>', r"\1", made, flags=re.S)
        # No reference may stand inside another.
        made = re.sub(r'(<dt[^>]*>)<a class="permalink"[^>]*>(.*?)</a>(</dt>)', r"\1\2\3", made, flags=re.S)
        made = re.sub(r"<b>([\w-]+)</b>\((\d)\)", reference, made)
        made = re.sub(r"<dt([^>]*)>(\d+\.|\u2022|&#x2022;)</dt>", r'<dt class="mark">\2</dt>', made)
        # There the line ends anyway.
        made = re.sub(r"<pre>.*?</pre>", lambda match: re.sub(r"<br ?/>\n?", "", match[0]), made, flags=re.S)
        return f'<div class="manpage">\n{made}</div>\n'

    # ---- The interface ----

    def c_interface(self):
        """The public header as groups of Doxygen, from what the comments say."""
        text = ["#include <stdbool.h>", "/** @file velmora_svcmgr.h", "The C interface. */",
                "/** @defgroup c_interface C interface", self.in_comment(self.header.overview), "", "@section conventions Conventions"]
        text += self.rules("convention", self.header.conventions)
        text += ["@section traps Traps"]
        for block in re.split(r"\n\n|\n(?= {0,2}\d+\. )", self.header.traps_text):
            number = re.match(r" *(\d+)\. ", block)
            words = " ".join(block.split())
            if number:
                text += self.rules("trap", {int(number[1]): words.partition(". ")[2]})
            elif words.endswith(":") and len(words) < 30:
                text += [f"@subsection traps_{page_id(words)} {words[:-1]}"]
            else:
                text += ["", self.in_comment(words), ""]
        text += ["*/"]
        for title, declarations in self.header.sections:
            name, about = FAMILIES[title]
            text += [f"/** @defgroup {name}_group {title}", "@ingroup c_interface", f"{about[:1].upper()}{about[1:]}.",
                     f"As a manual page: @ref {page_id(name + '.3')} \"{name}(3)\".", "@{ */"]
            for each in declarations:
                text += self.declared(each)
            text += ["/** @} */"]
        return "\n".join(text) + "\n"

    def in_comment(self, text):
        """With references for the names of the interface; indented lines are code, and stay as they are."""
        text = text.replace("*text", "`*text`")
        lines = [line if line.startswith("    ") else
                 re.sub(r"`([^`]*)`|(?<![\w`])(?:velmora_svcmgr_|SVCMGR_)\w+\b(?!\.h)", self.name_or_code, line)
                 for line in text.split("\n")]
        return TRAPS.sub(trap_reference, "\n".join(lines))

    def name_or_code(self, match):
        if match[1]:
            return self.code(match)
        return f'@ref {match[0]} "{match[0]}"' if match[0] in self.names else match[0]

    def rules(self, kind, rules):
        return [line for number, text in rules.items()
                for line in ("", f'@anchor {kind}_{number}', f"<b>{number}.</b> {self.in_comment(text)}", "")]

    def declared(self, each):
        lines = ["/**", self.in_comment(each.comment.prose), ""]
        for direction, name, text in each.comment.parameters:
            lines.append(f"@param{direction or ''} {name} {self.in_comment(text)}")
        for codes, text in each.comment.results:
            lines += [f"@retval {code} {self.in_comment(text) or '&nbsp;'}" for code in codes]
        text = each.text
        if each.kind == "enum":
            text = re.sub(r"(/\*\*.*?\*/)", lambda match: self.in_comment(match[1]), text, flags=re.S)
        return lines + ["*/", text]

    def cpp_face(self, name):
        text = (self.root / "include" / name).read_text(encoding="utf-8")
        text = re.sub(r"^inline namespace layout_1 \{\n|^\}  // namespace layout_1\n", "", text, flags=re.M)
        top, _, rest = text.partition("*/")
        rest = re.sub(r"/\*\*.*?\*/", lambda match: TRAPS.sub(trap_reference, match[0]), rest, flags=re.S)
        return self.numbered_in_comment(top) + "*/" + rest

    @staticmethod
    def numbered_in_comment(comment):
        """Headings as headings, and each numbered rule as a paragraph of its own: Doxygen's lists do not
        go on behind a heading, nor from 9 to 10."""
        comment = re.sub(r"^ \* (Rules|What becomes of the traps of velmora_svcmgr\.h)$", r" * ## \1", comment, flags=re.M)
        before, rules, numbered = comment.partition(" * ## Rules")
        numbered = re.sub(r"^ \*  ?(\d+)\. ", r" *\n * <b>\1.</b> ", numbered, flags=re.M)
        return before + rules + re.sub(r"^ \*     (?=\S)", " * ", numbered, flags=re.M)

    # ---- All of it ----

    def write(self, name, text):
        path = self.stage / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")
        return path

    def make(self):
        shutil.rmtree(self.folder, ignore_errors=True)
        self.stage.mkdir(parents=True)
        inputs = [self.write(f"documents/{number:02}_{page_id(name)}.md", self.document(name))
                  for number, name in enumerate(DOCUMENTS)]
        inputs += [self.write("include/velmora_svcmgr.h", self.c_interface())]
        inputs += [self.write(f"include/{name}", self.cpp_face(name))
                   for name in ("velmora_svcmgr.hpp", "velmora_svcmgr_glib.hpp")]
        inputs += [self.write(f"examples/{page_id(path)}.md", self.examples_page(path)) for path in self.examples]
        licence = (self.root / "LICENSE").read_text(encoding="utf-8")
        inputs += [self.write("documents/license.md", f"# Licence {{#license}}\n\n~~~{{.unparsed}}\n{licence}~~~\n")]
        for page in self.pages:
            name = page.name.rpartition(".")[0]
            self.write(f"man/{page.name}.html", self.fragment(page))
            inputs += [self.write(f"man/{page_id(page.name)}.dox", f"/** @page {page_id(page.name)} "
                                  f"{name}({page.name[-1]})\n@htmlinclude {page.name}.html\n*/\n")]
        self.run_doxygen(inputs)

    def title(self, name):
        return re.search(r"^# (.*)$", (self.root / name).read_text(encoding="utf-8"), re.M)[1]

    def menu(self):
        def tab(title, target, kind="user"):
            return f'<tab type="{kind}" url="@ref {target}" title="{html.escape(title)}"'

        def group(title, target, entries):
            return [tab(title, target, "usergroup") + ">", *(tab(*entry) + "/>" for entry in entries), "</tab>"]

        def listed(names):
            return [(self.title(name), page_id(name)) for name in names]

        guides = [name for name in DOCUMENTS if name.startswith("docs/guide/") and not name.endswith("README.md")]
        others = [name for name in DOCUMENTS if name.startswith("docs/") and "guide/" not in name]
        project = ["ARCHITECTURE.md", "tests/README.md", "fuzz/README.md", "CONTRIBUTING.md", "CHANGELOG.md"]
        lines = ['<doxygenlayout version="1.0"><navindex>', '<tab type="mainpage" title="Start"/>',
                 *group("Guides", page_id("docs/guide/README.md"), listed(guides)),
                 *group("C", "c_interface", [(title, f"{FAMILIES[title][0]}_group") for title, _ in self.header.sections]
                        + [("Conventions", "conventions"), ("Traps", "traps")]),
                 '<tab type="classlist" title="C++"/>',
                 *group("Desktop", page_id("docs/desktop-platform.md"), listed(others)),
                 tab("Examples", page_id("examples/README.md")) + "/>",
                 *group("Manual pages", page_id("velmora_svcmgr.7"),
                        [(f"{path.stem}({path.suffix[1:]})", page_id(path.name)) for path in self.pages]),
                 *group("Project", page_id("ARCHITECTURE.md"), [*listed(project), ("Licence", "license")]),
                 "</navindex></doxygenlayout>"]
        return "\n".join(lines) + "\n"

    def run_doxygen(self, inputs):
        version = subprocess.run(["doxygen", "--version"], check=True, capture_output=True, text=True).stdout
        pictures = [path for path in sorted((self.root / "docs").rglob("*.svg"))]
        quoted = " ".join(f'"{path}"' for path in inputs)
        settings = [(HERE / "Doxyfile").read_text(), f'INPUT = {quoted}', f'OUTPUT_DIRECTORY = "{self.folder}"',
                    f"PROJECT_NUMBER = {self.header.version}", f'STRIP_FROM_PATH = "{self.stage}/include" "{self.stage}"',
                    f'STRIP_FROM_INC_PATH = "{self.stage}/include"', f'EXAMPLE_PATH = "{self.stage}/man"',
                    f'LAYOUT_FILE = "{self.write("layout.xml", self.menu())}"', f'HTML_EXTRA_STYLESHEET = "{HERE}/style.css"',
                    f'HTML_FOOTER = "{HERE}/footer.html"',
                    "HTML_EXTRA_FILES = " + " ".join(f'"{path}"' for path in pictures)]
        # Later versions have dark colours of their own, the same everywhere are ours.
        if tuple(int(part) for part in re.findall(r"\d+", version)[:3]) >= (1, 9, 5):
            settings.append("HTML_COLORSTYLE = LIGHT")
        file = self.stage / "Doxyfile"
        file.write_text("\n".join(settings) + "\n", encoding="utf-8")
        if subprocess.run(["doxygen", str(file)]).returncode != 0:
            raise SystemExit("Doxygen has something to say about the manual")
        for page in (self.folder / "html").glob("class*.html"):
            self.mend_summary(page)

    @staticmethod
    def mend_summary(page):
        """Doxygen refers to the list of inner classes also where all of them are hidden."""
        text = page.read_text(encoding="utf-8")
        if 'name="nested-classes"' not in text:
            page.write_text(re.sub(r'<a href="#nested-classes">.*?</a> &#124;\s*', "", text), encoding="utf-8")


def trap_reference(match):
    words = match[0]
    number = re.search(r"\d+", words)[0]
    return f'@ref trap_{number} "{" ".join(words.split())}"'


if __name__ == "__main__":
    Manual(*map(pathlib.Path, sys.argv[1:])).make()
