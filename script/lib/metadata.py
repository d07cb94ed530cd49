"""Checks that composer.json agrees with the sources of the extension.

    metadata.py ROOT

Prints what does not agree; status 1 if there is anything. The keys are those that PHP's extension
installer documents.
"""

import json
import pathlib
import re
import sys

SYSTEMS = {"windows", "bsd", "darwin", "solaris", "linux", "unknown"}
DOWNLOADS = {"composer-default", "pre-packaged-source", "pre-packaged-binary"}
# Of each key whether a value is one that the installer takes.
KEYS = {"extension-name": lambda value: re.fullmatch(r"(ext-)?[A-Za-z][A-Za-z0-9_]*", value),
        "priority": lambda value: type(value) is int and 10 <= value <= 99,
        "support-zts": lambda value: type(value) is bool,
        "support-nts": lambda value: type(value) is bool,
        "build-path": lambda value: value is None or type(value) is str,
        "download-url-method": lambda value: set(listed(value)) <= DOWNLOADS,
        "os-families": lambda value: value and set(value) <= SYSTEMS,
        "os-families-exclude": lambda value: value and set(value) <= SYSTEMS,
        "configure-options": lambda value: type(value) is list}
OPTION_KEYS = {"name", "description", "needs-value"}
PACKAGE_NAME = r"[a-z0-9]([_.-]?[a-z0-9]+)*/[a-z0-9](([_.]|-{1,2})?[a-z0-9]+)*"
OPTION_NAME = r"[A-Za-z0-9][A-Za-z0-9_-]*"
# PHP_ARG_WITH options take a value, PHP_ARG_ENABLE options do not.
OPTION = re.compile(r"PHP_ARG_(ENABLE|WITH)\(\[([\w-]+)\]")


def listed(value):
    """One value as a list of it."""
    return value if type(value) is list else [value]


def misfits(package):
    """What PHP's installer would not take, whatever the sources say."""
    extension = package.get("php-ext", {})
    for key, value in extension.items():
        if key not in KEYS:
            yield f"composer.json: php-ext has the key {key}, which nobody reads"
        elif not KEYS[key](value):
            yield f"composer.json: {key} cannot be {value!r}"
    if "os-families" in extension and "os-families-exclude" in extension:
        yield "composer.json: os-families and os-families-exclude exclude each other"
    if not re.fullmatch(PACKAGE_NAME, package.get("name", "")):
        yield f"composer.json: {package.get('name')!r} is no name of a package"
    for name in package.get("require", {}):
        if name != "php" and not name.startswith("ext-"):
            yield f"composer.json: requires {name}, which is not part of PHP"
    for option in extension.get("configure-options", []):
        if not re.fullmatch(OPTION_NAME, option.get("name", "")) or \
                type(option.get("needs-value", False)) is not bool:
            yield f"composer.json: {option} is no option"


def first(pattern, text):
    """The first match of the pattern's group, or None."""
    found = re.search(pattern, text, re.MULTILINE)
    return found[1] if found else None


def options_of(config):
    """The options of configure, except the one that enables the extension itself: {name: whether
    it needs a value}."""
    name = first(r"PHP_NEW_EXTENSION\((\w+)", config)
    return {kind.lower() + "-" + option: kind == "WITH" for kind, option in OPTION.findall(config)
            if option != name}


def disagreements(package, config, header, collector, changes):
    """What composer.json, config.m4, php_kaq.h, version.h and CHANGELOG.md do not agree on."""
    extension = package.get("php-ext", {})
    yield from misfits(package)
    version = first(r'#define KAQ_VERSION "([^"]+)"', header)
    info = first(r'#define KAQ_VERSION_INFO "([^"]+)"', header)
    for what, told, found in (
            ("type", package.get("type"), "php-ext"),
            ("extension-name", extension.get("extension-name"),
             first(r"PHP_NEW_EXTENSION\((\w+)", config)),
            ("version", package.get("version"), version),
            ("os-families", extension.get("os-families"), ["linux"]),
            ("support-zts", extension.get("support-zts"), True),
            ("support-nts", extension.get("support-nts"), True)):
        if told is None or told != found:
            yield f"composer.json: {what} is {told!r}, not {found!r}"
    told = {}
    for option in extension.get("configure-options", []):
        if not set(option) <= OPTION_KEYS or not option.get("description"):
            yield f"composer.json: {option} has a key that nobody reads, or no description"
        told[option.get("name")] = option.get("needs-value", False)
    if told != options_of(config):
        yield f"composer.json: options are {told}, those of config.m4 {options_of(config)}"
    if not info or not info.startswith(f"{version}."):
        yield f"php_kaq.h: KAQ_VERSION_INFO {info!r} is no version of KAQ_VERSION {version!r}"
    if first(r'kVersion = "([^"]+)"', collector) != version:
        yield f"version.h: the collector's version is not {version!r}"
    if first(r"^## \[(\d[^\]]*)\]", changes) != version:
        yield f"CHANGELOG.md: its newest version is not {version!r}"


def main(root):
    try:
        package = json.loads((root / "composer.json").read_text(encoding="utf-8"))
    except ValueError as error:
        print(f"composer.json: {error}")
        return 1
    house = root / package.get("php-ext", {}).get("build-path", "")
    if not (house / "config.m4").is_file():
        print(f"composer.json: there is no {house.relative_to(root)}/config.m4")
        return 1
    found = list(disagreements(
        package, (house / "config.m4").read_text(encoding="utf-8"),
        (house / "state" / "php_kaq.h").read_text(encoding="utf-8"),
        (root / "collector" / "util" / "version.h").read_text(encoding="utf-8"),
        (root / "CHANGELOG.md").read_text(encoding="utf-8")))
    print("".join(line + "\n" for line in found), end="")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
