#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures all that docs/performance.md promises, and prints one table.

    bench.py BUILD RESULTS [--peers] [ROUNDS]

BUILD is the folder of an optimised build with the benches. RESULTS is a folder: results.json holds
every round, ratios.svg and growth.svg show them. With --peers, other programs do the same work in
the same rounds (see peers/peers.py).

Work and its limit run in turns, each time in processes of their own, all on one CPU and, where that
is permitted, before everything else on it.
"""

import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
from dataclasses import dataclass, field

import worlds
from peers import peers as peers_module

SIZES = (10, 100, 1000, 10000)


@dataclass
class Work:
    name: str
    target: float
    times: int
    models: int
    kind: str  # of query; empty: a conversion
    logged: bool = False
    limit: list = field(default_factory=list)  # nanoseconds of each time, for each round
    ours: list = field(default_factory=list)

    @property
    def ratios(self):
        return [statistics.median(o) / statistics.median(l) for l, o in zip(self.limit, self.ours)]


def works():
    yield Work("int32 call", 1.15, 4000, 10, "int32")
    yield Work("licence of 20 KB", 1.15, 2000, 10, "licence")
    for models, times, target in zip(SIZES, (2000, 500, 200, 101), (1.5, 3, 3.9, 5)):
        yield Work(f"list of {models:,} models", target, times, models, "models")
    for models, times in zip(SIZES, (5000, 1000, 200, 101)):
        yield Work(f"conversion of {models:,} models", 1.25, times, models, "")
    yield Work("marker scan of 5,400 files", 1.1, 15, 0, "scan")
    yield Work("event over the bus", 4, 2000, 0, "event")
    for models, times in zip(SIZES, (500, 100, 20, 5)):
        yield Work(f"logged conversion of {models:,}", 3, times, models, "", logged=True)


def scenario(models):
    return {
        "description": "models to measure with",
        "agent": {"licence": {"fill": "l", "bytes": 20 * 1024}},
        "models": worlds.models(models),
    }


class World:
    """An agent with so many models, beside which clients run one after the other."""

    SCRIPT = 'while read -r arguments; do "$0" $arguments || exit; echo; done'

    def __init__(self, build, folder, models):
        file = f"{folder}/{models}.json"
        with open(file, "w", encoding="utf-8") as stream:
            json.dump(scenario(models), stream)
        self.process = subprocess.Popen(
            [f"{build}/bin/svcmgr-sim", "run", file, "--no-trace", "--", "sh", "-c", self.SCRIPT,
             f"{build}/bench/query_client"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def run(self, *arguments):
        print(*arguments, file=self.process.stdin, flush=True)
        lines = []
        while line := self.process.stdout.readline().strip():
            lines.append(int(line))
        if not lines:
            sys.exit("bench.py: the client has failed")
        return lines

    def close(self):
        self.process.stdin.close()
        self.process.wait()


def numbers(command, environment=None):
    done = subprocess.run(command, env=environment, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"bench.py: {' '.join(command)}: {done.stderr or done.returncode}")
    return [int(line) for line in done.stdout.split()]


def measure_query(work, build, world):
    arguments = (work.kind, str(work.times), str(work.models))
    limit = numbers([f"{build}/bench/query_limit", *arguments])
    ours = world.run(*arguments)
    if limit[0] != ours[0]:
        sys.exit(f"bench.py: {work.name}: the client and the limit have not had the same answer")
    work.limit.append(limit[1:])
    work.ours.append(ours[1:])


def measure_conversion(work, build, folder):
    environment = dict(os.environ)
    if work.logged:
        log = f"{folder}/log"
        environment |= {"VELMORA_LOG_LEVEL": "verbose", "VELMORA_LOG_FILE": log}
    for side, rounds in (("limit", work.limit), ("library", work.ours)):
        rounds.append(numbers([f"{build}/bench/conversion_runs", side, str(work.times), str(work.models)],
                              environment))
    if work.logged:
        os.remove(log)


def measure_scan(work, build, folder):
    levels = []
    for side, rounds in (("limit", work.limit), ("library", work.ours)):
        level, *times = numbers([f"{build}/bench/scan_runs", side, str(work.times), folder])
        levels.append(level)
        rounds.append(times)
    if levels != [11, 11]:
        sys.exit(f"bench.py: the scans have found the levels {levels}")


def measure_event(work, build):
    program = f"{build}/bench/event_runs"
    work.limit.append(numbers([program, "limit", str(work.times)]))
    work.ours.append(numbers(["dbus-run-session", "--", program, "library", str(work.times)]))


def settle_down():
    """One CPU; the last one has least to do for others."""
    os.sched_setaffinity(0, {max(os.sched_getaffinity(0))})
    try:
        os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(1))
        return "before all else on its CPU"
    except PermissionError:
        return "as any other process: on a busy machine, long work looks worse than it is"


def other_promises(build, rounds):
    """What the benches of single functions print: name, figure, target."""
    pattern = re.compile(r"^(?:kept  |MISSED) (.*) = ([0-9.]+)([^(]*) (?:\(([^()]*)\) )?\(target <= ([0-9.]+)")
    for bench in ("dispatch", "face", "packages", "packages_by_hand", "library"):
        command = [f"{build}/bench/{bench}_bench"]
        if bench != "library":
            command.append(f"--benchmark_repetitions={rounds}")
        done = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True)
        for line in done.stdout.splitlines():
            if found := pattern.match(line):
                name, figure, unit, spread, target = found.groups()
                yield {"name": name, "figure": float(figure), "unit": unit.strip(),
                       "spread": spread or "", "target": float(target)}


def verdict(figure, target):
    return "kept" if figure <= target else "MISSED"


def microseconds(rounds, pick=statistics.median):
    return statistics.median(pick(times) for times in rounds) / 1000


def print_table(all_works, others):
    print(f"{'work':34}{'limit us':>10}{'ours us':>10}{'first':>9}{'100th':>9}{'ratio':>7}"
          f"{'min':>7}{'max':>7}{'target':>8}")
    for work in all_works:
        ratio = statistics.median(work.ratios)
        hundredth = "-"
        if work.times > 100:
            hundredth = f"{microseconds(work.ours, lambda times: statistics.median(times[95:105])):.1f}"
        print(f"{work.name:34}{microseconds(work.limit):10.2f}{microseconds(work.ours):10.2f}"
              f"{microseconds(work.ours, lambda times: times[0]):9.1f}{hundredth:>9}"
              f"{ratio:7.2f}{min(work.ratios):7.2f}{max(work.ratios):7.2f}{work.target:8.2f}"
              f"  {verdict(ratio, work.target)}")
    for other in others:
        figure = f"{other['figure']:.2f} {other['unit']}".strip()
        print(f"{other['name']:60}{figure:>15} {other['spread']:>16}{other['target']:10.2f}"
              f"  {verdict(other['figure'], other['target'])}")


def growth(all_works):
    """What a model takes at 10,000, as a multiple of what it takes at 1,000."""
    by_name = {work.name: work for work in all_works}
    for kind in ("list of", "conversion of"):
        many, few = (by_name[f"{kind} {count} models"] for count in ("10,000", "1,000"))
        yield {"name": f"growth of a {kind.split()[0]}, a model at 10,000 / at 1,000",
               "figure": microseconds(many.ours) / microseconds(few.ours) / 10, "unit": "",
               "spread": f"limit {microseconds(many.limit) / microseconds(few.limit) / 10:.2f}",
               "target": 1.2}


RATIOS = """
set terminal svg size {size} font 'sans-serif,12'
set output '{folder}/ratios.svg'
set title 'multiples of the limit, with the lowest and highest round'
set logscale y; set yrange [0.1:*]; set xrange [-0.7:*]; set grid y; set boxwidth 0.6
set xtics rotate by 30 right; set key {key}
plot $ratios using 0:2:xtic(1) with boxes fill solid 0.4 title 'measured', \\
     $ratios using 0:2:3:4 with yerrorbars lc 'black' notitle, \\
     $ratios using 0:5 with points pt 9 lc 'red' title 'target'{points}
