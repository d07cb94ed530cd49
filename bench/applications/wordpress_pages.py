"""WordPress: what is visited, in this order."""
import json

from pictures import png

_METHOD = "<?xml version='1.0'?><methodCall><methodName>%s</methodName><params>%s</params></methodCall>"


def visit_pages(browser, user, password):
    _read(browser)
    _read_machines(browser)
    _read_rest(browser)
    _call_xmlrpc(browser, user, password)
    _take_part(browser)
    _log_in(browser, user, password)
    nonce = _write(browser)
    _look_at_administration(browser)
    _administrate(browser)
    _write_rest(browser, nonce)
    _log_out(browser)


def _read(browser):
    for name, target in (
            ("front page", "/"), ("second page", "/page/2/"), ("last page", "/page/5/"),
            ("post", "/2022/01/post-5/"), ("post with comments", "/2022/01/post-13/"),
            ("post behind a password", "/2022/02/post-40/"), ("page", "/about/"),
            ("category", "/category/news/"), ("second page of a category", "/category/travel/page/2/"),
            ("tag", "/tag/river/"), ("author", "/author/editor/"), ("year", "/2022/"),
            ("month", "/2022/01/"), ("day", "/2022/01/05/"), ("search", "/?s=harbour"),
            ("search in vain", "/?s=xyzzy"), ("search with markup", "/?s=%3Cb%3E%22a%22%26"),
            ("short address", "/?p=1"), ("wrong address", "/2022/01/post-5"),
            ("not found", "/no-such-page/"), ("not found below", "/a/b/c/d/"),
            ("not found script", "/nothing.php"), ("sample page", "/sample-page/")):
        browser.get(name, target)
    browser.ask("head of a post", "HEAD", "/2022/01/post-5/")
    browser.post("password of a post", "/wp-login.php?action=postpass",
                 {"post_password": "open", "Submit": "Enter"},
                 headers={"Referer": "http://site.test/2022/02/post-40/"})
    browser.get("post with its password", "/2022/02/post-40/")


def _read_machines(browser):
    for name, target in (
            ("atom feed", "/feed/atom/"), ("comments feed", "/comments/feed/"),
            ("category feed", "/category/news/feed/"), ("post feed", "/2022/01/post-13/feed/"),
            ("robots", "/robots.txt"), ("sitemap", "/wp-sitemap.xml"),
            ("sitemap of posts", "/wp-sitemap-posts-post-1.xml"),
            ("sitemap style", "/wp-sitemap.xsl"), ("links", "/wp-links-opml.php"),
            ("activate", "/wp-activate.php"),
            ("login form", "/wp-login.php"), ("lost password form", "/wp-login.php?action=lostpassword"),
            ("register", "/wp-login.php?action=register"), ("administration from outside", "/wp-admin/"),
            ("ajax from outside", "/wp-admin/admin-ajax.php?action=nothing"),
            ("comment by get", "/wp-comments-post.php"), ("mail", "/wp-mail.php")):
        browser.get(name, target)
    browser.get("cron", "/wp-cron.php?doing_wp_cron", is_repeatable=False)
    feed = browser.get("feed", "/feed/")
    browser.get("feed again", "/feed/", {"If-Modified-Since": feed.header("Last-Modified")
                                         or "Sat, 01 Jan 2033 00:00:00 GMT"})


def _read_rest(browser):
    for name, target in (
            ("rest index", "/wp-json/"), ("rest posts", "/wp-json/wp/v2/posts?per_page=20"),
            ("rest post", "/wp-json/wp/v2/posts/1"), ("rest fields", "/wp-json/wp/v2/posts?_fields=id,title"),
            ("rest embedded", "/wp-json/wp/v2/posts?per_page=5&_embed"),
            ("rest pages", "/wp-json/wp/v2/pages"), ("rest comments", "/wp-json/wp/v2/comments"),
            ("rest categories", "/wp-json/wp/v2/categories"), ("rest tags", "/wp-json/wp/v2/tags"),
            ("rest users", "/wp-json/wp/v2/users"), ("rest search", "/wp-json/wp/v2/search?search=river"),
            ("rest types", "/wp-json/wp/v2/types"), ("rest not found", "/wp-json/wp/v2/nothing"),
            ("rest forbidden", "/wp-json/wp/v2/settings"), ("rest bad parameter", "/wp-json/wp/v2/posts?page=x"),
            ("oembed", "/wp-json/oembed/1.0/embed?url=http%3A%2F%2Fsite.test%2F2022%2F01%2Fpost-5%2F"),
            ("embedded post", "/2022/01/post-5/embed/"), ("rest by query", "/index.php?rest_route=/")):
        browser.get(name, target)
    browser.post("rest write forbidden", "/wp-json/wp/v2/posts", body=b'{"title":"x"}',
                 headers={"Content-Type": "application/json"})
    browser.post("rest broken", "/wp-json/wp/v2/posts", body=b'{"title":',
                 headers={"Content-Type": "application/json"})


