"""The check of composer.json finds what PHP's installer for extensions would not take."""
import copy
import json
import pathlib
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "script" / "lib"))

import metadata  # noqa: E402


class Misfits(unittest.TestCase):
    def setUp(self):
        self.package = json.loads((ROOT / "composer.json").read_text(encoding="utf-8"))

    def changed(self, key, value):
        package = copy.deepcopy(self.package)
        package["php-ext"][key] = value
        return list(metadata.misfits(package))

    def test_ours_is_taken(self):
        self.assertEqual([], list(metadata.misfits(self.package)))
        self.assertEqual("php-ext", self.package["type"])

    def test_values_of_the_wrong_kind_are_told(self):
        for key, value in (("extension-name", "my-name"), ("priority", 9), ("priority", 100),
                           ("support-zts", "yes"), ("build-path", 1), ("os-families", ["beos"]),
                           ("os-families", []), ("download-url-method", "by-post"),
                           ("no-such-key", 1), ("os-families-exclude", ["linux"])):
            self.assertEqual(1, len(self.changed(key, value)), (key, value))

    def test_values_that_the_installer_takes_are_not(self):
        for key, value in (("priority", 10), ("build-path", None),
                           ("download-url-method", ["pre-packaged-source", "composer-default"])):
            self.assertEqual([], self.changed(key, value))

    def test_options_and_requirements_are_looked_at(self):
        self.assertEqual(1, len(self.changed("configure-options", [{"name": "--with-x"}])))
        self.assertEqual(1, len(self.changed("configure-options",
                                             [{"name": "with-x", "needs-value": "no"}])))
        self.package["require"]["some/library"] = "*"
        self.package["name"] = "Kaq"
        self.assertEqual(2, len(list(metadata.misfits(self.package))))


if __name__ == "__main__":
    unittest.main()