set key default; unset logscale; unset xrange
"""
GROWTH = """
set terminal svg size 900,480 font 'sans-serif,12'
set output '{folder}/growth.svg'
set title 'microseconds as a list grows'
set style data linespoints
set logscale xy; set autoscale; set xtics norotate auto; set xlabel 'models'; set key top left
plot $growth using 1:2 title 'query, limit', $growth using 1:3 title 'query', \\
     $growth using 1:4 title 'conversion, limit', $growth using 1:5 title 'conversion'
"""


def plot(all_works, peers, folder):
    ratios = "\n".join(
        f'"{work.name}" {statistics.median(work.ratios)} {min(work.ratios)} {max(work.ratios)} {work.target}'
        for work in all_works)
    queries = [work for work in all_works if work.kind == "models"]
    conversions = [work for work in all_works if not work.kind and not work.logged]
    rows = "\n".join(
        " ".join(str(value) for value in
                 (query.models, microseconds(query.limit), microseconds(query.ours),
                  microseconds(conversion.limit), microseconds(conversion.ours)))
        for query, conversion in zip(queries, conversions))
    program = f"$ratios <<EOD\n{ratios}\nEOD\n$growth <<EOD\n{rows}\nEOD\n"
    blocks, points = peers.points(all_works) if peers else ("", "")
    size, key = ("1100,620", "outside right top") if peers else ("900,480", "top left")
    program += blocks + RATIOS.format(folder=folder, points=points, size=size, key=key)
    program += GROWTH.format(folder=folder)
    subprocess.run(["gnuplot"], input=program, text=True, check=True)


def main():
    build, results = (os.path.abspath(folder) for folder in sys.argv[1:3])
    options = sys.argv[3:]
    with_peers = "--peers" in options
    rounds = int(next((option for option in options if option != "--peers"), 7))
    os.makedirs(results, exist_ok=True)
    priority = settle_down()
    print(f"{rounds} rounds, on one CPU, {priority}", flush=True)
    all_works = list(works())
    with tempfile.TemporaryDirectory() as folder:
        worlds.make_files(f"{folder}/files", 5400, lines=800, marked=2700)
        agents = {models: World(build, folder, models) for models in SIZES}
        peers = peers_module.Peers(build, folder, f"{folder}/files") if with_peers else None
        for _ in range(rounds):
            for work in all_works:
                if work.kind == "scan":
                    measure_scan(work, build, f"{folder}/files")
                elif work.kind == "event":
                    measure_event(work, build)
                elif work.kind:
                    measure_query(work, build, agents[work.models])
                else:
                    measure_conversion(work, build, folder)
                if peers:
                    peers.measure(work)
        if peers:
            peers.close()
        for agent in agents.values():
            agent.close()
    others = list(growth(all_works)) + list(other_promises(build, rounds))
    print_table(all_works, others)
    if peers:
        peers.print_table()
    with open(f"{results}/results.json", "w", encoding="utf-8") as stream:
        json.dump({"rounds": rounds, "priority": priority, "others": others,
                   "peers": peers.results() if peers else [],
                   "works": [{"name": work.name, "target": work.target, "ratios": work.ratios,
                              "limit": [statistics.median(times) for times in work.limit],
                              "ours": [statistics.median(times) for times in work.ours],
                              "first": [times[0] for times in work.ours]} for work in all_works]},
                  stream, indent=1)
    plot(all_works, peers, results)
    print(f"{results}/results.json, ratios.svg, growth.svg")


if __name__ == "__main__":
    main()
