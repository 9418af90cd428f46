#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""How time and memory grow with the work: prints one table.

    growth.py BUILD RESULTS

BUILD is the folder of an optimised build with the benches. RESULTS is a folder for growth.json and
cost.svg. An exponent is the slope of a straight line, by least squares, through the points of a curve
in logarithms, as far as they lie within its last two decades, or are the last three: 1 is linear, 0 is constant, 2 is
quadratic. The end is the slope between the last two points: a step on the way, as where a cache ends, raises the
exponent, but not the end. Of each point's repetitions the quickest counts.
"""

import json
import math
import os
import subprocess
import sys
import tempfile
from dataclasses import dataclass, field

import bench
import worlds

# What counts as linear: records of which each takes the same work measure up to 1.14, for their heap
# outgrows the caches, and a measurement varies by a few hundredths.
LINEAR = 1.2
# Less than this is noise of pages and caches, not growth.
NOTHING = 64 * 1024


@dataclass
class Curve:
    name: str
    unit: str
    sizes: tuple
    measure: object  # (build, folder, size) to (nanoseconds, bytes)
    why: str  # what grows with the work
    times: list = field(default_factory=list)
    memory: list = field(default_factory=list)


def client(kind, scenario, repetitions, memory="peak", worlds_in_turn=1):
    """A curve's measure: client_runs beside scenario(folder, size), so many times."""
    def measure(build, folder, size):
        runs = [worlds.run_client(build, folder, scenario(folder, size), kind, size, repetitions(size))
                for _ in range(worlds_in_turn)]
        return min(time for run in runs for time in run["times"]), min(run[memory] for run in runs)
    return measure


def few(size):
    return 30 if size <= 1000 else 7 if size <= 10000 else 3


def once(_size):
    return 1


def application(folder, size):
    """An agent whose client's application has so many files."""
    if not os.path.exists(f"{folder}/files-{size}"):
        worlds.make_files(f"{folder}/files-{size}", size, lines=80, marked=3)
    return {"client": {"root": f"files-{size}"}}


def conversion(side):
    """A curve's measure: conversion_runs, whose memory is the list's."""
    def measure(build, _, size):
        done = subprocess.run([f"{build}/bench/conversion_runs", side, str(few(size)), str(size)],
                              stdout=subprocess.PIPE, text=True, check=True)
        return min(int(line) for line in done.stdout.split()), None
    return measure


def curves():
    ladder = (10, 100, 1000, 10000, 100000)
    texts = (10, 64, 256, 1024, 2048)
    return (
        Curve("list of models", "models", ladder, client("models", lambda _, n: {"models": worlds.models(n)}, few, worlds_in_turn=3),
              "each model is sent, converted into two records, one of which is kept"),
        Curve("conversion alone", "models", ladder, conversion("library"), "as above"),
        Curve("its limit", "models", ladder, conversion("limit"), "what the heap of any two records a model costs, one of them kept"),
        Curve("descriptions of 1,000 models", "bytes", texts,
              client("models", lambda _, n: {"models": worlds.models(1000, n)}, few),
              "each byte is sent, and copied for each record"),
        Curve("licence", "bytes", (1024, 10240, 102400, 1 << 20, 8 << 20), client("licences", worlds.licence, few, worlds_in_turn=3),
              "each byte is sent, read and copied for the caller; a step where glibc begins to take such blocks from the kernel and to "
              "give them back, so that their pages come anew each time"),
        Curve("queries in a row, 10 models each", "queries", (1, 10, 100, 1000, 10000),
              client("queries", lambda _, n: {"models": worlds.models(10)}, lambda n: 3 if n < 1000 else 1, "kept"),
              "each query keeps a record a model, on purpose"),
        Curve("queueing delegates", "delegates", (1, 10, 100, 1000, 10000, 100000),
              client("delegates", lambda _, n: {"models": worlds.models(1), **worlds.SILENT}, lambda n: 3, "kept"),
              "each request is sent, and its delegate awaits the answer until the connection ends; a step where the socket is full, and "
              "the client waits for the agent to read"),
        Curve("one answer, delegates queued", "delegates", (1, 10, 100, 1000, 10000, 100000),
              client("dispatches", lambda _, n: {"models": worlds.models(1), **worlds.SILENT}, lambda n: 100, "kept"),
              "nothing: the delegate is found by a hash"),
        Curve("disconnecting, delegates queued", "delegates", (1, 10, 100, 1000, 10000, 100000),
              client("disconnections", lambda _, n: {"models": worlds.models(1), **worlds.SILENT}, lambda n: 3),
              "each delegate is released"),
        Curve("clients of one agent, 200 calls each", "clients", (1, 2, 4, 8, 16, 32, 64), client("clients", lambda _, n: {}, once, worlds_in_turn=5),
              "each client makes its calls; the agent has two sockets and a buffer for each, and its main loop looks at all of them "
              "whenever it wakes up"),
        Curve("one call, other clients idle", "clients", (1, 2, 4, 8, 16, 32, 64), client("bystanders", lambda _, n: {}, lambda n: 500),
              "the agent's main loop looks at two sockets for each client whenever it wakes up"),
        Curve("files of an application", "files", (100, 1000, 10000, 100000), client("files", application, few),
              "each file is opened and its front read; nothing is kept of it"),
    )


