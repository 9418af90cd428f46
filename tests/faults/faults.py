#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the unit tests again and again, each time with another call of the library failing.

usage: faults.py [--build FOLDER] [--program GLOB] [--test GLOB] [--stride N] [--most N] [--jobs N]

The programs tests/faults/faults_* of the build folder do the work; this lets them run beside each
other, finds the lines of the sources that their addresses stand for, and holds the places where a
call has failed against all places in src/ that call such a function. Ends with 0 if nothing was found
and, in a run of everything, no place was left out; with 1 otherwise, and with 2 if it cannot run.
"""

import argparse
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

TREE = pathlib.Path(__file__).resolve().parents[2]
# As the objects name them; operator new is called by containers, at no place of its own.
ALLOCATIONS = {"malloc", "calloc", "realloc", "strdup", "strndup"}


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


def write_owners(program):
    """Which addresses of a program are the library's code, and which the tests'; made once."""
    owners = program.with_suffix(".owners")
    if owners.exists() and owners.stat().st_mtime > program.stat().st_mtime:
        return owners
    lines = []
    for line in run("nm", "-S", "-l", "--defined-only", program).splitlines():
        match = re.match(r"([0-9a-f]+) ([0-9a-f]+) [tTwW] \S+\t(.*):\d+$", line)
        owner = owner_of(in_tree(match[3])) if match else ""
        if owner:
            lines.append(f"{match[1]} {match[2]} {owner}\n")
    owners.write_text("".join(lines))
    return owners


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
        self.memory_hit = set()

    def take(self, program, output):
        lines = [json.loads(line) for line in output.splitlines() if line.startswith("{")]
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
                self.hit.update((line["site"], path, number) for path, number, _ in frames)
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
        for name in ("tests", "calls", "calls left out", "runs", "injections", "judged", "given up by the test",
                     "stranded", "documented assertion", "ended by itself", "findings"):
            print(f"{name:24}{self.counts[name]:10}")


def parse():
    parser = argparse.ArgumentParser(description="Lets each call that may fail do so, one run for each.")
    parser.add_argument("--build", default=TREE / "build/dev", type=pathlib.Path)
    parser.add_argument("--program", default="*", metavar="GLOB", help="such as 'connection'")
    parser.add_argument("--test", default="*", metavar="GLOB", help="such as 'AConnection.*'")
    parser.add_argument("--stride", default=1, type=int, help="take each N-th call only")
    parser.add_argument("--offset", default=1, type=int, help="the first call to take")
    parser.add_argument("--most", default=300, type=int,
                        help="how many calls of a kind fail in one test at most; 300 by default")
    parser.add_argument("--jobs", default=os.cpu_count(), type=int)
    return parser.parse_args()


def main():
    options = parse()
    folder = options.build.resolve() / "tests/faults"
    programs = [p for p in sorted(folder.glob("faults_*"))
                if os.access(p, os.X_OK) and not p.suffix and
                fnmatch.fnmatch(p.name, "faults_" + options.program) and p.name != "faults_planted"]
    if not programs:
        print("no such program is built", file=sys.stderr)
        return 2
    report = Report()

    def sweep(program):
        done = subprocess.run(
            [program, "--owners", write_owners(program), "--filter", options.test, "--stride",
             str(options.stride), "--offset", str(options.offset), "--most", str(options.most)],
            stdout=subprocess.PIPE, text=True, errors="replace", stdin=subprocess.DEVNULL)
        return program, done

    broken = False
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for waiting in concurrent.futures.as_completed([pool.submit(sweep, p) for p in programs]):
            program, done = waiting.result()
            print(f"{program.name}: ended with {done.returncode}", file=sys.stderr)
            broken |= done.returncode != 0
            report.take(program, done.stdout)
    report.print_findings()
    report.print_figures()
    whole = options.program == options.test == "*" and options.stride == 1
    missing = print_sites(report, options.build.resolve(), whole)
    if broken:
        return 2
    return 1 if report.findings or (whole and missing) else 0


def print_sites(report, build, whole):
    functions = {name for name in run("nm", "-u", *objects(build)).split() if name.startswith(("rpc_port_", "event_", "bundle_", "package_", "app_", "dlog_"))}
    functions |= ALLOCATIONS | {"open64", "fstat64", "pread64", "nftw64"}
    sites = sites_of(objects(build), functions)
    missing = sorted(sites - report.hit)
    if whole:
        for function, path, line in missing:
            print(f"never failed: {function} at {path}:{line}")
    print(f"{'sites':24}{len(sites) - len(missing):10} of {len(sites)}")
    print(f"{'lines that allocate':24}{len(report.memory_hit):10}")
    return missing


if __name__ == "__main__":
    sys.exit(main())
