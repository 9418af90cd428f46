#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Puts small faults into copies of src/, or of platform/, and tells which of them its tests find.

usage: mutate.py TREE FOLDER [N] [SEED] [src|platform]

TREE is only read; all is copied, built and run in FOLDER. The same SEED makes the same N faults for
as long as the sources are the same. A fault that does not compile, or that changes no object file, is
replaced by the next. The tests of the programs that run the faulty line come first, and the first
one that fails ends the search.

Ends with 0 if every fault was found, with 1 if one was not, and with 2 if no result can be given.
"""

import concurrent.futures
import difflib
import hashlib
import json
import os
import random
import re
import resource
import signal
import subprocess
import sys
import time
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

sys.dont_write_bytecode = True  # nothing is written where the sources are

import mutants  # noqa: E402

JOBS = os.cpu_count() or 2
MEMORY = 4 << 30  # bytes that a test may take; a fault may make it ask for any number
PATIENCE = 60  # seconds that a test may take beyond twenty times what it takes without a fault


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


def limit_test():
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
        everything = hashlib.sha256()
        for name in sorted(wanted):
            everything.update(f"{name}\0".encode() + (folder / name).read_bytes() + b"\0")
        self.identity = everything.hexdigest()

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
        self.libraries = area.libraries(tree.folder)
        self.tree = tree
        self.folder = folder
        self.area = area

    def configure(self, coverage):
        must(["cmake", "-S", self.tree.folder, "-B", self.folder, "-G", "Ninja",
              "-DCMAKE_CXX_COMPILER=g++", "-DCMAKE_C_COMPILER=gcc", "-DCMAKE_BUILD_TYPE=None",
              "-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld", f"-DSVCMGR_TEST_FOLDERS={self.area.folders}",
              "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST",
              f"-DSVCMGR_COVERAGE={'ON' if coverage else 'OFF'}"])

    def make_libraries(self):
        return self.make(*(target for target, _ in self.libraries))

    def make(self, *targets):
        return run(["cmake", "--build", self.folder, "-j", str(JOBS), "--target", *targets])

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

    def cases(self, program):
        suite, names = "", []
        for line in must([self.folder / "bin" / program, "--gtest_list_tests"]).splitlines():
            line = line.split("  #")[0].rstrip()
            if not line.startswith("  "):
                suite = line
            elif suite.endswith(".") and "DISABLED_" not in suite + line:
                names.append(suite + line.strip())
        return names

    def run_case(self, program, case, limit, environment=None):
        """What is wrong with a test case, or None; and how long it took."""
        begun = time.monotonic()
        test = subprocess.Popen([self.folder / "bin" / program, f"--gtest_filter={case}"],
                                cwd=self.folder / "tests", stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                start_new_session=True, preexec_fn=limit_test,
                                env={**os.environ, **(environment or {})})
        try:
            output, _ = test.communicate(timeout=limit)
        except subprocess.TimeoutExpired:
            os.killpg(test.pid, signal.SIGKILL)
            test.communicate()
            return "it does not end", limit
        wrong = None if test.returncode == 0 else output.decode(errors="replace")
        return wrong, time.monotonic() - begun


def run_cases(build, program, cases, limit, environment=None, until_failure=True):
    """Runs test cases side by side; yields (case, what is wrong or None, seconds)."""
    remaining = list(cases)
    with concurrent.futures.ThreadPoolExecutor(JOBS) as pool:
        def start():
            case = remaining.pop(0)
            return pool.submit(build.run_case, program, case, limit(case), environment), case

        running = dict(start() for _ in range(min(JOBS, len(remaining))))
        while running:
            done, _ = concurrent.futures.wait(running, return_when="FIRST_COMPLETED")
            for future in done:
                case = running.pop(future)
                wrong, seconds = future.result()
                yield case, wrong, seconds
                if wrong is not None and until_failure:
                    remaining.clear()
                if remaining:
                    running.update([start()])


class Knowledge:
    """What is known of the tests without faults: how long each takes, what each program runs."""

    def __init__(self, seconds, lines):
        self.seconds = seconds  # program -> case -> seconds
        self.lines = lines  # program -> file -> lines that it runs

    @classmethod
    def load(cls, path, identity):
        if not path.exists():
            return None
        known = json.loads(path.read_text())
        if known.pop("identity") != identity:
            return None
        return cls(known["seconds"], known["lines"])

    def save(self, path, identity):
        path.write_text(json.dumps({"identity": identity, "seconds": self.seconds,
                                    "lines": self.lines}))

    def order(self, mutant):
        """The programs, those that run the mutant's line first."""
        def rank(program):
            lines = self.lines[program].get(mutant.file, [])
            return (mutant.line not in lines, not lines, -len(lines),
                    sum(self.seconds[program].values()))
        return sorted(self.seconds, key=rank)

    def limit(self, program):
        return lambda case: PATIENCE + 20 * self.seconds[program][case]


