#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs fuzz targets and counts what they have run, or tells what their corpora cover.

usage: fuzz.py search PROGRAMS CORPORA FOLDER SECONDS|wanted [TARGET...]
       fuzz.py fast   PROGRAMS CORPORA FOLDER SECONDS|wanted FAST [TARGET...]
       fuzz.py coverage PROGRAMS CORPORA FOLDER

PROGRAMS holds the targets, built with sanitizers, CORPORA a folder of known inputs for each. FOLDER takes
what is found, the inputs that a search gathers, and how often each target was run in all: the sum over
all searches of this folder. "wanted" goes on until that is as often as it should be. A target may be
called without its ending, _fuzz.

FAST holds the same targets without sanitizers. They run short inputs, several times as many, and their
judges alone look on; what they gather the others run afterwards.

Ends with 0 if nothing was found and each decoder is covered, with 1 if not, with 2 if it cannot tell.
"""

import fcntl
import json
import os
import re
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path

sys.dont_write_bytecode = True  # nothing is written where the sources are

# A target that makes files, or carries out whole commands, need not run as often as the others.
SLOW = {"connection_fuzz", "marker_tree_fuzz", "scenario_fuzz", "svcmgrctl_arguments_fuzz",
        "svcmgrctl_screen_fuzz", "walk_fuzz"}
WANTED_FAST = 10**8
WANTED_SLOW = 10**6
SLICE = 60  # seconds after which it is counted again what is still missing
# Short inputs, of which each branch counts once however often it is taken: what slows a search most is
# to tell how often each was.
FAST_OPTIONS = ("-max_len=256", "-use_counters=0")

# What makes something of bytes, texts or events that come from outside, and what draws it. Of sources
# that do other things, too, such as to send or to open files, the functions that decode are named.
DECODERS = {
    "src/ModelUpdateEventHandler.cc": None,
    "src/SvcMgrAppProxyCallback.cc": None,
    "src/UpdateObserver.cc": None,
    "src/UpdateStatusEventHandler.cc": None,
    "src/event_data.h": None,
    "src/kyr-section.cc": None,
    "src/marshalling.h": None,
    "src/parcel.h": None,
    "platform/bundle/bundle.cc": None,
    "platform/capi-appfw-package-manager/snapshot_reader.cc": [
        "ReadVersion", "ReadClients", "ReadApplication", "ReadApplications", "ParsePackage"],
    "platform/rpc-port/handshake.cc": None,
    "platform/rpc-port/parcel.cc": None,
    "platform/rpc-port/stream.cc": [
        "FrontIsWhole", "RoomToRead", "Consume", "ReadSome", "ReadOnce", "TakeFront", "TryReceive",
        "SkipFront", "Fill", "Front", "Take", "Discard", "Receive", "KeepWhatDoesNotFit", "ended"],
    "agent/scenario/json_tree.cc": None,
    "agent/scenario/object_reader.cc": None,
    "agent/scenario/scenario_reader.cc": None,
    "agent/scenario/text_rules.cc": [
        "OnlyOf", "NotEmpty", "ApplicationId", "PackageVersion", "MetadataKey", "ModelName", "Pattern"],
    "tools/svcmgrctl/bars.cc": None,
    "tools/svcmgrctl/command_line.cc": None,
    "tools/svcmgrctl/completion.cc": None,
    "tools/svcmgrctl/selection.cc": None,
    "tools/svcmgrctl/work_progress.cc": None,
    "tools/terminal_text/command_words.h": None,
    "tools/terminal_text/terminal_text.cc": None,
    "tools/terminal_text/usage.h": None,
}
LEAST_COVERED = 95.0  # per cent of the lines of each


def stop(message):
    print(f"fuzz: {message}", file=sys.stderr)
    sys.exit(2)


def targets_in(programs):
    targets = {path.name: path for path in sorted(programs.glob("*_fuzz")) if path.is_file()}
    return targets or stop(f"there is no target in {programs}")


def known_inputs(corpora, target):
    more = [corpora.parent.parent / "agent/scenario/shipped"] if target == "scenario_fuzz" else []
    return [corpora / target, *more]


def chosen(targets, names):
    full = [name if name.endswith("_fuzz") else name + "_fuzz" for name in names]
    for name in full:
        if name not in targets:
            stop(f"there is no target '{name}'; there are {', '.join(targets)}")
    return {name: targets[name] for name in full} or targets


def wanted_of(target):
    return WANTED_SLOW if target in SLOW else WANTED_FAST


class Counts:
    """How often each target was run, with sanitizers and fast, in a file that only grows.

    Several searches may count in the same file at once.
    """

    WAYS = ("sanitized", "fast")

    def __init__(self, path):
        self.path = path

    def read(self):
        return json.loads(self.path.read_text()) if self.path.exists() else {}

    def of(self, target, way=None):
        total = self.read().get(target, {})
        return sum(total.get(each, 0) for each in ([way] if way else self.WAYS))

    def add(self, target, way, executions):
        with open(self.path.with_suffix(".lock"), "w", encoding="utf-8") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            total = self.read()
            of_target = total.setdefault(target, dict.fromkeys(self.WAYS, 0))
            of_target[way] += executions
            # In one step: whoever interrupts a search keeps what was counted before.
            new = self.path.with_suffix(".new")
            new.write_text(json.dumps(total, indent=1, sort_keys=True) + "\n")
            new.replace(self.path)


@dataclass
class Search:
    """One search: where things are, and how it goes."""

    programs: Path  # with sanitizers
    corpora: Path
    folder: Path
    fast: Path | None  # without

    @property
    def way(self):
        return "fast" if self.fast else "sanitized"

    def gathered(self, target):
        folder = self.folder / "corpus" / target
        folder.mkdir(parents=True, exist_ok=True)
        return folder

    def run(self, program, target, *options):
        """Runs a target once; returns its executions and seconds, and whether it found something."""
        command = [program, *options, "-print_final_stats=1", "-verbosity=0",
                   f"-artifact_prefix={self.folder}/{target}-", self.gathered(target),
                   *known_inputs(self.corpora, target)]
        run = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                             errors="replace")
        number = {name: int(value) for name, value in re.findall(r"stat::(\w+):\s+(\d+)", run.stdout)}
        if run.returncode != 0:
            print(run.stdout, file=sys.stderr)
        per_second = max(number.get("average_exec_per_sec", 0), 1)
        executions = number.get("number_of_executed_units", 0)
        return executions, executions / per_second, run.returncode != 0

    def step(self, target, seconds, most):
        """Searches for so many seconds, or until it was run so often."""
        options = [f"-max_total_time={seconds}", *([f"-runs={most}"] if most else [])]
        if not self.fast:
            return self.run(self.programs / target, target, *options)
        return self.run(self.fast / target, target, *options, *FAST_OPTIONS)

    def known_to_sanitizers(self, target):
        """Whether what was gathered is nothing new to the target with sanitizers."""
        _, _, found = self.run(self.programs / target, target, "-runs=0")
        return not found


def search_target(search, target, seconds, counts):
    """Returns executions, seconds, and whether something was found."""
    executions, took, found = 0, 0, False

    def step(*limits):
        nonlocal executions, took, found
        now, seconds_now, found = search.step(target, *limits)
        counts.add(target, search.way, now)
        executions, took = executions + now, took + seconds_now

    if seconds is not None:
        step(seconds, 0)
    while seconds is None and not found:
        missing = wanted_of(target) - counts.of(target)
        if missing <= 0:
            break
        step(SLICE, missing)
    if search.fast and not search.known_to_sanitizers(target):
        found = True
    return executions, took, found


def search_all(search, length, names):
    seconds = None if length == "wanted" else int(length)
    targets = chosen(targets_in(search.programs), names)
    counts = Counts(search.folder / "executions.json")
    now, finders = {}, []
    for target in targets:
        print(f"{target}: {f'{seconds} s' if seconds else 'until it is enough'}", flush=True)
        *now[target], found = search_target(search, target, seconds, counts)
        if found:
            finders.append(target)
    print_counts(targets, now, counts)
    for target in finders:
        print(f"fuzz: {target} found something, which is in {search.folder}", file=sys.stderr)
    return 1 if finders else 0


def print_counts(targets, now, counts):
    width = max(map(len, targets))
    print(f"\n{'target':{width}}  {'this time':>12}  {'each second':>12}  {'sanitized':>12}  {'fast':>12}"
          "  wanted")
    for target in targets:
        executions, took = now[target]
        rate = round(executions / took) if took else 0
        wanted = wanted_of(target)
        share = min(100 * counts.of(target) // wanted, 100)
        print(f"{target:{width}}  {executions:12,}  {rate:12,}  {counts.of(target, 'sanitized'):12,}  "
              f"{counts.of(target, 'fast'):12,}  {share:3} % of {wanted:,}")


def tool(name):
    return subprocess.run(["clang++", f"-print-prog-name={name}"], check=True, text=True,
                          capture_output=True).stdout.strip()


def run_corpora(targets, corpora, folder):
    """Runs each target with its known inputs alone; returns what ran, merged."""
    raw = []
    for target, program in targets.items():
        raw.append(folder / f"{target}.profraw")
        run = subprocess.run([program, *known_inputs(corpora, target)], stdout=subprocess.DEVNULL,
                             env={**os.environ, "LLVM_PROFILE_FILE": str(raw[-1])})
        if run.returncode != 0:
            stop(f"{target} fails with its own corpus")
    merged = folder / "all.profdata"
    subprocess.run([tool("llvm-profdata"), "merge", "-sparse", "-o", merged, *raw], check=True)
    return merged


def lines_of(targets, libraries, merged):
    """For each source how often each of its lines ran, and the line on which each function begins."""
    binaries = [str(path) for path in [*targets.values(), *libraries]]
    export = [tool("llvm-cov"), "export", "-format=lcov", f"-instr-profile={merged}", binaries[0]]
    for binary in binaries[1:]:
        export += ["-object", binary]
    text = subprocess.run(export, check=True, capture_output=True, text=True).stdout
    sources = {}
    for record in text.split("end_of_record\n"):
        name = re.search(r"^SF:(.*)$", record, re.M)
        if name:
            runs = {int(line): int(count) for line, count in
                    re.findall(r"^DA:(\d+),(\d+)", record, re.M)}
            begins = {int(line): function for line, function in
                      re.findall(r"^FN:(\d+),(.*)$", record, re.M)}
            sources[name[1]] = runs, begins
    return sources


def runs_of(source, functions):
    """How often each line ran, of the functions of these names alone if there are any."""
    runs, begins = source
    if functions is None:
        return list(runs.values())
    # In a name that is mangled each part stands behind its length.
    pattern = re.compile("|".join(f"{len(name)}{name}(?![a-z])" for name in functions))
    chosen_runs = []
    for line, count in sorted(runs.items()):
        begin = max((each for each in begins if each <= line), default=None)
        if begin is not None and pattern.search(begins[begin]):
            chosen_runs.append(count)
    return chosen_runs


def coverage(programs, corpora, folder):
    targets = targets_in(programs)
    folder.mkdir(parents=True, exist_ok=True)
    libraries = sorted((programs.parent / "lib").glob("*.so"))
    sources = lines_of(targets, libraries, run_corpora(targets, corpora, folder))
    width = max(map(len, DECODERS))
    print(f"{'decoder':{width}}  {'lines':>5}  {'run':>5}")
    too_few = []
    for decoder, functions in DECODERS.items():
        found = [each for name, each in sources.items() if Path(name).match("*/" + decoder)]
        runs = runs_of(found[0], functions) if found else []
        if not runs:
            stop(f"{decoder} is in no target")
        run = sum(count > 0 for count in runs)
        share = 100 * run / len(runs)
        too_few += [decoder] if share < LEAST_COVERED else []
        print(f"{decoder:{width}}  {len(runs):5}  {run:5}  {share:5.1f} %")
    for decoder in too_few:
        print(f"fuzz: of {decoder} the corpora run less than {LEAST_COVERED} %", file=sys.stderr)
    return 1 if too_few else 0


def main(words):
    kind, *words = words or [""]
    folders = [Path(word) for word in words[:3]]
    if kind in ("search", "fast") and re.fullmatch(r"\d+|wanted", (words[3:4] or [""])[0]):
        fast = Path(words.pop(4)) if kind == "fast" and len(words) > 4 else None
        if fast or kind == "search":
            return search_all(Search(*folders, fast), words[3], words[4:])
    if kind == "coverage" and len(words) == 3:
        return coverage(*folders)
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