def _string(text):
    return "<param><value><string>%s</string></value></param>" % text


def _call_xmlrpc(browser, user, password):
    blog = "<param><value><int>1</int></value></param>"
    account = blog + _string(user) + _string(password)
    post = ("<param><value><struct><member><name>post_title</name><value>By XML-RPC</value></member>"
            "<member><name>post_content</name><value>Text &amp; more</value></member>"
            "<member><name>post_status</name><value>publish</value></member></struct></value></param>")
    for name, method, parameters in (
            ("xml-rpc methods", "system.listMethods", ""),
            ("xml-rpc sum", "demo.addTwoNumbers", blog + blog),
            ("xml-rpc blogs", "wp.getUsersBlogs", _string(user) + _string(password)),
            ("xml-rpc posts", "wp.getPosts", account), ("xml-rpc options", "wp.getOptions", account),
            ("xml-rpc new post", "wp.newPost", account + post),
            ("xml-rpc wrong password", "wp.getPosts", blog + _string(user) + _string("no")),
            ("xml-rpc unknown", "no.such", ""),
            ("xml-rpc pingback", "pingback.ping", _string("http://site.test/x")
             + _string("http://site.test/?p=1"))):
        browser.post(name, "/xmlrpc.php", body=(_METHOD % (method, parameters)).encode(),
                     headers={"Content-Type": "text/xml"})
    browser.post("xml-rpc broken", "/xmlrpc.php", body=b"<methodCall><a",
                 headers={"Content-Type": "text/xml"})
    browser.get("xml-rpc by get", "/xmlrpc.php")
    browser.get("xml-rpc discovery", "/xmlrpc.php?rsd")


def _take_part(browser):
    form = browser.get("post to comment on", "/2022/01/post-6/").form("commentform")
    form.update(comment="Said & done: \"<b>yes</b>\"", author="Visitor", email="v@example.org",
                url="http://example.org/")
    browser.post("comment", "/wp-comments-post.php", form)
    browser.post("comment twice", "/wp-comments-post.php", form)
    browser.post("empty comment", "/wp-comments-post.php", dict(form, comment=""))
    browser.get("post with the comment", "/2022/01/post-6/")
    browser.post("trackback", "/2022/01/post-5/trackback/",
                 {"title": "x", "url": "http://example.org/x", "excerpt": "y", "blog_name": "z"})
    browser.post("lost password", "/wp-login.php?action=lostpassword",
                 {"user_login": "nobody", "redirect_to": "", "wp-submit": "Get"})
    browser.post("lost password sent", "/wp-login.php?action=lostpassword",
                 {"user_login": "editor", "redirect_to": "", "wp-submit": "Get"})


def _log_in(browser, user, password):
    browser.get("log in form", "/wp-login.php?redirect_to=%2Fwp-admin%2F")
    browser.post("log in wrongly", "/wp-login.php",
                 {"log": user, "pwd": "wrong", "wp-submit": "Log In", "testcookie": "1"})
    browser.post("log in", "/wp-login.php",
                 {"log": user, "pwd": password, "wp-submit": "Log In", "testcookie": "1",
                  "redirect_to": "/wp-admin/"})
    browser.get("dashboard", "/wp-admin/")
    browser.get("front page for the author", "/")


def _write(browser):
    """Posts, pictures, comments. Returns the nonce of the REST interface."""
    editor = browser.get("block editor", "/wp-admin/post-new.php")
    nonce = editor.find(r'createNonceMiddleware\( "(\w+)"')
    browser.get("list of posts", "/wp-admin/edit.php")
    browser.get("list of posts, searched", "/wp-admin/edit.php?s=river&post_status=all")
    form = browser.get("post in the editor", "/wp-admin/post.php?post=1&action=edit").form("metabox-base-form")
    form.update(post_title="Hello again", content="Changed.", action="editpost", post_ID="1",
                post_status="publish", save="Update")
    browser.post("save a post", "/wp-admin/post.php", form)
    media = browser.get("new media", "/wp-admin/media-new.php").form("file-form")
    browser.post("upload", "/wp-admin/async-upload.php",
                 {"name": "picture.png", "action": "upload-attachment", "_wpnonce": media["_wpnonce"]},
                 files={"async-upload": ("picture.png", "image/png", png())})
    browser.wait_for_next_second()
    browser.post("upload by form", "/wp-admin/media-new.php",
                 dict(media, **{"html-upload": "Upload"}),
                 files={"async-upload": ("second.png", "image/png", png(64, 64))})
    browser.post("upload a script", "/wp-admin/media-new.php",
                 dict(media, **{"html-upload": "Upload"}),
                 files={"async-upload": ("bad.php", "text/plain", b"<?php echo 1;")})
    browser.get("media library", "/wp-admin/upload.php?mode=list")
    browser.get("media library as a grid", "/wp-admin/upload.php?mode=grid")
    browser.post("media by ajax", "/wp-admin/admin-ajax.php",
                 {"action": "query-attachments", "post_id": "0", "query[posts_per_page]": "20"})
    return nonce


