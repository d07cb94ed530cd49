"""What script/applications takes for noise between two bare runs of a page, and what it does not."""
import pathlib
import sys
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
for directory in (ROOT / "bench", ROOT / "bench" / "applications",
                  ROOT / "tests" / "extension" / "wire"):
    sys.path.append(str(directory))

import client  # noqa: E402
import comparison  # noqa: E402


def page(body, status=200, headers=(), log="", method="GET"):
    visit = client.Visit("page", method, "/")
    visit.status, visit.body, visit.log = status, body.encode(), log
    visit.headers = [("Content-Type", "text/html"), *headers]
    return visit


def beyond(bare, other, without=None):
    """What differs in a page beyond the noise of bare ones."""
    noise = comparison.Noise([comparison.lines_of(each) for each in bare])
    return noise.beyond(comparison.lines_of(other, without))


class Noise(unittest.TestCase):
    def test_a_token_that_differs_between_bare_runs_may_be_any_word(self):
        bare = [page('<a href="?n=12ab34">x</a>'), page('<a href="?n=98ff00">x</a>')]
        self.assertEqual([], beyond(bare, page('<a href="?n=77c0de">x</a>')))

    def test_what_stands_beside_a_token_must_not_differ(self):
        bare = [page('<a href="?n=12ab34">x</a>'), page('<a href="?n=98ff00">x</a>')]
        self.assertEqual(1, len(beyond(bare, page('<a href="?n=77c0de">y</a>'))))

    def test_a_token_is_no_place_for_markup(self):
        bare = [page("<p>12ab34</p>"), page("<p>98ff00</p>")]
        self.assertNotEqual([], beyond(bare, page("<p>77<b>c0de</p>")))

    def test_a_line_that_one_bare_run_lacks_may_come_or_not(self):
        bare = [page("a\nb\nc"), page("a\nc")]
        self.assertEqual([], beyond(bare, page("a\nb\nc")))
        self.assertEqual([], beyond(bare, page("a\nc")))
        self.assertEqual([(None, "d")], beyond(bare, page("a\nb\nc\nd")))

    def test_times_count_as_equal(self):
        now = time.gmtime()
        bare = [page("at 2022-01-05T10:00:00+00:00, %d, %s"
                     % (time.time(), time.strftime("%Y-%m-%d", now)))] * 2
        other = page("at 2022-01-06T11:22:33+00:00, %d, 3 minutes ago" % (time.time() - 9))
        self.assertEqual([], beyond(bare, other))
        self.assertNotEqual([], beyond([page("1656666666")] * 2, page("1756666666")))

    def test_only_on_a_clocked_page_figures_count_as_equal(self):
        bare, other = page("<td>12.9 MiB</td>\nup 2 s"), page("<td>1,108 k</td>\nup 3 s")
        self.assertEqual(2, len(beyond([bare] * 2, other)))
        bare.is_clocked = other.is_clocked = True
        self.assertEqual([], beyond([bare] * 2, other))
        other.body = b"<td>12.9 MiB</td>\ndown 3 s"
        self.assertEqual(1, len(beyond([bare] * 2, other)))


class Differences(unittest.TestCase):
    def setUp(self):
        self.bare = [page("<p>text</p>", headers=[("X-One", "1"), ("X-Two", "2")])] * 2

    def test_status_header_their_order_and_log_count(self):
        two = [("X-One", "1"), ("X-Two", "2")]
        for other in (page("<p>text</p>", 201, two), page("<p>text</p>", 200, two[:1]),
                      page("<p>text</p>", 200, two[::-1]), page("<p>text</p>", 200, two, "PHP Warning"),
                      page("<p>text </p>", 200, two)):
            self.assertNotEqual([], beyond(self.bare, other))

    def test_a_length_must_be_that_of_the_body(self):
        right, wrong = [("Content-Length", "4")], [("Content-Length", "3")]
        bare = [page("text", headers=right)] * 2
        self.assertEqual([], beyond(bare, page("text", headers=right)))
        self.assertNotEqual([], beyond(bare, page("text", headers=wrong)))

    def test_the_snippet_may_stand_there_once(self):
        bare = [page("<head></head>")] * 2
        self.assertEqual([], beyond(bare, page("<head><s></s></head>"), "<s></s>"))
        self.assertNotEqual([], beyond(bare, page("<head><s></s></head><s></s>"), "<s></s>"))

    def test_a_list_of_extensions_may_name_this_one_but_a_log_may_not(self):
        bare = [page("curl\n")] * 2
        self.assertEqual([], beyond(bare, page("curl\nkaq\n")))
        self.assertNotEqual([], beyond(bare, page("curl\n", log="kaq")))

    def test_a_list_that_names_this_one_in_the_place_of_another_lacks_that_one(self):
        bare = [page("curl\nZend OPcache\nzip\n")] * 2
        self.assertEqual([("Zend OPcache", None)], beyond(bare, page("curl\nkaq\nzip\n")))
        self.assertEqual([("Zend OPcache", None)], beyond(bare, page("curl\nzip\n")))


if __name__ == "__main__":
    unittest.main()
