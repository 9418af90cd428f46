#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the library costs a small device: the size of its sections, its relocations, the time to load it
and the memory of a client, for several processors and ways to compile. Prints tables.

    embedded.py BUILD RESULTS

BUILD is the folder of an optimised build with the benches, for what is run here; RESULTS a folder for
embedded.json. The libraries themselves are made in build/embedded of this tree, those for ARM only where
Debian's cross compilers and the packages of ./dev cross are.
"""

import json
import os
import re
import shutil
import statistics
import subprocess
import sys

# Name, prefix of the tools, toolchain file.
PROCESSORS = (("x86-64", "", ""), ("arm64", "aarch64-linux-gnu-", "arm64"), ("armhf", "arm-linux-gnueabihf-", "armhf"))
# Name, optimisation, link-time optimisation.
WAYS = (("-O3", "-O3", False), ("-O3, LTO", "-O3", True), ("-Os", "-Os", False), ("-Os, LTO", "-Os", True))

# What a section is for; all that is loaded counts, the rest strip removes or no device needs.
PARTS = (
    ("code", r"\.(text|init|fini|plt.*)$"),
    ("constants", r"\.(rodata.*|note.*)$"),
    ("unwinding", r"\.(eh_frame.*|gcc_except_table|ARM\.ex.*)$"),
    ("symbols", r"\.(dynsym|dynstr|hash|gnu\.hash|gnu\.version.*)$"),
    ("relocations", r"\.rela?\..*$"),
    ("written once", r"\.(data\.rel\.ro.*|got.*|dynamic|.*_array)$"),
    ("writable", r"\.(data|bss|tm_clone_table)$"),
)


def output(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout


def build(source, processor, toolchain, way, optimisation, lto):
    """Makes the library, and returns its file; nothing if this machine cannot."""
    folder = f"{source}/build/embedded/{processor}-{way.replace(', ', '-')}"
    command = ["cmake", "-S", source, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
               f"-DCMAKE_C_FLAGS_RELEASE={optimisation} -DNDEBUG",
               f"-DCMAKE_CXX_FLAGS_RELEASE={optimisation} -DNDEBUG",
               f"-DCMAKE_INTERPROCEDURAL_OPTIMIZATION={'ON' if lto else 'OFF'}"]
    command += [f"-DSVCMGR_{part}=OFF" for part in ("TESTS", "CTL", "SIM", "EXAMPLES", "DOCS")]
    if toolchain:
        sysroot = f"{source}/build/sysroot/{toolchain}"
        if not os.path.exists(f"{sysroot}/.complete"):
            return None
        command += ["--toolchain", f"{source}/cmake/toolchains/{toolchain}.cmake", f"-DSVCMGR_SYSROOT={sysroot}"]
    for step in (command, ["cmake", "--build", folder, "--target", "velmora-svcmgr"]):
        done = subprocess.run(step, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        if done.returncode != 0:
            sys.exit(f"embedded.py: {folder} cannot be built\n{done.stdout}")
    return os.path.realpath(f"{folder}/lib/libvelmora-svcmgr.so")


def sections(tools, library):
    """Bytes of each section in memory, of what strip leaves; and of each part, which they add up to."""
    sizes = {}
    parts = {name: 0 for name, _ in PARTS}
    table = output(f"{tools}readelf", "-SW", library)
    # However it was made: without its marker it would be another library.
    if " .kyr " not in table:
        sys.exit(f"embedded.py: {library} has no marker")
    for line in table.splitlines():
        found = re.match(r"\s*\[ *\d+\] (\.\S+)\s+\S+\s+[0-9a-f]+ [0-9a-f]+ ([0-9a-f]+) [0-9a-f]+\s+(\S+)", line)
        if not found or "A" not in found[3]:
            continue
        names = [name for name, pattern in PARTS if re.match(pattern, found[1])]
        if len(names) != 1:
            sys.exit(f"embedded.py: {library}: to which part does {found[1]} belong?")
        sizes[found[1]] = int(found[2], 16)
        parts[names[0]] += sizes[found[1]]
    return sizes, parts


def relocations(tools, library):
    """How many the loader resolves by address, and how many by looking for a name."""
    kinds = re.findall(r"^[0-9a-f]+\s+[0-9a-f]+ (R_\S+)", output(f"{tools}readelf", "-rW", library), re.MULTILINE)
    relative = sum(kind.endswith("RELATIVE") for kind in kinds)
    return relative, len(kinds) - relative


def look_at(tools, library):
    stripped = f"{library}.stripped"
    subprocess.run([f"{tools}strip", "-o", stripped, library], check=True)
    relative, named = relocations(tools, stripped)
    sizes, parts = sections(tools, stripped)
    return {"file": os.path.getsize(stripped), "sections": sizes, "parts": parts, "relative": relative, "named": named, "stripped": stripped}


def load_time(bench, library):
    """Microseconds, with the platform's libraries loaded before; the best of several medians."""
    return min(float(output(f"{bench}/bench/library_bench", library)) for _ in range(5))


def resident(bench):
    """What a client takes at each of its stages, in KB, the median of several: kind to stage to figure."""
    runs = []
    for _ in range(7):
        text = output(f"{bench}/bin/svcmgr-sim", "run", "never-answers", "--no-trace", "--", f"{bench}/bench/resident_client",
                      f"{bench}/lib/libvelmora-svcmgr.so")
        runs.append(json.loads(text))
    return {stage: {kind: statistics.median(run[stage][kind] for run in runs) for kind in kinds}
            for stage, kinds in runs[0].items()}


def print_sizes(rows):
    names = [name for name, _ in PARTS]
    print(f"{'bytes':22}{'file':>9}" + "".join(f"{name:>14}" for name in names) + f"{'relative':>10}{'by name':>9}")
    for row in rows:
        print(f"{row['processor'] + ', ' + row['way']:22}{row['file']:9}"
              + "".join(f"{row['parts'][name]:14}" for name in names) + f"{row['relative']:10}{row['named']:9}"
              + (f"   loads in {row['load']:.0f} us" if "load" in row else ""))


def print_memory(stages):
    kinds = list(next(iter(stages.values())))
    print(f"\n{'a client on this machine, KB':46}" + "".join(f"{kind:>16}" for kind in kinds))
    for stage, figures in stages.items():
        print(f"{stage:46}" + "".join(f"{figures[kind]:16.0f}" for kind in kinds))


def main():
    bench, results = (os.path.abspath(folder) for folder in sys.argv[1:3])
    source = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    rows = []
    for processor, tools, toolchain in PROCESSORS:
        if not shutil.which(f"{tools}g++"):
            print(f"{processor}: skipped, there is no {tools}g++")
            continue
        for way, optimisation, lto in WAYS:
            library = build(source, processor, toolchain, way, optimisation, lto)
            if library is None:
                print(f"{processor}: skipped, ./dev cross {processor} has not been run")
                break
            row = {"processor": processor, "way": way, **look_at(tools, library)}
            # Under qemu the time to load would be qemu's.
            if not toolchain:
                row["load"] = load_time(bench, row["stripped"])
            rows.append(row)
    print_sizes(rows)
    stages = resident(bench)
    print_memory(stages)
    os.makedirs(results, exist_ok=True)
    with open(f"{results}/embedded.json", "w", encoding="utf-8") as stream:
        json.dump({"libraries": rows, "resident": stages}, stream, indent=1)


if __name__ == "__main__":
    main()
