#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Puts small faults into copies of src/, or of platform/, and tells which of them its tests find.

usage: mutate.py TREE FOLDER [N] [SEED] [src|platform]

TREE is only read; all is copied, built and run in FOLDER. The same SEED makes the same N faults for
as long as the sources are the same. A fault that does not compile, or that changes no object file, is
replaced by the next. The test that found a fault in an earlier run comes first, then those that run
the faulty line; the first one that fails ends the search. A fault is alive only if all have passed.

Ends with 0 if every fault was found, with 1 if one was not, and with 2 if no result can be given.
"""

import collections
import concurrent.futures
import contextlib
import difflib
import functools
import hashlib
import itertools
import json
import os
import random
import re
import resource
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

sys.dont_write_bytecode = True  # nothing is written where the sources are

import mutants  # noqa: E402

JOBS = os.cpu_count() or 2
TESTS_AT_ONCE = 2 * JOBS  # many of them wait, those that hang because of a fault all the time
MEMORY = 4 << 30  # bytes that a test may take; a fault may make it ask for any number
PATIENCE = 15  # seconds that a test may take beyond ten times what it takes without a fault
BUILT = r"CMakeLists|(base|cmake|include|platform|src|tests/support|tests/sweep)/"  # what all tests are made of
DEAR = 1  # seconds from which on a test is tried late


@dataclass(frozen=True)
class Area:
    """What gets faults, and what has to find them."""

    sources: str  # a pattern of their names
    folders: str  # of tests, as CMake takes them
    programs: str  # a pattern of the tests' names
    libraries: Callable  # of the tree: targets, each with its folder, that the sources make


def platform_libraries(tree):
    found = tuple((f"svcmgr_{name}", str(path.parent.relative_to(tree)))
                  for path in sorted(tree.glob("platform/*/CMakeLists.txt"))
                  for name in re.findall(r"^svcmgr_platform_library\(([\w-]+)", path.read_text(), re.M))
    if not found:
        raise CannotGo(f"no platform/*/CMakeLists.txt in {tree} makes a library")
    return found


AREAS = {
    "src": Area(r"src/.*\.(cc|h)", "fake_platform;unit", r"unit_\w+_test",
                lambda _: (("svcmgr_objects", "src"),)),
    # The headers of the interface hold nothing that could be wrong but names and numbers.
    "platform": Area(r"platform/(?!.*/include/).*\.(cc|h)", "platform",
                     r"(?:platform|rpc_port)(?:_\w+)?_test",
                     platform_libraries),
}


class CannotGo(Exception):
    """No result can be given; the text says why."""


def run(command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace", **options)


def must(command, **options):
    done = run(command, **options)
    if done.returncode != 0:
        raise CannotGo(f"{' '.join(map(str, command))}:\n{done.stdout}")
    return done.stdout


def limit_processes():
    """Of this one, for all that it starts."""
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_DATA, (MEMORY, MEMORY))


class Tree:
    """A copy of the sources, in which alone faults are made."""

    def __init__(self, origin, folder, area):
        self.folder = folder
        names = must(["git", "-C", origin, "ls-files", "-z", "--cached", "--others",
                      "--exclude-standard"]).split("\0")
        wanted = {name for name in names if name and (origin / name).is_file()}
        for name in sorted(wanted):
            self._copy(origin / name, folder / name)
        for path in sorted(folder.rglob("*"), reverse=True):
            if path.is_dir():
                if not any(path.iterdir()):
                    path.rmdir()
            elif str(path.relative_to(folder)) not in wanted:
                path.unlink()
        self.sources = {name: (folder / name).read_text() for name in wanted
                        if re.fullmatch(area.sources, name)}
        if not self.sources:
            raise CannotGo("there are no sources")
        content = hashlib.sha256()
        for name in sorted(wanted):
            if re.match(rf"{BUILT}|tests/({area.folders.replace(';', '|')})/", name):
                content.update(f"{name}\0".encode() + (folder / name).read_bytes() + b"\0")
        self.identity = content.hexdigest()

    @staticmethod
    def _copy(source, target):
        content = source.read_bytes()
        if not target.exists() or target.read_bytes() != content:
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_bytes(content)  # only then does the build see a change
        target.chmod(source.stat().st_mode)

    def put(self, mutant):
        (self.folder / mutant.file).write_text(mutant.apply(self.sources[mutant.file]))

    def restore(self, mutant):
        (self.folder / mutant.file).write_text(self.sources[mutant.file])


class Build:
    """The tests' programs, built from the copy."""

    def __init__(self, tree, folder, area):
        self.tree = tree
        self.folder = folder
        self.area = area
        self.running = set()

    @functools.cached_property
    def libraries(self):
        return self.area.libraries(self.tree.folder)

    def configure(self, coverage):
        must(["cmake", "-S", self.tree.folder, "-B", self.folder, "-G", "Ninja",
              "-DCMAKE_CXX_COMPILER=g++", "-DCMAKE_C_COMPILER=gcc", "-DCMAKE_BUILD_TYPE=None",
              "-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
              f"-DSVCMGR_TEST_FOLDERS={self.area.folders}",
              "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST",
              f"-DSVCMGR_COVERAGE={'ON' if coverage else 'OFF'}"])

    def make_libraries(self):
        return self.make(*(target for target, _ in self.libraries))

    def make(self, *targets):
        return run(["ninja", "-C", self.folder, "-j", str(JOBS), *targets])

    def programs(self):
        listing = must(["ninja", "-C", self.folder, "-t", "targets", "all"])
        return sorted(set(re.findall(rf"^({self.area.programs}): phony", listing, re.M)))

    def objects(self):
        """What the libraries' object files hold, all together."""
        content = hashlib.sha256()
        for target, folder in self.libraries:
            for path in sorted((self.folder / folder / f"CMakeFiles/{target}.dir").rglob("*.o")):
                content.update(path.read_bytes())
        return content.digest()

    def tests(self):
        """Each test is a program and one of its cases."""
        return [(program, case) for program in self.programs() for case in self._cases(program)]

    def _cases(self, program):
        suite, names = "", []
        for line in must([self.folder / "bin" / program, "--gtest_list_tests"]).splitlines():
            line = line.split("  #")[0].rstrip()
            if not line.startswith("  "):
                suite = line
            elif suite.endswith(".") and "DISABLED_" not in suite + line:
                names.append(suite + line.strip())
        return names

    def run_test(self, test, limit, environment=None):
        """What is wrong with a test, or None; and how long it took."""
        program, case = test
        begun = time.monotonic()
        with tempfile.TemporaryFile() as output:
            process = subprocess.Popen([self.folder / "bin" / program, f"--gtest_filter={case}"],
                                       cwd=self.folder / "tests", stdout=output,
                                       stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                       start_new_session=True,
                                       env={**os.environ, **(environment or {})})
            self.running.add(process)
            try:
                end = os.pidfd_open(process.pid)
                ended, _, _ = select.select([end], [], [], limit)
                os.close(end)
            finally:
                kill_group(process)  # also what the test may have left behind
                self.running.discard(process)
                process.wait()
            seconds = time.monotonic() - begun
            if not ended:
                return "it does not end", seconds
            output.seek(0)
            if process.returncode == 0:
                return None, seconds
            return output.read().decode(errors="replace") or "it fails", seconds

    def run_tests(self, tests, limit, environment=lambda _: None):
        """Runs tests side by side; yields (test, what is wrong or None, seconds). May be left early."""
        remaining = iter(tests)
        running = {}
        with concurrent.futures.ThreadPoolExecutor(TESTS_AT_ONCE) as pool:
            def start(number):
                for test in itertools.islice(remaining, number):
                    running[pool.submit(self.run_test, test, limit(test), environment(test))] = test

            try:
                start(TESTS_AT_ONCE)
                while running:
                    done, _ = concurrent.futures.wait(running, return_when="FIRST_COMPLETED")
                    for future in done:
                        test = running.pop(future)
                        wrong, seconds = future.result()
                        yield test, wrong, seconds
                    start(len(done))
            finally:
                while running:  # one of them may be only about to start
                    for process in list(self.running):
                        kill_group(process)
                    done, _ = concurrent.futures.wait(running, timeout=0.05)
                    for future in done:
                        del running[future]