def _look_at_administration(browser):
    for page in ("edit.php?post_type=page", "edit-tags.php?taxonomy=category", "edit-comments.php",
                 "themes.php", "customize.php", "site-editor.php", "plugins.php", "users.php",
                 "user-new.php", "profile.php", "tools.php", "import.php", "export.php",
                 "export.php?download=true&content=all", "options-general.php",
                 "options-writing.php", "options-reading.php", "options-discussion.php",
                 "options-media.php", "options-permalink.php", "options-privacy.php", "options.php",
                 "update-core.php", "about.php", "credits.php", "no-such-page.php",
                 "admin.php?page=nothing", "load-styles.php?c=1&load[]=common,forms,admin-menu",
                 "load-scripts.php?c=1&load[]=jquery-core,utils,underscore"):
        browser.get("administration: " + page.partition("&load")[0], "/wp-admin/" + page)


def _administrate(browser):
    form = browser.get("tags", "/wp-admin/edit-tags.php?taxonomy=post_tag").form("addtag")
    browser.post("new tag", "/wp-admin/edit-tags.php",
                 dict(form, **{"tag-name": "Fresh", "slug": "fresh", "description": "A tag"}))
    form = browser.get("new user", "/wp-admin/user-new.php").form("createuser")
    browser.post("make a user", "/wp-admin/user-new.php",
                 dict(form, user_login="writer", email="writer@example.org", pass1="Secret-9-secret",
                      pass2="Secret-9-secret", pw_weak="on", role="author", createuser="Add"))
    form = browser.get("settings", "/wp-admin/options-general.php").form("options.php")
    browser.post("save settings", "/wp-admin/options.php", dict(form, blogname="Another title"))
    browser.get("front page with its new title", "/")
    browser.post("heartbeat", "/wp-admin/admin-ajax.php",
                 {"action": "heartbeat", "_nonce": "0", "interval": "60", "screen_id": "dashboard"})
    comments = browser.get("comments to answer", "/wp-admin/edit-comments.php")
    browser.post("answer a comment", "/wp-admin/admin-ajax.php", {
        "action": "replyto-comment", "content": "Thank you.", "comment_post_ID": "1",
        "comment_ID": "1", "mode": "detail",
        "_ajax_nonce-replyto-comment": comments.find(
            r'name="_ajax_nonce-replyto-comment" value="(\w+)"')})
    posts = browser.get("posts to throw away", "/wp-admin/edit.php?orderby=title&order=asc")
    browser.get("throw a post away", posts.find(r'href="[^"]*?(/wp-admin/post\.php\?post=\d+&amp;action=trash[^"]*)"'))
    browser.get("thrown away", "/wp-admin/edit.php?post_status=trash&post_type=post")


def _write_rest(browser, nonce):
    given = {"X-WP-Nonce": nonce, "Content-Type": "application/json"}
    made = browser.post("rest new post", "/wp-json/wp/v2/posts", headers=given, body=json.dumps(
        {"title": "By REST", "content": "<p>Text \u00e4\u4e2d</p>", "status": "publish"}).encode())
    number = json.loads(made.text).get("id", 0)
    target = "/wp-json/wp/v2/posts/%d" % number
    browser.post("rest change a post", target, headers=given, body=b'{"title":"By REST again"}')
    browser.get("rest post to edit", target + "?context=edit", given)
    browser.get("rest revisions", target + "/revisions", given)
    browser.post("rest upload", "/wp-json/wp/v2/media", body=png(100, 80), headers={
        "X-WP-Nonce": nonce, "Content-Type": "image/png",
        "Content-Disposition": 'attachment; filename="rest.png"'})
    browser.get("rest settings", "/wp-json/wp/v2/settings", given)
    browser.get("rest block types", "/wp-json/wp/v2/block-types", given)
    browser.get("rest themes", "/wp-json/wp/v2/themes?status=active", given)
    browser.ask("rest delete", "DELETE", target + "?force=true", None, given)


def _log_out(browser):
    page = browser.get("before leaving", "/wp-admin/index.php")
    browser.get("log out", page.find(r"href=['\"][^'\"]*?(/wp-login\.php\?action=logout[^'\"]*)['\"]"))
    browser.get("logged out", "/wp-login.php?loggedout=true")
