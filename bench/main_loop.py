#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""How long the library holds up an application's main loop: the longest turn, from the end of one wait to
the beginning of the next, for each kind of message and size. Prints one table.

    main_loop.py BUILD RESULTS

BUILD is the folder of an optimised build with the benches, RESULTS one for main_loop.json. The callbacks do
next to nothing: what the application does in them is added.
"""

import json
import os
import statistics
import sys
import tempfile

import bench
import worlds

LADDER = (10, 100, 1000, 10000, 100000)


def agent(**more):
    return lambda _folder, _size: {"models": worlds.models(1), **more}


def with_parts(_folder, size):
    """Work on a model that is reported in so many messages, without a pause."""
    return {"models": [{"id": "model", "versions": ["1.0.0"], "size": 4096}],
            "methods": {"RequestToUpdate": {"parts": size - 1 if size > 1 else 1}}}


def update(*steps):
    return agent(update={"steps": [{"event": "Start"}, *steps, {"event": "Complete"}]})


def models(_folder, size):
    return {"models": worlds.models(size)}


# What happens, kind of client_runs, its agent, sizes.
KINDS = (
    ("connecting, up to the connected callback", "connections", agent(), (1,)),
    ("API level (the call blocks)", "levels", agent(), (1,)),
    ("licence (the call blocks), bytes", "licences", worlds.licence, (20 << 10, 200 << 10, 2 << 20, 8 << 20)),
    ("list, models", "models", models, LADDER),
    ("releasing a list, models", "releases", models, LADDER),
    ("progress messages at once", "progress", with_parts, (2, 10, 100, 1000)),
    ("status events of models", "model-events", agent(), (1,)),
    ("events of an update, its result", "updates", update(), (1,)),
    ("the agent replaces itself, reconnecting", "updates", update({"selfUpdate": {}}), (1,)),
    ("an answer, delegates queued", "dispatches", agent(**worlds.SILENT), (1, 1000, 100000)),
    ("hearing of a loss, delegates queued", "losses", agent(methods={"GetUsableModelList": {"fault": "never"},
                                                                    "GetUsableModelListWithDesc": {"fault": "drop"}}),
     (1, 1000, 10000, 100000)),
    ("disconnecting, delegates queued", "disconnections", agent(**worlds.SILENT), (1, 1000, 10000, 100000)),
)


def repetitions(size):
    return 50 if size <= 1000 else 20 if size <= 10000 else 5


def turns(build, folder, scenario, kind, size):
    if kind == "losses":
        # Each client loses one.
        return [turn for _ in range(5) for turn in worlds.run_client(build, folder, scenario, kind, size, 1)["turns"]]
    times = 10 if kind in ("updates", "licences") else repetitions(size)
    return worlds.run_client(build, folder, scenario, kind, size, times)["turns"]


def measure(build, folder):
    for name, kind, scenario, sizes in KINDS:
        for size in sizes:
            all_turns = turns(build, folder, scenario(folder, size), kind, size)
            # The first time has what only the first does; it is often the longest.
            yield {"name": name, "size": size, "median": statistics.median(all_turns), "longest": max(all_turns),
                   "first": all_turns[0], "times": len(all_turns)}


def print_table(rows):
    print(f"{'longest turn of the main loop, us':46}{'size':>10}{'median':>12}{'longest':>12}{'first':>12}{'times':>7}")
    for row in rows:
        size = f"{row['size']:,}" if row["size"] != 1 else ""
        print(f"{row['name']:46}{size:>10}" + "".join(f"{row[kind] / 1000:12.1f}" for kind in ("median", "longest", "first"))
              + f"{row['times']:7}")


def main():
    build, results = (os.path.abspath(folder) for folder in sys.argv[1:3])
    os.makedirs(results, exist_ok=True)
    print(f"on one CPU, {bench.settle_down()}", flush=True)
    with tempfile.TemporaryDirectory() as folder:
        rows = list(measure(build, folder))
    print_table(rows)
    with open(f"{results}/main_loop.json", "w", encoding="utf-8") as stream:
        json.dump(rows, stream, indent=1)


if __name__ == "__main__":
    main()
