# SPDX-License-Identifier: Apache-2.0
"""Text of headers and guides (Markdown) as text of manual pages (man macros)."""

import re


def escape(text):
    """As it stands, without any markup."""
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return text.replace('"', "\\(dq").replace("'", "\\(aq")


def guarded(text):
    """No line is taken for a request."""
    return "\n".join("\\&" + line if line.startswith(".") else line for line in text.split("\n"))


def emphasised(text):
    """**Strong** becomes bold, *emphasis* italic."""
    text = re.sub(r"\*\*(.+?)\*\*", lambda match: "\\fB" + match[1].replace("\\fR", "\\fB") + "\\fR",
                  text, flags=re.S)
    return re.sub(r"\*([^*]+)\*", r"\\fI\1\\fR", text)


def inline(text, link=lambda word: word, markdown=True):
    """`Code` becomes bold, a link its text; `link` is given the result, to add references. What is
    code is hidden meanwhile: its asterisks are no emphasis."""
    text = re.sub(r"!?\[([^]]*)\]\([^)]*\)", r"\1", text)
    parts = re.split(r"`([^`]*)`", text)
    code = [f"\\fB{escape(part)}\\fR" for part in parts[1::2]]
    prose = "\0".join(escape(part) for part in parts[::2])
    if markdown:
        prose = emphasised(prose)
    for each in code:
        prose = prose.replace("\0", each, 1)
    return guarded(link(prose))


def cells(row):
    return [cell.strip() for cell in row.strip().strip("|").split("|")]


def sentence(text):
    return text if text[-1] in ".|" else text + "."


def table(rows, link=lambda word: word, labelled=()):
    """Each row becomes an entry: what it is about, and below that the rest."""
    heads = cells(rows[0])
    lines = []
    last = ""
    for row in rows[2:]:
        subject, *rest = cells(row)
        last = subject or last
        lines += [".TP", inline(last, link)]
        for head, text in zip(heads[1:], rest):
            if not text:
                continue
            if head == "absent":
                text = f"Absent: {text}."
            elif head == "for":
                text = f"For {text}."
            elif head in labelled:
                text = f"{head[:1].upper()}{head[1:]}: {sentence(text)}"
            else:
                text = sentence(text)
            lines.append(inline(text, link))
            if labelled and head != heads[-1]:
                lines.append(".br")
    return lines


def literal(lines):
    return [".PP", ".RS", ".nf", *(guarded(escape(line)) for line in lines), ".fi", ".RE"]


def blocks(text):
    """Paragraphs, tables, lists and examples, as lists of lines."""
    fence = None
    block = []
    for line in text.strip("\n").split("\n") + [""]:
        if line.startswith("```"):
            if fence:
                yield block + [line]
                block = []
            elif block:
                yield block
            fence = not fence
            if fence:
                block = [line]
        elif line.strip() or fence:
            block.append(line)
        elif block:
            yield block
            block = []


ITEM = re.compile(r"^(?:-|(\d+)\.) +")


def items(block):
    """The items of a list, each as its mark and its text."""
    found = []
    for line in block:
        mark = ITEM.match(line)
        if mark:
            found.append([mark[1], line[mark.end():]])
        else:
            found[-1][1] += "\n" + line.strip()
    return found


def bullets(block, link):
    lines = []
    for number, text in items(block):
        lines += [f".IP {number}. 4" if number else ".IP \\(bu 2", inline(text, link)]
    return lines


def body(text, link=lambda word: word, labelled=(), markdown=True):
    """The lines of a part of a guide."""
    lines = []
    fresh = False
    for block in blocks(text):
        first = block[0]
        if first.startswith("```"):
            lines += literal(block[1:-1])
        elif first.startswith("### "):
            lines.append(".SS " + inline(first[4:]))
            block = block[1:]
            if block:
                lines.append(inline("\n".join(block), link, markdown))
            else:
                fresh = True
                continue
        elif first.startswith("    "):
            lines += literal([line[4:] for line in block])
        elif first.startswith("|"):
            lines += table(block, link, labelled)
        elif ITEM.match(first):
            lines += bullets(block, link)
        elif not re.fullmatch(r"!\[.*\]\(.*\)", "\n".join(block), re.S):
            lines += ([] if fresh else [".PP"]) + [inline("\n".join(block), link, markdown)]
        fresh = False
    return lines


def part(guide, title):
    """What stands under a heading of the second level."""
    found = re.search(rf"^## {re.escape(title)}\n(.*?)(?=^## |\Z)", guide, re.M | re.S)
    if not found:
        raise SystemExit(f"there is no part '{title}'")
    return found[1]


def head(name, section, version, title, source, summary):
    return [
        '\'\\" t',
        '.\\" SPDX-License-Identifier: Apache-2.0',
        f'.\\" Made by "./dev docs" from {source}.',
        f'.TH {escape(name.upper())} {section} "" "velmora\\-svcmgr {version}" "{title}"',
        ".SH NAME",
        ".ad l",
        f"{escape(name)} \\- {summary}",
    ]


def see_also(pages):
    """Pages as ("name", section)."""
    ends = [","] * (len(pages) - 1) + [""]
    return [".SH SEE ALSO", ".ad l"] + [f".BR {escape(name)} ({section}){end}"
                               for (name, section), end in zip(pages, ends)]
