#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Are the texts of log records, and the tests that expect them, found, and is what is missing noticed?"""

import tempfile
import unittest
from pathlib import Path

import traceability

SOURCE = r'''
#define RETURN_IF_NULL(pointer, message) CLIENT_ERROR(message)
// CLIENT_INFO("in a comment");
void Example() {
  CLIENT_INFO("plain");
  CLIENT_ERROR_F("number [%d]", number);
  CLIENT_ERROR_F_AT(site, "%s", exception.what());
  CLIENT_ERROR_AT(site, "at a site");
  RETURN_ERROR_IF(Find("no record", 1) == nullptr, "refused, "
                  "and why", SVCMGR_ERROR_NONE);
  RETURN_IF_NULL(text, "null");
}
const char* what() const noexcept override { return "thrown"; }
'''

SHARED = r'''
inline void ExpectFarAway() { Expect("far away"); }
'''

TESTS = r'''
#include "shared.h"
namespace {
using ::testing::ElementsAre;
constexpr char kShared[] = "at a site";
void ExpectNumber(int number) { Expect("number [" + std::to_string(number) + "]"); }
struct AFixture : Base {
  void Check() { EXPECT_EQ(Text(), "null"); }
};
// TEST(Commented, Out) { Expect("thrown"); }
TEST(First, Expects) { Expect("plain"); EXPECT_EQ(Code(), SVCMGR_ERROR_NONE); }
TEST(Second, Shares) {
  ExpectNumber(-77);
  Expect(kShared);
}
TEST_F(AFixture, Checks) { Check(); ExpectFarAway(); ExpectElsewhere(); }
INSTANTIATE_TEST_SUITE_P(Each, ARow, Values(Row{"refused, and why"}));
TEST_P(ARow, IsRefused) { Expect(GetParam()); }
}  // namespace
'''

HEADER = '''
/*
 * Traps
 *
 * What to know.
 *
 * Connecting:
 *
 *  1. The first sentence, of
 *     two lines. The second.
 *  2. Another.
 */
  SVCMGR_ERROR_NONE = 0,
  SVCMGR_ERROR_IO_ERROR = -5,
'''

RULES = [["code", "0", "velmora_svcmgr_connect", "Succeeds"]]


def tests():
    with tempfile.TemporaryDirectory() as folder:
        (Path(folder) / "sample_test.cc").write_text(TESTS)
        (Path(folder) / "shared.h").write_text(SHARED)
        (Path(folder) / "other.h").write_text(SHARED.replace("FarAway", "Elsewhere").replace("far away", "elsewhere"))
        return traceability.Tests(Path(folder))


class TheTextsOfRecords(unittest.TestCase):
    def test_are_those_of_all_ways_to_write_one(self):
        self.assertEqual(traceability.records(SOURCE),
                         ["plain", "number [%d]", "at a site", "refused, and why", "null", "thrown"])


class TheTestsOfARecord(unittest.TestCase):
    def test_are_those_that_expect_it_themselves(self):
        self.assertEqual(tests().of_record("plain"), ["sample_test First.Expects"])

    def test_are_those_that_use_what_expects_it(self):
        self.assertEqual(tests().of_record("at a site"), ["sample_test Second.Shares"])
        self.assertEqual(tests().of_record("number [%d]"), ["sample_test Second.Shares"])
        self.assertEqual(tests().of_record("null"), ["sample_test AFixture.Checks"])

    def test_are_those_that_use_a_header_which_expects_it(self):
        self.assertEqual(tests().of_record("far away"), ["sample_test AFixture.Checks"])
        self.assertEqual(tests().of_record("elsewhere"), [])

    def test_are_those_whose_rows_hold_it(self):
        self.assertEqual(tests().of_record("refused, and why"), ["sample_test ARow.IsRefused"])

    def test_are_none_where_only_a_comment_has_it_or_something_like_it(self):
        self.assertEqual(tests().of_record("thrown"), [])
        self.assertEqual(tests().of_record("plain!"), [])


class TheTestsOfACode(unittest.TestCase):
    def test_name_it_or_hold_its_number(self):
        self.assertEqual(tests().of_code("SVCMGR_ERROR_NONE"), ["sample_test First.Expects"])
        self.assertEqual(tests().of_number(-77), ["sample_test Second.Shares"])


class TheHeader(unittest.TestCase):
    def test_numbers_its_traps(self):
        self.assertEqual(traceability.traps_of(HEADER), {1: "The first sentence, of two lines.", 2: "Another."})

    def test_lists_its_codes(self):
        self.assertEqual(traceability.codes_of(HEADER), {"SVCMGR_ERROR_NONE": 0, "SVCMGR_ERROR_IO_ERROR": -5})


class WhatNoTestHolds(unittest.TestCase):
    def test_is_missing(self):
        table = traceability.Table()
        traceability.add_codes(table, HEADER.replace("IO_ERROR", "NEW"), RULES, tests())
        self.assertEqual(table.missing, ["SVCMGR_ERROR_NEW"])
        table = traceability.Table()
        traceability.add_traps(table, HEADER, ["Trap1.Is", "Trap22.Is"])
        self.assertEqual(table.missing, ["trap 2"])
        with tempfile.TemporaryDirectory() as folder:
            (Path(folder) / "src").mkdir()
            (Path(folder) / "src/example.cc").write_text(SOURCE)
            table = traceability.Table()
            traceability.add_records(table, Path(folder), [["record", "null", "example.cc", "Refuses"]], tests())
        self.assertEqual(table.missing, ['the record "thrown"'])

    def test_is_excused_only_where_a_reason_is_given(self):
        table = traceability.Table()
        traceability.add_codes(table, HEADER, RULES, tests())
        self.assertEqual(table.missing, [])
        self.assertTrue(any("none: no function returns it" in line for line in table.lines))


if __name__ == "__main__":
    unittest.main()
