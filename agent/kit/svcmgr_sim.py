# SPDX-License-Identifier: Apache-2.0
"""Fixtures for pytest: worlds with a simulated service-manager agent.

In conftest.py, with this module's folder on PYTHONPATH:

    pytest_plugins = ["svcmgr_sim"]

and in a test:

    def test_updates_the_wake_word(svcmgr_world):
        world = svcmgr_world("demo", time_scale=0)
        application = world.start("./my-application")
        world.expect("RequestToUpdate of speech.wake-word asked", "event COMPLETED")
        assert application.wait(timeout=10) == 0
        assert len(world.requests("RequestToUpdate")) == 1

A world ends with its test. If the test fails, its report shows what has happened in its worlds.
"""

import json
import os
import shutil
import subprocess
import tempfile
from pathlib import Path

import pytest

__all__ = ["SimError", "World", "svcmgr_world"]

PATIENCE = 60  # seconds for what usually takes none

# Shows its environment, and an empty entry at its end; stays until its input ends: when it is told
# to, or whoever made it dies.
_HOLDER = ["/bin/sh", "-c", "env -0 && printf '\\0' && exec cat"]


class SimError(Exception):
    """svcmgr-sim could not do what it was asked for; the text is its own."""


def program():
    """The path of svcmgr-sim: the environment's SVCMGR_SIM, the one installed beside this module, or
    the first one of PATH."""
    named = os.environ.get("SVCMGR_SIM")
    if named:
        return named
    installed = Path(__file__).resolve().parents[3] / "bin" / "svcmgr-sim"
    found = str(installed) if installed.exists() else shutil.which("svcmgr-sim")
    if found is None:
        raise SimError("svcmgr-sim is not found: neither beside this module nor in PATH")
    return found


def _record_of(line):
    """A line of the trace; None for one in which its writer was killed."""
    try:
        return json.loads(line)
    except ValueError:
        return None


def _has_shape(value, shape):
    if isinstance(shape, dict):
        return isinstance(value, dict) and all(
            key in value and _has_shape(value[key], wanted) for key, wanted in shape.items())
    if isinstance(shape, (list, tuple)):
        return isinstance(value, list) and all(
            any(_has_shape(element, wanted) for element in value) for wanted in shape)
    return shape is None or (value == shape and isinstance(value, bool) == isinstance(shape, bool))


