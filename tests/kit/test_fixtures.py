# SPDX-License-Identifier: Apache-2.0
"""What pytest's fixtures of the kit do."""

import os
import signal
import subprocess
from concurrent.futures import ThreadPoolExecutor

import pytest

from svcmgr_sim import SimError

pytest_plugins = ["svcmgr_sim"]

CTL = os.environ["SVCMGRCTL"]


def test_a_world_runs_commands_and_shows_what_they_asked(svcmgr_world):
    world = svcmgr_world("demo", time_scale=0, app_id="org.example.tested")
    finished = world.run(CTL, "models", "update", "speech.wake-word@3.2.0", check=True)
    assert "1 model is updated" in finished.stdout + finished.stderr
    request, = world.requests("RequestToUpdate")
    assert request["app"] == "org.example.tested"
    assert request["arguments"]["models"][0]["version"] == "3.2.0"
    assert world.requests(arguments={"models": [{"id": "speech.wake-word"}]}) == [request]
    assert world.requests("get_license") == []
    assert world.trace("answer", percentage=100, state=2)
    assert "client 1 asks RequestToUpdate: models speech.wake-word 3.2.0" in world.words()


def test_a_world_takes_steps_while_a_command_runs(svcmgr_world):
    world = svcmgr_world("empty")
    watcher = world.start(CTL, "watch", "connection", stdout=subprocess.PIPE)
    world.expect("1 client connected")
    world.send("agent-update", {"restart": True}, "agent-launch")
    world.expect("agent ended", {"what": "start", "process": "agent"}, "1 client connected")
    assert watcher.poll() is None
    watcher.send_signal(signal.SIGINT)
    assert watcher.wait(60) == 0


def test_a_scenario_may_be_written_in_the_test(svcmgr_world):
    world = svcmgr_world({"agent": {"apiLevel": 7}, "bus": False})
    assert world.run(CTL, "api-level").stdout == "7\n"


def test_a_wrong_scenario_is_told(svcmgr_world):
    with pytest.raises(SimError, match="timeScale"):
        svcmgr_world({"timeScale": -1})
    with pytest.raises(SimError, match="unheard-of"):
        svcmgr_world("unheard-of")


def test_a_wrong_condition_or_step_is_told(svcmgr_world):
    world = svcmgr_world("empty")
    with pytest.raises(SimError, match="is no condition"):
        world.expect("all is well")
    with pytest.raises(SimError, match="is no step"):
        world.send("dance")


def test_a_command_that_takes_too_long_is_killed(svcmgr_world):
    world = svcmgr_world("empty")
    with pytest.raises(subprocess.TimeoutExpired):
        world.run("sleep", "600", timeout=0.1)


def test_the_agents_end_loses_nothing_of_the_trace(svcmgr_world):
    world = svcmgr_world({"methods": {"get_license": {"fault": "crash"}}})
    assert world.run(CTL, "license").returncode != 0
    world.expect("get_license asked", {"what": "end", "process": "agent", "signal": 9})
    assert world.trace("fault", fault="crash")


def test_many_worlds_stand_side_by_side(svcmgr_world):
    count = 120

    def one(number):
        world = svcmgr_world("empty", app_id=f"org.example.n{number}")
        world.run(CTL, "api-level", timeout=300, check=True)
        world.expect("get_agent_api_level answered", timeout=300)
        return world

    with ThreadPoolExecutor(count) as pool:
        worlds = list(pool.map(one, range(count)))
    for number, world in enumerate(worlds):
        assert {record["app"] for record in world.trace("connect")} == {f"org.example.n{number}"}


def test_a_failed_expectation_fails_the_test_and_shows_the_trace(pytester):
    pytester.makeconftest("pytest_plugins = ['svcmgr_sim']")
    pytester.makepyfile(f"""
        def test_it(svcmgr_world):
            world = svcmgr_world("empty")
            world.run({CTL!r}, "api-level")
            world.expect("get_license asked", timeout=0)
    """)
    result = pytester.runpytest_subprocess("-p", "no:cacheprovider")
    result.assert_outcomes(failed=1)
    result.stdout.fnmatch_lines([
        "*not seen within 0 s: get_license asked",
        "*client 1 asks get_agent_api_level",
        "*svcmgr-sim, world 1*",
        "*client 1 gets the reply to get_agent_api_level: result 11",
    ])


def test_worlds_end_with_their_test_whatever_still_runs(pytester, tmp_path):
    pytester.makeconftest("pytest_plugins = ['svcmgr_sim']")
    pytester.makepyfile("""
        def test_it(svcmgr_world):
            svcmgr_world("empty").start("sleep", "600")
    """)
    os.environ["TMPDIR"], before = str(tmp_path), os.environ.get("TMPDIR")
    try:
        pytester.runpytest_subprocess("-p", "no:cacheprovider").assert_outcomes(passed=1)
    finally:
        del os.environ["TMPDIR"]
        if before is not None:
            os.environ["TMPDIR"] = before
    assert not [name for name in os.listdir(tmp_path) if name.startswith("svcmgr-sim")]
