"""phpMyAdmin: how it is set up."""
import pathlib

import variants
from database import DATABASE
from phpmyadmin_pages import visit_pages

ADMIN, ADMIN_PASSWORD = "keeper", "Correct-horse-9"
_CONFIGURATION = """<?php
$cfg['blowfish_secret'] = 'the secret of the bench, 32 long';
$cfg['Servers'][1]['auth_type'] = 'cookie';
$cfg['Servers'][1]['host'] = 'localhost';
$cfg['Servers'][1]['socket'] = '%s';
$cfg['SendErrorReports'] = 'never';
$cfg['VersionCheck'] = false;
$cfg['LoginCookieValidity'] = 1440;
"""
_FIXTURES = pathlib.Path(__file__).with_name("fixtures") / "phpmyadmin.php"


class PhpMyAdmin:
    name = "phpmyadmin"
    title = "phpMyAdmin"
    documents = "usr/share/phpmyadmin"
    front = "=404"
    written = ("var/lib/phpmyadmin",)
    # As PHP_VERSION_ID.
    oldest_engine = 70205

    def install(self, site):
        site.root.write("etc/phpmyadmin/config.inc.php", _CONFIGURATION % site.database.socket)
        site.root.directory("var/lib/phpmyadmin/tmp")
        site.hand_over()
        site.run_php(variants.VARIANTS[variants.BARE], _FIXTURES, site.database.socket, DATABASE,
                     ADMIN, ADMIN_PASSWORD)

    def visit_pages(self, browser):
        visit_pages(browser, ADMIN, ADMIN_PASSWORD)