def kill_group(process):
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGKILL)


class Knowledge:
    """What is known of the tests without faults: how long each takes, and which lines it runs."""

    def __init__(self, seconds, runs):
        self.seconds = seconds  # test -> seconds
        self.runs = runs  # file -> line -> the tests that run it

    @classmethod
    def load(cls, path, identity):
        if not path.exists():
            return None
        known = json.loads(path.read_text())
        if known.get("identity") != identity:
            return None
        tests = [(program, case) for program, case, _ in known["tests"]]
        return cls({(program, case): seconds for program, case, seconds in known["tests"]},
                   {file: {int(line): {tests[number] for number in numbers}
                           for line, numbers in lines.items()}
                    for file, lines in known["runs"].items()})

    def save(self, path, identity):
        numbers = {test: number for number, test in enumerate(self.seconds)}
        path.write_text(json.dumps({
            "identity": identity,
            "tests": [(*test, seconds) for test, seconds in self.seconds.items()],
            "runs": {file: {line: sorted(numbers[test] for test in tests)
                            for line, tests in lines.items()}
                     for file, lines in self.runs.items()}}))

    def running(self, mutant):
        """The tests that run the mutant's line; that of a statement's rest is where it begins."""
        lines = self.runs.get(mutant.file, {})
        before = [line for line in lines if line <= mutant.line]
        return lines[max(before)] if before else set().union(*lines.values())

    def order(self, mutant, hint=None, finders=()):
        """All tests, each once, by program, those that may find the mutant soon first.

        `hint` is the one that has found it before, `finders` are those that have found others in the
        same file, once for each.
        """
        running = self.running(mutant)
        found = collections.Counter(finders)
        found_by = collections.Counter(program for program, _ in finders)
        of_all = collections.Counter(program for program, _ in self.seconds)
        of_running = collections.Counter(program for program, _ in running)

        def rank(test):
            program, _ = test
            return (test != hint, test not in running, self.seconds[test] > DEAR, -found_by[program],
                    -of_running[program] / of_all[program], program, -found[test])
        tests = list(self.seconds)
        random.Random(mutant.identity).shuffle(tests)  # neighbours test the same thing
        return sorted(tests, key=rank)

    def limit(self, test):
        return PATIENCE + 10 * self.seconds[test]


