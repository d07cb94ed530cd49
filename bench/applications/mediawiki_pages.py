"""MediaWiki: what is visited, in this order."""
import json

from pictures import png


def visit_pages(browser, user, password):
    _read(browser)
    _read_special_pages(browser)
    _load(browser)
    _query(browser)
    _write_as_guest(browser)
    _log_in(browser, user, password)
    _write(browser)
    _upload(browser)
    _administrate(browser)
    _write_by_api(browser)
    _log_out(browser)


def _page(title, more=""):
    return "/index.php?title=" + title + more


def _read(browser):
    for name, target in (
            ("front", "/"), ("main page", _page("Main_Page")), ("article", _page("Article_1")),
            ("article from the parser cache", _page("Article_1")), ("second article", _page("Article_2")),
            ("article by path", "/index.php/Article_3"), ("redirected", _page("Help:Contents")),
            ("not redirected", _page("Help:Contents", "&redirect=no")),
            ("category", _page("Category:Things")), ("template", _page("Template:Box")),
            ("missing article", _page("No_such_article")), ("missing talk", _page("Talk:Article_1")),
            ("bad title", _page("%5B%5D")), ("title with markup", _page("%3Cb%3E%C3%A4")),
            ("history", _page("Article_1", "&action=history")),
            ("differences", _page("Article_1", "&diff=prev&oldid=4")),
            ("old revision", _page("Article_1", "&oldid=3")), ("raw", _page("Article_1", "&action=raw")),
            ("rendered", _page("Article_1", "&action=render")),
            ("information", _page("Article_1", "&action=info")),
            ("edit form of a guest", _page("Article_1", "&action=edit")),
            ("purge", _page("Article_1", "&action=purge")), ("printable", _page("Article_4", "&printable=yes")),
            ("unknown action", _page("Article_1", "&action=nothing")),
            ("protect as a guest", _page("Article_1", "&action=protect")),
            ("in German", _page("Article_5", "&uselang=de")), ("in Japanese", _page("Article_6", "&uselang=ja")),
            ("MonoBook", _page("Article_7", "&useskin=monobook")),
            ("Timeless", _page("Article_8", "&useskin=timeless")),
            ("Minerva", _page("Article_9", "&useskin=minerva")),
            ("feed of a history", _page("Article_1", "&action=history&feed=atom"))):
        browser.get(name, target)
    browser.ask("head", "HEAD", _page("Article_1"))


def _read_special_pages(browser):
    for name in ("RecentChanges", "AllPages", "SpecialPages", "Version", "Statistics", "ListUsers",
                 "ListFiles", "NewPages", "Log", "WhatLinksHere/Article_1",
                 "RecentChangesLinked/Article_1", "Contributions/Editor", "Categories", "LonelyPages",
                 "LongPages", "Export", "Import", "MovePage/Article_1", "UserLogin", "CreateAccount",
                 "PasswordReset", "Preferences", "Watchlist", "Upload", "ExpandTemplates",
                 "ComparePages", "ListGroupRights", "AllMessages", "CiteThisPage/Article_1",
                 "Interwiki", "CategoryTree", "NoSuchSpecialPage"):
        browser.get("special page: " + name, "/index.php?title=Special:" + name)
    browser.get("search", _page("Special:Search", "&search=lighthouse&fulltext=1"))
    browser.get("search in vain", _page("Special:Search", "&search=xyzzy&fulltext=1"))
    browser.get("go to a page", _page("Special:Search", "&search=Article+1&go=Go"))
    browser.get("recent changes feed", _page("Special:RecentChanges", "&feed=atom"))
    browser.post("exported pages", _page("Special:Export"),
                 {"pages": "Article 1\nTemplate:Box", "curonly": "1", "wpDownload": "1"})


