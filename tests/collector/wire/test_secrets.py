"""No secret of a visitor reaches the disk, wherever in a request it stands, and nobody else reads what
does."""
import base64
import ctypes
import json
import os
import sqlite3
import stat
import time

import pytest

import conftest
import sockets

SECRET = "Pl4ntedS3cret"
SECONDS = 20
START = 1000
# What a text may be, and how a secret stands in it.
FORMS = {
    "pair": "password=" + SECRET,
    "card": "note 4111 1111 1111 1111",
    "card and date": "378282246310005 12/27",
    "json": '{"user":{"token":"%s"}}' % SECRET,
    "json in json": '{\\"pw\\":\\"%s\\"}' % SECRET,
    "header": "Authorization: Bearer " + SECRET,
    "print_r": "Array\n(\n [password] => %s\n)" % SECRET,
    "user": "user:%s@host" % SECRET,
    "url": "mysql://shop:pa/%s@db1/shop" % SECRET,
    "data source": "host=db user=bob password = " + SECRET,
    "option": "job --password %s -v" % SECRET,
    "tag": "<a><password>%s</password></a>" % SECRET,
    "serialised": 'a:1:{s:8:"password";s:%d:"%s";}' % (len(SECRET), SECRET),
    "encoded": "next=https%%3A%%2F%%2Fa%%2F%%3Ftoken%%3D%s" % SECRET,
    "encoded name": "pass%%77ord=%s&a=1" % SECRET,
    "trace": "no\n#0 /a.php(3): PDO->__construct('mysql:..', 'root', '%s')\n#1 {main}" % SECRET,
}
NAMES = ["password", "pass1", "pass1-text", "user_pass", "pw", "privateKeyPem", "Php-Auth-Pw", "api_key",
         "Authorization", "Proxy-Authorization", "Cookie", "Set-Cookie", "X-Csrf-Token", "session_id",
         "card", "clientSecret"]
STATEMENTS = [
    "SELECT * FROM user WHERE name = '%s'", 'SELECT * FROM user WHERE name = "%s"',
    "SELECT $$%s$$ FROM user", "UPDATE user SET pw = $a$%s$a$ WHERE id = 1",
    "UPDATE user SET dir = 'C:\\', pw = 'my %s here'", "SELECT q'[it's %s]' FROM user",
    "SELECT 1 FROM user /* a /* b */ %s */", "SELECT 1 FROM user -- %s",
    "INSERT INTO user VALUES ('it''s \\' %s", "ALTER USER bob IDENTIFIED BY %s"]
MESSAGES = [
    "Duplicate entry '%s' for key 'user.name'", "syntax to use near '%s' at line 1",
    "error for query INSERT INTO user (pw) VALUES ('%s')",
    "(SQL: insert into `user` (`name`) values (%s))"]
SECRETS = [SECRET, "4111 1111 1111 1111", "378282246310005"]


def line(form, trace, web=True):
    """A payload with this text in every field that takes one."""
    fields = {"Referer": form, form: "x", "deep": {"list": ["a", form], form: form}}
    span = {"st": START, "et": START + 100, "mo": 1, "si": "00000000000000bb",
            "psi": "00000000000000aa", "ex": 1, "fn": form, "cn": form, "hn": form, "dn": form,
            "qs": "SELECT '%s' FROM user" % form.replace("'", "''"), "erqh": fields, "ersh": fields,
            "ei": [{"err_clz": form, "filename": form, "level": form, "str": form, "linenumber": 3,
                    "time": START}],
            "mst": [[form, form, form, 3]]}
    # Calls of a component that is known, too.
    spans = [span] + [{**span, "si": "%016x" % number, "cn": component}
                      for number, component in enumerate(("PDO", "MySQLi", "HTTP", "PHP"), 500)]
    parameters = "http_input_params" if web else "bckgrnd_input_params"
    document = {"apm": {
        "data": True,
        "application_info": {"application_type": "PHP", "application_name": form,
                             "application_group": form, "instance_id": form},
        "transaction_info": {
            "t_name": form, "normalised_tname": form, "http_host": form, "http_query_str": form,
            "s_time": START, "e_time": START + 500, "http_method_name": form,
            "transaction_type": 1 if web else 0, "trace_id": trace, "session_id": SECRET,
            "http_headers": fields, parameters: fields, "http_resp_headers": fields,
            "custom_params": fields, "origin": {"async": False, "flow": form}},
        "method_info": {"span_info": [
            {"st": START, "et": START + 500, "mo": 0, "fn": "main", "cn": "PHP",
             "si": "00000000000000aa", "psi": form}, *spans]},
        "app_parameters": {"sum": {form: 1}, "average": {form: 2}, "data": True}}}
    return base64.b64encode(json.dumps(document).encode()) + b"\n"


def named_line(trace):
    """Secrets that nothing but a name tells."""
    fields = {name: SECRET for name in NAMES}
    fields.update({"pass": {"pass1": SECRET}, "user": {"pass": SECRET}, "tokens": [SECRET, SECRET]})
    call = {"fn": "curl_exec", "cn": "HTTP", "ex": 1, "hn": "https://api.example/", "erqh": fields,
            "ersh": fields}
    return sockets.payload("/named", [call], trace_id=trace, http_headers=fields,
                           http_input_params=fields, http_resp_headers=fields, custom_params=fields)


