# SPDX-License-Identifier: Apache-2.0
"""velmora_svcmgr(7), and a page of section 3 for each part of the public header."""

import re

import roff
from header import Header

# Part of the header: the page's name, and what it is about.
FAMILIES = {
    "Errors": ("velmora_svcmgr_error", "codes that functions return and callbacks receive"),
    "Connection": ("velmora_svcmgr_connection", "connect to the service-manager agent, and follow the connection"),
    "The agent": ("velmora_svcmgr_agent", "ask for licence text and API levels"),
    "Updates of the agents": ("velmora_svcmgr_update", "have agents updated, and follow that"),
    "AI models: one model": ("velmora_svcmgr_ai_model_info", "one AI model: its texts"),
    "AI models: lists": ("velmora_svcmgr_ai_model_list", "lists of AI models"),
    "AI models: queries": ("velmora_svcmgr_ai_query", "ask which AI models there are, and in which versions"),
    "AI models: updates and uninstallation": ("velmora_svcmgr_ai_work",
                                              "have AI models updated or uninstalled, and follow that"),
    "AI models: status events": ("velmora_svcmgr_ai_status", "hear what happens to the device's AI models"),
}
BUILD = r"""cc app.c $(pkg\-config \-\-cflags \-\-libs velmora\-svcmgr glib\-2.0) \e
   $(pkg\-config \-\-variable=kyr_marker velmora\-svcmgr)"""
OF_OTHERS = {"free": 3, "abort": 3, "fork": 2, "dlopen": 3}


class Links:
    """Names of the interface as references to their pages."""

    def __init__(self, header):
        self.names = {each.name for each in header.declarations()}

    def __call__(self, text, own=None):
        def refer(match):
            name = match[1] or match[2]
            if name == own:
                return f"\\fB{name}\\fR"
            return f"\\fB{name}\\fR(3)" if name in self.names else match[0]

        text = re.sub(r"\\fB(velmora_svcmgr_\w+)\\fR|\b(velmora_svcmgr_\w+)\b", refer, text)
        text = re.sub(r"(?<!\\fB)\b(SVCMGR_\w+)\b", r"\\fB\1\\fR", text)
        return re.sub(r"\b(%s)\(\)" % "|".join(OF_OTHERS),
                      lambda match: f"\\fB{match[1]}\\fR({OF_OTHERS[match[1]]})", text)

    def without(self, own):
        return lambda text: self(text, own)


def mentioned_traps(text):
    numbers = set()
    for group in re.findall(r"\btraps? (\d+(?:(?:, | and | to )\d+)*)", " ".join(text.split())):
        found = [int(number) for number in re.findall(r"\d+", group)]
        numbers |= set(range(found[0], found[-1] + 1)) if " to " in group else set(found)
    return numbers


def capital(text):
    return text[:1].upper() + text[1:]


def synopsis(declarations):
    lines = [".SH SYNOPSIS", ".nf", ".B #include <velmora_svcmgr.h>"]
    for each in declarations:
        text = re.sub(r"^\s*/\*\*.*?\*/\n", "", each.text, flags=re.M | re.S)
        text = re.sub(r" */\*.*?\*/", "", text)
        lines += [".PP"] + [f"\\fB{line}\\fR" for line in roff.escape(text).split("\n")]
    return lines + [".fi", ".PP", ".nf", BUILD, ".fi"]


def described(each, link):
    lines = [f".SS {each.name}" + ("()" if each.kind in ("function", "callback") else "")]
    prose = roff.body(each.comment.prose, link.without(each.name), markdown=False)
    lines += prose[1:] if prose and prose[0] == ".PP" else prose
    for direction, name, text in each.comment.parameters:
        lines += [".TP", f"\\fI{name}\\fR" + (" (output)" if direction else ""),
                  roff.inline(roff.sentence(text), link.without(each.name), markdown=False)]
    for name, number, text in each.values:
        lines += [".TP", f"\\fB{name}\\fR = " + roff.escape(str(number)), roff.inline(text, link, markdown=False)]
    return lines


