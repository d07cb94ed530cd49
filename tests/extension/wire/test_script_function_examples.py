"""docs/script-functions.md: every example is run; what it prints and sends is what is shown."""
import json
import re
import signal

import engines
import pytest
import services

DOCUMENT = (engines.REPOSITORY / "docs" / "script-functions.md").read_text(encoding="utf-8")
# What the document shows for what differs from run to run.
SCRIPT, SERVER = "/srv/shop/job.php", "http://127.0.0.1:8080/"
TRACE = "0af7651916cd43dd8448eb211c80319c"


def sections():
    """(function, code, output or None, payload lines) of each example."""
    for section in re.split(r"^## ", DOCUMENT, flags=re.M)[1:]:
        name = section.split("\n", 1)[0].strip()
        blocks = re.findall(r"^```(\w+)\n(.*?)^```$", section, re.S | re.M)
        kinds = [kind for kind, _ in blocks]
        assert kinds in (["php", "text"], ["php", "json"], ["php", "text", "json"]), (name, kinds)
        shown = dict(blocks)
        yield name, shown["php"], shown.get("text"), shown.get("json", "").splitlines()


EXAMPLES = list(sections())


def run(wire, echo, code):
    script = wire.script(code.replace(SERVER, echo.url))
    options = [*wire.options(), *services.curl_options(wire.engine)]
    return engines.run([wire.engine.php, *options, str(script)]), script


def test_every_function_has_its_section(wire):
    out = wire.cli("echo json_encode(get_extension_funcs('kaq'));").stdout
    assert [name for name, _, _, _ in EXAMPLES] == json.loads(out)


@pytest.mark.parametrize("name,code,output,members", EXAMPLES, ids=[e[0] for e in EXAMPLES])
def test_example(wire, collector, echo, name, code, output, members):
    assert name + "(" in code
    result, script = run(wire, echo, code)
    if output == "Segmentation fault\n":
        assert result.status == -signal.SIGSEGV
        return
    assert result.status == 0 and not result.stderr, result
    shown = (output or "").rstrip("\n").replace(
        SCRIPT.replace("/", "\\/"), str(script).replace("/", "\\/"))
    printed = result.stdout.decode()
    if name == "kaq_print_stacktrace":
        assert printed.endswith("]\t")
    assert printed.rstrip("\n\t") == shown
    payload = collector.payload
    for member in members:
        assert member.replace(TRACE, payload.transaction["trace_id"]) in payload.text


def test_table_shows_the_parameters(wire):
    rows = dict(re.findall(r"^\| \[`(\w+)\((.*?)\)`\]", DOCUMENT, re.M))
    out = wire.cli("""
        foreach (get_extension_funcs('kaq') as $name) {
            $shown[$name] = implode(', ', array_map(function ($p) {
                return '$' . $p->getName() . ($p->isOptional() ? ' = 1' : '');
            }, (new ReflectionFunction($name))->getParameters()));
        }
        echo json_encode($shown);""").stdout
    assert rows == json.loads(out)