def covered_lines(build, program, folder):
    """The lines of the area that a program has run, by file."""
    counts = sorted(folder.rglob("*.gcda"))
    for path in counts:
        note = (Path("/") / path.relative_to(folder)).with_suffix(".gcno")
        if note.exists():
            path.with_suffix(".gcno").write_bytes(note.read_bytes())
    lines = {}
    if not counts:
        return lines
    for text in must(["gcov", "--json-format", "--stdout", *counts], cwd=folder).splitlines():
        for file in json.loads(text)["files"]:
            if not re.fullmatch(build.area.sources, file["file"]):
                continue
            ran = {line["line_number"] for line in file["lines"] if line["count"] > 0}
            lines.setdefault(file["file"], set()).update(ran)
    return {file: sorted(ran) for file, ran in lines.items()}


def learn(build, scratch):
    """Builds and runs everything twice: for the lines that are run, and as it is for the times."""
    lines, seconds = {}, {}
    for coverage in (True, False):
        say("what each test program runs" if coverage else "the tests without a fault")
        build.configure(coverage)
        programs = build.programs()
        if not programs:
            raise CannotGo("there are no tests")
        built = build.make(*programs)
        if built.returncode != 0:
            raise CannotGo(built.stdout)
        for program in programs:
            folder = scratch / program
            environment = {"GCOV_PREFIX": str(folder)} if coverage else None
            times = {}
            for case, wrong, took in run_cases(build, program, build.cases(program),
                                               lambda _: 1200, environment, False):
                times[case] = took
                if wrong is not None and not coverage:
                    raise CannotGo(f"{program} {case} fails without a fault:\n{wrong}")
            if coverage:
                folder.mkdir(parents=True, exist_ok=True)
                lines[program] = covered_lines(build, program, folder)
                must(["rm", "-rf", folder])
            else:
                seconds[program] = times
    return Knowledge(seconds, lines)


def judge(build, knowledge, mutant):
    """The name of the first test that finds the mutant, or None."""
    for program in knowledge.order(mutant):
        if build.make(program).returncode != 0:
            return f"the build of {program}"
        cases = list(knowledge.seconds[program])
        random.Random(mutant.identity).shuffle(cases)  # neighbours test the same thing
        failed = [case for case, wrong, _ in run_cases(build, program, cases,
                                                       knowledge.limit(program)) if wrong]
        if failed:
            return f"{program} {failed[0]}"
    return None


def difference(tree, mutant):
    before = tree.sources[mutant.file].splitlines()
    after = mutant.apply(tree.sources[mutant.file]).splitlines()
    lines = difflib.unified_diff(before, after, lineterm="", n=0)
    return "\n".join(f"      {line}" for line in lines if not line.startswith(("---", "+++", "@@")))


def say(text):
    print(f"==> {text}", flush=True)


def attempt(tree, build, knowledge, healthy, mutant):
    """Whether the mutant counts, and the test that found it."""
    tree.put(mutant)
    try:
        if build.make_libraries().returncode != 0 or build.objects() == healthy:
            return False, None
        return True, judge(build, knowledge, mutant)
    finally:
        tree.restore(mutant)


def mutate(origin, folder, number, seed, area):
    """Prints what becomes of each fault; returns whether all were found."""
    folder.mkdir(parents=True, exist_ok=True)
    tree = Tree(origin, folder / "tree", area)
    build = Build(tree, folder / "build", area)
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
        counts, killer = attempt(tree, build, knowledge, healthy, mutant)
        if not counts:
            skipped += 1
            continue
        tried += 1
        if killer is None:
            alive.append(mutant)
        print(f"{tried:4} {'alive ' if killer is None else 'killed'} {mutant.file}:{mutant.line} "
              f"({mutant.kind}, {time.monotonic() - begun:.0f} s)"
              f"{'' if killer is None else f', by {killer}'}\n{difference(tree, mutant)}",
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
