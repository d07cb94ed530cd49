"""A page that calls functions and methods of several extensions, and the spans it must give.

The request's number stands in its query texts, host names and database names, so that a span that
strays into another request's payload is seen.
"""
import re

# No server listens there: connecting fails at once.
CLOSED_PORT = 1

PAGE = """<?php
header('X-Process: ' . getmypid());
$number = (int)$_GET['number'];
error_reporting(0);
mysqli_report(MYSQLI_REPORT_OFF);
$link = mysqli_init();
$told[] = mysqli_options($link, MYSQLI_OPT_CONNECT_TIMEOUT, 1);
$told[] = pg_connect("host=127.0.0.1 port=%(port)d dbname=d$number");
$pdo = new PDO('sqlite::memory:');
$told[] = $pdo->exec("CREATE TABLE t$number (a)");
$statement = $pdo->prepare("INSERT INTO t$number VALUES ($number)");
$told[] = $statement->execute();
$result = $pdo->query("SELECT a FROM t$number");
$told[] = (int)$result->fetch(PDO::FETCH_NUM)[0];
$told[] = mysqli_real_connect($link, '127.0.0.1', 'u', 'p', "d$number", %(port)d);
$object = new mysqli();
$told[] = $object->options(MYSQLI_OPT_CONNECT_TIMEOUT, 1);
$told[] = $object->real_connect('127.0.0.1', 'u', 'p', "d$number", %(port)d);
$told[] = pg_pconnect("host=127.0.0.1 port=%(port)d dbname=p$number");
$curl = curl_init();
curl_close($curl);
$multi = curl_multi_init();
curl_multi_close($multi);
$told[] = get_class($object);
echo json_encode([$number, $told]);
""" % {"port": CLOSED_PORT}

# What the extension itself calls to see the response headers of a new handle.
HEADERS_WANTED = "curl_setopt (20079)"

WHO = "<?php header('X-Process: ' . getmypid());\n"

# table
# function, component, external, what of the data members is certain
CALLS = [
    ("mysqli_init", "MySQLi", 0, {}),
    ("mysqli_options", "MySQLi", 0, {}),
    ("pg_connect", "Postgres", 1, {"hn": "host=127.0.0.1 port={port} dbname=d{number}"}),
    ("PDO::__construct", "PDO", 1, {"hn": "sqlite::memory:"}),
    ("PDO::exec", "PDO", 1, {"qs": "CREATE TABLE t{number} (a)"}),
    ("PDO::prepare", "PDO", 0, {"qs": "INSERT INTO t{number} VALUES ({number})"}),
    ("PDOStatement::execute", "PDO", 1, {}),
    ("PDO::query", "PDO", 1, {"qs": "SELECT a FROM t{number}"}),
    ("PDOStatement::fetch", "PDO", 0, {}),
    ("mysqli_real_connect", "MySQLi", 1, {"hn": "127.0.0.1", "dn": "d{number}"}),
    ("mysqli::__construct", "MySQLi", 1, {}),
    ("mysqli::options", "MySQLi", 0, {}),
    ("mysqli::real_connect", "MySQLi", 1, {"hn": "127.0.0.1", "dn": "d{number}"}),
    ("pg_pconnect", "Postgres", 1, {"hn": "host=127.0.0.1 port={port} dbname=p{number}"}),
    ("curl_init", "HTTP", 0, {}),
    (HEADERS_WANTED, "HTTP", 0, {}),
    ("curl_multi_init", "HTTP", 0, {}),
    ("curl_multi_close", "HTTP", 0, {}),
]

DATA = ("qs", "hn", "dn")


def path_of(number):
    return "/page.php?number=%d" % number


def expected_body(number):
    return '[%d,[true,false,0,true,%d,false,true,false,false,"mysqli"]]' % (number, number)


def number_of(payload):
    """The request that a payload tells of; None for the page that only names its process."""
    found = re.fullmatch(r"number=(\d+)", payload.transaction["http_query_str"])
    return int(found.group(1)) if found else None


def expected_spans(number):
    return [(name, component, external,
             {key: text.format(port=CLOSED_PORT, number=number) for key, text in data.items()})
            for name, component, external, data in CALLS]


def told_spans(payload, number):
    """The same of a payload, of all spans below the root, as far as `number` makes certain."""
    wanted = {name: data for name, _, _, data in expected_spans(number)}
    for before, span in zip(payload.spans, payload.spans[1:]):
        parent = before if span["fn"] == HEADERS_WANTED else payload.root
        assert span["psi"] == parent["si"]
    return [(span["fn"], span["cn"], span.get("ex", 0),
             {key: span[key] for key in wanted.get(span["fn"], DATA) if key in span})
            for span in payload.spans[1:]]


def check_payloads(collector, numbers):
    """One payload for each of these requests, and in it one span for each call, its own."""
    payloads = collector.payloads(numbers)
    told = {number: len(payloads.get(number, ())) for number in numbers}
    wrong = {number: count for number, count in told.items() if count != 1}
    assert not wrong, "payloads of %d requests: %s" % (len(wrong), wrong)
    for number in numbers:
        found, wanted = told_spans(payloads[number][0], number), expected_spans(number)
        assert found == wanted, "request %d: missing %s, instead %s" % (
            number, [span for span in wanted if span not in found],
            [span for span in found if span not in wanted])