def _load(browser):
    for name, target in (
            ("startup", "/load.php?lang=en&modules=startup&only=scripts&raw=1&skin=vector"),
            ("styles", "/load.php?lang=en&modules=site.styles%7Cskins.vector.styles.legacy&only=styles&skin=vector"),
            ("scripts", "/load.php?lang=en&modules=jquery%7Cmediawiki.base&skin=vector"),
            ("scripts for debugging", "/load.php?debug=true&lang=en&modules=mediawiki.util&skin=vector"),
            ("unknown module", "/load.php?lang=en&modules=no.such&only=scripts"),
            ("open search description", "/opensearch_desc.php"), ("missing thumbnail", "/thumb.php?f=None.png&w=20"),
            ("private picture", "/img_auth.php/a/ab/None.png"), ("installer", "/mw-config/index.php")):
        browser.get("load: " + name, target)


def _query(browser):
    query = "/api.php?format=json&action="
    for name, target in (
            ("help", "/api.php"), ("site", query + "query&meta=siteinfo&siprop=general|statistics|namespaces"),
            ("pages", query + "query&list=allpages&aplimit=50"),
            ("revisions", query + "query&prop=revisions&titles=Article%201&rvprop=content|ids&rvslots=main"),
            ("parse", query + "parse&page=Article_1"), ("parse text", query + "parse&text=%7B%7BBox%7Cname=x%7D%7D&contentmodel=wikitext"),
            ("search", query + "query&list=search&srsearch=lighthouse"), ("suggest", query + "opensearch&search=Art"),
            ("changes", query + "query&list=recentchanges&rclimit=20"),
            ("changes feed", "/api.php?action=feedrecentchanges"),
            ("compare", query + "compare&fromrev=3&torev=4"), ("extracts", query + "query&prop=extracts&exintro=1&titles=Article%202"),
            ("generator", query + "query&generator=allpages&gaplimit=10&prop=info|categories"),
            ("as XML", "/api.php?format=xml&action=query&list=allpages"),
            ("as a page", "/api.php?format=jsonfm&action=query&list=allpages"),
            ("expand", query + "expandtemplates&text=%7B%7BBox%7D%7D&prop=wikitext"),
            ("unknown action", query + "nothing"), ("user", query + "query&meta=userinfo&uiprop=rights|groups"),
            ("parameters", query + "paraminfo&modules=query")):
        browser.get("api: " + name, target)
    for name, target in (
            ("page", "page/Article_1"), ("bare page", "page/Article_1/bare"), ("HTML", "page/Article_1/html"),
            ("history", "page/Article_1/history"), ("search", "search/page?q=lighthouse"),
            ("titles", "search/title?q=Art"), ("missing", "page/None"), ("no route", "none")):
        browser.get("rest: " + name, "/rest.php/v1/" + target)


def _write_as_guest(browser):
    form = browser.get("new page", _page("By_a_guest", "&action=edit")).form("editform")
    form.update(wpTextbox1="Text & <b>more</b> ~~~~", wpSummary="guest")
    browser.post("preview", _page("By_a_guest", "&action=submit"), {**form, "wpPreview": "1"})
    browser.post("save as a guest", _page("By_a_guest", "&action=submit"), {**form, "wpSave": "1"})
    browser.get("page of a guest", _page("By_a_guest"))


def _log_in(browser, user, password):
    form = browser.get("log in form", _page("Special:UserLogin", "&returnto=Main+Page")).form("userlogin")
    form.update(wpName=user, wpPassword="wrong", wploginattempt="Log in")
    form = browser.post("log in wrongly", _page("Special:UserLogin", "&returnto=Main+Page"), form).form("userlogin")
    form.update(wpName=user, wpPassword=password, wploginattempt="Log in")
    browser.post("log in", _page("Special:UserLogin", "&returnto=Main+Page"), form)
    browser.get("main page, logged in", _page("Main_Page"))


