"""phpMyAdmin: what is visited, in this order."""
from database import DATABASE

_SERVER = ("databases", "sql", "status", "status/processes", "status/queries",
           "status/monitor", "privileges", "variables", "collations", "engines",
           "engines/InnoDB", "plugins", "export", "import", "binlog", "replication", "user-groups")
_DATABASE = ("structure", "sql", "search", "multi-table-query", "qbe", "export", "import", "operations",
             "routines", "events", "triggers", "designer", "tracking", "privileges", "data-dictionary",
             "central-columns")
_TABLE = ("structure", "sql", "search", "change", "export", "import", "operations", "indexes", "relation",
          "zoom-search", "find-replace", "tracking", "privileges", "chart", "add-field", "partition")
_SETTINGS = ("manage", "two-factor", "features", "sql", "navigation", "main-panel", "export", "import")


def visit_pages(browser, user, password):
    token = _log_in(browser, user, password)
    # In its first second the database server has an uptime of 0, by which the status pages divide.
    browser.wait_for_next_second()
    browser.wait_for_next_second()
    _look(browser)
    _browse(browser)
    _query(browser, token)
    _write(browser, token)
    _export_and_import(browser, token)
    _ask(browser, token)
    _log_out(browser)


def _route(route, **more):
    return "/index.php?route=/" + route + "".join("&%s=%s" % pair for pair in more.items())


def _log_in(browser, user, password):
    browser.get("front", "/")
    browser.get("page from outside", _route("database/structure", db=DATABASE))
    form = browser.get("log in form", "/index.php").form("login_form")
    form = browser.post("log in wrongly", "/index.php?route=/", {
        **form, "pma_username": user, "pma_password": "wrong"}).form("login_form")
    browser.post("log in", "/index.php?route=/", {
        **form, "pma_username": user, "pma_password": password})
    return browser.get("home", "/index.php?route=/").find(r'token:"(\w+)"')


def _look(browser):
    for name in _SERVER:
        browser.get("server: " + name, _route("server/" + name),
                    is_clocked=name.startswith("status"))
    for name in _DATABASE:
        browser.get("database: " + name, _route("database/" + name, db=DATABASE))
    for name in _TABLE:
        browser.get("table: " + name, _route("table/" + name, db=DATABASE, table="orders"))
    for name in _SETTINGS:
        browser.get("settings: " + name, _route("preferences/" + name))
    for name in ("check-relations", "license", "changelog", "themes", "user-password", "messages",
                 "no/such/route", "phpinfo"):
        browser.get("route " + name, _route(name))
    browser.get("in German", "/index.php?route=/&lang=de")
    browser.get("in English", "/index.php?route=/&lang=en")
    browser.get("link out", "/url.php?url=https%3A%2F%2Fwww.php.net%2F")
    browser.get("not found", "/none.php")
    browser.get("missing table", _route("sql", db=DATABASE, table="none", pos=0))
    browser.get("missing database", _route("database/structure", db="none"))


def _browse(browser):
    for table in ("customers", "products", "orders", "places", "totals"):
        browser.get("rows of " + table, _route("sql", db=DATABASE, table=table, pos=0))
    browser.get("more rows", _route("sql", db=DATABASE, table="customers", pos=25))
    browser.get("all rows", _route("sql", db=DATABASE, table="customers", pos=0,
                                   session_max_rows="all"))
    browser.get("structure of customers", _route("table/structure", db=DATABASE, table="customers"))
    browser.get("edit a row", _route("table/change", db=DATABASE, table="customers",
                                     where_clause="%60id%60%20%3D%201", default_action="update"))


def _query(browser, token):
    for name, query in (
            ("select", "SELECT * FROM customers WHERE name LIKE 'river%' ORDER BY id"),
            ("join", "SELECT c.name, SUM(o.amount) FROM customers c JOIN orders o ON o.customer = c.id "
                     "GROUP BY c.name LIMIT 20"),
            ("explain", "EXPLAIN SELECT * FROM orders WHERE product = 3"),
            ("syntax error", "SELEC 1"), ("missing column", "SELECT none FROM orders"),
            ("call", "CALL count_orders(3)"), ("two queries", "SELECT 1; SELECT 2"),
            ("show", "SHOW TABLE STATUS"), ("update", "UPDATE customers SET note = 'x' WHERE id < 4")):
        browser.post("query: " + name, "/index.php?route=/import", {
            "token": token, "db": DATABASE, "table": "", "sql_query": query, "sql_delimiter": ";",
            "show_query": "1", "ajax_request": "true", "is_js_confirmed": "0"})


