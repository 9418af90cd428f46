# SPDX-License-Identifier: Apache-2.0
"""What bench.py measures beside this project's side and the limit, in the same rounds: programs that
do the same work with what others would take for it.

A work's peers are those of its kind. Each says what it has got (the checksum of an answer, the number
of events, what a scan has found), and is refused unless that is what the limit has got.
"""

import os
import statistics
import subprocess
import sys
from dataclasses import dataclass, field

# How often in a round, by the models of a list.
TIMES = {10: 500, 100: 200, 1000: 51, 10000: 31}


@dataclass
class Peer:
    name: str
    command: list  # a program in the folder of peers, and its first arguments
    lists_only: bool = False


CALLS = (
    Peer("GDBus by daemon", ["gdbus_peer", "daemon"]),
    Peer("GDBus peer to peer", ["gdbus_peer", "direct"]),
    Peer("sd-bus by daemon", ["sdbus_peer", "daemon"]),
    Peer("sd-bus peer to peer", ["sdbus_peer", "direct"]),
    Peer("gRPC", ["grpc_peer"]),
    Peer("Cap'n Proto", ["capnp_peer", "copied"]),
    Peer("Cap'n Proto, read in place", ["capnp_peer", "in-place"], lists_only=True),
    Peer("Cap'n Proto, two records", ["capnp_peer", "records"], lists_only=True),
    Peer("ZeroMQ", ["zmq_peer"]),
)
DECODERS = (
    Peer("protobuf", ["decode_peer", "protobuf"]),
    Peer("GVariant", ["decode_peer", "gvariant"]),
    Peer("Cap'n Proto", ["decode_peer", "capnp"]),
    Peer("Cap'n Proto, read in place", ["decode_peer", "capnp-in-place"]),
    # Until all is made that the library makes.
    Peer("protobuf, two records", ["decode_peer", "protobuf-records"]),
    Peer("GVariant, two records", ["decode_peer", "gvariant-records"]),
    Peer("Cap'n Proto, two records", ["decode_peer", "capnp-records"]),
)
EVENTS = (
    Peer("GDBus", ["gdbus_peer", "daemon", "event"]),
    Peer("sd-bus", ["sdbus_peer", "daemon", "event"]),
)
SCANS = (
    Peer("readelf", ["scan_peer", "readelf"]),
    Peer("libelf", ["scan_peer", "libelf"]),
    Peer("scanelf", ["scan_peer", "scanelf"]),
)
# What the scans find in bench.py's files: files with sections, or the level of the marker.
FOUND = {"readelf": 1800, "libelf": 11, "scanelf": 1800}

# How many times as long as this project's side a peer has to take, by the work's kind and models.
# A conversion's holds for each number of models.
TARGETS = {
    ("int32", 10): {"GDBus by daemon": 16, "gRPC": 7, "Cap'n Proto": 3, "sd-bus peer to peer": 1.25},
    ("licence", 10): {"GDBus by daemon": 16, "sd-bus peer to peer": 5.5},
    ("models", 1000): {"GDBus by daemon": 8, "gRPC": 2, "Cap'n Proto": 1,
                       "Cap'n Proto, read in place": 1},
    ("", None): {"protobuf": 1.4, "GVariant": 4.5},
    ("scan", 0): {"readelf": 1.9, "libelf": 1.9, "scanelf": 1.9},
    ("event", 0): {"GDBus": 3},
}


def target_of(kind, models, peer):
    for key in ((kind, models), (kind, None)):
        if key in TARGETS:
            return TARGETS[key].get(peer)
    return None


@dataclass
class Row:
    """A peer beside a work, and the medians of its rounds in nanoseconds."""

    work: object
    peer: Peer
    rounds: list = field(default_factory=list)

    @property
    def to_limit(self):
        return [peer / statistics.median(limit) for limit, peer in zip(self.work.limit, self.rounds)]

    @property
    def to_ours(self):
        return [peer / statistics.median(ours) for ours, peer in zip(self.work.ours, self.rounds)]

    @property
    def target(self):
        return target_of(self.work.kind, self.work.models, self.peer.name)

    @property
    def verdict(self):
        if self.target is None:
            return ""
        return "kept" if statistics.median(self.to_ours) >= self.target else "MISSED"


