"""MediaWiki: how it is installed."""
import html

import variants
from database import DATABASE, PASSWORD, USER
from mediawiki_pages import visit_pages

ADMIN, ADMIN_PASSWORD = "Editor", "Correct-horse-9"
_EXTENSIONS = ("Cite", "CategoryTree", "ParserFunctions", "WikiEditor", "Poem", "ImageMap",
               "CiteThisPage", "Interwiki", "Nuke", "PageImages", "TextExtracts")
_SKINS = ("Vector", "MonoBook", "Timeless", "MinervaNeue")
_MORE = """
$wgEnableUploads = true;
$wgUseInstantCommons = false;
$wgPingback = false;
$wgEnableEmail = false;
$wgShowExceptionDetails = true;
$wgCacheDirectory = '%(cache)s';
$wgTmpDirectory = '%(temporary)s';
$wgMainCacheType = CACHE_DB;
$wgParserCacheType = CACHE_DB;
$wgSessionCacheType = CACHE_DB;
$wgPasswordAttemptThrottle = [];
$wgGroupPermissions['sysop']['interwiki'] = true;
"""
_WORDS = ("river stone window harbour ladder copper morning engine signal garden paper bridge candle "
          "market winter thread anchor valley orchard lantern").split()


def _article(number):
    word = [_WORDS[(number * 7 + at * 3) % len(_WORDS)] for at in range(40)]
    sections = []
    for section in range(6):
        text = " ".join(word[(at * 5 + section) % 40] for at in range(70))
        sections.append(
            "== %s %s ==\n'''%s''' [[Article %d]] [[%s]] {{Box|name=%s|value=%d}} text.<ref>The %s.</ref> "
            "{{#if:%s|%s|none}} {{#expr: %d * 3 + %d}}\n\n* one\n** two\n* three\n\n"
            "{| class=\"wikitable\"\n! A !! B\n|-\n| %s || %s\n|}\n" % (
                word[section], word[section + 1], text, (number + section) % 30 + 1,
                word[section].capitalize(), word[section], section, word[section + 2], word[3],
                word[4], number, section, word[5], word[6]))
    return "%s\n<poem>\n%s\n%s\n</poem>\n<references />\n[[Category:%s]]\n" % (
        "\n".join(sections), word[0], word[1], "Things" if number % 2 else "Places")


def _dump():
    """The content for the pages to work with, as MediaWiki exports it."""
    pages = {"Article %d" % number: _article(number) for number in range(1, 31)}
    # What a search finds is in no order where it is found equally often.
    pages["Article 17"] += "The lighthouse.\n"
    pages["Template:Box"] = ("<div class=\"box\">{{{name|?}}}: {{{value|0}}} "
                             "{{#switch:{{{value}}}|1=one|2=two|#default=many}}</div>")
    pages["Main Page"] = "Welcome. See [[Article 1]], [[:Category:Things]].\n" + _article(99)
    pages["Category:Things"] = "All things. [[Category:Everything]]"
    pages["Help:Contents"] = "#REDIRECT [[Main Page]]"
    text = ['<mediawiki xmlns="http://www.mediawiki.org/xml/export-0.11/" version="0.11" xml:lang="en">']
    for title, content in pages.items():
        for revision, more in enumerate(("", "\nMore text.\n")):
            if revision == 0:
                text.append("<page><title>%s</title>" % html.escape(title))
            text.append(
                "<revision><timestamp>2022-01-0%dT10:00:00Z</timestamp><contributor><username>Writer"
                "</username></contributor><comment>step</comment><model>wikitext</model><format>"
                "text/x-wiki</format><text>%s</text></revision>" % (
                    revision + 1, html.escape(content + (more if title[:3] == "Art" else ""))))
        text.append("</page>")
    return "\n".join(text) + "</mediawiki>\n"


class MediaWiki:
    name = "mediawiki"
    title = "MediaWiki"
    documents = "usr/share/mediawiki"
    front = "/index.php?title=$uri&$args"
    written = ("var/lib/mediawiki/images", "var/lib/mediawiki/cache")
    # As PHP_VERSION_ID.
    oldest_engine = 70403

    def install(self, site):
        """With its own installer."""
        bare = variants.VARIANTS[variants.BARE]
        configuration = site.root / "etc/mediawiki"
        scripts = site.documents / "maintenance"
        site.run_php(
            bare, scripts / "install.php", "--dbtype=mysql", "--dbserver=localhost:%s"
            % site.database.socket, "--dbname=" + DATABASE, "--dbuser=" + USER,
            "--dbpass=" + PASSWORD, "--server=http://site.test", "--scriptpath=",
            "--confpath=%s" % configuration, "--skins=" + ",".join(_SKINS),
            "--extensions=" + ",".join(_EXTENSIONS), "--pass=" + ADMIN_PASSWORD, "A wiki", ADMIN)
        settings = configuration / "LocalSettings.php"
        settings.write_text(settings.read_text() + _MORE % {
            "cache": site.root / "var/lib/mediawiki/cache", "temporary": site.temporary})
        settings.chmod(0o644)
        site.root.write("dump.xml", _dump())
        site.run_php(bare, scripts / "importDump.php", "--quiet", "--username-prefix=",
                     str(site.root / "dump.xml"))
        for name in ("rebuildrecentchanges.php", "rebuildtextindex.php", "runJobs.php"):
            site.run_php(bare, scripts / name)
        site.run_php(bare, scripts / "initSiteStats.php", "--update")

    def visit_pages(self, browser):
        visit_pages(browser, ADMIN, ADMIN_PASSWORD)
