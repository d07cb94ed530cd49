"""DokuWiki: what is visited, in this order."""
from pictures import png

_METHOD = "<?xml version='1.0'?><methodCall><methodName>%s</methodName><params>%s</params></methodCall>"
_STRING = "<param><value><string>%s</string></value></param>"


def visit_pages(browser, user, password):
    _read(browser)
    _read_files(browser)
    _call_remotely(browser)
    _write_as_guest(browser)
    _log_in(browser, user, password)
    _write(browser)
    _media(browser)
    _administrate(browser)
    _log_out(browser)


def _read(browser):
    for name, target in (
            ("start", "/doku.php"), ("front", "/"), ("start by name", "/doku.php?id=start"),
            ("syntax", "/doku.php?id=wiki:syntax"), ("welcome", "/doku.php?id=wiki:welcome"),
            ("page", "/doku.php?id=notes:stone1"), ("page of the root", "/doku.php?id=window2"),
            ("page from its cache", "/doku.php?id=notes:stone1"),
            ("page, not from its cache", "/doku.php?id=notes:stone1&purge=true"),
            ("missing page", "/doku.php?id=no:such:page"), ("strange name", "/doku.php?id=%3Cb%3E%C3%A4%20x"),
            ("forbidden page", "/doku.php?id=private:page"),
            ("namespace", "/doku.php?id=projects:"), ("index", "/doku.php?id=start&do=index"),
            ("index of a namespace", "/doku.php?id=start&do=index&idx=projects"),
            ("recent changes", "/doku.php?id=start&do=recent"),
            ("more recent changes", "/doku.php?id=start&do=recent&first=20"),
            ("revisions", "/doku.php?id=notes:stone1&do=revisions"),
            ("differences", "/doku.php?id=notes:stone1&do=diff"),
            ("backlinks", "/doku.php?id=notes:stone1&do=backlink"),
            ("search", "/doku.php?id=start&do=search&q=harbour"),
            ("search for two", "/doku.php?do=search&q=river+%2Bstone"),
            ("search for a phrase", "/doku.php?do=search&q=%22river+stone%22"),
            ("search in a namespace", "/doku.php?do=search&q=river+%40notes"),
            ("search in vain", "/doku.php?do=search&q=xyzzy"),
            ("search with markup", "/doku.php?do=search&q=%3Cb%3E%22a%22"),
            ("source", "/doku.php?id=wiki:syntax&do=edit"),
            ("unknown action", "/doku.php?id=start&do=nothing"),
            ("login form", "/doku.php?id=start&do=login"), ("register", "/doku.php?id=start&do=register"),
            ("lost password form", "/doku.php?id=start&do=resendpwd"),
            ("administration from outside", "/doku.php?id=start&do=admin"),
            ("profile from outside", "/doku.php?id=start&do=profile"),
            ("media manager from outside", "/doku.php?id=start&do=media&ns=wiki"),
            ("check", "/doku.php?id=start&do=check")):
        browser.get(name, target)
    browser.ask("head", "HEAD", "/doku.php?id=start")