def _write(browser, token):
    given = {"token": token, "db": DATABASE, "ajax_request": "true", "server": "1"}
    browser.post("new table", "/index.php?route=/table/create", {
        **given, "table": "made", "do_save_data": "1", "orig_num_fields": "1",
        "field_name[0]": "id", "field_type[0]": "INT", "field_length[0]": "", "field_key[0]": "primary_0",
        "primary_indexes": '[{"columns":[{"col_index":0,"size":""}],"Key_name":"PRIMARY","Index_choice":"PRIMARY"}]',
        "tbl_storage_engine": "InnoDB", "comment": "made"})
    form = browser.get("insert form", _route("table/change", db=DATABASE, table="customers")).form("insertForm")
    form = {key: value for key, value in form.items() if not key.startswith("insert_ignore")}
    named = [key for key in form if key.startswith("fields[multi_edit][0]")]
    for key, value in zip(named, ("", "Said & done <b>", "new@example.org", "1990-01-02", "note")):
        form[key] = value
    browser.post("insert a row", "/index.php?route=/table/replace", {**form, **given})
    browser.post("delete rows", "/index.php?route=/table/delete/rows", {
        **given, "table": "orders", "mult_btn": "Yes", "original_sql_query": "SELECT * FROM orders",
        "selected[0]": "`orders`.`id` = 7"})
    browser.post("search", "/index.php?route=/database/search", {
        **given, "criteriaSearchString": "river", "criteriaSearchType": "1",
        "criteriaTables[]": "customers", "submit_search": "Go"})
    browser.post("search a table", "/index.php?route=/table/search", {
        **given, "table": "customers", "criteriaColumnNames[1]": "name", "criteriaColumnOperators[1]": "LIKE %...%",
        "criteriaValues[1]": "stone", "criteriaColumnTypes[1]": "varchar(80)", "distinct": "0", "columnsToDisplay[]": "name",
        "session_max_rows": "25", "orderByColumn": "--nil--", "order": "ASC", "submit": "Go"})
    browser.post("drop a table", "/index.php?route=/sql", {
        **given, "sql_query": "DROP TABLE made", "is_js_confirmed": "1"})
    browser.post("new database", "/index.php?route=/server/databases/create", {
        **given, "new_db": "another", "db_collation": "utf8mb4_general_ci"})
    browser.post("bad token", "/index.php?route=/server/databases/create", {
        **given, "token": "bad", "new_db": "third"})


def _export_and_import(browser, token):
    for kind in ("sql", "csv", "json", "xml", "texytext", "latex", "mediawiki", "phparray", "htmlword"):
        form = browser.get("export form", _route("table/export", db=DATABASE, table="customers",
                                                 single_table="true")).form("dump")
        form.update({"token": token, "what": kind, "export_type": "table", "db": DATABASE,
                     "table": "customers", "quick_or_custom": "quick", "output_format": "sendit",
                     "filename_template": "@TABLE@", "allrows": "1", "asfile": "sendit"})
        browser.post("export as " + kind, "/index.php?route=/export", form)
    browser.post("import", "/index.php?route=/import", {
        "token": token, "db": DATABASE, "import_type": "database", "format": "sql",
        "charset_of_file": "utf-8", "sql_compatibility": "NONE", "sql_delimiter": ";", "ajax_request": "true"},
        files={"import_file": ("more.sql", "application/sql",
                               b"CREATE TABLE brought (id INT); INSERT INTO brought VALUES (1),(2);")})


def _ask(browser, token):
    given = {"token": token, "ajax_request": "true", "server": "1"}
    for name, route, fields in (
            ("navigation", "navigation", {"db": DATABASE, "expand": "1"}),
            ("lint", "lint", {"sql_query": "SELECT FROM x WHERE"}),
            ("columns", "columns", {"db": DATABASE, "table": "customers"}),
            ("tables", "tables", {"db": DATABASE}),
            ("autocomplete", "database/sql/autocomplete", {"db": DATABASE}),
            ("format", "database/sql/format", {"sql": "select a,b from c where d=1"}),
            ("row counts", "database/structure/real-row-count", {"db": DATABASE, "table": "customers"}),
            ("value", "sql/get-enum-values", {"db": DATABASE, "table": "products", "column": "kind", "curr_value": "a"}),
            ("relational values", "sql/get-relational-values", {
                "db": DATABASE, "table": "orders", "column": "customer", "curr_value": "1", "relation_key_or_display_column": "0"}),
            ("version check", "version-check", {}), ("console", "console/update-config", {"key": "Mode", "value": "\"info\""})):
        browser.post("ask: " + name, "/index.php?route=/" + route, {**given, **fields})


def _log_out(browser):
    page = browser.get("before leaving", "/index.php?route=/")
    token = page.find(r'token:"(\w+)"')
    browser.post("log out", "/index.php?route=/logout", {"token": token, "server": "1"})
    browser.get("logged out", "/index.php?route=/")
