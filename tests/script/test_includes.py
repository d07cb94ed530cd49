"""script/lib/includes.py says which include breaks the order of the rooms."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
ROOMS = ["low", "high"]


class Includes(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = pathlib.Path(directory.name)
        self.write("low/base.h", "#pragma once\n")
        self.write("low/base_private.h", "#pragma once\n")
        self.write("high/roof.h", '#include "low/base.h"\n#include <stdio.h>\n')

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(exist_ok=True)
        path.write_text(text, encoding="utf-8")

    def run_check(self):
        done = subprocess.run([sys.executable, str(ROOT / "script" / "lib" / "includes.py"),
                               str(self.root), *ROOMS], capture_output=True, text=True,
                              check=False, timeout=60)
        return done.returncode, done.stdout

    def test_downward_includes_pass(self):
        self.write("low/base.cpp", '#include "low/base.h"\n#include "low/base_private.h"\n')
        self.assertEqual((0, "\n"), self.run_check())

    def test_an_arrow_up_is_named_with_its_line(self):
        self.write("low/base.cpp", '#include "low/base.h"\n\n#include "high/roof.h"\n')
        status, text = self.run_check()
        self.assertEqual(1, status)
        self.assertIn("low/base.cpp:3: high/roof.h is of a higher room: low < high", text)

    def test_a_private_header_stays_in_its_room(self):
        self.write("high/roof.cpp", '#include "low/base_private.h"\n')
        status, text = self.run_check()
        self.assertEqual(1, status)
        self.assertIn("high/roof.cpp:1: low/base_private.h is private to its room", text)

    def test_a_file_outside_of_every_room_is_named(self):
        self.write("attic/box.cpp", "\n")
        status, text = self.run_check()
        self.assertEqual(1, status)
        self.assertIn("is in no room", text)


if __name__ == "__main__":
    unittest.main()
