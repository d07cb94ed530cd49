#!/usr/bin/env python3
"""Writes docs/instrumented-functions.md from the table of instrumented functions.

    instrumented_functions.py TABLE DOCUMENT           writes the document
    instrumented_functions.py --check TABLE DOCUMENT   status 1 if it differs
"""

import re
import sys

ROW = re.compile(
    r'ROW\((?P<id>\w+), "(?P<key>[^"]+)", (?P<group>\w+), "(?P<component>[^"]+)", '
    r'(?P<cls>nullptr|"[^"]+"), "(?P<name>[^"]+)", (?P<kind>EXTERNAL|INTERNAL), '
    r'(?P<recipe>\w+)\{(?P<arguments>[^}]*)\}\)'
)

RECORDS = {
    "kaq_names": "the call",
    "kaq_query": "the SQL text",
    "kaq_dbname": "the database name",
    "kaq_cql": "the CQL text, if it is a string",
    "kaq_contact_points": "the hosts, if they are a string",
    "kaq_curl_init": "the call",
    "kaq_curl_setopt": "the number of the option",
    "kaq_curl_setopt_array": "the call",
    "kaq_curl_exec": "URL, status, failure; headers with `kaq.capture_httpcall_metadata`",
    "kaq_curl_multi_add_handle": "the call",
    "kaq_curl_multi_exec": "the call, and below it, once each, the transfers that have a status by "
                           "then: URL, status, failure, headers as for `curl_exec`",
    "kaq_curl_multi_remove_handle": "the call",
    "kaq_curl_multi_close": "the call",
}

INTRODUCTION = """\
# Instrumented functions

Calls of these functions appear in the payload as spans. This page is generated from
`extension/instrumentation/wrapped_functions.h` by `script/check --fix functions`; do not edit it.

A call is recorded if its group's setting was on in `php.ini` when the process started, if the
request is recorded, and if `kaq.span_limit` has not been reached. "External" marks calls to
another system. Keys, values and bound parameters are never recorded.

A method that a class inherits is recorded under the name of the class below: `Pdo\\Mysql::query` as
`PDO::query`. `PDO::connect` (PHP 8.4) is recorded as the connection that it makes,
`PDO::__construct`, whatever class it is called on.

"""


def rows(text):
    found = [match.groupdict() for match in ROW.finditer(text)]
    if len(found) != text.count("\tROW("):
        sys.exit("instrumented_functions: a row of the table cannot be read")
    return found


def shown_name(row):
    name = row["name"]
    if row["cls"] != "nullptr":
        name = row["cls"].strip('"').replace("\\\\", "\\") + "::" + name
    return f"`{name}`"


def records(row):
    looked_up = row["key"].rsplit("::")[-1]
    if looked_up != row["name"].lower():
        return f"{RECORDS[row['recipe']]}; only where the driver names the method `{looked_up}`"
    if row["recipe"] != "kaq_connect":
        return RECORDS[row["recipe"]]
    _, port, database, *_ = [part.strip() for part in row["arguments"].rsplit('"', 1)[1].split(",")]
    return "the host" + (", the port" if port == "true" else "") + (
        ", the database name" if database == "true" else ""
    )


def setting(row):
    if row["group"] == "never":
        return "never recorded"
    return f"`kaq.capture_{row['group']}`"


def document(table):
    text = INTRODUCTION
    text += f"{len(table)} functions, {sum(row['group'] != 'never' for row in table)} of them recorded.\n"
    component = None
    for row in table:
        if row["component"] != component:
            component = row["component"]
            text += f"\n## {component}\n\n| Function | Setting | External | Recorded |\n|---|---|---|---|\n"
        external = "yes" if row["kind"] == "EXTERNAL" else ""
        text += f"| {shown_name(row)} | {setting(row)} | {external} | {records(row)} |\n"
    return text


def main(arguments):
    check = arguments[:1] == ["--check"]
    table_path, document_path = arguments[check:]
    with open(table_path, encoding="utf-8") as file:
        text = document(rows(file.read()))
    if not check:
        with open(document_path, "w", encoding="utf-8") as file:
            file.write(text)
        return 0
    with open(document_path, encoding="utf-8") as file:
        if file.read() == text:
            return 0
    print(f"{document_path} is not what {table_path} says: script/check --fix functions")
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
