#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Does the sweep of failing calls find each kind of defect, and call sound code sound?"""

import json
import pathlib
import subprocess
import sys
import unittest

sys.dont_write_bytecode = True

import faults  # noqa: E402

FOLDER = pathlib.Path(sys.argv.pop(1))

# Which finding a defect leads to, and in which shape of a failure.
DEFECTS = {
    "LosesBlock": ("lost: a block of strdup", "error"),
    "LosesPlatformText": ("lost: a block of app_get_id", "error"),
    "LosesNew": ("lost: a block of new", "error"),
    "LosesParcel": ("lost: parcel", "error"),
    "LosesPackageInfo": ("lost: package info", "error"),
    "LosesDescriptor": ("lost: a descriptor", "error"),
    "ReleasesTwice": ("a block is released twice", "error"),
    "ReleasesGarbage": ("garbage is released", "error with garbage"),
    "FollowsNull": ("dies of Segmentation fault", "success with null"),
    "FollowsGarbageHandle": ("package_info_get_version: unknown handle where a package info is expected",
                             "error with garbage"),
    "Throws": ("an exception escapes from velmora_svcmgr_is_being_updated", "error"),
    "ReturnsUnknownCode": ("velmora_svcmgr_is_being_updated returns -4711, which its rules do not name", "error"),
    "EndsTheConnection": ("afterwards disconnect returns -38", "error"),
    "WritesWithoutMemory": ("dies of Segmentation fault", "error"),
}


def sweep(name, *options):
    program = FOLDER / name
    done = subprocess.run([program, "--owners", faults.write_owners(program), *options],
                          stdout=subprocess.PIPE, text=True, check=True, stdin=subprocess.DEVNULL)
    return [json.loads(line) for line in done.stdout.splitlines() if line.startswith("{")]


class ASweep(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.lines = sweep("faults_planted", "--filter", "Of/*")

    def findings_of(self, defect):
        return {(line["finding"], line["shape"]) for line in self.lines
                if "finding" in line and line["test"].endswith("/" + defect)}

    def test_finds_each_planted_defect(self):
        for defect, finding in DEFECTS.items():
            with self.subTest(defect):
                self.assertIn(finding, self.findings_of(defect))

    def test_finds_nothing_else(self):
        for defect, (text, _) in DEFECTS.items():
            with self.subTest(defect):
                others = {found for found, _ in self.findings_of(defect)} - {text}
                # What is not there to be lost cannot be made either, and that is thrown.
                self.assertLessEqual(others, {"an exception escapes from velmora_svcmgr_is_being_updated"}
                                     if defect == "LosesNew" else set())

    def test_finds_nothing_in_sound_code(self):
        self.assertEqual(self.findings_of("None"), set())

    def test_finds_nothing_before_a_call_fails(self):
        self.assertEqual([line for line in self.lines if line.get("shape") == "nothing"], [])

    def test_injects_in_every_run(self):
        for line in self.lines:
            if "counts" in line:
                self.assertGreater(line["counts"]["injections"], 0, line["test"])
                self.assertEqual(line["counts"]["injections"], line["counts"]["runs"], line["test"])

    def test_tells_where_calls_have_failed(self):
        program = FOLDER / "faults_planted"
        sites = [line for line in self.lines if "site" in line]
        places = faults.Lines(program, [address for line in sites for address in line["frames"]])
        hit = {(line["site"], places[line["frames"][0]][0]) for line in sites}
        for function in ("app_get_version", "strdup", "rpc_port_parcel_write_int32", "pread64"):
            self.assertIn((function, "tests/faults/planted/defects.cc"), hit)


class AnotherSweep(unittest.TestCase):
    def test_finds_what_hangs(self):
        lines = sweep("faults_planted", "--filter", "AnotherPlantedDefect.Hangs", "--patience", "1000")
        hangs = {(line["shape"], line["how"]) for line in lines if line.get("finding") == "hangs"}
        # Once is over soon.
        for shape in ("error", "error with garbage", "success with null"):
            self.assertIn((shape, "from there on"), hangs)

    def test_finds_what_is_behind_a_verdict(self):
        lines = sweep("faults_planted", "--filter", "ALatePlantedDefect.LosesBlock")
        self.assertEqual({line["finding"] for line in lines if "finding" in line}, {"lost: a block of strdup"})

    def test_leaves_out_calls_with_the_stack_of_others_if_it_is_told_to(self):
        def counts(*options):
            lines = sweep("faults_planted", "--filter", "Of/APlantedDefect.IsPassedBy/EndsTheConnection", *options)
            return next(line["counts"] for line in lines if "counts" in line)
        every = counts("--alike", "0")
        self.assertEqual(every["calls that failed"], every["calls"])
        self.assertEqual(every["calls like others"], 0)
        few = counts("--alike", "1")
        self.assertEqual(few["calls that failed"] + few["calls like others"], few["calls"])


class EachSite(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.each = faults.EachSite(faults.Programs(FOLDER, 2, None), ["faults_planted"], "Of/*", "")
        cls.each.find()
        cls.report = faults.Report()
        cls.each.sweep(cls.report)

    def test_finds_each_planted_defect(self):
        found = {what for what, _ in self.report.findings}
        self.assertEqual({text for text, _ in DEFECTS.values()} - found, set())

    def test_lets_each_stack_fail(self):
        self.assertGreaterEqual(self.report.counts["calls that failed"], len(self.each.tests))
        self.assertEqual(self.report.counts["nothing failed"], 0)


class AShareOfTheSweep(unittest.TestCase):
    def test_finds_nothing_in_the_library(self):
        lines = sweep("faults_connection", "--stride", "23")
        self.assertEqual([line for line in lines if "finding" in line], [])
        self.assertGreater(sum(line["counts"]["injections"] for line in lines if "counts" in line), 100)


class ThePlacesOfTheSources(unittest.TestCase):
    def test_are_those_that_name_a_function_directly_or_pass_it_along(self):
        made = [path for path in faults.objects(FOLDER.parents[1])
                if path.name.startswith(("UpdateStatus", "kyr-section"))]
        sites = faults.sites_of(made, {"bundle_get_byte", "app_get_id", "nftw64"})
        found = {(function, path) for function, path, _ in sites}
        self.assertEqual(found, {("bundle_get_byte", "src/event_data.h"),
                                 ("app_get_id", "src/UpdateStatusEventHandler.cc"),
                                 ("nftw64", "src/kyr-section.cc")})
        for _, path, line in sites:
            self.assertRegex((faults.TREE / path).read_text().splitlines()[int(line) - 1],
                             r"bundle_get_byte|app_get_id|nftw")


if __name__ == "__main__":
    unittest.main()