def _read_files(browser):
    for name, target in (
            ("raw text", "/doku.php?id=wiki:syntax&do=export_raw"),
            ("exported page", "/doku.php?id=wiki:syntax&do=export_xhtml"),
            ("exported body", "/doku.php?id=wiki:syntax&do=export_xhtmlbody"),
            ("exported code", "/doku.php?id=wiki:syntax&do=export_code&codeblock=1"),
            ("unknown export", "/doku.php?id=wiki:syntax&do=export_nothing"),
            ("feed", "/feed.php"), ("atom feed", "/feed.php?type=atom1"),
            ("feed of a list", "/feed.php?mode=list&ns=notes"),
            ("feed of a search", "/feed.php?mode=search&q=river"),
            ("feed of media", "/feed.php?view=media"), ("sitemap", "/doku.php?do=sitemap"),
            ("style sheet", "/lib/exe/css.php?t=dokuwiki"),
            ("style sheet for print", "/lib/exe/css.php?t=dokuwiki&s=print"),
            ("scripts", "/lib/exe/js.php?t=dokuwiki"), ("jquery", "/lib/exe/jquery.php"),
            ("manifest", "/lib/exe/manifest.php"), ("open search", "/lib/exe/opensearch.php"),
            ("picture", "/lib/exe/fetch.php?media=wiki:dokuwiki-128.png"),
            ("missing picture", "/lib/exe/fetch.php?media=wiki:none.png"),
            ("picture with a wrong token", "/lib/exe/fetch.php?media=wiki:dokuwiki-128.png&w=20&tok=1"),
            ("details of a picture", "/lib/exe/detail.php?id=start&media=wiki:dokuwiki-128.png"),
            ("details of none", "/lib/exe/detail.php?id=start&media=wiki:none.png"),
            ("media pop-up", "/lib/exe/mediamanager.php?ns=wiki"),
            ("ajax without a call", "/lib/exe/ajax.php"),
            ("installer", "/install.php"), ("not found", "/lib/none.php")):
        browser.get(name, target)
    for name, fields in (
            ("quick search", {"call": "qsearch", "q": "stone"}),
            ("suggestions", {"call": "suggestions", "q": "wiki"}),
            ("index by ajax", {"call": "index", "idx": "projects"}),
            ("media list by ajax", {"call": "medialist", "ns": "wiki", "do": "media"}),
            ("link wizard", {"call": "linkwiz", "q": "notes:"}),
            ("unknown call", {"call": "nothing"})):
        browser.post(name, "/lib/exe/ajax.php", fields)
    # It answers with a picture and goes on.
    browser.get("task runner", "/lib/exe/taskrunner.php?id=window2&1", is_repeatable=False)
    browser.get("task runner again", "/lib/exe/taskrunner.php?id=window2&2", is_repeatable=False)


def _call_remotely(browser):
    page = _STRING % "notes:stone1"
    for name, method, parameters in (
            ("version", "dokuwiki.getVersion", ""), ("title", "dokuwiki.getTitle", ""),
            ("page", "wiki.getPage", page), ("page as HTML", "wiki.getPageHTML", page),
            ("all pages", "wiki.getAllPages", ""), ("links", "wiki.listLinks", page),
            ("search", "dokuwiki.search", _STRING % "river"), ("unknown", "no.such", ""),
            ("access", "wiki.aclCheck", page), ("list of methods", "system.listMethods", "")):
        browser.post("xml-rpc " + name, "/lib/exe/xmlrpc.php",
                     body=(_METHOD % (method, parameters)).encode(),
                     headers={"Content-Type": "text/xml"})
    browser.post("xml-rpc broken", "/lib/exe/xmlrpc.php", body=b"<methodCall><a",
                 headers={"Content-Type": "text/xml"})
    browser.get("xml-rpc by get", "/lib/exe/xmlrpc.php")
    browser.post("json-rpc", "/lib/exe/jsonrpc.php", headers={"Content-Type": "application/json"},
                 body=b'{"jsonrpc":"2.0","method":"wiki.getPage","params":["start"],"id":1}')


def _write_as_guest(browser):
    form = browser.get("edit as a guest", "/doku.php?id=guest:page&do=edit").form("dw__editform")
    form.update(wikitext="====== By a guest ======\n\nText & <b>more</b> ''x''.\n", summary="guest")
    browser.post("preview", "/doku.php?id=guest:page", {**form, "do[preview]": "Preview"})
    browser.post("save as a guest", "/doku.php?id=guest:page", {**form, "do[save]": "Save"})
    browser.get("page of a guest", "/doku.php?id=guest:page")
    form = browser.get("register form", "/doku.php?id=start&do=register").form("dw__register")
    form.update(login="reader", fullname="A Reader", email="reader@example.org")
    browser.post("register", "/doku.php?id=start&do=register", form)


