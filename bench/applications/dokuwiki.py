"""DokuWiki: how it is set up. It needs no database."""
import pathlib

import variants
from dokuwiki_pages import visit_pages

ADMIN, ADMIN_PASSWORD = "editor", "Correct-horse-9"
_CONFIGURATION = """<?php
$conf['title'] = 'A wiki';
$conf['license'] = '0';
$conf['useacl'] = 1;
$conf['superuser'] = '@admin';
$conf['remote'] = 1;
$conf['remoteuser'] = '';
$conf['subscribers'] = 1;
$conf['sitemap'] = 7;
$conf['updatecheck'] = 0;
$conf['cookiedir'] = '/';
"""
_ACCESS = """# what may be done with which page
*               @ALL        8
*               @user       16
private:*       @ALL        0
private:*       @user       16
"""
_FIXTURES = pathlib.Path(__file__).with_name("fixtures") / "dokuwiki.php"


class DokuWiki:
    name = "dokuwiki"
    title = "DokuWiki"
    documents = "usr/share/dokuwiki"
    front = "/doku.php?id=$uri&$args"
    written = ("var/lib/dokuwiki", "etc/dokuwiki")
    # As PHP_VERSION_ID.
    oldest_engine = 70200

    def install(self, site):
        site.root.write("etc/dokuwiki/local.php", _CONFIGURATION)
        accounts = site.root / "var/lib/dokuwiki/acl"
        (accounts / "acl.auth.php").write_text(_ACCESS)
        site.hand_over()
        site.run_php(variants.VARIANTS[variants.BARE], _FIXTURES, str(site.documents),
                     str(accounts / "users.auth.php"), ADMIN, ADMIN_PASSWORD)

    def visit_pages(self, browser):
        visit_pages(browser, ADMIN, ADMIN_PASSWORD)
