"""What each instrumented function must leave behind, one row per function, written by hand.

A layout is (number of arguments it is for or None, parse letters, {datum: argument it comes from}).
"""
# table
import collections

Row = collections.namedtuple(
    "Row", "key setting component cls name ext data layouts failure warns", defaults=(False,))

NONE, DIRECT, EMPTY, IGNORED, LOCALHOST = "none", "direct", "empty", "ignored", "localhost"
DIRECT_IF_NOTHING_PASSED = "empty, direct without arguments"


def _names(setting, component, cls, ext, *names, keys=None):
    """Rows of calls that leave nothing but their names."""
    prefix = "" if cls is None else cls.lower() + "::"
    return [Row(key or prefix + name.lower(), setting, component, cls, name, ext, NONE, [], NONE)
            for name, key in zip(names, keys or [None] * len(names))]


def _row(setting, component, cls, name, ext, data, layouts, failure, key=None, warns=False):
    prefix = "" if cls is None else cls.lower() + "::"
    layouts = [layout if isinstance(layout, tuple) else (None, *layout) for layout in layouts]
    return Row(key or prefix + name.lower(), setting, component, cls, name, ext, data, layouts,
               failure, warns)


def _query(setting, component, cls, name, ext, failure, *layouts):
    return _row(setting, component, cls, name, ext, "query",
                [(count, letters, {"query": at}) for count, letters, at in layouts], failure)


def _connect(setting, component, cls, name, ext, failure, letters, warns=False, **positions):
    several = letters if isinstance(letters, list) else [(letters, positions)]
    return _row(setting, component, cls, name, ext, "connect",
                [(None, one, places) for one, places in several], failure, warns=warns)


def _dbname(cls, name, letters, at):
    return _row("mysql", "MySQLi", cls, name, 1, "dbname", [(None, letters, {"dbname": at})],
                DIRECT)


def _cql(cls, name, letters):
    return _row("cassandra", "Cassandra", "Cassandra\\" + cls, name, 1, "cql",
                [(None, letters, {"query": 0})], DIRECT)


CASSANDRA = [
    *_names("cassandra", "Cassandra", "Cassandra\\DefaultCluster", 1, "connect"),
    *_names("cassandra", "Cassandra", "Cassandra\\Cluster\\Builder", 1, "build", "withPort"),
    _row("cassandra", "Cassandra", "Cassandra\\Cluster\\Builder", "withContactPoints", 1,
         "contact", [(None, "+", {"host": 0})], DIRECT,
         key="cassandra\\cluster\\builder::withcontactpoint"),
    _cql("DefaultSession", "execute", "z|z"),
    _cql("DefaultSession", "executeAsync", "z|z"),
    _cql("BatchStatement", "add", "z|z"),
    _cql("SimpleStatement", "__construct", "z"),
]

CURL = [
    *_names("http", "HTTP", None, 0, "curl_init", "curl_setopt", "curl_multi_init",
            "curl_multi_add_handle", "curl_multi_exec", "curl_multi_remove_handle",
            "curl_multi_close", "curl_setopt_array"),
    *_names("http", "HTTP", None, 1, "curl_exec"),
]

MEMCACHE = [
    _connect("memcached", "Memcache", None, "memcache_connect", 1, DIRECT, "s|lll", True,
             host=0, port=1),
    _connect("memcached", "Memcache", None, "memcache_pconnect", 1, DIRECT, "s|lll", True,
             host=0, port=1),
    *_names("memcached", "Memcache", None, 0, "memcache_add_server"),
    *_names("memcached", "Memcache", None, 1, "memcache_add", "memcache_set", "memcache_replace",
            "memcache_get", "memcache_delete", "memcache_increment", "memcache_decrement"),
    _connect("memcached", "Memcache", "memcache", "connect", 1, DIRECT, "s|lll", True,
             host=0, port=1),
    _connect("memcached", "Memcache", "memcache", "pconnect", 1, DIRECT, "s|lll", True,
             host=0, port=1),
    _connect("memcached", "Memcache", "memcache", "addserver", 0, DIRECT,
             [("s|lblllbzl", {"host": 0, "port": 1}), ("Os|lblllbzl", {"host": 1, "port": 2})],
             True),
    *_names("memcached", "Memcache", "memcache", 1, "add", "set", "replace", "get", "delete",
            "increment", "decrement"),
]