def statement_line(trace):
    spans = [{"fn": "query", "cn": component, "ex": 1, "qs": statement % SECRET}
             for statement in STATEMENTS for component in ("PDO", "MySQLi", "Postgres", "Oracle")]
    spans += [{"fn": "f", "cn": "PHP", "ie": 1, "ei": [
        {"err_clz": "PDOException", "str": message % SECRET, "filename": "/a.php", "linenumber": 3,
         "time": START, "level": "Error"}]} for message in MESSAGES]
    return sockets.payload("/statements", spans, trace_id=trace)


def arguments_line(trace):
    return sockets.payload("job.php", trace_id=trace, transaction_type=0, bckgrnd_input_params={
        "$argv[0]": "job.php", "$argv[1]": "--password", "$argv[2]": SECRET,
        "$argv[3]": "--token=" + SECRET})


def lines():
    for number, form in enumerate(FORMS.values()):
        yield line(form, "%032x" % (0xc0ffee00 + number), web=number % 2 == 0)
    yield named_line("%032x" % 0xc0ffee80)
    yield statement_line("%032x" % 0xc0ffee81)
    yield arguments_line("%032x" % 0xc0ffee82)


def handshake(path, application):
    return sockets.handshake().replace(b"\\/cart", path.encode()).replace(
        b'"Shop"', json.dumps(application).encode())


def bytes_below(directory):
    return b"".join(path.read_bytes() for path in directory.rglob("*") if path.is_file())


def databases(directory):
    for path in directory.glob("requests-*.sqlite"):
        database = sqlite3.connect(path)
        yield database
        database.close()


def documents_below(directory):
    """Decompressed, since nothing could be found in them otherwise."""
    zstd = ctypes.CDLL("libzstd.so.1")
    zstd.ZSTD_decompress.restype = ctypes.c_size_t
    found = b""
    for database in databases(directory):
        for (document,) in database.execute("SELECT document FROM documents"):
            text = ctypes.create_string_buffer(1 << 20)
            size = zstd.ZSTD_decompress(text, ctypes.c_size_t(len(text)), document,
                                        ctypes.c_size_t(len(document)))
            assert size < len(text)
            found += text.raw[:size]
    return found


def requests_in(database):
    """None in a file that is just being made."""
    try:
        return database.execute("SELECT count(*) FROM requests").fetchone()[0]
    except sqlite3.OperationalError:
        return 0


def until_stored(store, count):
    deadline = time.monotonic() + SECONDS
    while sum(requests_in(database) for database in databases(store)) < count:
        assert time.monotonic() < deadline, "the requests were not stored"
        time.sleep(0.1)
    while b"PDOException" not in bytes_below(store):
        assert time.monotonic() < deadline, "the figures were not stored"
        time.sleep(0.1)
    # Figures are written every second.
    time.sleep(1.5)


def test_planted_secrets_do_not_reach_the_disk(collector):
    sent = list(lines())
    for each in sent:
        sockets.send(collector.data, each)
    for form in FORMS.values():
        sockets.ask(collector.handshake, handshake("/shop/" + json.dumps(form)[1:-1], form))
    until_stored(collector.store, len(sent))
    documents = documents_below(collector.store)
    files = bytes_below(collector.store)
    for secret in SECRETS:
        for kept in (files, documents):
            for text in (kept, kept.lower()):
                place = max(text.find(each.encode())
                            for each in (secret, secret.lower(), secret.encode().hex()))
                assert place < 0, text[max(place - 200, 0):place + 50]


def test_what_is_no_secret_is_kept(collector):
    sent = [*lines(), sockets.payload("/compass", [{"fn": "Token::monkey", "cn": "PHP"}], http_headers={
        "X-Bypass": "keyboard", "X-Cardinal": "north"}, http_input_params={"keyword": "sails"})]
    for each in sent:
        sockets.send(collector.data, each)
    until_stored(collector.store, len(sent))
    documents = documents_below(collector.store)
    for text in (b"api.example", b"/statements", b"SELECT * FROM user WHERE name = ?", b"bob", b"db1",
                 b"PDOException", b"/compass", b"Token::monkey", b'"X-Bypass":"keyboard"',
                 b'"X-Cardinal":"north"', b'"keyword":"sails"', b"[hidden, 9 to 16 bytes]"):
        assert text in documents, text


@pytest.mark.parametrize("mask", [0o000, 0o022])
def test_nobody_else_reads_what_is_stored(tmp_path, mask):
    before = os.umask(mask)
    try:
        running = conftest.Collector(os.environ["KAQ_COLLECTOR"], tmp_path / "new" / "store")
    finally:
        os.umask(before)
    try:
        sockets.send(running.data, statement_line("%032x" % 0xc0ffee81))
        until_stored(running.store, 1)
        assert running.run("mark", "release").returncode == 0
        modes = {path.name: stat.S_IMODE(path.stat().st_mode) for path in running.store.iterdir()}
        assert len(modes) > 3
        assert stat.S_IMODE(running.store.stat().st_mode) & 0o767 == 0o700
        assert modes.pop("collector.sock") == 0o660
        assert set(modes.values()) == {0o600}, modes
    finally:
        assert running.stop() == (0, "")
