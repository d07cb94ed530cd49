"""WordPress: how it is installed."""
import pathlib

import variants
from client import Browser
from database import DATABASE, PASSWORD, USER
from processes import Failure
from wordpress_pages import visit_pages

ADMIN, ADMIN_PASSWORD = "editor", "Correct-horse-9"
_CONFIGURATION = """<?php
define('DB_NAME', '%s');
define('DB_USER', '%s');
define('DB_PASSWORD', '%s');
define('DB_HOST', 'localhost:%s');
define('DB_CHARSET', 'utf8mb4');
define('WP_CONTENT_DIR', '%s');
foreach (['AUTH', 'SECURE_AUTH', 'LOGGED_IN', 'NONCE'] as $name) {
    define($name . '_KEY', 'bench ' . $name);
    define($name . '_SALT', 'salt ' . $name);
}
// Nothing is asked of other hosts, and of this one only by us.
define('WP_HTTP_BLOCK_EXTERNAL', true);
define('DISABLE_WP_CRON', true);
define('AUTOMATIC_UPDATER_DISABLED', true);
"""
_FIXTURES = pathlib.Path(__file__).with_name("fixtures") / "wordpress.php"


class WordPress:
    name = "wordpress"
    title = "WordPress"
    packages = ("wordpress", "wordpress-theme-twentytwentythree")
    documents = "usr/share/wordpress"
    front = "/index.php?$args"
    written = ("var/lib/wordpress",)
    # As PHP_VERSION_ID.
    oldest_engine = 50620

    def install(self, site):
        """Through its own form."""
        site.root.write("etc/wordpress/config-default.php", _CONFIGURATION % (
            DATABASE, USER, PASSWORD, site.database.socket,
            site.root / "var/lib/wordpress/wp-content"))
        uploads = site.root / "var/lib/wordpress/wp-content/uploads"
        uploads.mkdir(exist_ok=True)
        # A theme is a directory of the packages', which is not written to.
        site.hand_over()
        bare = variants.VARIANTS[variants.BARE]
        servers = site.serve(bare)
        try:
            done = Browser(servers).post("install", "/wp-admin/install.php?step=2", {
                "weblog_title": "A site", "user_name": ADMIN, "admin_password": ADMIN_PASSWORD,
                "admin_password2": ADMIN_PASSWORD, "pw_weak": "1",
                "admin_email": "editor@example.org", "blog_public": "1", "language": ""})
        finally:
            servers.stop()
        if "Success" not in done.text:
            raise Failure("WordPress was not installed (status %s): %s %s"
                          % (done.status, done.text[-1500:], done.log[-1000:]))
        site.run_php(bare, _FIXTURES, str(site.documents))

    def visit_pages(self, browser):
        visit_pages(browser, ADMIN, ADMIN_PASSWORD)