def _write(browser):
    """Each change in a second of its own: lists of changes have no order within one."""
    submit = _page("Article_10", "&action=submit")
    form = browser.get("edit", _page("Article_10", "&action=edit")).form("editform")
    form.update(wpTextbox1=form["wpTextbox1"] + "\nAdded [[Article 11]].\n", wpSummary="more")
    browser.post("show changes", submit, {**form, "wpDiff": "1"})
    browser.post("save", submit, {**form, "wpSave": "1"})
    browser.get("saved", _page("Article_10"))
    browser.wait_for_next_second()
    browser.post("save an old one", submit, {**form, "wpTextbox1": "other", "wpSave": "1"})
    browser.wait_for_next_second()
    form = browser.get("edit a section", _page("Article_12", "&action=edit&section=2")).form("editform")
    browser.post("save a section", _page("Article_12", "&action=submit"), {**form, "wpTextbox1": "== New ==\nText.", "wpSave": "1"})
    browser.wait_for_next_second()
    form = browser.get("new section", _page("Talk:Article_10", "&action=edit&section=new")).form("editform")
    browser.post("save the talk", _page("Talk:Article_10", "&action=submit"),
                 {**form, "wpTextbox1": "Hello ~~~~", "wpSummary": "Talk", "wpSave": "1"})
    browser.wait_for_next_second()
    form = browser.get("move form", _page("Special:MovePage/Article_20")).form("movepage")
    browser.post("move", _page("Special:MovePage", "&action=submit"),
                 {**form, "wpNewTitleMain": "Article moved", "wpReason": "test"})
    browser.wait_for_next_second()
    form = browser.get("delete form", _page("Article_21", "&action=delete")).form("deleteconfirm")
    browser.post("delete", _page("Article_21", "&action=delete"), {**form, "wpReason": "test"})
    browser.get("deleted", _page("Article_21"))
    browser.wait_for_next_second()
    form = browser.get("protect form", _page("Article_22", "&action=protect")).form("mw-Protect-Form")
    browser.post("protect", _page("Article_22", "&action=protect"),
                 {**form, "mwProtect-level-edit": "sysop", "mwProtect-reason": "test"})


def _upload(browser):
    for name, data, kind in (("One.png", png(), "image/png"), ("Bad.png", b"<?php echo 1;", "image/png")):
        form = browser.get("upload form for " + name, _page("Special:Upload")).form("mw-upload-form")
        form.update(wpDestFile=name, wpUploadDescription="A picture", wpIgnoreWarning="1", wpUpload="Upload")
        browser.post("upload " + name, _page("Special:Upload"), form,
                     files={"wpUploadFile": (name, kind, data)})
    browser.get("file page", _page("File:One.png"))
    browser.get("list of files", _page("Special:ListFiles"))


def _administrate(browser):
    for name in ("Preferences", "Watchlist", "UserRights/Writer", "Block", "BlockList", "Undelete/Article_21",
                 "Nuke", "Import", "EditWatchlist", "NewImages", "BotPasswords", "UnwatchedPages"):
        browser.get("administration: " + name, "/index.php?title=Special:" + name)
    form = browser.get("block form", _page("Special:Block/192.0.2.7")).form("Special:Block")
    form.update({"wpTarget": "192.0.2.7", "wpExpiry": "infinite", "wpReason": "other"})
    browser.post("block", _page("Special:Block/192.0.2.7"), form)


def _write_by_api(browser):
    told = browser.get("api: token", "/api.php?action=query&meta=tokens&format=json")
    token = json.loads(told.text)["query"]["tokens"]["csrftoken"]
    given = {"format": "json", "token": token}
    browser.post("api: edit", "/api.php", {**given, "action": "edit", "title": "By the api",
                                           "text": "Text \u00e4\u4e2d {{Box|name=x|value=1}}"})
    browser.post("api: append", "/api.php", {**given, "action": "edit", "title": "By the api",
                                             "appendtext": " and more"})
    browser.post("api: bad token", "/api.php", {**given, "action": "edit", "title": "x", "text": "y",
                                                "token": "bad"})
    browser.post("api: upload", "/api.php", {**given, "action": "upload", "filename": "Two.png",
                                             "ignorewarnings": "1"},
                 files={"file": ("Two.png", "image/png", png(100, 80))})
    browser.post("api: watch", "/api.php", {**given, "action": "query", "meta": "tokens", "type": "watch"})
    browser.post("api: purge", "/api.php", {**given, "action": "purge", "titles": "Article 1|Article 2"})
    browser.post("api: delete", "/api.php", {**given, "action": "delete", "title": "By the api"})


def _log_out(browser):
    form = browser.get("log out form", _page("Special:UserLogout")).form("Special:UserLogout")
    browser.post("log out", _page("Special:UserLogout"), form)
    browser.get("logged out", _page("Main_Page"))
