#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Leads from each error code, log record and trap to the tests that hold it, in one table.

usage: traceability.py SOURCE PROGRAMS [--write]

SOURCE is the tree, PROGRAMS the folder of the unit tests' programs. Without --write the table in
docs/ is compared with what it should be. Ends with 0 if nothing is without a test, and the table is
as it should be; otherwise with 1.
"""

import difflib
import re
import subprocess
import sys
from pathlib import Path

TABLE = "docs/traceability.md"
MOST = 6  # tests that a cell names
COMMENT = re.compile(r'//[^\n]*|/\*.*?\*/|("(?:\\.|[^"\\\n])*")|(\'(?:\\.|[^\'\\\n])\')', re.S)
TEST = re.compile(r"^TEST(?:_F|_P)?\((\w+), (\w+)\)", re.M)
# What cannot be tested, and why.
UNTESTABLE_TRAPS = {23: "none: the outcome is undefined"}
UNRETURNED_CODES = {"SVCMGR_ERROR_IO_ERROR": "none: no function returns it"}


# ---- Sources ------------------------------------------------------------------------------------

def without_comments(text):
    return COMMENT.sub(lambda match: match.group(1) or match.group(2) or " ", text)


def literals(text):
    """The string literals of a piece of code; adjacent ones are one."""
    whole = re.sub(r'"\s*\n?\s*"', "", without_comments(text))
    return re.findall(r'"((?:\\.|[^"\\\n])*)"', whole)


def arguments(code, start):
    """The arguments of a call whose parenthesis opens just before `start`."""
    found, depth, begin, place = [], 1, start, start
    while depth > 0 and place < len(code):
        char = code[place]
        if char == '"':
            place = re.compile(r'"(?:\\.|[^"\\\n])*"').match(code, place).end()
            continue
        if char in "([{":
            depth += 1
        elif char in ")]}":
            depth -= 1
        if (char == "," and depth == 1) or depth == 0:
            found.append(code[begin:place].strip())
            begin = place + 1
        place += 1
    return found


# Where a text of a log record stands: the macro, and which argument it is.
RECORDS = re.compile(r"\b(CLIENT_INFO|CLIENT_ERROR|CLIENT_INFO_F|CLIENT_ERROR_F|PROXY_ERROR|CLIENT_ERROR_AT|"
                     r"CLIENT_ERROR_F_AT|PROXY_ERROR_AT|PROXY_ERROR_F_AT|RETURN_IF_NULL|RETURN_ERROR_IF)\(")


def records(source):
    """The texts of the log records that a source writes."""
    code = "\n".join(line for line in without_comments(source).split("\n")
                     if not line.lstrip().startswith("#define"))
    texts = []
    for match in RECORDS.finditer(code):
        given = arguments(code, match.end())
        place = 1 if match.group(1).endswith("_AT") or match.group(1).startswith("RETURN") else 0
        found = literals(given[place]) if len(given) > place else []
        if found and found[0] != "%s":
            texts.append(found[0])
    texts += re.findall(r'what\(\) const noexcept override \{ return "([^"]*)"; \}', code)
    return texts


def is_record(expected, text):
    """Whether a literal of a test is what a record says, or its beginning."""
    pattern = re.escape(text)
    for conversion, meaning in (("%d", r"-?\d+"), ("%s", ".*"), ("%m", ".*")):
        pattern = pattern.replace(re.escape(conversion), meaning)
    if re.fullmatch(pattern, expected, re.S):
        return True
    beginning = text.partition("%")[0]  # the rest is computed
    return beginning != text and len(beginning) > 5 and expected in (beginning, beginning.rstrip(" =["))


# ---- Tests --------------------------------------------------------------------------------------

class TestFile:
    """The tests of a source, and what each of them refers to in its file and in the headers beside it."""

    def __init__(self, path):
        self.items = []  # (names that it defines, its text, its test or None)
        for included in self._with_headers(path, []):
            self._split(without_comments(included.read_text()))
        self.by_name = {}
        for number, (names, _, _) in enumerate(self.items):
            for name in names:
                self.by_name.setdefault(name, []).append(number)

    def _with_headers(self, path, seen):
        if path.exists() and path not in seen:
            seen.append(path)
            for name in re.findall(r'^#include "(\w+\.h)"', path.read_text(), re.M):
                self._with_headers(path.with_name(name), seen)
        return seen

    def _split(self, code):
        code = re.sub(r"^#.*$", "", code, flags=re.M)
        code = re.sub(r"\bnamespace(?: [\w:]+)? \{", "", code)
        begin = depth = place = 0
        while place < len(code):
            char = code[place]
            if char in "\"'":
                literal = re.compile(r'"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'').match(code, place)
                if literal:
                    place = literal.end()
                    continue
            if char in "({[":
                depth += 1
            elif char in ")}]":
                depth = max(0, depth - 1)
            ends = depth == 0 and (char == ";" or (char == "}" and not re.match(r"\s*[;,)(]", code[place + 1:])))
            if ends:
                self._add(code[begin:place + 1].strip())
                begin = place + 1
            place += 1

    def _add(self, text):
        test = TEST.match(text)
        if test:
            self.items.append((set(), text, f"{test.group(1)}.{test.group(2)}"))
            return
        suite = re.match(r"INSTANTIATE_TEST_SUITE_P\(\w+,\s*(\w+)", text)
        if suite:
            self.items.append(({suite.group(1)}, text, None))
            return
        head = text.split("{")[0]
        names = set(re.findall(r"\b(?:class|struct|enum(?: class)?|using)\s+(\w+)", head))
        names.update(re.findall(r"\b(\w+)\s*(?:\[[^\]]*\]\s*)?=", head.split("(")[0]))
        names.update(re.findall(r"\b(\w+)\s*\(", head)[:1])
        names.update(re.findall(r"\b(\w+)\s*(?:\[[^\]]*\]\s*)?$", head.strip())[:1])
        self.items.append((names, text, None))

    def tests(self):
        return [(test, text) for _, text, test in self.items if test]

    def reached(self, text):
        """A test's own text and that of all that it refers to, directly or not."""
        seen, waiting, texts = set(), [text], []
        while waiting:
            piece = waiting.pop()
            texts.append(piece)
            for name in set(re.findall(r"\b[A-Za-z_]\w*\b", re.sub(r'"(?:\\.|[^"\\\n])*"', '""', piece))):
                for number in self.by_name.get(name, []):
                    if number not in seen:
                        seen.add(number)
                        waiting.append(self.items[number][1])
        return texts