class Hints:
    """Which test has found which mutant, so far or in an earlier run: where to look first, no more."""

    def __init__(self, path):
        self.path = path
        self.found = json.loads(path.read_text()) if path.exists() else {}

    def get(self, mutant):
        return tuple(self.found.get(mutant.identity, ()))

    def of_file(self, file):
        return [tuple(test) for identity, test in self.found.items()
                if identity.startswith(f"{file}\0")]

    def add(self, mutant, test):
        self.found[mutant.identity] = test
        new = self.path.with_suffix(".new")
        new.write_text(json.dumps(self.found))
        new.replace(self.path)


class Counts:
    """The lines of the area that each test has run.

    gcov takes its time. Of counts that are not zero at the same places it reads one alone: where
    others run other lines all the same, a test is only tried too early or too late.
    """

    def __init__(self, area, folder):
        self.area = area
        self.folder = folder
        self.folders = {}  # by test
        self.tests = {}  # by the name of what they have counted
        folder.mkdir(parents=True, exist_ok=True)

    def environment(self, test):
        self.folders[test] = self.folder / f"test{len(self.folders)}"
        return {"GCOV_PREFIX": str(self.folders[test])}

    def take(self, test):
        folder = self.folders[test]
        for path in folder.rglob("*.gcda"):
            place = Path("/") / path.relative_to(folder)
            pattern = path.read_bytes().translate(b"\0" + b"\1" * 255)
            name = hashlib.sha256(bytes(place) + pattern).hexdigest()
            kept = self.folder / f"{name}.gcda"
            if name not in self.tests and place.with_suffix(".gcno").exists():
                path.rename(kept)
                shutil.copy(place.with_suffix(".gcno"), kept.with_suffix(".gcno"))
            self.tests.setdefault(name, []).append(test)
        shutil.rmtree(folder, ignore_errors=True)

    def runs(self):
        """file -> line -> the tests that run it"""
        runs = {}
        names = sorted(path.name for path in self.folder.glob("*.gcda"))
        for begin in range(0, len(names), 100):
            for text in must(["gcov", "--json-format", "--stdout", "--relative-only",
                              *names[begin:begin + 100]], cwd=self.folder).splitlines():
                self._read(json.loads(text), runs)
        return runs

    def _read(self, report, runs):
        tests = self.tests[Path(report["data_file"]).stem]
        for file in report["files"]:
            if not re.fullmatch(self.area.sources, file["file"]):
                continue
            lines = runs.setdefault(file["file"], {})
            for line in file["lines"]:
                if line["count"] > 0:
                    lines.setdefault(line["line_number"], set()).update(tests)


def build_tests(build, coverage):
    build.configure(coverage)
    programs = build.programs()
    if not programs:
        raise CannotGo("there are no tests")
    built = build.make(*programs)
    if built.returncode != 0:
        raise CannotGo(built.stdout)


