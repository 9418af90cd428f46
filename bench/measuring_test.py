#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Do the scripts that judge figures judge them as they should?"""

import unittest

import embedded
import growth
import instructions

SIZES = (10, 100, 1000, 10000, 100000)


def verdict_on(times, memory=(0,) * 5):
    curve = growth.Curve("a curve", "things", SIZES, None, "", list(times), list(memory))
    return growth.verdict(growth.exponents(curve))


class AGrowth(unittest.TestCase):
    def test_has_the_exponent_of_its_upper_part(self):
        self.assertAlmostEqual(growth.exponent(SIZES, [500 + 7 * size for size in SIZES]), 1, places=1)
        self.assertAlmostEqual(growth.exponent(SIZES, [1, 1, 1, 100, 10000]), 2)
        self.assertAlmostEqual(growth.exponent(SIZES, [9, 9, 9, 9, 9]), 0)

    def test_that_is_constant_or_linear_is_said_to_be(self):
        self.assertEqual(verdict_on([70, 71, 70, 69, 70]), "constant")
        self.assertEqual(verdict_on([90, 800, 7000, 80000, 790000]), "at most linear")

    def test_that_is_quadratic_is_found_also_where_it_begins_late(self):
        self.assertEqual(verdict_on([size * size for size in SIZES]), "ABOVE LINEAR")
        self.assertEqual(verdict_on([1, 10, 100, 1000, 100000]), "ABOVE LINEAR")

    def test_of_memory_counts_as_that_of_time(self):
        linear = [1 << 20, 10 << 20, 100 << 20, 1000 << 20, 10000 << 20]
        self.assertEqual(verdict_on(SIZES, linear), "at most linear")
        self.assertEqual(verdict_on(SIZES, [size * size for size in SIZES]), "ABOVE LINEAR")

    def test_with_a_step_is_not_taken_for_one_that_goes_on(self):
        self.assertEqual(verdict_on([1, 10, 100, 5000, 50000]), "linear, after a step")


class TheInstructions(unittest.TestCase):
    DUMP = ("ob=/a/libcounted.so", "fn=one", "12 30", "cfn=two", "calls=1 40", "13 500", "+1 4",
            "ob=/lib/libc.so.6", "fn=two", "40 500")

    def test_that_count_are_the_librarys_own(self):
        self.assertEqual(instructions.own_cost(self.DUMP, "libcounted.so"), 34)

    def test_may_be_three_percent_off(self):
        self.assertEqual(list(instructions.compare({"a": 100}, {"a": 103})), [])
        self.assertEqual(list(instructions.compare({"a": 100}, {"a": 97})), [])
        self.assertEqual(len(list(instructions.compare({"a": 100}, {"a": 104}))), 1)
        self.assertEqual(len(list(instructions.compare({"a": 100}, {"a": 96}))), 1)

    def test_need_a_figure_for_each_function_and_a_function_for_each_figure(self):
        self.assertEqual(len(list(instructions.compare({"a": 100}, {"b": 100}))), 2)


class ASection(unittest.TestCase):
    def test_belongs_to_one_part(self):
        for section in (".text", ".rodata", ".eh_frame_hdr", ".ARM.exidx", ".dynsym", ".rela.dyn", ".rel.plt",
                        ".data.rel.ro", ".got.plt", ".init_array", ".bss", ".note.gnu.build-id"):
            parts = [name for name, pattern in embedded.PARTS if embedded.re.match(pattern, section)]
            self.assertEqual(len(parts), 1, section)


if __name__ == "__main__":
    unittest.main()