class World:
    """A world with an agent, in which commands run until it is closed.

    `scenario` is the name of one that ships, the path of a file, or the scenario itself as a dict.
    `env` is what commands have as their environment there.
    """

    def __init__(self, scenario="empty", *, time_scale=None, app_id=None, app_version=None,
                 app_root=None):
        self._commands = []
        self._holder = None
        self._folder = tempfile.TemporaryDirectory(prefix="svcmgr-sim-test-")
        try:
            self._open(scenario, {"--time-scale": time_scale, "--app-id": app_id,
                                  "--app-version": app_version, "--app-root": app_root})
        except BaseException:
            self.close()
            raise

    def _path(self, name):
        return os.path.join(self._folder.name, name)

    def _open(self, scenario, options):
        if isinstance(scenario, dict):
            text = json.dumps(scenario)
            scenario = self._path("scenario.json")
            Path(scenario).write_text(text, encoding="utf-8")
        command = [program(), "run", str(scenario), "--trace", self._path("trace"), "--trace", "-"]
        for option, value in options.items():
            if value is not None:
                command += [option, str(value)]
        with open(self._path("words"), "wb") as words:
            self._holder = subprocess.Popen(command + ["--"] + _HOLDER, stdin=subprocess.PIPE,
                                            stdout=subprocess.PIPE, stderr=words)
        shown = b""
        while not shown.endswith(b"\0\0"):
            part = os.read(self._holder.stdout.fileno(), 65536)
            if not part:
                raise SimError(self.words())
            shown += part
        entries = (entry.partition(b"=") for entry in shown.split(b"\0") if entry)
        self.env = {os.fsdecode(name): os.fsdecode(value) for name, _, value in entries}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Kills the commands that still run, and ends the world. What is in the trace stays readable
        only until then. May be called again."""
        for command in self._commands:
            if command.poll() is None:
                command.kill()
            command.communicate()
        self._commands.clear()
        if self._holder is not None:
            self._holder.stdin.close()
            self._holder.stdout.close()
            self._holder.wait(PATIENCE)
            self._holder = None
        self._folder.cleanup()

    def start(self, *command, **options):
        """Starts a command in the world and returns its subprocess.Popen, to which `options` go. A
        pipe that is asked for holds text, unless `options` say otherwise."""
        options.setdefault("text", True)
        options["env"] = {**self.env, **options.pop("env", {})}
        process = subprocess.Popen([str(word) for word in command], **options)
        self._commands.append(process)
        return process

    def run(self, *command, timeout=PATIENCE, check=False, **options):
        """Runs a command in the world to its end and returns its subprocess.CompletedProcess, with
        both outputs."""
        options.setdefault("stdout", subprocess.PIPE)
        options.setdefault("stderr", subprocess.PIPE)
        process = self.start(*command, **options)
        try:
            output, errors = process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            process.kill()
            raise
        finished = subprocess.CompletedProcess(command, process.returncode, output, errors)
        if check:
            finished.check_returncode()
        return finished

    def send(self, *steps, timeout=PATIENCE):
        """Makes the agent take steps, and waits until they are done: words of `svcmgr-sim send`, or
        dicts as in a scenario's update."""
        words = [step if isinstance(step, str) else json.dumps(step) for step in steps]
        finished = self.run(program(), "send", *words, timeout=timeout)
        if finished.returncode != 0:
            raise SimError(finished.stderr)

    def expect(self, *conditions, timeout=10):
        """Waits until the trace shows what is expected, one condition after the other: sentences of
        `svcmgr-sim expect`, or dicts of what a record must have. Fails the test with what was seen
        instead, after `timeout` seconds."""
        words = [each if isinstance(each, str) else json.dumps(each) for each in conditions]
        finished = self.run(program(), "expect", "--timeout", str(timeout), *words,
                            timeout=timeout + PATIENCE)
        if finished.returncode == 1:
            pytest.fail(finished.stderr, pytrace=False)
        if finished.returncode != 0:
            raise SimError(finished.stderr)

    def trace(self, what=None, **fields):
        """The records of the trace so far, as dicts: all, or those of one kind, and of them those
        with these fields, of which each may have more members and elements than are given."""
        shape = dict(fields) if what is None else {"what": what, **fields}
        with open(self._path("trace"), "rb") as lines:
            whole = [line for line in lines if line.endswith(b"\n")]
        records = (_record_of(line) for line in whole)
        return [record for record in records if record is not None and _has_shape(record, shape)]

    def requests(self, method=None, **fields):
        """What clients have asked, or have asked with one method: records of the trace."""
        named = {} if method is None else {"method": method}
        return self.trace("request", **named, **fields)

    def words(self):
        """What has happened so far, for people, with what svcmgr-sim and the agent had to say."""
        return Path(self._path("words")).read_text(encoding="utf-8", errors="replace")


_WORLDS = pytest.StashKey()


@pytest.fixture
def svcmgr_world(request):
    """Makes worlds: called as World is, any number of times. They end with the test."""
    worlds = request.node.stash.setdefault(_WORLDS, [])

    def make(*arguments, **options):
        world = World(*arguments, **options)
        worlds.append(world)
        return world

    yield make
    for world in reversed(worlds):
        world.close()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if report.when == "call" and report.failed:
        for number, world in enumerate(item.stash.get(_WORLDS, []), 1):
            report.sections.append((f"svcmgr-sim, world {number}", world.words()))
