# SPDX-License-Identifier: Apache-2.0
"""What the public header declares, and what its comments say."""

import dataclasses
import re


@dataclasses.dataclass
class Comment:
    prose: str
    parameters: list  # (direction, name, text)
    results: list     # (codes, text)


@dataclasses.dataclass
class Declaration:
    kind: str         # "function", "callback", "handle" or "enum"
    name: str
    text: str         # as it stands
    comment: Comment
    values: list      # of an enum: (name, number, text)


def unwrapped(comment):
    """The text of a comment without its frame."""
    inner = re.sub(r"^/\*\*|\*/$", "", comment.strip())
    return "\n".join(re.sub(r"^ ?\* ?", "", line.strip("\n"))
                     for line in re.sub(r"^ +(?=\*)", " ", inner, flags=re.M).split("\n")).strip("\n")


def parsed(text):
    prose, *tags = re.split(r"^@", text, flags=re.M)
    parameters, results = [], []
    for tag in tags:
        words = " ".join(tag.split())
        given = re.fullmatch(r"param(\[out\])? (\w+) (.*)", words)
        returned = re.fullmatch(r"return ((?:SVCMGR_\w+)(?:, SVCMGR_\w+)*);? ?(.*)", words)
        if given:
            parameters.append(given.groups())
        elif returned:
            results.append((returned[1].split(", "), returned[2]))
        else:
            raise SystemExit(f"what is '@{words}'?")
    return Comment(prose.strip(), parameters, results)


def enumerators(text):
    found = re.findall(r"/\*\*(.*?)\*/\s*(\w+) = (-?\d+)", text, re.S)
    if len(found) != len(re.findall(r"^\s*SVCMGR_\w+ =", text, re.M)):
        raise SystemExit("an enumerator has no comment")
    return [(name, int(number), " ".join(re.sub(r"^ *\* ?", "", comment, flags=re.M).split()))
            for comment, name, number in found]


KINDS = [
    ("enum", r"typedef enum \{.*\} (\w+);"),
    ("callback", r"typedef void \(\*(\w+)\)\(.*\);"),
    ("handle", r"typedef struct \w+\* (\w+);"),
    ("function", r"int (\w+)\(.*\);"),
]


def declaration(comment, text):
    for kind, pattern in KINDS:
        found = re.fullmatch(pattern, text, re.S)
        if found:
            values = enumerators(text) if kind == "enum" else []
            return Declaration(kind, found[1], text, parsed(unwrapped(comment)), values)
    raise SystemExit(f"what is declared by '{text}'?")


class Header:
    def __init__(self, path):
        text = path.read_text(encoding="utf-8")
        self.version = ".".join(re.search(rf"^#define VELMORA_SVCMGR_VERSION_{part} (\d+)$", text, re.M)[1]
                                for part in ("MAJOR", "MINOR"))
        top, rest = re.search(r"^(/\*\*.*?\*/)(.*)", text, re.M | re.S).groups()
        overview, traps = unwrapped(top).removeprefix("@file\n").split("\nTraps\n")
        self.overview, conventions = overview.split("\nConventions\n")
        self.conventions = self.numbered(conventions)
        self.traps = self.numbered(traps)
        self.traps_text = traps.strip("\n")
        declared = rest.split('extern "C" {\n#endif\n')[1].split("#ifdef __cplusplus\n}")[0]
        self.sections = []  # (title, [Declaration])
        for title, content in self.split_sections(declared):
            found = re.findall(r"(/\*\*(?:(?!\*/).)*\*/)\n(typedef enum \{.*?\} \w+;|(?:typedef|int) [^;]*;)",
                               content, re.S)
            self.sections.append((title, [declaration(*each) for each in found]))

    @staticmethod
    def split_sections(text):
        parts = re.split(r"^/\* -+ (.*?) -+ \*/$", text, flags=re.M)
        return list(zip(["Errors"] + parts[1::2], parts[::2]))

    @staticmethod
    def numbered(text):
        """Number to text, each in one line."""
        found = re.findall(r"^ {0,2}(\d+)\. (.*?)(?=^ {0,2}\d+\. |^\S|\Z)", text, re.M | re.S)
        return {int(number): " ".join(each.split()) for number, each in found}

    def declarations(self):
        return [each for _, declared in self.sections for each in declared]