MEMCACHED = [
    _connect("memcached", "Memcached", "memcached", "addServer", 0, DIRECT, "sl|l", True,
             host=0, port=1),
    *_names("memcached", "Memcached", "memcached", 1, "add", "addByKey", "append", "appendByKey",
            "cas", "casByKey", "decrement", "delete", "deleteByKey", "get", "getByKey",
            "getDelayed", "getDelayedByKey", "getMulti", "getMultiByKey", "increment", "prepend",
            "prependByKey", "replace", "replaceByKey", "set", "setByKey", "setMulti",
            "setMultiByKey"),
]

MYSQL = [
    _connect("mysql", "MySQL", None, "mysql_connect", 1, DIRECT,
             [("|s!s!s!l", {"host": 0}), ("|s!s!s!bl", {"host": 0})]),
    _query("mysql", "MySQL", None, "mysql_query", 1, DIRECT, (None, "s|r", 0)),
    _query("mysql", "MySQL", None, "mysql_db_query", 1, DIRECT, (None, "ss|r", 1)),
    _query("mysql", "MySQL", None, "mysql_unbuffered_query", 1, DIRECT, (None, "s|r", 0)),
    *_names("mysql", "MySQL", None, 0, "mysql_close"),
    *_names("mysql", "MySQL", None, 1, "mysql_pconnect", "mysql_select_db"),
]

MYSQLI = [
    *_names("mysql", "MySQLi", None, 0, "mysqli_init", "mysqli_close", "mysqli_options",
            "mysqli_stmt_bind_param", "mysqli_stmt_init"),
    *_names("mysql", "MySQLi", None, 1, "mysqli_commit", "mysqli_stmt_execute"),
    _query("mysql", "MySQLi", None, "mysqli_multi_query", 1, EMPTY,
           (None, "Os", 1), (None, "s|l", 0)),
    _query("mysql", "MySQLi", None, "mysqli_prepare", 0, DIRECT, (None, "Os", 1)),
    _query("mysql", "MySQLi", None, "mysqli_query", 1, EMPTY, (None, "Os", 1)),
    _query("mysql", "MySQLi", None, "mysqli_real_query", 1, EMPTY, (None, "Os", 1)),
    _query("mysql", "MySQLi", None, "mysqli_stmt_prepare", 0, EMPTY, (None, "Os", 1)),
    _connect("mysql", "MySQLi", None, "mysqli_connect", 1, DIRECT, "|ssssls",
             host=0, dbname=3, port=4),
    _connect("mysql", "MySQLi", None, "mysqli_real_connect", 1, DIRECT, "O|sssslsl",
             host=1, dbname=4, port=5),
    _dbname(None, "mysqli_select_db", "Os", 1),
    _query("mysql", "MySQLi", "mysqli", "multi_query", 1, EMPTY, (None, "s", 0)),
    _query("mysql", "MySQLi", "mysqli", "prepare", 0, DIRECT, (None, "s|z", 0)),
    _query("mysql", "MySQLi", "mysqli", "query", 1, EMPTY, (None, "s|l", 0)),
    _query("mysql", "MySQLi", "mysqli", "real_query", 1, EMPTY, (None, "s|l", 0)),
    _connect("mysql", "MySQLi", "mysqli", "connect", 1, DIRECT, "|ssssls",
             host=0, dbname=3, port=4),
    _connect("mysql", "MySQLi", "mysqli", "__construct", 1, DIRECT, "|ssssls",
             host=0, dbname=3, port=4),
    _connect("mysql", "MySQLi", "mysqli", "real_connect", 1, DIRECT, "|sssslsl",
             host=0, dbname=3, port=4),
    # The procedural layout: called as a method with its one argument it never fits.
    _dbname("mysqli", "select_db", "Os", 1),
    *_names("mysql", "MySQLi", "mysqli", 1, "commit"),
    *_names("mysql", "MySQLi", "mysqli", 0, "options", "stmt_init", "close"),
    _query("mysql", "MySQLi", "mysqli_stmt", "prepare", 0, DIRECT, (None, "s", 0)),
    *_names("mysql", "MySQLi", "mysqli_stmt", 1, "__construct", "execute"),
    *_names("mysql", "MySQLi", "mysqli_stmt", 0, "bind_param"),
]