class Bus:
    """A bus of its own for the peers that need one."""

    def __init__(self, folder):
        self.address = f"unix:path={folder}/bus"
        self.process = subprocess.Popen(
            ["dbus-daemon", "--session", "--nofork", "--nopidfile", f"--address={self.address}",
             "--print-address=1"],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        if not self.process.stdout.readline():
            sys.exit("peers.py: dbus-daemon does not run")

    def close(self):
        self.process.terminate()
        self.process.communicate()


class Peers:
    """The peers that were built into `build`, beside the files in `files`."""

    def __init__(self, build, folder, files):
        self.build = build
        self.files = files
        self.bus = Bus(folder)
        self.rows = {}  # by the work's name and the peer's

    def close(self):
        self.bus.close()

    def measure(self, work):
        """One round of a work, whose limit has been measured in the same one."""
        for peer, arguments, expected in self.runs(work):
            got, *times = self.run(peer, arguments)
            if got != expected:
                sys.exit(f"peers.py: {work.name}: {peer.name} has got {got}, not {expected}")
            row = self.rows.setdefault((work.name, peer.name), Row(work, peer))
            row.rounds.append(statistics.median(times))

    def runs(self, work):
        """Each peer of a work with its last arguments, and what it has to get."""
        if work.kind == "scan":
            for peer in SCANS:
                yield peer, ["5", self.files], FOUND[peer.name]
        elif work.kind == "event":
            for peer in EVENTS:
                yield peer, ["500", "0"], 500
        elif work.kind:
            times = 500 if work.kind != "models" else TIMES[work.models]
            checksum = self.checksum(work.kind, work.models)
            for peer in CALLS:
                if work.kind == "models" or not peer.lists_only:
                    yield peer, [work.kind, str(times), str(work.models)], checksum
        elif not work.logged:
            checksum = self.checksum("models", work.models)
            for peer in DECODERS:
                yield peer, [str(TIMES[work.models]), str(work.models)], checksum

    def checksum(self, kind, models):
        return self.numbers([f"{self.build}/bench/query_limit", kind, "1", str(models)])[0]

    def run(self, peer, arguments):
        program, *first = peer.command
        return self.numbers([f"{self.build}/bench/peers/{program}", *first, *arguments])

    def numbers(self, command):
        environment = dict(os.environ) | {"DBUS_SESSION_BUS_ADDRESS": self.bus.address}
        done = subprocess.run(command, env=environment, stdout=subprocess.PIPE, text=True, check=True)
        return [int(line) for line in done.stdout.split()]

    def print_table(self):
        print(f"\n{'work':29}{'peer':28}{'limit us':>10}{'peer us':>11}{'ratio':>8}{'min':>8}{'max':>8}"
              f"{'/ ours':>8}{'target':>8}")
        for row in self.rows.values():
            limit = statistics.median(statistics.median(times) for times in row.work.limit) / 1000
            target = "-" if row.target is None else f">= {row.target:g}"
            print(f"{row.work.name:29}{row.peer.name:28}{limit:10.2f}"
                  f"{statistics.median(row.rounds) / 1000:11.2f}"
                  f"{statistics.median(row.to_limit):8.2f}{min(row.to_limit):8.2f}{max(row.to_limit):8.2f}"
                  f"{statistics.median(row.to_ours):8.2f}{target:>8}  {row.verdict}".rstrip())

    def results(self):
        return [{"work": row.work.name, "peer": row.peer.name, "rounds": row.rounds,
                 "to_limit": row.to_limit, "to_ours": row.to_ours, "target": row.target}
                for row in self.rows.values()]

    def points(self, all_works):
        """What draws them into the plot of the ratios, for gnuplot: blocks of data, and the rest of a plot."""
        place = {work.name: number for number, work in enumerate(all_works)}
        names = list(dict.fromkeys(row.peer.name for row in self.rows.values()))
        blocks, points = "", ""
        for number, name in enumerate(names):
            rows = [row for row in self.rows.values() if row.peer.name == name]
            lines = "\n".join(
                f"{place[row.work.name]} {statistics.median(row.to_limit)} {min(row.to_limit)} {max(row.to_limit)}"
                for row in rows)
            blocks += f"$peer{number} <<EOD\n{lines}\nEOD\n"
            title = name.replace("'", "''")
            points += f", \\\n     $peer{number} with yerrorbars pt {number + 1} lc {number + 1} title '{title}'"
        return blocks, points