def _log_in(browser, user, password):
    form = browser.get("log in form", "/doku.php?id=start&do=login").form("dw__login")
    browser.post("log in wrongly", "/doku.php?id=start&do=login", {**form, "u": user, "p": "wrong"})
    form = browser.visits[-1].form("dw__login")
    browser.post("log in", "/doku.php?id=start&do=login", {**form, "u": user, "p": password})
    browser.get("start, logged in", "/doku.php?id=start")


def _write(browser):
    form = browser.get("edit", "/doku.php?id=notes:stone1&do=edit").form("dw__editform")
    form.update(wikitext=form["wikitext"] + "\nAdded.\n", summary="more")
    browser.post("save", "/doku.php?id=notes:stone1", {**form, "do[save]": "Save"})
    # The old text of a page is kept under the second of its change.
    browser.wait_for_next_second()
    browser.post("save an old one", "/doku.php?id=notes:stone1",
                 {**form, "wikitext": "other", "do[save]": "Save"})
    form = browser.get("edit again", "/doku.php?id=window2&do=edit").form("dw__editform")
    browser.post("cancel", "/doku.php?id=window2", {**form, "do[cancel]": "Cancel"})
    browser.get("lock", "/doku.php?id=window2&do=edit")
    browser.get("subscribe form", "/doku.php?id=notes:stone1&do=subscribe")
    form = browser.get("profile", "/doku.php?id=start&do=profile").form("dw__register")
    browser.post("save the profile", "/doku.php?id=start&do=profile",
                 {**form, "fullname": "The Editor Again", "oldpass": "Correct-horse-9"})
    form = browser.get("edit to remove", "/doku.php?id=guest:page&do=edit").form("dw__editform")
    browser.post("remove", "/doku.php?id=guest:page", {**form, "wikitext": "", "do[save]": "Save"})


def _media(browser):
    page = browser.get("media manager", "/doku.php?id=start&do=media&ns=wiki")
    token = page.find(r'name="sectok" value="(\w+)"')
    browser.ask("upload", "POST", "/lib/exe/ajax.php?call=mediaupload&ns=pictures&qqfile=one.png"
                "&mediaid=one.png&sectok=" + token, png(),
                {"Content-Type": "application/octet-stream"})
    browser.post("upload by form", "/lib/exe/mediamanager.php",
                 {"sectok": token, "ns": "pictures", "mediaid": "two.png"},
                 files={"upload": ("two.png", "image/png", png(64, 64))})
    browser.post("upload a script", "/lib/exe/mediamanager.php",
                 {"sectok": token, "ns": "pictures", "mediaid": "bad.php"},
                 files={"upload": ("bad.php", "text/plain", b"<?php echo 1;")})
    browser.get("uploaded", "/lib/exe/fetch.php?media=pictures:one.png")
    browser.get("details of the uploaded", "/lib/exe/detail.php?id=start&media=pictures:one.png")
    browser.get("media of a namespace", "/doku.php?id=start&do=media&ns=pictures")
    browser.get("media, one", "/doku.php?id=start&do=media&ns=pictures&image=pictures%3Aone.png")
    browser.get("delete media", "/lib/exe/mediamanager.php?delete=pictures%3Atwo.png&sectok=" + token,
                is_repeatable=False)


def _administrate(browser):
    browser.get("administration", "/doku.php?id=start&do=admin")
    for page in ("config", "acl", "usermanager", "revert", "logviewer", "styling", "popularity",
                 "extension", "nothing"):
        browser.get("administration: " + page, "/doku.php?id=start&do=admin&page=" + page)
    browser.get("users, found", "/doku.php?id=start&do=admin&page=usermanager&userid=editor")
    browser.get("check, logged in", "/doku.php?id=start&do=check")


def _log_out(browser):
    page = browser.get("before leaving", "/doku.php?id=start")
    browser.get("log out", page.find(r'href="(/doku\.php\?id=start&amp;do=logout[^"]*)"'))
    browser.get("logged out", "/doku.php?id=start")
