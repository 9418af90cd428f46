# SPDX-License-Identifier: Apache-2.0
"""Runs client_runs beside a simulated agent that is made for it."""

import json
import os
import subprocess


def models(count, description=80):
    """Of an agent: so many models, whose texts are those of bench/models.cc but for the description."""
    return [{"id": f"com.example.model.{number}", "versions": ["1.0.0"],
             "title": f"The model of number {number}", "description": "d" * description}
            for number in range(count)]


# What nobody answers, so that its delegates stay; the list with descriptions is answered.
SILENT = {"methods": {"GetUsableModelList": {"fault": "never"}}}


def licence(folder, size):
    """An agent with a licence of so many bytes."""
    file = os.path.join(folder, "licence.txt")
    with open(file, "w", encoding="ascii") as stream:
        stream.write("l" * size)
    return {"agent": {"licenceFile": "licence.txt"}}


def run_client(build, folder, scenario, kind, size, times):
    """What client_runs prints."""
    file = os.path.join(folder, "scenario.json")
    with open(file, "w", encoding="utf-8") as stream:
        json.dump(scenario, stream)
    done = subprocess.run([f"{build}/bin/svcmgr-sim", "run", file, "--no-trace", "--",
                           f"{build}/bench/client_runs", kind, str(size), str(times)],
                          stdout=subprocess.PIPE, text=True, check=True)
    return json.loads(done.stdout)
