#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Does what a guide says: runs its commands, compares what they print, and holds its code against
the files that it comes from. No block of code goes unchecked:

    ```c from=examples/a.c    an excerpt: its lines stand in that file, as they are; a line of three
                              dots leaves something out
    ```c file=app.c           is written to that file, for the commands that follow
    ```console                commands after "$ ", each with what it prints; three dots stand for
                              any text in a line, and alone for any lines. Without output,
                              anything may be printed. Each command must succeed
    ```console fails          the same; its last command must fail
    ```console tested-by=X    run by that test instead
    ```console needs=X        run where there is a command X; ./dev test --extra brings it along
    ```text                   neither code nor command
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys
import textwrap

ANY = "..."
MARK = "===== guide block"


class Block:
    def __init__(self, line, info, text):
        words = info.split()
        self.line = line
        self.language = words[0] if words else ""
        self.options = dict(word.partition("=")[::2] for word in words[1:])
        self.text = text


class Wrong(Exception):
    """What is wrong with a guide."""


def blocks_of(text):
    """The fenced blocks of a guide; code in any other form is refused."""
    blocks = []
    lines = text.split("\n")
    number = 0
    while number < len(lines):
        fence = re.fullmatch(r"( *)```(.*)", lines[number])
        if not fence:
            if re.match(r" {4,}\S", lines[number]) and (number == 0 or not lines[number - 1].strip()):
                raise Wrong(f"line {number + 1}: code must stand between fences")
            number += 1
            continue
        start = number
        number += 1
        while number < len(lines) and lines[number].strip() != "```":
            number += 1
        if number == len(lines):
            raise Wrong(f"line {start + 1}: the block has no end")
        content = textwrap.dedent("\n".join(lines[start + 1 : number])) + "\n"
        blocks.append(Block(start + 1, fence[2], content))
        number += 1
    return blocks


def kind_of(block):
    """What a block is for; refuses one that nothing would check."""
    options = set(block.options)
    if block.language == "text" and not options:
        if re.search(r"^\$ ", block.text, re.M):
            raise Wrong(f"line {block.line}: commands are for a console")
        return "text"
    if block.language == "console" and options <= {"fails", "needs", "tested-by"}:
        if "needs" in options and shutil.which(block.options["needs"]) is None:
            print(f"line {block.line} is not run: there is no {block.options['needs']}")
            return "not run"
        return "elsewhere" if "tested-by" in options else "commands"
    if block.language and options in ({"from"}, {"file"}):
        return options.pop()
    raise Wrong(f"line {block.line}: nothing would check this block")


def check_excerpt(block, root):
    """Each piece of the block stands in the file, in the same order."""
    name = block.options["from"]
    lines = (root / name).read_text().split("\n")
    start = 0
    for piece in re.split(r"^ *\.\.\.\n", block.text, flags=re.M):
        wanted = textwrap.dedent(piece).strip("\n").split("\n")
        for at in range(start, len(lines) - len(wanted) + 1):
            found = textwrap.dedent("\n".join(lines[at : at + len(wanted)])).split("\n")
            if found == wanted:
                start = at + len(wanted)
                break
        else:
            raise Wrong(f"line {block.line}: this is not what {name} says:\n" + "\n".join(wanted))


def commands_of(block):
    """Pairs of a command and the lines that it must print; null for anything."""
    commands = []
    for line in block.text.rstrip("\n").split("\n"):
        if line.startswith("$ "):
            commands.append([line[2:], None])
        elif not commands:
            raise Wrong(f"line {block.line}: output without a command")
        elif commands[-1][1] is None and commands[-1][0].endswith(("\\", "|")):
            commands[-1][0] += "\n" + line
        else:
            commands[-1][1] = (commands[-1][1] or []) + [line]
    return commands


def matches(expected, output):
    pattern = ""
    for line in expected:
        if line.strip() == ANY:
            pattern += r"(?:.*\n)*?"
        else:
            pattern += ".*".join(re.escape(part) for part in line.split(ANY)) + r" *\n"
    return re.fullmatch(pattern, output) is not None


class Session:
    """All commands of a guide, in one shell."""

    def __init__(self):
        self.script = "exec 2>&1\n"
        self.steps = []

    def write(self, block):
        name = block.options["file"]
        self.script += f"mkdir -p \"$(dirname '{name}')\"; cat >'{name}' <<'GUIDE_FILE'\n{block.text}GUIDE_FILE\n"

    def run(self, block):
        commands = commands_of(block)
        for command, expected in commands:
            last = command is commands[-1][0]
            self.steps.append((block, command, expected, last and "fails" in block.options))
            # In the same shell, so that what a command exports or enters holds for the next one.
            self.script += f"echo '{MARK}'\n{command}\necho \"{MARK} $?\"\n"

    def check(self, folder, environment, limit):
        # Nobody types into a guide's programs.
        run = subprocess.run(["bash", "-c", self.script], cwd=folder, env=environment, text=True,
                             stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, timeout=limit,
                             errors="replace", check=False)
        results = re.findall(rf"^{MARK}\n(.*?)^{MARK} (\d+)\n", run.stdout, re.M | re.S)
        if len(results) != len(self.steps):
            raise Wrong("the shell ended early:\n" + run.stdout)
        for (block, command, expected, fails), (output, status) in zip(self.steps, results):
            place = f"line {block.line}: $ {command}\n"
            if (status != "0") != fails:
                raise Wrong(place + output + f"ended with {status}")
            if expected is not None and not matches(expected, output):
                raise Wrong(place + output + "which is not what the guide shows")


def check_guide(text, root, folder, environment, limit):
    session = Session()
    for block in blocks_of(text):
        kind = kind_of(block)
        if kind == "from":
            check_excerpt(block, root)
        elif kind == "file":
            session.write(block)
        elif kind == "commands":
            session.run(block)
        elif kind == "elsewhere":
            check_test(block, root)
    if session.steps:
        session.check(folder, environment, limit)
    return len(session.steps)


def check_test(block, root):
    """The test that a block names is one of this tree."""
    name = block.options["tested-by"]
    wanted = re.compile(rf"\b{re.escape(name)}\b")
    for path in (root / "tests").rglob("*"):
        if path.suffix in (".cc", ".py", ".sh", ".txt") and wanted.search(path.read_text()):
            return
    raise Wrong(f"line {block.line}: there is no test {name}")


def main():
    guide = pathlib.Path(sys.argv[1])
    root = pathlib.Path(os.environ["SOURCE_DIR"])
    folder = pathlib.Path(os.environ["WORK_DIR"])
    subprocess.run(["rm", "-rf", folder], check=True)
    (folder / "build").mkdir(parents=True)
    # The readme's commands are given in the tree, after a build.
    (folder / "build" / "release").symlink_to(os.environ["BUILD_DIR"])
    (folder / "examples").symlink_to(root / "examples")
    (folder / "velmora-svcmgr").symlink_to(root)
    (folder / "bin").symlink_to(os.environ["PROGRAMS"])
    environment = {name: value for name, value in os.environ.items()
                   if not name.startswith("VELMORA_") and name != "LD_LIBRARY_PATH"}
    environment["LC_ALL"] = "C.UTF-8"
    try:
        count = check_guide(guide.read_text(), root, folder, environment, 900)
    except Wrong as wrong:
        sys.exit(f"{guide}: {wrong}")
    print(f"{count} commands did what the guide says")


if __name__ == "__main__":
    main()