class Tests:
    """All unit tests: which literals each expects, and which codes it names."""

    def __init__(self, folder):
        self.own, self.shared, self.codes, self.numbers = {}, {}, {}, {}
        for path in sorted(folder.glob("*_test.cc")):
            file = TestFile(path)
            for test, text in file.tests():
                name = f"{path.stem} {test}"
                texts = file.reached(text)
                self.own[name] = set(literals(texts[0]))
                self.shared[name] = {literal for piece in texts for literal in literals(piece)}
                self.codes[name] = set(re.findall(r"\bSVCMGR_ERROR_\w+", texts[0]))
                self.numbers[name] = {int(number) for piece in texts for number in re.findall(r"-\d+\b", piece)}

    def of_record(self, text):
        """Those that expect it themselves; failing that, those that something shared lets expect it."""
        for expected in (self.own, self.shared):
            found = [name for name, known in expected.items() if any(is_record(one, text) for one in known)]
            if found:
                return found
        return []

    def of_code(self, name):
        return [test for test, codes in self.codes.items() if name in codes]

    def of_number(self, value):
        return [test for test, numbers in self.numbers.items() if value in numbers]


# ---- The table ----------------------------------------------------------------------------------

def codes_of(header):
    return {name: int(value) for name, value in re.findall(r"(SVCMGR_ERROR_\w+) = (-?\d+)", header)}


def traps_of(header):
    """The number and the first sentence of each trap."""
    text = re.sub(r"^ \*", "", header.partition(" * Traps\n")[2].partition("*/")[0], flags=re.M)
    found = re.findall(r"^ +(\d+)\. (.*?)(?=^ +\d+\. |^ [A-Z][^\n]*:\n|^$|\Z)", text, re.M | re.S)
    return {int(number): re.split(r"(?<=[.:;]) ", " ".join(body.split()))[0] for number, body in found}


def rules_of(program):
    """What the table of rules says: (kind, what, where, test) of each code and record."""
    output = subprocess.run([program, "--gtest_filter=TheTable.NamesTestsOfEachCodeAndRecord"], check=True,
                            stdout=subprocess.PIPE, text=True).stdout
    rules = [line.split("\t") for line in output.splitlines() if re.match(r"(?:code|record)\t", line)]
    if not rules:
        raise SystemExit(f"traceability: {program} names no tests")
    return rules


def suites_of(program):
    """The names of a program's tests."""
    suite, names = "", []
    for line in subprocess.run([program, "--gtest_list_tests"], check=True, stdout=subprocess.PIPE,
                               text=True).stdout.splitlines():
        if not line.startswith(" "):
            suite = line.split("#")[0].strip()
        elif suite.endswith("."):
            names.append(suite + line.split("#")[0].strip())
    return names


def cell(tests):
    shown = [test.replace("|", "\\|") for test in tests[:MOST]]
    if len(tests) > MOST:
        shown.append(f"and {len(tests) - MOST} more")
    return "<br>".join(shown)


