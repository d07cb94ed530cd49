"""A new function takes one line of the table, as docs/adding-a-function.md has it."""
import copy
import fcntl
import os
import pathlib
import re
import shutil
import subprocess
import sys

import engines
import pytest
from conftest import Wire

TABLE = pathlib.Path("instrumentation", "wrapped_functions.h")
TABLE_BEGINS = "#define KAQ_WRAPPED_FUNCTIONS(ROW) \\\n"
BUILD_DEADLINE = 600

LOOK_UP = "echo gethostbyname('127.0.0.1');"


def _example_row():
    document = (engines.REPOSITORY / "docs" / "adding-a-function.md").read_text(encoding="utf-8")
    row, = re.findall(r"^```c\n(\tROW\(.*\\\n)```$", document, re.M)
    return row


def _table():
    text = (engines.REPOSITORY / "extension" / TABLE).read_text(encoding="utf-8")
    assert text.count(TABLE_BEGINS) == 1
    return text


def _with_row(table):
    return table.replace(TABLE_BEGINS, TABLE_BEGINS + _example_row())


def _without_a_row(table):
    shorter, removed = re.subn(r"^\tROW\(.*\n", "", table, count=1, flags=re.M)
    assert removed == 1
    return shorter


def _run(*command, cwd=None, env=None):
    return subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=BUILD_DEADLINE, cwd=cwd, env=env)


@pytest.fixture(scope="module")
def built(engine):
    """The directory in which this engine's module was built."""
    directory = pathlib.Path(engine.so).parent.parent
    if (directory / "Makefile").exists():
        return directory
    # script/test has the tests load a copy of what it builds so.
    done = subprocess.run(
        [str(engines.REPOSITORY / "script" / "build"), "--php-config", engine.php_config],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, timeout=BUILD_DEADLINE, check=True,
        text=True, env=dict(os.environ, KAQ_WERROR="1"))
    return pathlib.Path(done.stdout.split("\n")[-2]).parent.parent


@pytest.fixture(scope="module")
def scratch(built, tmp_path_factory):
    """A copy of that directory which builds itself and nothing else."""
    directory = tmp_path_factory.mktemp("scratch") / "kaq"
    with open(built / ".lock", "ab") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        shutil.copytree(built, directory, symlinks=True)
    makefile = directory / "Makefile"
    text = makefile.read_text(encoding="utf-8")
    assert str(built) in text
    makefile.write_text(text.replace(str(built), str(directory)), encoding="utf-8")
    return directory


@pytest.fixture(scope="module")
def extended(engine, scratch):
    """The engine with an extension whose table has the example's row."""
    (scratch / TABLE).write_text(_with_row(_table()), encoding="utf-8")
    (scratch / "modules" / "kaq.so").unlink()
    # The generated Makefile knows nothing of headers.
    for source in scratch.rglob("*.cpp"):
        if TABLE.name in source.read_text(encoding="utf-8"):
            source.with_suffix(".lo").unlink()
    made = _run("make", "-C", scratch)
    assert made.returncode == 0, made.stdout[-4000:]
    changed = copy.copy(engine)
    changed.so = str(scratch / "modules" / "kaq.so")
    assert os.path.exists(changed.so)
    return changed


@pytest.fixture
def extended_wire(extended, collector, tmp_path):
    return Wire(extended, collector, tmp_path)


def test_one_line_makes_a_function_recorded(extended_wire, collector):
    result = extended_wire.same_as_bare(extended_wire.cli, source=LOOK_UP)
    assert (result.stdout, result.status) == (b"127.0.0.1", 0)
    span, = collector.payload.spans[1:]
    times_and_ids = ("st", "et", "mo", "si", "psi")
    assert [(key, value) for key, value in span.items() if key not in times_and_ids] == [
        ("pr", 1), ("fn", "gethostbyname"), ("cn", "DNS"), ("ex", 1), ("hn", "127.0.0.1")]
    assert span["psi"] == collector.payload.root["si"]


def test_new_row_obeys_the_setting_of_its_group(extended_wire, collector):
    extended_wire.cli(LOOK_UP, settings={"kaq.capture_http": 0})
    assert collector.payload.names == []


def test_new_row_leaves_the_others_in_place(extended_wire, collector, standins_so):
    extended_wire.cli("mysql_query('SELECT 1');" + LOOK_UP,
                      settings={"extension": standins_so, "kaq_standins.take_over": 0})
    assert collector.payload.names == ["mysql_query", "gethostbyname"]


def test_function_without_a_row_is_not_recorded(wire, collector):
    wire.cli(LOOK_UP)
    assert collector.payload.names == []


def _compile_table(engine, built, directory, table):
    path = directory / TABLE
    path.parent.mkdir()
    path.write_text(table, encoding="utf-8")
    told = _run(engine.php_config, "--includes")
    includes = told.stdout.replace("-I", "-isystem ").split()
    return _run("g++", "-std=gnu++17", "-fsyntax-only", "-DZEND_ENABLE_STATIC_TSRMLS_CACHE=1",
                "-DCOMPILE_DL_KAQ=1", "-I", directory, "-I", built, *includes,
                built / "instrumentation" / "wrappers.cpp")


def test_table_as_it_is_compiles(engine, built, tmp_path):
    done = _compile_table(engine, built, tmp_path, _table())
    assert done.returncode == 0, done.stdout


def test_table_that_lost_a_row_does_not_compile(engine, built, tmp_path):
    done = _compile_table(engine, built, tmp_path, _without_a_row(_table()))
    assert done.returncode != 0
    assert "the table has lost a row" in done.stdout, done.stdout


CHANGES = {
    "row added": _with_row,
    "row removed": _without_a_row,
    "component": lambda table: table.replace('"MySQLi"', '"MySQL"', 1),
    "group": lambda table: table.replace(", redis, ", ", http, ", 1),
    "class": lambda table: table.replace('"PDOStatement"', '"PDO"', 1),
    "name": lambda table: table.replace('"addServer"', '"addserver"', 1),
    "kind": lambda table: table.replace("INTERNAL", "EXTERNAL", 1),
    "recipe": lambda table: table.replace("kaq_query{", "kaq_dbname{", 1),
    "row that cannot be read": lambda table: table.replace("\tROW(curl_init, ", "\tROW(", 1),
}


@pytest.mark.parametrize("change", CHANGES)
def test_list_of_functions_is_refused_once_the_table_has_changed(tmp_path, change):
    generator = engines.REPOSITORY / "script" / "lib" / "instrumented_functions.py"
    table, document = tmp_path / "table.h", tmp_path / "list.md"
    table.write_text(_table(), encoding="utf-8")
    assert _run(sys.executable, generator, table, document).returncode == 0
    assert _run(sys.executable, generator, "--check", table, document).returncode == 0

    changed = CHANGES[change](_table())
    assert changed != _table()
    table.write_text(changed, encoding="utf-8")
    refused = _run(sys.executable, generator, "--check", table, document)
    assert refused.returncode == 1 and "Traceback" not in refused.stdout, refused.stdout


def test_list_of_functions_gains_the_new_one(tmp_path):
    generator = engines.REPOSITORY / "script" / "lib" / "instrumented_functions.py"
    table, document = tmp_path / "table.h", tmp_path / "list.md"
    table.write_text(_with_row(_table()), encoding="utf-8")
    assert _run(sys.executable, generator, table, document).returncode == 0
    assert ("| `gethostbyname` | `kaq.capture_http` | yes | the host |"
            in document.read_text(encoding="utf-8").split("\n"))