def outcome(code, codes, text, names, meanings, link):
    """When this code is returned, as a sentence."""
    if len(codes) > 1 or not text:
        text = meanings[code].rstrip(".") + (f"; {text}" if text else "")
    words = text.split(" ")
    if words[0] in names:
        return f"\\fI{words[0]}\\fR " + roff.inline(roff.sentence(" ".join(words[1:])), link, markdown=False)
    return roff.inline(roff.sentence(capital(text)), link, markdown=False)


def returned(functions, meanings, link):
    if not functions:
        return []
    lines = [".SH RETURN VALUE", "Zero", r"(\fBSVCMGR_ERROR_NONE\fR)",
             "or a negative code. Outputs are written on success only.", ".SH ERRORS"]
    for each in functions:
        lines.append(f".SS {each.name}()")
        if not each.comment.results:
            model = re.match(r"As (\w+),", each.comment.prose)[1]
            lines.append(f"The same as \\fB{model}\\fR(3).")
        names = re.findall(r"(\w+)[,)]", each.text)
        for codes, text in each.comment.results:
            for code in codes:
                lines += [".TP", f"\\fB{code}\\fR", outcome(code, codes, text, names, meanings, link)]
    return lines


def family(title, declarations, header, examples, others, link):
    name, about = FAMILIES[title]
    names = [each.name for each in declarations]
    functions = [each for each in declarations if each.kind == "function"]
    meanings = {code: text for code, _, text in header.sections[0][1][0].values}
    meanings["SVCMGR_ERROR_INVALID_OPERATION"] = (
        "The operation could not be carried out, for example because memory has run out")
    lines = roff.head(", ".join([name] + [each for each in names if each != name]), 3, header.version,
                      "Library Functions", "include/velmora_svcmgr.h", roff.escape(about))
    lines[3] = re.sub(r"^[^\"]*", f".TH {name.upper()} 3 ", lines[3])
    lines[3:3] = ['.\\" Aliases: ' + " ".join(each for each in names if each != name)]
    lines += [".SH LIBRARY", "Client library of the service\\-manager agent",
              r"(\fIlibvelmora\-svcmgr\fR, \fI\-lvelmora\-svcmgr\fR)"]
    lines += synopsis(declarations) + [".SH DESCRIPTION",
              "What holds for all functions, their threads, and who owns what, is in \\fBvelmora_svcmgr\\fR(7)."]
    for each in declarations:
        lines += described(each, link)
    lines += returned(functions, meanings, link)
    traps = sorted(mentioned_traps("\n".join(each.text + each.comment.prose + "\n".join(
        text for _, _, text in each.comment.parameters) + "\n".join(
        text for _, text in each.comment.results) for each in declarations)))
    if traps:
        lines += [".SH TRAPS", "Numbered as in \\fBvelmora_svcmgr\\fR(7), which has them all."]
        for number in traps:
            lines += [f".IP {number}. 4", roff.inline(header.traps[number], link, markdown=False)]
    users = sorted(path.name for path in examples
                   if any(re.search(rf"\b{each.name}\(", path.read_text()) for each in functions))
    if users:
        lines += [".SH EXAMPLES", "Complete programs, in", r".IR PREFIX /share/doc/velmora\-svcmgr/examples ,",
                  "that call these functions:", " ".join(
                      ", ".join(f"\\fI{roff.escape(user)}\\fR" for user in users).split()) + "."]
    lines += roff.see_also([*((other, 3) for other in others if other != name), ("velmora_svcmgr", 7)])
    return {f"{name}.3": lines}


# ---- Section 7 ------------------------------------------------------------------------------------


def numbered(rules, link):
    return [line for number, text in rules.items()
            for line in (f".IP {number}. 4", roff.inline(text, link, markdown=False))]


def traps(header, link):
    """With the headings between them."""
    lines = [".SH TRAPS"]
    for block in re.split(r"\n\n|\n(?= {0,2}\d+\. )", header.traps_text):
        text = " ".join(block.split())
        if not text:
            continue
        number = re.match(r"(\d+)\. ", text)
        if number:
            lines += [f".IP {number[1]}. 4", roff.inline(text[number.end():], link, markdown=False)]
        elif text.endswith(":") and len(text) < 30:
            lines.append(f".SS {text[:-1]}")
        else:
            lines += ([] if lines[-1].startswith(".S") else [".PP"]) + [roff.inline(text, link, markdown=False)]
    return lines


