# SPDX-License-Identifier: Apache-2.0
"""Finds the places of a C++ source where a small change is a fault, and makes the fault."""

import hashlib
import re
from dataclasses import dataclass

COMPARISONS = {" == ": " != ", " != ": " == ", " < ": " <= ", " <= ": " < ", " > ": " >= ",
               " >= ": " > ", " && ": " || ", " || ": " && "}
CODE_FAMILIES = ("SVCMGR_ERROR_", "SVCMGR_UPDATE_STATUS_", "SVCMGR_CONNECTION_STATE_",
                 "SVCMGR_AI_STATUS_", "UPDATE_STATE_", "kAgentLevel")
CONDITION = re.compile(r"\b(?:if|while|RETURN_ERROR_IF) \(|\bRETURN_ERROR_IF\(")
NUMBER = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F]+|\d[\d']*)(?![\w.'])")
NO_STATEMENT = re.compile(r"(?:return|using|typedef|break|case|default|public|private|protected|"
                          r"class|struct|enum|namespace|template|static_assert|friend|"
                          r"const|constexpr|static|inline|auto|virtual)\b")
# Masks what is no code with blanks: line by line the text keeps its length.
NO_CODE = re.compile(r'//[^\n]*|/\*.*?\*/|^[ \t]*#[ \t]*(?:include|if|ifdef|ifndef|else|endif|pragma|undef)'
                     r'[^\n]*|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])\'', re.S | re.M)


@dataclass(frozen=True)
class Mutant:
    """One fault: the bytes of `file` from `start` to `end` become `text`."""

    file: str
    kind: str
    start: int
    end: int
    text: str
    line: int
    identity: str  # the same for as long as the statement stands in the file

    def apply(self, source):
        return source[:self.start] + self.text + source[self.end:]


def mask(source):
    return NO_CODE.sub(lambda match: re.sub(r"[^\n]", " ", match.group()), source)


def closing(code, start):
    """The place after the parenthesis that closes the one just before `start`."""
    depth = 1
    while depth > 0 and start < len(code):
        depth += {"(": 1, ")": -1}.get(code[start], 0)
        start += 1
    return start


def comparisons(code, _source):
    for match in re.finditer(r"(?<=\S) (?:[=!<>]=|[<>]|&&|\|\|) (?=\S)", code):
        yield match.start(), match.end(), COMPARISONS[match.group()]


def constants(code, _source):
    for match in NUMBER.finditer(code):
        digits = match.group().replace("'", "")
        is_octal = re.fullmatch("0[0-7]+", digits) is not None
        value = int(digits, 8 if is_octal else 0)
        for other in (value + 1, value - 1):
            if other >= 0:
                yield match.start(), match.end(), f"0{other:o}" if is_octal else str(other)
    for match in re.finditer(r"\b(true|false)\b", code):
        yield match.start(), match.end(), {"true": "false", "false": "true"}[match.group()]


def codes(code, _source):
    used = {family: sorted(set(re.findall(r"\b" + family + r"\w+", code)))
            for family in CODE_FAMILIES}
    used["SVCMGR_ERROR_"] = sorted({*used["SVCMGR_ERROR_"], "SVCMGR_ERROR_IO_ERROR",
                                    "SVCMGR_ERROR_NONE", "SVCMGR_ERROR_INVALID_OPERATION"})
    for family, names in used.items():
        for match in re.finditer(r"\b" + family + r"\w+", code):
            for name in names:
                if name != match.group():
                    yield match.start(), match.end(), name


def literals(code, source):
    for match in NO_CODE.finditer(source):
        text = match.group()
        if not text.startswith('"') or code[match.start()] != " ":
            continue
        yield match.start(), match.end(), '""' if len(text) > 2 else '"~"'
        if len(text) > 3:
            yield match.start(), match.end(), text[:-1] + '~"'


def deleted_statements(code, _source):
    depth = parentheses = begin = 0
    for place, char in enumerate(code):
        if char in "()":
            parentheses += 1 if char == "(" else -1
        elif char in "{}":
            depth += 1 if char == "{" else -1
            begin = place + 1
        elif char == ";" and parentheses == 0:
            statement = code[begin:place].strip()
            start = begin + len(code[begin:place]) - len(code[begin:place].lstrip())
            if depth > 0 and statement and not NO_STATEMENT.match(statement):
                yield start, place, re.sub(r"[^\n]", "", code[start:place])
            begin = place + 1
        elif char == ":" and re.search(r"\b(?:public|private|protected|default)\s*$|\bcase [^;{}?]*$",
                                       code[begin:place]):
            begin = place + 1


def negated_conditions(code, source):
    for match in CONDITION.finditer(code):
        start = match.end()
        end = closing(code, start) - 1
        if "RETURN_ERROR_IF" in match.group():
            depth = 0
            for end in range(start, len(code)):
                depth += {"(": 1, ")": -1}.get(code[end], 0)
                if depth == 0 and code[end] == ",":
                    break
        condition = source[start:end]
        if "; " not in condition and not re.match(r"(?:const )?auto\b", condition):
            yield start, end, f"!({condition})"


KINDS = {"comparison": comparisons, "constant": constants, "code": codes, "literal": literals,
         "deleted statement": deleted_statements, "negated condition": negated_conditions}


def find(file, source):
    """All mutants of a source."""
    code = mask(source)
    seen = {}
    found = []
    for kind, places in KINDS.items():
        for start, end, text in places(code, source):
            begin_of_line = source.rfind("\n", 0, start) + 1
            end_of_line = source.find("\n", end)
            line_text = source[begin_of_line:end_of_line]
            what = (kind, line_text, start - begin_of_line, text)
            seen[what] = seen.get(what, 0) + 1
            identity = "\0".join([file, *map(str, what), str(seen[what])])
            found.append(Mutant(file, kind, start, end, text, source.count("\n", 0, start) + 1,
                                identity))
    return found


def choose(sources, seed):
    """The mutants of all sources in the order of a seed, one of each kind in turn.

    A mutant's place follows from the seed and from what it is, not from what else there is: a
    change of one source leaves the choice among the others alone.
    """
    def rank(mutant):
        return hashlib.sha256(f"{seed}\0{mutant.identity}".encode()).digest()

    ranked = {kind: [] for kind in KINDS}
    for file, source in sorted(sources.items()):
        for mutant in find(file, source):
            ranked[mutant.kind].append(mutant)
    for mutants in ranked.values():
        mutants.sort(key=rank)
    places = set()
    for row in range(max(map(len, ranked.values()), default=0)):
        for mutants in ranked.values():
            if row >= len(mutants):
                continue
            mutant = mutants[row]
            place = (mutant.file, mutant.kind, mutant.start)
            if place not in places:  # one fault of a kind for each place
                places.add(place)
                yield mutant
