#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the unit tests again and again, each time with another call of the library failing.

usage: faults.py [--build FOLDER] [--program GLOB] [--test GLOB] [--each-site | --stride N --most N ...]

The programs tests/faults/faults_* of the build folder do the work; this lets them run beside each
other, finds the lines of the sources that their addresses stand for, and holds the places where a
call has failed against all places in src/ that call such a function. Ends with 0 if nothing was found
and, in a run of everything, no place was left out; with 1 otherwise, and with 2 if it cannot run.
"""

import argparse
import bisect
import collections
import concurrent.futures
import fnmatch
import functools
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

TREE = pathlib.Path(__file__).resolve().parents[2]
# As the objects name them; operator new is called by containers, at no place of its own.
ALLOCATIONS = {"malloc", "calloc", "realloc", "strdup", "strndup"}
FILES = {"open64", "fstat64", "pread64", "nftw64"}
# Places where no call can fail, by their text.
EXEMPT = {
    # Nothing in the search of one file throws: it allocates nothing and calls nothing that does. The
    # guard is for what may be added.
    ("dlog_print", "src/kyr-section.cc", "RETURN_ON_EXCEPTION(0);"),
}
PLATFORM = ("rpc_port_", "event_", "bundle_", "package_", "app_", "dlog_")


def run(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, errors="replace", check=True).stdout


def in_tree(path):
    """A path below the tree, as the objects name it relative to the build folder or not at all."""
    match = re.search(r"(?:^|/)((?:src|include|tests)/.*)$", path.strip())
    return match[1] if match and is_of_tree(match[1]) else ""


@functools.lru_cache(maxsize=None)
def is_of_tree(path):
    return (TREE / path).is_file()


def owner_of(path):
    if path.startswith(("src/", "include/", "tests/faults/planted/")):
        return "L"
    if path.startswith("tests/") and not path.startswith(("tests/fake_platform/", "tests/faults/")):
        return "T"
    return ""


# Of the standard library and of the tests' libraries, never of src/ or of a test.
FOREIGN = re.compile(r"_ZN?K?S|_ZN?K?(7testing|8nlohmann|9__gnu_cxx)")


def write_owners(program):
    """Which addresses of a program are the library's code, and which the tests'; made once."""
    owners = program.with_suffix(".owners")
    if owners.exists() and owners.stat().st_mtime > program.stat().st_mtime:
        return owners
    symbols = [line.split() for line in run("nm", "-S", "--defined-only", program).splitlines()]
    # A test that only watches the library's call of a function is not who calls it.
    symbols = [s for s in symbols if len(s) == 4 and s[2] in "tTwW" and not FOREIGN.match(s[3]) and
               not s[3].startswith("__wrap_")]
    done = subprocess.run(["addr2line", "-e", program], stdout=subprocess.PIPE, text=True, check=True,
                          input="\n".join(start for start, _, _, _ in symbols)).stdout.splitlines()
    lines = []
    for (start, size, _, symbol), place in zip(symbols, done):
        path = in_tree(place.partition(" ")[0].rpartition(":")[0])
        if owner_of(path):
            lines.append(f"{start} {size} {owner_of(path)} {path} {symbol}\n")
    owners.write_text("".join(lines))
    return owners


class Frames:
    """What the addresses of a program are in the library, by names that are the same in each program."""

    def __init__(self, program):
        ranges = {}
        for line in write_owners(program).read_text().splitlines():
            start, size, owner, path, symbol = line.split(" ", 4)
            ranges[int(start, 16)] = (int(size, 16), owner, path, symbol)
        self.starts = sorted(ranges)
        self.ranges = [ranges[start] for start in self.starts]

    def library_part(self, addresses):
        """The innermost frames of a stack, up to the first one of a test."""
        part = []
        for address in addresses:
            at = bisect.bisect_right(self.starts, address) - 1
            _, owner, path, symbol = self.ranges[at]
            if owner != "L":
                break
            part.append((path, symbol, address - self.starts[at]))
        return tuple(part)


class Lines:
    """The lines of the sources that addresses of a program stand for."""

    def __init__(self, program, addresses):
        addresses = sorted(set(addresses))
        self.lines = {}
        if not addresses:
            return
        done = subprocess.run(["addr2line", "-e", program, "-f", "-C"], stdout=subprocess.PIPE, text=True,
                              input="\n".join(f"{a:x}" for a in addresses), check=True).stdout.splitlines()
        for address, function, place in zip(addresses, done[::2], done[1::2]):
            path, _, number = place.partition(" ")[0].rpartition(":")
            self.lines[address] = (in_tree(path) or path, number, function.partition("(")[0])

    def __getitem__(self, address):
        return self.lines.get(address, ("?", "0", "?"))


def objects(build):
    return sorted((build / "src/CMakeFiles/svcmgr_objects.dir").glob("*.o"))


def sites_of(objects, functions):
    """Each place in src/ that names one of the functions: (function, file, line)."""
    sites = set()
    pattern = re.compile(r"R_\S+\s+(\w+)")
    for made in objects:
        place = None
        for line in run("objdump", "-d", "-l", "-r", "--no-show-raw-insn", made).splitlines():
            match = re.match(r"(\S.*):(\d+)(?: \(discriminator \d+\))?$", line)
            if match and in_tree(match[1]):
                place = (in_tree(match[1]), match[2])
            relocation = pattern.search(line) if "\tR_" in line or ": R_" in line else None
            if relocation and relocation[1] in functions and place and owner_of(place[0]) == "L":
                sites.add((relocation[1], *place))
    return sites


class Report:
    def __init__(self):
        self.counts = collections.Counter()
        self.findings = collections.defaultdict(list)  # by what and where
        self.hit = set()
        self.judged = set()
        self.memory_hit = set()

    def take(self, program, lines):
        places = Lines(program, [a for line in lines for a in line.get("frames", [])])
        for line in lines:
            frames = [places[a] for a in line.get("frames", [])]
            if "counts" in line:
                self.counts.update(line["counts"])
            elif "finding" in line:
                where = next((f"{path}:{number} {function}" for path, number, function in frames), "")
                self.findings[(line["finding"], where)].append((program.name, line, frames))
            else:
                # A function that is passed along is named in one of the outer frames.
                sites = {(line["site"], path, number) for path, number, _ in frames}
                self.hit |= sites
                if line["judged"]:
                    self.judged |= sites
                if frames and line["site"] in ALLOCATIONS | {"operator new"}:
                    self.memory_hit.add(frames[0][:2])

    def print_findings(self):
        for (what, where), cases in sorted(self.findings.items(), key=lambda item: -len(item[1])):
            print(f"\n{what}\n  {len(cases)} times, at {where or 'no place of the library'}")
            for program, line, frames in cases[:3]:
                print(f"  for example {program} {line['test']}: {line['shape']} {line['code']} "
                      f"{line['how']}, call {line['call']}, {line['function']}")
                for path, number, function in frames if line is cases[0][1] else []:
                    print(f"      {path}:{number} {function}")

    def print_figures(self):
        print()
        for name in ("tests", "calls", "calls like others", "calls left out", "calls that failed", "runs", "injections",
                     "judged", "given up by the test", "stranded", "documented assertion", "nothing failed",
                     "ended by itself", "findings"):
            print(f"{name:24}{self.counts[name]:10}")


class Programs:
    """Runs the programs, some at a time."""

    def __init__(self, folder, jobs, scratch):
        self.folder = folder
        self.jobs = jobs
        self.scratch = scratch
        self.broken = False

    def run(self, tasks):
        """Yields program and lines, as they end, for each program and its arguments."""
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            waiting = [pool.submit(self.run_one, name, arguments) for name, arguments in tasks]
            for done in concurrent.futures.as_completed(waiting):
                yield done.result()

    def run_one(self, name, arguments):
        program = self.folder / name
        with tempfile.TemporaryDirectory(dir=self.scratch) as scratch:
            done = subprocess.run([program, "--owners", write_owners(program), "--scratch", scratch, *arguments],
                                  stdout=subprocess.PIPE, text=True, errors="replace", stdin=subprocess.DEVNULL)
        if done.returncode != 0:
            print(f"{name} ended with {done.returncode}", file=sys.stderr)
            self.broken = True
        return program, [json.loads(line) for line in done.stdout.splitlines() if line.startswith("{")]


# The calls of these are those of others, a million times, or in files of the system.
SLOW = "AWalk.OfEvery* AWalk.ToEvery* RealFiles.* AConnectedPort.FindsEachOfAHundredThousandDelegates"


class EachSite:
    """Each stack of the library fails in each way, in the test that reaches it soonest."""

    MOST = 4  # tests that are tried if those before them give up

    def __init__(self, programs, names, test, left_out):
        self.programs = programs
        self.names = names
        self.arguments = ["--filter", test, "--except", f"{SLOW} {left_out}", "--list", "1"]
        self.tests = collections.defaultdict(dict)  # by function and stack, by program and test
        self.frames = {}

    def find(self):
        for program, lines in self.programs.run((name, self.arguments) for name in self.names):
            frames = self.frames[program.name] = Frames(program)
            for line in lines:
                for family, call, function, stack in line.get("stacks", []):
                    tests = self.tests[(function, frames.library_part(stack))]
                    tests.setdefault((program.name, line["test"]),
                                     (line["seconds"], program.name, f"{family} {call} {line['test']}\n"))

    def sweep(self, report):
        left = {key: sorted(tests.values()) for key, tests in self.tests.items()}
        for _ in range(self.MOST):
            chosen = collections.defaultdict(set)
            for tests in left.values():
                _, name, call = tests.pop(0)
                chosen[name].add(call)
            for program, lines in self.programs.run(self.write(chosen)):
                report.take(program, lines)
                for line in lines:
                    if line.get("judged"):
                        left.pop((line["site"], self.frames[program.name].library_part(line["frames"])), None)
            left = {key: tests for key, tests in left.items() if tests}

    def write(self, chosen):
        for name, calls in sorted(chosen.items()):
            file = self.programs.folder / f"{name}.calls"
            file.write_text("".join(sorted(calls)))
            yield name, ["--calls", file]


def parse():
    parser = argparse.ArgumentParser(description="Lets each call that may fail do so, one run for each.")
    parser.add_argument("--build", default=TREE / "build/dev", type=pathlib.Path)
    parser.add_argument("--program", default="*", metavar="GLOB", help="such as 'connection'")
    parser.add_argument("--test", default="*", metavar="GLOB", help="such as 'AConnection.*'")
    parser.add_argument("--except", default="", metavar="GLOBS", dest="left_out",
                        help="tests to leave out, such as 'AWalk.* RealFiles.*'")
    parser.add_argument("--each-site", action="store_true",
                        help="let each stack of the library fail in one test only: some minutes")
    parser.add_argument("--stride", default=1, type=int, help="take each N-th call only")
    parser.add_argument("--offset", default=1, type=int, help="the first call to take")
    parser.add_argument("--most", default=300, type=int,
                        help="how many calls of a kind fail in one test at most; 300 by default")
    parser.add_argument("--alike", default=2, type=int, help="how many calls with the same stack fail in one test: "
                        "the first N - 1, and the last; 2 by default, 0 for all")
    parser.add_argument("--jobs", default=os.cpu_count(), type=int)
    return parser.parse_args()


def main():
    options = parse()
    folder = options.build.resolve() / "tests/faults"
    names = [p.name for p in sorted(folder.glob("faults_*"))
             if os.access(p, os.X_OK) and not p.suffix and
             fnmatch.fnmatch(p.name, "faults_" + options.program) and p.name != "faults_planted"]
    if not names:
        print("no such program is built", file=sys.stderr)
        return 2
    report = Report()
    # The tests write many small files.
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(dir=memory) as scratch:
        programs = Programs(folder, options.jobs, scratch)
        if options.each_site:
            each = EachSite(programs, names, options.test, options.left_out)
            each.find()
            each.sweep(report)
        else:
            arguments = ["--filter", options.test, "--except", options.left_out, "--stride", str(options.stride), "--offset", str(options.offset),
                         "--most", str(options.most), "--alike", str(options.alike)]
            for program, lines in programs.run((name, arguments) for name in names):
                report.take(program, lines)
    report.print_findings()
    report.print_figures()
    whole = options.program == options.test == "*" and options.stride == 1 and not options.left_out
    missing = print_sites(report, options.build.resolve(), whole)
    if programs.broken:
        return 2
    return 1 if report.findings or (whole and missing) else 0


def is_exempt(function, path, line):
    text = (TREE / path).read_text().splitlines()[int(line) - 1].strip()
    return (function, path, text) in EXEMPT


def print_sites(report, build, whole):
    names = run("nm", "-u", *objects(build)).split()
    functions = {name for name in names if name.startswith(PLATFORM)} | ALLOCATIONS | FILES
    named = sites_of(objects(build), functions)
    sites = {site for site in named if not is_exempt(*site)}
    missing = sorted(sites - report.hit)
    if whole:
        for function, path, line in missing:
            print(f"never failed: {function} at {path}:{line}")
        for function, path, line in sorted((sites & report.hit) - report.judged):
            print(f"never judged: {function} at {path}:{line}")
    print(f"{'sites':24}{len(sites) - len(missing):10} of {len(sites)}")
    print(f"{'sites exempt':24}{len(named) - len(sites):10}")
    print(f"{'sites judged':24}{len(sites & report.judged):10}")
    print(f"{'lines that allocate':24}{len(report.memory_hit):10}")
    return missing


if __name__ == "__main__":
    sys.exit(main())