def upper_part(sizes):
    """The indices of the points that an exponent is taken from."""
    first = next(index for index, size in enumerate(sizes) if size * 100 >= sizes[-1])
    return range(min(first, len(sizes) - 3), len(sizes))


def exponent(sizes, figures):
    """Of the upper part; None if nothing grows there."""
    part = upper_part(sizes)
    if any(figures[index] <= 0 for index in part):
        return None
    points = [(math.log(sizes[index]), math.log(figures[index])) for index in part]
    x_mean = sum(x for x, _ in points) / len(points)
    y_mean = sum(y for _, y in points) / len(points)
    return sum((x - x_mean) * (y - y_mean) for x, y in points) / sum((x - x_mean) ** 2 for x, _ in points)


def end(sizes, figures):
    """The exponent between the last two points; None if nothing grows there."""
    if min(figures[-2:]) <= 0:
        return None
    return math.log(figures[-1] / figures[-2]) / math.log(sizes[-1] / sizes[-2])


def exponents(curve):
    """Of time, and of memory: over the upper part and at the end."""
    found = {"time": exponent(curve.sizes, curve.times), "end of time": end(curve.sizes, curve.times)}
    if None in curve.memory:
        return found | {"memory": None, "end of memory": None}
    if max(curve.memory) - min(curve.memory) < NOTHING:
        return found | {"memory": 0.0, "end of memory": 0.0}
    return found | {"memory": exponent(curve.sizes, curve.memory), "end of memory": end(curve.sizes, curve.memory)}


def shown(value):
    return "-" if value is None else f"{value:.2f}"


def in_kilobytes(memory):
    return "-" if memory is None else f"{memory / 1024:.0f}"


def verdict(found):
    over_all, at_end = (max(found[of + kind] or 0 for kind in ("time", "memory")) for of in ("", "end of "))
    if at_end > LINEAR:
        return "ABOVE LINEAR"
    if over_all > LINEAR:
        return "linear, after a step"
    return "constant" if max(over_all, at_end) < 0.1 else "at most linear"


def print_table(all_curves):
    print(f"{'curve':38}{'from':>7}{'to':>11} {'':10}{'time':>6}{'end':>6}{'memory':>8}{'end':>6}{'first ms':>10}{'last ms':>10}{'last KB':>9}")
    for curve in all_curves:
        found = exponents(curve)
        print(f"{curve.name:38}{curve.sizes[0]:7,}{curve.sizes[-1]:11,} {curve.unit:10}{shown(found['time']):>6}{shown(found['end of time']):>6}"
              f"{shown(found['memory']):>8}{shown(found['end of memory']):>6}"
              f"{curve.times[0] / 1e6:10.3f}{curve.times[-1] / 1e6:10.3f}{in_kilobytes(curve.memory[-1]):>9}  {verdict(found)}")
    print()
    for curve in all_curves:
        print(f"{curve.name}: {curve.why}")


def plot(all_curves, file):
    """Each curve from its first point on, so that they compare: a linear one rises like the line."""
    program = [f"set terminal svg size 900,560 font 'sans-serif,12'\nset output '{file}'",
               "set title 'time as the work grows, as multiples of its smallest size'",
               "set style data linespoints; set logscale xy; set grid; set key top left",
               "set xlabel 'multiple of the smallest size'; set ylabel 'multiple of its time'"]
    parts = ["x with lines lc 'gray' title 'linear'"]
    for number, curve in enumerate(all_curves):
        rows = "\n".join(f"{size / curve.sizes[0]} {time / curve.times[0]}" for size, time in zip(curve.sizes, curve.times))
        program.append(f"$curve{number} <<EOD\n{rows}\nEOD")
        parts.append(f"$curve{number} using 1:2 title '{curve.name}'")
    program.append("plot [1:*][0.5:*] " + ", ".join(parts) + "\n")
    subprocess.run(["gnuplot"], input="\n".join(program), text=True, check=True)


def measure(build, folder):
    all_curves = curves()
    for curve in all_curves:
        for size in curve.sizes:
            time, memory = curve.measure(build, folder, size)
            curve.times.append(time)
            curve.memory.append(memory)
    return all_curves


def main():
    build, results = (os.path.abspath(folder) for folder in sys.argv[1:3])
    os.makedirs(results, exist_ok=True)
    print(f"on one CPU, {bench.settle_down()}", flush=True)
    with tempfile.TemporaryDirectory() as folder:
        all_curves = measure(build, folder)
    print_table(all_curves)
    with open(f"{results}/growth.json", "w", encoding="utf-8") as stream:
        json.dump([{"name": curve.name, "unit": curve.unit, "sizes": curve.sizes, "nanoseconds": curve.times, "bytes": curve.memory,
                    "exponents": exponents(curve)}
                   for curve in all_curves], stream, indent=1)
    plot(all_curves, f"{results}/cost.svg")
    print(f"\n{results}/growth.json, cost.svg")


if __name__ == "__main__":
    main()