def learn(build, scratch):
    """Builds and runs everything twice: for the lines that are run, and as it is for the times."""
    say("what each test runs")
    shutil.rmtree(scratch, ignore_errors=True)
    build_tests(build, True)
    counts = Counts(build.area, scratch)
    for test, _, _ in build.run_tests(build.tests(), lambda _: 1200, counts.environment):
        counts.take(test)
    runs = counts.runs()
    shutil.rmtree(scratch)
    say("the tests without a fault")
    build_tests(build, False)
    seconds = {}
    for test, wrong, took in build.run_tests(build.tests(), lambda _: 1200):
        if wrong is not None:
            raise CannotGo(f"{' '.join(test)} fails without a fault:\n{wrong}")
        seconds[test] = took
    return Knowledge(seconds, runs)


def judge(build, knowledge, hints, mutant):
    """The first test that finds the mutant, or None."""
    running = knowledge.running(mutant)
    order = knowledge.order(mutant, hints.get(mutant), hints.of_file(mutant.file))
    for program, tests in itertools.groupby(order, key=lambda test: test[0]):
        if build.make(program).returncode != 0:
            return program, "is not built"
        for test, wrong, _ in build.run_tests(tests, knowledge.limit):
            # What does not run the line has to fail again, or else the machine is to blame.
            if wrong and (test in running or build.run_test(test, knowledge.limit(test))[0]):
                return test
    return None


def difference(tree, mutant):
    before = tree.sources[mutant.file].splitlines()
    after = mutant.apply(tree.sources[mutant.file]).splitlines()
    lines = difflib.unified_diff(before, after, lineterm="", n=0)
    return "\n".join(f"      {line}" for line in lines if not line.startswith(("---", "+++", "@@")))


def say(text):
    print(f"==> {text}", flush=True)


def attempt(tree, build, knowledge, hints, healthy, mutant):
    """Whether the mutant counts, and the test that found it."""
    tree.put(mutant)
    try:
        if build.make_libraries().returncode != 0 or build.objects() == healthy:
            return False, None
        return True, judge(build, knowledge, hints, mutant)
    finally:
        tree.restore(mutant)


def mutate(origin, folder, number, seed, area):
    """Prints what becomes of each fault; returns whether all were found."""
    folder.mkdir(parents=True, exist_ok=True)
    tree = Tree(origin, folder / "tree", area)
    build = Build(tree, folder / "build", area)
    hints = Hints(folder / "hints.json")
    knowledge = Knowledge.load(folder / "knowledge.json", tree.identity)
    if knowledge is None:
        knowledge = learn(build, folder / "counts")
        knowledge.save(folder / "knowledge.json", tree.identity)
    build.configure(False)
    built = build.make_libraries()
    if built.returncode != 0:
        raise CannotGo(built.stdout)
    healthy = build.objects()
    say(f"{number} faults of seed {seed}")
    tried, alive, skipped = 0, [], 0
    for mutant in mutants.choose(tree.sources, seed):
        if tried == number:
            break
        begun = time.monotonic()
        counts, killer = attempt(tree, build, knowledge, hints, healthy, mutant)
        if not counts:
            skipped += 1
            continue
        tried += 1
        if killer is None:
            alive.append(mutant)
        else:
            hints.add(mutant, killer)
        print(f"{tried:4} {'alive ' if killer is None else 'killed'} {mutant.file}:{mutant.line} "
              f"({mutant.kind}, {time.monotonic() - begun:.0f} s)"
              f"{'' if killer is None else ', by ' + ' '.join(killer)}\n{difference(tree, mutant)}",
              flush=True)
    if tried == 0:
        raise CannotGo("the sources have no place for a fault")
    say(f"{tried - len(alive)} of {tried} killed, {len(alive)} alive "
        f"({100 * (tried - len(alive)) / tried:.1f} %); {skipped} that did not compile, or changed "
        "nothing, were replaced")
    for mutant in alive:
        print(f"alive  {mutant.file}:{mutant.line} ({mutant.kind})\n{difference(tree, mutant)}")
    return not alive


def main():
    arguments = sys.argv[1:]
    area = AREAS[arguments.pop()] if arguments and arguments[-1] in AREAS else AREAS["src"]
    if len(arguments) not in (2, 3, 4) or not all(arg.isdecimal() for arg in arguments[2:]):
        sys.stderr.write(__doc__)
        return 2
    number, seed = [int(arg) for arg in arguments[2:]] + [60, 1][len(arguments) - 2:]
    if number == 0:
        sys.stderr.write("mutate: there must be a fault to make\n")
        return 2
    limit_processes()
    try:
        return 0 if mutate(Path(arguments[0]).resolve(), Path(arguments[1]).resolve(), number, seed,
                           area) else 1
    except CannotGo as reason:
        sys.stderr.write(f"mutate: {reason}\n")
        return 2
    except KeyboardInterrupt:
        return 130


if __name__ == "__main__":
    sys.exit(main())
