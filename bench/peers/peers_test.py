# SPDX-License-Identifier: Apache-2.0
"""What can be tested of the peers without looking at a clock.

    peers_test.py BUILD [UNITTEST ARGUMENTS]
"""

import contextlib
import io
import os
import sys
import tempfile
import unittest
from types import SimpleNamespace

sys.path[0] = os.path.dirname(sys.path[0])

import bench
import worlds
from peers import peers

BUILD = os.path.abspath(sys.argv.pop(1))
peers.TIMES = dict.fromkeys(bench.SIZES, 3)


def work(kind="int32", models=10, logged=False, limit=(), ours=()):
    return SimpleNamespace(name=f"{kind} of {models}", kind=kind, models=models, logged=logged,
                           limit=[[time] for time in limit], ours=[[time] for time in ours])


@contextlib.contextmanager
def beside(build=BUILD, files=""):
    with tempfile.TemporaryDirectory() as folder:
        all_peers = peers.Peers(build, folder, files)
        try:
            yield all_peers
        finally:
            all_peers.close()


class EachPeer(unittest.TestCase):
    """The programs themselves."""

    def check(self, of, count, files=""):
        with beside(files=files) as all_peers:
            for peer, arguments, expected in all_peers.runs(of):
                with self.subTest(peer=peer.name, work=of.name):
                    got, *times = all_peers.run(peer, arguments)
                    self.assertEqual(got, expected)
                    self.assertGreater(len(times), 0)
                    count -= 1
        self.assertEqual(count, 0)

    def test_gets_the_number_that_the_limit_gets(self):
        self.check(work("int32"), 7)

    def test_gets_the_licence_that_the_limit_gets(self):
        self.check(work("licence"), 7)

    def test_gets_each_list_that_the_limit_gets(self):
        for models in bench.SIZES:
            self.check(work("models", models), 9)

    def test_decodes_each_list_that_the_limit_gets(self):
        for models in bench.SIZES:
            self.check(work("", models), 7)

    def test_gets_every_event(self):
        self.check(work("event", 0), 2)

    def test_finds_what_there_is_in_files(self):
        with tempfile.TemporaryDirectory() as folder:
            worlds.make_files(folder, 5400, lines=800, marked=2700)
            self.check(work("scan", 0), 3, files=folder)


class ARound(unittest.TestCase):
    """What is made of the programs' figures."""

    def fake(self, folder, name, lines):
        path = f"{folder}/bench/{name}"
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as stream:
            stream.write("#!/bin/sh\n" + "".join(f"echo {line}\n" for line in lines))
        os.chmod(path, 0o755)

    def test_is_refused_if_a_peer_has_got_another_answer(self):
        with tempfile.TemporaryDirectory() as build, beside(build) as all_peers:
            self.fake(build, "query_limit", [1])
            self.fake(build, "peers/gdbus_peer", [2, 1000])
            with self.assertRaisesRegex(SystemExit, "GDBus by daemon has got 2, not 1"):
                all_peers.measure(work(limit=[100], ours=[150]))

    def test_keeps_the_median_of_its_times(self):
        with tempfile.TemporaryDirectory() as build, beside(build) as all_peers:
            self.fake(build, "query_limit", [1])
            for program in ("gdbus", "sdbus", "grpc", "capnp", "zmq"):
                self.fake(build, f"peers/{program}_peer", [1, 5000, 3000, 9000])
            of = work(limit=[1000, 500], ours=[2000, 1000])
            all_peers.measure(of)
            all_peers.measure(of)
            row = all_peers.rows[of.name, "gRPC"]
            self.assertEqual(row.rounds, [5000, 5000])
            self.assertEqual(row.to_limit, [5, 10])
            self.assertEqual(row.to_ours, [2.5, 5])

    def test_shows_no_peer_of_a_logged_conversion(self):
        with beside() as all_peers:
            self.assertEqual(list(all_peers.runs(work("", 10, logged=True))), [])


class ATarget(unittest.TestCase):
    def row(self, name, ours, peer, kind="int32", models=10):
        return peers.Row(work(kind, models, limit=[100] * len(ours), ours=ours),
                         peers.Peer(name, []), peer)

    def test_is_kept_by_the_median_of_the_rounds(self):
        self.assertEqual(self.row("gRPC", [100, 100, 100], [700, 700, 100]).verdict, "kept")
        self.assertEqual(self.row("gRPC", [100, 100, 100], [699, 699, 900]).verdict, "MISSED")

    def test_is_there_for_conversions_of_every_size(self):
        for models in bench.SIZES:
            self.assertEqual(self.row("GVariant", [100], [450], "", models).target, 4.5)

    def test_is_there_for_lists_of_one_size(self):
        self.assertEqual(self.row("gRPC", [100], [450], "models", 1000).target, 2)
        self.assertIsNone(self.row("gRPC", [100], [450], "models", 100).target)
        self.assertEqual(self.row("gRPC", [100], [450], "models", 100).verdict, "")

    def test_names_only_peers_that_there_are(self):
        names = {peer.name for group in (peers.CALLS, peers.DECODERS, peers.EVENTS, peers.SCANS)
                 for peer in group}
        for targets in peers.TARGETS.values():
            self.assertLessEqual(set(targets), names)

    def test_stands_in_the_table(self):
        with beside() as all_peers, contextlib.redirect_stdout(io.StringIO()) as output:
            all_peers.rows = {1: self.row("gRPC", [150], [600]), 2: self.row("ZeroMQ", [150], [300])}
            all_peers.print_table()
        first, second = output.getvalue().splitlines()[-2:]
        self.assertRegex(first, r"gRPC +0\.10 +0\.60 +6\.00 +6\.00 +6\.00 +4\.00 +>= 7  MISSED$")
        self.assertRegex(second, r"ZeroMQ .* 2\.00 +-$")


if __name__ == "__main__":
    unittest.main()
