"""What a span of each instrumented function says, told by hand."""

LOOPBACK = "127.0.0.1"
# Statements that every SQL server takes.
CREATE = "CREATE TEMPORARY TABLE t (id INT, name VARCHAR(20))"
INSERT = "INSERT INTO t VALUES (1, 'one'), (2, 'two')"
WRAPPED_ONLY = {"kaq.track_zend_execute": 0}
ERRORS = ("if", "ie", "ei")  # what error tracking adds is not looked at here

# table
# (component, whether the time counts as spent elsewhere): class, or "" for plain functions, and
# names, all as they are written into the span.
WRITTEN = [
    ("MySQLi", 1, "", "mysqli_connect mysqli_real_connect mysqli_query mysqli_real_query"
                      " mysqli_multi_query mysqli_select_db mysqli_commit mysqli_stmt_execute"),
    ("MySQLi", 0, "", "mysqli_prepare mysqli_stmt_prepare mysqli_init mysqli_close mysqli_options"
                      " mysqli_stmt_init mysqli_stmt_bind_param"),
    ("MySQLi", 1, "mysqli", "__construct connect real_connect query real_query multi_query"
                            " select_db commit"),
    ("MySQLi", 0, "mysqli", "prepare options stmt_init close"),
    ("MySQLi", 1, "mysqli_stmt", "__construct execute"),
    ("MySQLi", 0, "mysqli_stmt", "prepare bind_param"),
    ("PDO", 1, "PDO", "__construct query exec"),
    ("PDO", 0, "PDO", "prepare"),
    ("PDO", 1, "PDOStatement", "execute"),
    ("PDO", 0, "PDOStatement", "fetch"),
    ("Postgres", 1, "", "pg_connect pg_pconnect pg_query pg_send_query pg_query_params pg_execute"),
    ("Postgres", 0, "", "pg_prepare pg_close"),
    ("Redis", 1, "redis", "connect pconnect open popen del delete get set setex setnx incr incrby"
                          " decr decrby lset lrem lindex hset hsetnx hget hmset hmget select"),
    ("Redis", 0, "redis", "close"),
    ("Memcache", 1, "", "memcache_connect memcache_pconnect memcache_add memcache_set"
                        " memcache_replace memcache_get memcache_delete memcache_increment"
                        " memcache_decrement"),
    ("Memcache", 0, "", "memcache_add_server"),
    ("Memcache", 1, "memcache", "connect pconnect add set replace get delete increment decrement"),
    ("Memcache", 0, "memcache", "addserver"),
    ("Memcached", 1, "memcached", "add addByKey append appendByKey cas casByKey decrement delete"
                                  " deleteByKey get getByKey getDelayed getDelayedByKey getMulti"
                                  " getMultiByKey increment prepend prependByKey replace"
                                  " replaceByKey set setByKey setMulti setMultiByKey"),
    ("Memcached", 0, "memcached", "addServer"),
]

LABELS = {
    (class_name + "::" if class_name else "") + name: (component, external)
    for component, external, class_name, names in WRITTEN for name in names.split()
}


def call(name, qs=None, hn=None, pn=None, dn=None):
    """The members of a call's span that do not depend on the run, in order."""
    component, external = LABELS[name]
    members = [("pr", 1), ("fn", name), ("cn", component)]
    if external:
        members.append(("ex", 1))
    data = [("qs", qs), ("hn", hn), ("pn", pn), ("dn", dn)]
    return members, [(key, value) for key, value in data if value is not None]


def spans(calls, found):
    """The whole spans that `calls` must give, with times and identifiers taken from the payload,
    as a list of (key, value) pairs each. All are children of the root."""
    wanted = []
    for number, (before, after) in enumerate(calls, 1):
        own = found[number] if number < len(found) else {}
        wanted.append([("st", own.get("st")), ("et", own.get("et")), ("mo", number), *before,
                       ("si", own.get("si")), ("psi", found[0]["si"]), *after])
    return wanted
