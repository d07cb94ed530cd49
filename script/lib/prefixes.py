"""Finds functions of the extension that lack our prefix.

    prefixes.py FILE...

A function is named kaq_something or, as a wrapper of the engine's API, php_something, whether it is
static or not. What the engine's macros define (PHP_MINIT_FUNCTION, KAQ_INI_HANDLER) has its name
from them. Prints each function that is named otherwise, and each exception below that is no longer
needed; status 1 if there is one.
"""

import re
import sys

from lengths import functions

PREFIX = re.compile(r"(kaq|php)_")
MACRO = re.compile(r"[A-Z][A-Z0-9_]+")
ATTRIBUTE = re.compile(r"__attribute__\s*\(\(.*?\)\)", re.DOTALL)
# A macro on a line of its own before a function has no semicolon that would end its statement.
MACRO_LINE = re.compile(r"^[A-Z][A-Z0-9_]+(\([^()]*\))?$", re.MULTILINE)

# Interface: callers outside of the extension know these by their names.
EXCEPTIONS = set("""
    free_globals
    catchit setHandler wrap_sethandler addr2line
    curl_exec_pre_req_header guzzle_in_call_stack
    header_format_name_value header_extract_encoded_value
    strcaseidx strncaseidx substr
    client_error sender_error hostname_to_ip send_packed_data_tcp
    form_instanceinfo_request process_instance_info get_instance_data get_instance_info
""".split())


def unprefixed(text):
    """Name and line of each function without our prefix."""
    text = ATTRIBUTE.sub(lambda found: "\n" * found[0].count("\n"), text)
    text = MACRO_LINE.sub("", text)
    for name, line, _ in functions(text):
        if not PREFIX.match(name) and not MACRO.fullmatch(name):
            yield name, line


def main(paths):
    found, needed = [], set()
    for path in paths:
        with open(path, encoding="utf-8") as source:
            for name, line in unprefixed(source.read()):
                needed.add(name)
                if name not in EXCEPTIONS:
                    found.append(f"{path}:{line}: {name} begins with neither kaq_ nor php_")
    found += [f"prefixes: no function is named {name} any more" for name in EXCEPTIONS - needed]
    print("".join(line + "\n" for line in sorted(found)), end="")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