PDO = [
    _query("pdo", "PDO", "PDO", "prepare", 0, EMPTY, (None, "os", 1), (None, "s|z", 0)),
    _query("pdo", "PDO", "PDO", "exec", 1, EMPTY, (None, "s", 0)),
    # "1+": the first argument, whatever follows.
    _query("pdo", "PDO", "PDO", "query", 1, DIRECT_IF_NOTHING_PASSED, ("1+", "s", 0)),
    _connect("pdo", "PDO", "PDO", "__construct", 1, DIRECT, "s|s!s!a!", host=0),
    *_names("pdo", "PDO", "PDOStatement", 1, "execute"),
    *_names("pdo", "PDO", "PDOStatement", 0, "fetch"),
]

POSTGRES = [
    _connect("postgres", "Postgres", None, "pg_connect", 1, LOCALHOST, "s|l", host=0),
    _connect("postgres", "Postgres", None, "pg_pconnect", 1, LOCALHOST, "s|l", host=0),
    _query("postgres", "Postgres", None, "pg_send_query", 1, EMPTY, (None, "rs", 1)),
    _query("postgres", "Postgres", None, "pg_query", 1, EMPTY, (1, "s", 0), (None, "rs", 1)),
    _query("postgres", "Postgres", None, "pg_query_params", 1, EMPTY,
           (2, "sa", 0), (None, "rsa", 1)),
    _query("postgres", "Postgres", None, "pg_prepare", 0, IGNORED, (2, "ss", 1), (3, "rss", 2)),
    *_names("postgres", "Postgres", None, 0, "pg_close"),
    *_names("postgres", "Postgres", None, 1, "pg_execute"),
]

REDIS = [
    *[_connect("redis", "Redis", "redis", name, 1, LOCALHOST, "s|lzzz", host=0, port=1)
      for name in ("connect", "pconnect", "open", "popen")],
    *_names("redis", "Redis", "redis", 1, "del", "delete", "get", "set", "setex", "setnx", "incr",
            "incrby", "decr", "decrby", "lset", "lrem", "lindex", "hset", "hsetnx", "hget",
            "hmset", "hmget", "select"),
    *_names("redis", "Redis", "redis", 0, "close"),
]

ORACLE = [
    _query("oracle", "Oracle", None, "oci_parse", 1, EMPTY, (None, "rs", 1)),
    *_names("oracle", "Oracle", None, 1, "oci_execute"),
]

MSSQL = [
    _connect("mssql", "MSSQL", None, "sqlsrv_connect", 1, DIRECT, "sa!", host=0),
    _query("mssql", "MSSQL", None, "sqlsrv_query", 1, DIRECT, (None, "rs|a!a!", 1)),
    _query("mssql", "MSSQL", None, "sqlsrv_prepare", 0, DIRECT, (None, "rs|a!a!", 1)),
    *_names("mssql", "MSSQL", None, 0, "sqlsrv_fetch_array", "sqlsrv_close"),
    *_names("mssql", "MSSQL", None, 1, "sqlsrv_execute"),
]

GROUPS = {"cassandra": CASSANDRA, "http": CURL, "memcached": MEMCACHE + MEMCACHED,
          "mysql": MYSQL + MYSQLI, "pdo": PDO, "postgres": POSTGRES, "redis": REDIS,
          "oracle": ORACLE, "mssql": MSSQL}
COUNTS = {"cassandra": 8, "http": 9, "memcached": 20 + 25, "mysql": 7 + 31, "pdo": 6,
          "postgres": 8, "redis": 24, "oracle": 2, "mssql": 6}
NEVER_WRAPPED = ["oci_connect", "oci_pconnect"]

ROWS = [row for rows in GROUPS.values() for row in rows]
BY_KEY = {row.key: row for row in ROWS}
assert {name: len(rows) for name, rows in GROUPS.items()} == COUNTS
assert len(BY_KEY) == len(ROWS) == 146