def from_guide(guide, titles, link, labelled=()):
    lines = []
    for title in titles:
        body = roff.body(roff.part(guide, title), link, labelled)
        lines += [f".SS {roff.escape(title)}"] + (body[1:] if body[0] == ".PP" else body)
    return lines


def overview(root, header, link):
    connection = (root / "docs/guide/connection.md").read_text(encoding="utf-8")
    threads = (root / "docs/guide/threads.md").read_text(encoding="utf-8")
    desktop = (root / "docs/desktop-platform.md").read_text(encoding="utf-8")
    lines = roff.head("velmora_svcmgr", 7, header.version, "Miscellaneous Information",
                      "include/velmora_svcmgr.h, docs/guide and docs/desktop-platform.md",
                      "client library of the device\\(aqs service\\-manager agent")
    lines += [".SH SYNOPSIS", ".nf", ".B #include <velmora_svcmgr.h>",
              r".BR "'"#include <velmora_svcmgr.hpp>" "      (C++17)"', ".PP", BUILD, ".fi", ".SH DESCRIPTION"]
    lines += roff.body(header.overview.strip("\n"), link, markdown=False)[1:]
    lines += [".PP", "The pages of section 3 describe the functions, family by family:"]
    for name, about in FAMILIES.values():
        lines += [".TP", f".BR {name} (3)", roff.escape(about)]
    lines += [".PP", "The C++ face is described in its header, and in the guides.",
              ".SH CONVENTIONS"] + numbered(header.conventions, link)
    table = [block for block in roff.blocks(connection.split("\n## ")[0]) if block[0].startswith("|")][0]
    lines += [".SH THE LIFE OF A CONNECTION", "In each state, these calls do the following."]
    lines += roff.table(table, link, labelled=roff.cells(table[0]))
    lines += from_guide(connection, ["Connecting", "Refused", "Lost", "The agent replaces itself"], link)
    rules = [block for block in roff.blocks(roff.part(connection, "Living through it")) if roff.ITEM.match(block[0])][0]
    lines += [".SS Living through it"] + roff.bullets(rules, link)
    lines += [".SH THREADS"]
    introduction = [block for block in roff.blocks(threads.split("\n## ")[0]) if not block[0].startswith("# ")][0]
    lines += [roff.inline("\n".join(introduction), link)]
    lines += from_guide(threads, ["What may be called where"], link)
    blocking = list(roff.blocks(roff.part(threads, "Calls that block")))[0]
    lines += [".SS Calls that block", roff.inline("\n".join(blocking), link)]
    lines += traps(header, link)
    lines += [".SH ENVIRONMENT", "A device has its own ways. The platform of the desktop looks at these:"]
    variables = [block for block in roff.blocks(roff.part(desktop, "Environment")) if block[0].startswith("|")][0]
    lines += roff.table(variables, link, labelled=("without it",))
    lines += [r""".SH FILES
.TP
.IR PREFIX /share/doc/velmora\-svcmgr/docs/guide/
The guides, one for each question.
.TP
.IR PREFIX /share/doc/velmora\-svcmgr/examples/
Small complete programs, in C and in C++.
.TP
.IR PREFIX /include/velmora_svcmgr.hpp
The C++ face, and its manual.
.TP
.IR ~/.local/share/velmora/packages/
On a desktop, the installed packages, see
.BR svcmgr\-package (5).
.SH BUGS
What a caller may take for one, and what stays because applications rely on it, is listed under
.BR TRAPS ."""]
    lines += roff.see_also([("svcmgrctl", 1), ("svcmgr-sim", 1), *((name, 3) for name, _ in FAMILIES.values()),
                            ("svcmgr-package", 5), ("svcmgr-scenario", 5)])
    return {"velmora_svcmgr.7": lines}


def pages(root, _):
    header = Header(root / "include/velmora_svcmgr.h")
    missing = {title for title, _ in header.sections} ^ set(FAMILIES)
    if missing:
        raise SystemExit(f"parts of the header without a page, or the reverse: {missing}")
    link = Links(header)
    examples = sorted(path for path in (root / "examples").glob("*.c"))
    others = [name for name, _ in FAMILIES.values()]
    made = overview(root, header, link)
    for title, declarations in header.sections:
        made |= family(title, declarations, header, examples, others, link)
    return made
