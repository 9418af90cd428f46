#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Counts the instructions that the library executes in one call of each exported function, with
callgrind, and holds them against the figures of instructions.txt.

    instructions.py PROGRAM LIBRARY COMPILER FIGURES [--write]

PROGRAM is instruction_runs, LIBRARY the end of the optimised library's name, COMPILER what both were
compiled with. Only the library's own instructions count, not those of the platform, of libstdc++ and of
libc, which choose their code by the processor. A figure that is more than 3 % off, either way, fails;
--write takes over what was counted. Without valgrind, or with another compiler than the figures', all of it is
skipped (status 77).
"""

import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

TOLERANCE = 0.03
HEAD = """\
# Instructions that the library itself executes in one call, by callgrind. `answer:` is what the answer
# to a request takes: 10, 100 and 1,000 models for the first three. Written by ./dev instructions --write.
compiler: {}
"""


def skip(reason):
    print(f"instructions.py: skipped: {reason}")
    sys.exit(77)


def read_figures(file):
    """The compiler and the figures."""
    compiler, figures = None, {}
    for line in file.read_text(encoding="utf-8").splitlines():
        if line.startswith("compiler: "):
            compiler = line.removeprefix("compiler: ")
        elif line and not line.startswith("#"):
            name, figure = line.split()
            figures[name] = int(figure)
    return compiler, figures


def own_cost(lines, library):
    """The instructions of the library's functions, without those that they call elsewhere."""
    cost, own, inclusive = 0, False, False
    for line in lines:
        if line.startswith("ob="):
            own = line.endswith(library)
        elif line.startswith("calls="):
            inclusive = True
        elif re.match(r"[0-9+*-]", line):
            if own and not inclusive:
                cost += int(line.split()[1])
            inclusive = False
    return cost


def count(program, library):
    figures = {}
    with tempfile.TemporaryDirectory() as folder:
        done = subprocess.run(
            ["valgrind", "--tool=callgrind", "--collect-atstart=no", "--compress-strings=no", "--compress-pos=no",
             f"--callgrind-out-file={folder}/out.%p", program],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        if done.returncode != 0:
            sys.exit(f"instructions.py: the program failed\n{done.stdout}")
        for file in Path(folder).iterdir():
            lines = file.read_text(encoding="utf-8").splitlines()
            for line in lines:
                if found := re.match(r"desc: Trigger: Client Request: (\S+)", line):
                    figures[found[1]] = own_cost(lines, library)
    return figures


def write(file, compiler, figures):
    lines = [f"{name:60} {figure}" for name, figure in sorted(figures.items())]
    file.write_text(HEAD.format(compiler) + "\n".join(lines) + "\n", encoding="utf-8")


def compare(stored, counted):
    """What is wrong, a line each."""
    for name in sorted(stored.keys() | counted.keys()):
        if name not in counted:
            yield f"{name}: was not counted"
        elif name not in stored:
            yield f"{name}: has no figure, and takes {counted[name]}"
        elif abs(counted[name] - stored[name]) > TOLERANCE * stored[name]:
            yield f"{name}: {counted[name]} instructions, not {stored[name]} ({counted[name] / stored[name] - 1:+.1%})"


def main():
    program, library, compiler, file = sys.argv[1:5]
    file = Path(file)
    if not shutil.which("valgrind"):
        skip("there is no valgrind")
    writing = sys.argv[5:] == ["--write"]
    stored_compiler, stored = read_figures(file) if file.exists() else (None, {})
    if compiler != stored_compiler and not writing:
        skip(f"the figures are those of {stored_compiler}, not of {compiler}")
    counted = count(program, library)
    if len(counted) < 48 or not all(counted.values()):
        sys.exit(f"instructions.py: callgrind has not counted everything: {counted}")
    if writing:
        write(file, compiler, counted)
        print(f"{len(counted)} figures are in {file}")
        return
    wrong = list(compare(stored, counted))
    print("\n".join(wrong) or f"{len(counted)} figures hold")
    sys.exit(1 if wrong else 0)


if __name__ == "__main__":
    main()
