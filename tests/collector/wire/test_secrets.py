"""No secret of a visitor reaches the disk, wherever in a request it stands."""
import ctypes
import sqlite3
import time

import pytest

import sockets

SECRET = "Pl4ntedS3cret"
CARD = "4111 1111 1111 1111"
SECONDS = 10


def spans():
    stack = [["Shop\\Cart", "pay", "/srv/shop/cart.php", 12]]
    error = {"err_clz": "RuntimeException", "str": "login failed: password=%s" % SECRET,
             "filename": "/srv/shop/login.php", "linenumber": 3, "time": 1010, "level": "Error"}
    return [
        {"fn": "PDO::query", "cn": "PDO", "ex": 1, "mst": stack,
         "qs": "SELECT * FROM user WHERE name = '%s' AND card = %s" % (SECRET, CARD[:4])},
        {"fn": "PDO::query", "cn": "PDO", "ex": 1, "qs": "UPDATE user SET pin = 0x%s -- %s" % (
            SECRET.encode().hex(), SECRET)},
        {"fn": "mysqli_connect", "cn": "MySQLi", "ex": 1, "hn": "mysql://shop:%s@db1/shop" % SECRET,
         "dn": "shop"},
        {"fn": "curl_exec", "cn": "HTTP", "ex": 1, "esc": 200,
         "hn": "https://user:%s@api.example/pay?token=%s&x=1" % (SECRET, SECRET),
         "erqh": {"Authorization": "Bearer " + SECRET, "X-Api-Key": SECRET},
         "ersh": {"Set-Cookie": "session=" + SECRET}},
        {"fn": "login", "cn": "PHP", "ie": 1, "ei": [error]},
    ]


def info():
    return {
        "http_query_str": "item=7&access_token=%s&card=%s" % (SECRET, CARD.replace(" ", "")),
        "session_id": SECRET,
        "http_headers": {"Authorization": "Basic " + SECRET, "Cookie": "sid=" + SECRET,
                         "Proxy-Authorization": SECRET, "Referer": "https://a.example/?key=" + SECRET},
        "http_input_params": {"password": SECRET, "user": {"secret": SECRET, "name": "Ann"},
                              "note": "my card is " + CARD},
        "http_resp_headers": {"Set-Cookie": "session=" + SECRET},
        "custom_params": {"session_key": SECRET},
        "trace_id": "61c0ffee61c0ffee61c0ffee61c0ffee",
    }


def bytes_below(directory):
    return b"".join(path.read_bytes() for path in directory.rglob("*") if path.is_file())


def documents_below(directory):
    """Decompressed, since nothing could be found in them otherwise."""
    zstd = ctypes.CDLL("libzstd.so.1")
    zstd.ZSTD_decompress.restype = ctypes.c_size_t
    found = b""
    for path in directory.glob("requests-*.sqlite"):
        database = sqlite3.connect(path)
        for (document,) in database.execute("SELECT document FROM documents"):
            text = ctypes.create_string_buffer(1 << 20)
            size = zstd.ZSTD_decompress(text, ctypes.c_size_t(len(text)), document,
                                        ctypes.c_size_t(len(document)))
            assert size < len(text)
            found += text.raw[:size]
        database.close()
    return found


def until_stored(store, text):
    deadline = time.monotonic() + SECONDS
    while text not in bytes_below(store):
        assert time.monotonic() < deadline, "the request was not stored"
        time.sleep(0.1)


@pytest.mark.parametrize("name", ["/shop/pay", "/reset/token=" + SECRET])
def test_planted_secrets_do_not_reach_the_disk(collector, name):
    sockets.send(collector.data, sockets.payload(name, spans(), **info()))
    until_stored(collector.store, b"61c0ffee61c0ffee61c0ffee61c0ffee")
    time.sleep(1.5)
    documents = documents_below(collector.store)
    assert b"api.example" in documents, "what is no secret is there to be found"
    kept = bytes_below(collector.store) + documents
    for secret in (SECRET, CARD, CARD.replace(" ", "")):
        assert secret.encode() not in kept
        assert secret.encode().hex().encode() not in kept
    assert b"RuntimeException" in bytes_below(collector.store)