class Table:
    """The lines of the table, and what is without a test."""

    def __init__(self):
        self.lines, self.missing = [], []

    def begin(self, title, text, heads):
        self.lines += ["", f"## {title}", "", text, "", "| " + " | ".join(heads) + " |",
                       "|" + "---|" * len(heads)]

    def row(self, what, *cells, tests, excuse=None):
        if not tests and not excuse:
            self.missing.append(what)
        self.lines.append("| " + " | ".join([*cells, cell(tests) if tests else excuse or "none"]) + " |")


def add_codes(table, header, rules, tests):
    table.begin("Error codes", "Who returns each, and the tests that see it returned. Tests of `AFunction` run for each "
                "function that is named, by `unit_rules_test`.", ["code", "functions", "tests"])
    for name, value in codes_of(header).items():
        rows = [(what, test) for kind, code, what, test in rules if kind == "code" and int(code) == value]
        functions = sorted({what for what, _ in rows})
        if len(functions) == len({what for kind, _, what, _ in rules if kind == "code"}):
            who = "all"
        else:
            who = ", ".join(f"`{one.removeprefix('velmora_svcmgr_')}`" for one in functions) or "none"
        held = sorted({f"AFunction.{test}" for _, test in rows})
        if name != "SVCMGR_ERROR_NONE":
            held += [test for test in tests.of_code(name) if not test.startswith("rules_test ")]
        if not rows:  # only answers bring it
            held += [test for test in tests.of_number(value) if test not in held]
        if name in UNRETURNED_CODES:
            held = []
        table.row(name, f"`{name}`", who, tests=held, excuse=UNRETURNED_CODES.get(name))


def add_records(table, source, rules, tests):
    table.begin("Log records", "The text of each record that the library writes, where it stands, and the tests that expect "
                "it; if none does so in its own words, those that leave it to something shared.",
                ["text", "sources", "tests"])
    where = {}
    for path in sorted([*source.glob("src/*.cc"), *source.glob("src/*.h")]):
        for text in records(path.read_text()):
            where.setdefault(text, set()).add(path.name)
    for text, files in sorted(where.items()):
        held = sorted({f"AFunction.{test}" for kind, what, _, test in rules if kind == "record" and what == text})
        held += [test for test in tests.of_record(text) if not test.startswith("rules_test ")]
        table.row(f'the record "{text}"', "`" + text.replace("|", "\\|") + "`",
                  ", ".join(f"`{file}`" for file in sorted(files)), tests=held)


def add_traps(table, header, names):
    table.begin("Traps", "Of the public header, with the tests of `traps_test` that carry their numbers.",
                ["trap", "", "tests"])
    for number, sentence in traps_of(header).items():
        held = [name for name in names if re.match(rf"Trap{number}(?:DeathTest)?\.", name)]
        table.row(f"trap {number}", str(number), sentence.replace("|", "\\|"), tests=held,
                  excuse=UNTESTABLE_TRAPS.get(number))


def make(source, programs):
    header = (source / "include/velmora_svcmgr.h").read_text()
    rules = rules_of(programs / "unit_rules_test")
    tests = Tests(source / "tests/unit")
    table = Table()
    table.lines = ["# Which tests hold what", "",
                   "From each error code, each text of a log record and each documented trap to the unit tests that hold it. "
                   "It is made from the", "table of rules (`tests/unit/rules.cc`), the names of the tests and the literals that "
                   "they expect; a test fails if anything is without a test, or if this page is", "not up to date. That a test "
                   "names a text does not prove that it fails without it: `./dev mutate` does. `./dev traceability` writes the page."]
    add_codes(table, header, rules, tests)
    add_records(table, source, rules, tests)
    add_traps(table, header, suites_of(programs / "traps_test"))
    return table


def main():
    if len(sys.argv) not in (3, 4) or sys.argv[3:] not in ([], ["--write"]):
        sys.stderr.write(__doc__)
        return 2
    source = Path(sys.argv[1])
    table = make(source, Path(sys.argv[2]))
    text = "\n".join(table.lines) + "\n"
    for what in table.missing:
        print(f"traceability: no test holds {what}", file=sys.stderr)
    path = source / TABLE
    if sys.argv[3:]:
        path.write_text(text)
        return 1 if table.missing else 0
    before = path.read_text() if path.exists() else ""
    if before != text:
        sys.stderr.writelines(difflib.unified_diff(before.splitlines(True), text.splitlines(True), TABLE,
                                                   "what it should be", n=0))
        print(f"traceability: {TABLE} is not up to date; ./dev traceability writes it anew", file=sys.stderr)
        return 1
    return 1 if table.missing else 0


if __name__ == "__main__":
    sys.exit(main())
