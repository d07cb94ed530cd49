"""The arithmetic of the benchmarks."""

import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "bench"))

import harness


class Difference(unittest.TestCase):
    def bounds(self, count):
        """Ranks of the bounds among so many differences."""
        return harness.difference(list(range(1, count + 1)), [0] * count)[1:]

    def test_bounds_are_the_ranks_of_the_table(self):
        # Of the binomial distribution, as tables of confidence intervals for a median have them.
        for count, low, high in ((6, 1, 6), (8, 1, 8), (9, 2, 8), (15, 4, 12), (20, 6, 15),
                                 (25, 8, 18), (40, 14, 27)):
            with self.subTest(count=count):
                self.assertEqual(self.bounds(count), (low, high))

    def test_few_rounds_have_no_interval(self):
        self.assertEqual(self.bounds(5), (None, None))

    def test_pairs_are_compared_not_medians(self):
        # The rounds differ in load; in each the first is slower by one or two.
        median, low, high = harness.difference([11, 22, 31, 42, 51, 62], [10, 20, 30, 40, 50, 60])
        self.assertEqual((median, low, high), (1.5, 1, 2))


if __name__ == "__main__":
    unittest.main()
