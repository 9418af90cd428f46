#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the manual page svcmgr-scenario(5) from the part "Format" of the guide to scenarios.

    scenario_page.py docs/scenarios.md > docs/man/svcmgr-scenario.5
"""

import re
import sys

HEAD = r"""'\" t
.\" SPDX-License-Identifier: Apache-2.0
.\" Made by "./dev docs" from docs/scenarios.md.
.TH SVCMGR-SCENARIO 5 "" "velmora\-svcmgr 2.3" "File Formats"
.SH NAME
svcmgr\-scenario \- what a simulated service-manager agent is and how it answers
.SH DESCRIPTION
.BR svcmgr\-sim (1)
reads scenarios, makes a private world with such an agent in it, and runs a command there."""

TAIL = r""".SH FILES
.TP
.IR PREFIX /share/velmora\-svcmgr/scenarios/*.json
The scenarios that ship, to be read and copied.
.TP
.IR PREFIX /share/velmora\-svcmgr/scenario.schema.json
A JSON schema (draft 7) of scenarios, for editors.
.SH SEE ALSO
.BR svcmgr\-sim (1),
.BR svcmgrctl (1)"""


def roff(text):
    """A line of Markdown as a line of a page."""
    text = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", text)
    text = text.replace("\\", "\\e").replace("-", "\\-")
    parts = re.split(r"`([^`]*)`", text)
    for index, part in enumerate(parts):
        if index % 2 == 0:
            part = re.sub(r"\*([^*]+)\*", r"\\fI\1\\fR", part)
            parts[index] = part.replace('"', "\\(dq").replace("'", "\\(aq")
        else:
            parts[index] = "\\fB" + part.replace('"', "\\(dq").replace("'", "\\(aq") + "\\fR"
    line = "".join(parts)
    return "\\&" + line if line.startswith(".") else line


def cells(row):
    return [cell.strip() for cell in row.strip().strip("|").split("|")]


def table(rows):
    """Each row becomes an entry: what it is about, and below that the rest."""
    heads = cells(rows[0])
    lines = []
    last = ""
    for row in rows[2:]:
        subject, *rest = cells(row)
        last = subject or last
        lines += [".TP", roff(last)]
        lines += [roff(text if head != "absent" else f"Absent: {text}.")
                  + ("" if head == "absent" or text[-1] in ".|" else ".")
                  if head not in ("for",) else roff(f"For {text}.")
                  for head, text in zip(heads[1:], rest) if text]
    return lines


def blocks(text):
    """Paragraphs, tables and examples, as lists of lines."""
    for block in re.split(r"\n\s*\n", text.strip("\n")):
        yield block.split("\n")


def page(guide):
    part = guide.split("\n## Format\n")[1].split("\n## ")[0]
    lines = [HEAD]
    before = ""
    for block in blocks(part):
        first = block[0]
        if first.startswith("### "):
            lines.append(".SS " + roff(first[4:]))
            block = block[1:]
        elif first.startswith("    "):
            lines += [".PP", ".RS", ".nf"]
            lines += [line[4:].replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq")
                      for line in block]
            lines += [".fi", ".RE"]
            block = []
        elif first.startswith("|"):
            lines += table(block)
            block = []
        if block:
            lines += ([] if before.startswith("### ") else [".PP"]) + [roff(line) for line in block]
        before = first
    return "\n".join(lines + [TAIL]) + "\n"


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as file:
        sys.stdout.write(page(file.read()))
