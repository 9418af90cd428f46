# SPDX-License-Identifier: Apache-2.0
"""What clients are measured beside: simulated agents that are made for it, and an application's files."""

import json
import os
import struct
import subprocess


def models(count, description=80):
    """Of an agent: so many models, whose texts are those of bench/model_texts.h but for the description."""
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


def make_files(folder, count, lines, marked):
    """So many files of an application: every third in ELF with 30 sections, the others texts of so many
    lines. One, whose number three divides, has a marker."""
    marker = struct.pack("<4s6H", b"KYR\0", 0, 1, 11, 2, 3, 182)
    # The table stands behind the front of the file, as linkers have it.
    header = bytes([0x7F]) + b"ELF" + bytes([2, 1, 1]) + bytes(9) + struct.pack(
        "<HHIQQQIHHHHHH", 3, 62, 1, 0, 0, 8192, 0, 64, 0, 0, 64, 30, 0)
    for number in range(count):
        place = f"{folder}/{number // 100}"
        if number % 100 == 0:
            os.makedirs(place)
        content = b"some text\n" * lines
        if number % 3 == 0:
            size = 16 if number == marked else 32
            sections = struct.pack("<IIQQQQIIQQ", 0, 1, 0, 0, 6000, size, 0, 0, 1, 0) * 30
            content = header.ljust(6000, b"\0") + marker.ljust(2192, b"\0") + sections
        with open(f"{place}/{number}", "wb") as stream:
            stream.write(content)


def run_client(build, folder, scenario, kind, size, times):
    """What client_runs prints."""
    file = os.path.join(folder, "scenario.json")
    with open(file, "w", encoding="utf-8") as stream:
        json.dump(scenario, stream)
    done = subprocess.run([f"{build}/bin/svcmgr-sim", "run", file, "--no-trace", "--",
                           f"{build}/bench/client_runs", kind, str(size), str(times)],
                          stdout=subprocess.PIPE, text=True, check=True)
    return json.loads(done.stdout)
