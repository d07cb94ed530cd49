"""A script cannot tell from its transfers whether it is watched.

Output, errors, exit status, and the bytes at the server but for the trace headers are compared
with a run without the extension, whatever is switched on.
"""
import pytest
from curl_runs import FINISH, MODES, UNRECORDED, caller_of, calls, curl, server
import http_server as http

__all__ = ["curl", "server"]

# Errors come out as texts; $show prints what a transfer did.
PRELUDE = """
    set_error_handler(function ($level, $text) { echo "[error $level $text]\\n"; return true; });
    $open = function ($path) use ($url) {
        $ch = curl_init($url . $path); curl_setopt($ch, CURLOPT_RETURNTRANSFER, true); return $ch;
    };
    $show = function ($ch) {
        var_dump(curl_exec($ch), curl_errno($ch), curl_error($ch));
        foreach ([CURLINFO_EFFECTIVE_URL, CURLINFO_HTTP_CODE, CURLINFO_HEADER_SIZE,
                  CURLINFO_CONTENT_TYPE, CURLINFO_REDIRECT_COUNT, CURLINFO_NUM_CONNECTS] as $what) {
            var_dump(curl_getinfo($ch, $what));
        }
    };
    $try = function ($call) {
        try { var_dump($call()); }
        catch (Throwable $e) { echo get_class($e), ' ', $e->getMessage(), "\\n"; }
    };
    $ch = $open('/a');
"""

EVERYTHING = [*MODES, *UNRECORDED]

CALLBACK = "function ($ch, $line) { echo 'H:', $line; return strlen($line); }"
SCRIPTS = {
    # Handles
    "plain": "$show($ch); $show($ch); $show($ch); curl_close($ch);",
    "copied before": "$c = curl_copy_handle($ch); $show($c); $show($ch); $show($c);",
    "copied after": "$show($ch); $c = curl_copy_handle($ch); $show($c); $show($ch); $show($c);",
    "copied with headers": "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']); $show($ch);"
                           "$c = curl_copy_handle($ch); $show($c);"
                           "curl_setopt($c, CURLOPT_HTTPHEADER, ['B: 2']); $show($c); $show($ch);",
    "copied and the first closed": "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);"
                                   "$c = curl_copy_handle($ch); curl_close($ch); unset($ch);"
                                   "$show($c); $show($c);",
    "cloned": "$try(function () use ($ch) { return gettype(clone $ch); });",
    "cloned with headers": """
        $clone = function ($handle) { return is_object($handle) ? clone $handle : $handle; };
        curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']); $b = $clone($ch); $c = $clone($b);
        curl_setopt($b, CURLOPT_HTTPHEADER, ['B: 2']); $show($ch); $show($b); $show($c);
        $d = $clone($b); unset($b); $show($d); curl_reset($ch); $show($c);
    """,
    "reset": "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']); $show($ch); curl_reset($ch);"
             "curl_setopt($ch, CURLOPT_URL, \"$url/b\"); $show($ch);"
             "curl_setopt($ch, CURLOPT_HTTPHEADER, ['B: 2']); $show($ch);",
    "reset at first": "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']); curl_reset($ch);"
                      "curl_setopt($ch, CURLOPT_URL, \"$url/b\"); $show($ch); $show($ch);",
    "reset and no address": "curl_reset($ch); $show($ch);",
    "shared": """
        $share = curl_share_init(); curl_share_setopt($share, CURLSHOPT_SHARE,
                                                      CURL_LOCK_DATA_COOKIE);
        foreach (['/cookie', '/a', '/b'] as $path) {
            $c = $open($path); curl_setopt($c, CURLOPT_SHARE, $share);
            curl_setopt($c, CURLOPT_COOKIEFILE, ''); $show($c); $all[] = $c;
        }
        curl_setopt($all[0], CURLOPT_SHARE, null); $show($all[0]);
    """,
    "elements that end in an error": """
        class Line { function __toString() { trigger_error('user', E_USER_ERROR); return 'A: 1'; } }
        set_error_handler(function ($type, $text) { echo "$text\\n"; return true; });
        curl_setopt($ch, CURLOPT_HTTPHEADER, [new Line, 'B: 2']); $show($ch); $show($ch);
        var_dump(error_get_last());
    """,
    "elements that warn": """
        class Line { function __toString() { trigger_error('w', E_USER_WARNING); return 'A: 1'; } }
        curl_setopt($ch, CURLOPT_HTTPHEADER, [new Line]); $show($ch); $show($ch);
        restore_error_handler(); curl_setopt($ch, CURLOPT_HTTPHEADER, [new Line]); $show($ch);
    """,
    "options that are no numbers": """
        foreach ([10023.0, '10023', '1.0023e4', '10023abc', 10023.5, true, null, [10023],
                  new stdClass] as $bad) {
            curl_setopt($ch, CURLOPT_HTTPHEADER, ['Old: 1']);
            $try(function () use ($ch, $bad) { return @curl_setopt($ch, $bad, ['New: 2']); });
            $show($ch);
        }
    """,
    "private data": "curl_setopt($ch, CURLOPT_PRIVATE, 'mine'); $show($ch);"
                    "var_dump(curl_getinfo($ch, CURLINFO_PRIVATE));",
    "closed twice": "$try(function () use ($ch) { curl_close($ch); curl_close($ch);"
                    "return gettype($ch); });",
    "gone before it ran": "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']); unset($ch); echo 'x';",
    # The script's own callbacks
    "header callback": "curl_setopt($ch, CURLOPT_HEADERFUNCTION, %s); $show($ch); $show($ch);"
                       % CALLBACK,
    "header callback in an array": "curl_setopt_array($ch, [CURLOPT_HEADERFUNCTION => %s]);"
                                   "$show($ch);" % CALLBACK,
    "header callback after a transfer": "$show($ch); curl_setopt($ch, CURLOPT_HEADERFUNCTION, %s);"
                                        "$show($ch);" % CALLBACK,
    "header callback set back": "curl_setopt($ch, CURLOPT_HEADERFUNCTION, %s); $show($ch);"
                                "$try(function () use ($ch) {"
                                "return @curl_setopt($ch, CURLOPT_HEADERFUNCTION, null); });"
                                "curl_reset($ch);" % CALLBACK,
    "header callback that stops": "curl_setopt($ch, CURLOPT_HEADERFUNCTION, function () {"
                                  "return -1; }); $show($ch); $show($ch);",
    "header callback of another handle": "$c = $open('/b'); curl_setopt($c,"
                                         "CURLOPT_HEADERFUNCTION, %s); $show($ch); $show($c);"
                                         % CALLBACK,
    "header file": "$f = fopen('php://temp', 'w+'); curl_setopt($ch, CURLOPT_WRITEHEADER, $f);"
                   "$show($ch); $show($ch); rewind($f); echo stream_get_contents($f);",
    "header file and callback": "$f = fopen('php://temp', 'w+');"
                                "curl_setopt($ch, CURLOPT_WRITEHEADER, $f);"
                                "curl_setopt($ch, CURLOPT_HEADERFUNCTION, %s); $show($ch);"
                                "rewind($f); echo stream_get_contents($f);" % CALLBACK,
    "headers in the result": "curl_setopt($ch, CURLOPT_HEADER, 1); $show($ch);"
                             "curl_setopt($ch, CURLOPT_HEADER, 0); $show($ch);",
    "headers in the output": "curl_setopt($ch, CURLOPT_HEADER, 1);"
                             "curl_setopt($ch, CURLOPT_RETURNTRANSFER, 0); $show($ch);",
    "write callback": "curl_setopt($ch, CURLOPT_WRITEFUNCTION, function ($ch, $data) {"
                      "echo 'W:', $data; return strlen($data); }); $show($ch);",
    "write callback gets headers": "curl_setopt($ch, CURLOPT_HEADER, 1);"
                                   "curl_setopt($ch, CURLOPT_WRITEFUNCTION,"
                                   "function ($ch, $data) { echo 'W:', $data;"
                                   "return strlen($data); }); $show($ch);",
    "write callback that stops": "curl_setopt($ch, CURLOPT_WRITEFUNCTION,"
                                 "function () { return 0; }); $show($ch); $show($ch);",
    "file": "$f = fopen('php://temp', 'w+'); curl_setopt($ch, CURLOPT_FILE, $f); $show($ch);"
            "rewind($f); echo stream_get_contents($f);",
    "read callback": "curl_setopt_array($ch, [CURLOPT_UPLOAD => true, CURLOPT_INFILESIZE => 3,"
                     "CURLOPT_READFUNCTION => function ($ch, $f, $n) { static $done = 0;"
                     "return $done++ ? '' : 'abc'; }]); $show($ch);",
    "progress callback": "curl_setopt_array($ch, [CURLOPT_NOPROGRESS => 0,"
                         "CURLOPT_PROGRESSFUNCTION => function () { static $told = 0;"
                         "echo $told++ ? '' : 'P'; return 0; }]); $show($ch);",
    "progress callback that stops": "curl_setopt_array($ch, [CURLOPT_NOPROGRESS => 0,"
                                    "CURLOPT_PROGRESSFUNCTION => function () { return 1; }]);"
                                    "$show($ch);",
    "handle changed in a callback": "curl_setopt($ch, CURLOPT_WRITEFUNCTION, function ($ch, $d) {"
                                    "curl_setopt($ch, CURLOPT_HTTPHEADER, ['L: 1']);"
                                    "return strlen($d); }); $show($ch); $show($ch);",
    "other transfer in a callback": "$c = $open('/b'); curl_setopt($ch, CURLOPT_WRITEFUNCTION,"
                                    "function ($ch, $d) use ($c, $show) { $show($c);"
                                    "return strlen($d); }); $show($ch);",
    # The script's own headers
    "headers": "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']); $show($ch); $show($ch);"
               "curl_setopt($ch, CURLOPT_HTTPHEADER, ['B: 2', 'A: 3']); $show($ch); $show($ch);",
    "headers after a transfer": "$show($ch); curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);"
                                "$show($ch);",
    "headers taken away": "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']); $show($ch);"
                          "var_dump(curl_setopt($ch, CURLOPT_HTTPHEADER, [])); $show($ch);"
                          "curl_setopt($ch, CURLOPT_HTTPHEADER, ['B: 1']);"
                          "curl_setopt($ch, CURLOPT_HTTPHEADER, []); $show($ch);",
    "headers taken away in an array": "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);"
                                      "$show($ch); curl_setopt_array($ch, [CURLOPT_HTTPHEADER"
                                      " => []]); $show($ch); $show($ch);",
    "headers in an array": "curl_setopt_array($ch, [CURLOPT_TIMEOUT => 9, CURLOPT_HTTPHEADER =>"
                           "['A: 1']]); $show($ch); $show($ch);",
    "headers as an object": "$try(function () use ($ch) { return curl_setopt($ch,"
                            "CURLOPT_HTTPHEADER, (object)['a' => 'A: 1', 'b' => 'B: 2']); });"
                            "$show($ch); $show($ch);",
    "headers by reference": "$list = ['A: 1', 'B: 2']; foreach ($list as &$line) {}"
                            "curl_setopt($ch, CURLOPT_HTTPHEADER, $list); $line = 'B: changed';"
                            "$show($ch); $line = 'B: again'; $show($ch); var_dump($list);",
    "headers by reference everywhere": "$list = ['A: 1', 'B: 2']; $first = &$list[0];"
                                       "$options = [CURLOPT_HTTPHEADER => &$list];"
                                       "curl_setopt_array($ch, $options); $first = 'C: 3';"
                                       "$list = ['D: 4']; $show($ch); $show($ch);"
                                       "var_dump($options);",
    "headers in a loop by reference": "$list = ['A: 0']; foreach ($list as &$line) {"
                                      "for ($i = 0; $i < 3; $i++) { $line = \"A: $i\";"
                                      "curl_setopt($ch, CURLOPT_HTTPHEADER, $list);"
                                      "$line = 'never'; $show($ch); } }",
    "list changed after": "$list = ['A: 1']; curl_setopt($ch, CURLOPT_HTTPHEADER, $list);"
                          "$list[] = 'B: 2'; $list[0] = 'C: 3'; $show($ch); $show($ch);",
    "other options between": "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']); $show($ch);"
                             "curl_setopt($ch, CURLOPT_POSTFIELDS, 'x=1'); $show($ch);"
                             "curl_setopt($ch, CURLOPT_HTTPGET, 1); $show($ch);"
                             "curl_setopt($ch, CURLOPT_CUSTOMREQUEST, 'DELETE'); $show($ch);"
                             "curl_setopt($ch, CURLOPT_NOBODY, 1); $show($ch);",
    "list that fails": "$try(function () use ($ch) { return curl_setopt($ch, CURLOPT_HTTPHEADER,"
                       "'text'); }); $show($ch);"
                       "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);"
                       "$try(function () use ($ch) { return curl_setopt($ch, CURLOPT_HTTPHEADER,"
                       "5); }); $show($ch);",
    "list that fails in an array": "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);"
                                   "$try(function () use ($ch) { return curl_setopt_array($ch,"
                                   "[CURLOPT_HTTPHEADER => 'text']); }); $show($ch);",
    "array that fails in the middle": "$try(function () use ($ch) { return curl_setopt_array($ch,"
                                      "[CURLOPT_TIMEOUT => 5, -7 => 1, CURLOPT_HTTPHEADER =>"
                                      "['A: 1']]); }); echo curl_errno($ch);",
    "nested array": "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1', ['B: 2']]); $show($ch);",
    # Several at once
    "multi": "$multi = curl_multi_init(); var_dump(curl_multi_add_handle($multi, $ch));" + FINISH
             + "var_dump($status, $running, curl_multi_getcontent($ch),"
               "curl_multi_info_read($multi)['result'], curl_multi_info_read($multi),"
               "curl_multi_remove_handle($multi, $ch)); curl_multi_close($multi); $show($ch);",
    "multi again and again": "$multi = curl_multi_init(); curl_setopt($ch, CURLOPT_HTTPHEADER,"
                             "['A: 1']); for ($i = 0; $i < 5; $i++) {"
                             "curl_multi_add_handle($multi, $ch); %s"
                             "echo curl_multi_getcontent($ch);"
                             "curl_multi_remove_handle($multi, $ch); } $show($ch);" % FINISH,
    "multi with callbacks": "$multi = curl_multi_init(); curl_setopt($ch, CURLOPT_WRITEFUNCTION,"
                            "function ($c, $d) { echo $d; return strlen($d); });"
                            "curl_setopt($ch, CURLOPT_HEADERFUNCTION, %s);"
                            "curl_multi_add_handle($multi, $ch); %s" % (CALLBACK, FINISH),
    "added twice": "$multi = curl_multi_init(); curl_multi_add_handle($multi, $ch);"
                   "var_dump(curl_multi_add_handle($multi, $ch));" + FINISH +
                   "var_dump(curl_multi_remove_handle($multi, $ch),"
                   "curl_multi_remove_handle($multi, $ch));",
    "run while it is attached": "$multi = curl_multi_init(); curl_multi_add_handle($multi, $ch);"
                                "$show($ch);" + FINISH,
    "attached handle closed": "$multi = curl_multi_init(); curl_multi_add_handle($multi, $ch);"
                              "curl_close($ch);" + FINISH + "var_dump($status); unset($ch);" +
                              FINISH + "curl_multi_close($multi);",
    "headers changed between two runs": "$multi = curl_multi_init();"
                                        "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);"
                                        "curl_multi_add_handle($multi, $ch);" + FINISH +
                                        "curl_multi_remove_handle($multi, $ch);"
                                        "curl_setopt($ch, CURLOPT_HTTPHEADER, ['B: 1']);"
                                        "curl_multi_add_handle($multi, $ch);" + FINISH +
                                        "echo curl_multi_getcontent($ch);",
    "headers changed while attached": "$multi = curl_multi_init();"
                                      "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);"
                                      "curl_multi_add_handle($multi, $ch);"
                                      "curl_setopt($ch, CURLOPT_HTTPHEADER, ['B: 1']);" + FINISH +
                                      "echo curl_multi_getcontent($ch);"
                                      "curl_multi_remove_handle($multi, $ch); $show($ch);",
    "reset while attached": "$multi = curl_multi_init();"
                            "curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);"
                            "curl_multi_add_handle($multi, $ch); curl_reset($ch);"
                            "curl_setopt($ch, CURLOPT_URL, \"$url/b\");" + FINISH + "$show($ch);",
    "multi closed first": "$multi = curl_multi_init(); curl_multi_add_handle($multi, $ch);"
                          "curl_multi_close($multi); unset($multi); $show($ch);",
    "multi used after it was closed": "$multi = curl_multi_init(); curl_multi_close($multi);"
                                      "$try(function () use ($multi, $ch) { return"
                                      " curl_multi_add_handle($multi, $ch); });"
                                      "$try(function () use ($multi) { return"
                                      " curl_multi_exec($multi, $r); });"
                                      "$try(function () use ($multi, $ch) { return"
                                      " curl_multi_remove_handle($multi, $ch); });"
                                      "$try(function () use ($multi) { return"
                                      " curl_multi_close($multi); });",
    "flag by reference": "$multi = curl_multi_init(); curl_multi_add_handle($multi, $ch);"
                         "$r = 'text'; $alias = &$r; $copy = $r; do { curl_multi_exec($multi, $r);"
                         "curl_multi_select($multi, 0.02); } while ($r);"
                         "var_dump($r, $alias, $copy);",
}
ANSWERS = {
    "/cookie": http.answers(200, ["Set-Cookie: k=v", "Content-Type: text/plain"], b"cookie"),
    "/a": http.answers(200, ["A: 1", "Content-Type: text/a", "Set-Cookie: c=d"], b"body of a"),
    "/b": http.answers(404, ["B: 1", "Content-Type: text/b"], b"body of b"),
}


@pytest.fixture(autouse=True)
def pages(server):
    server.routes.update(ANSWERS)


@pytest.mark.parametrize("kind", list(SCRIPTS))
def test_script_cannot_tell(curl, kind):
    run = curl.same(PRELUDE + SCRIPTS[kind], *EVERYTHING)
    assert run.result.stderr == b"" and run.result.status in (0, 255)


WRONG = ["", "1", "'x'", "null", "[]", "$ch", "$ch, 1", "$ch, 'x'", "$ch, null, null", "$multi",
         "$multi, $ch, 1", "$ch, $multi", "$multi, $multi", "new stdClass, $ch", "$gone", "$f",
         "$gone, 10002, 'x'", "$f, $f", "$ch, 10002", "$ch, 10002, [1]", "$ch, 1, 2, 3, 4",
         "$gone, $x", "$f, $x"]
FUNCTIONS = ["curl_exec", "curl_setopt", "curl_setopt_array", "curl_multi_add_handle",
             "curl_multi_exec", "curl_multi_remove_handle", "curl_multi_close", "curl_multi_init",
             "curl_init"]


def _wrong_calls(name, throws=False):
    """Every wrong call, each with handles of its own."""
    end = "throw new Exception($text);" if throws else 'echo "[$level $text]\\n"; return true;'
    handler = "set_error_handler(function ($level, $text) { %s });" % end
    return handler + "".join("""
        $ch = curl_init(); $multi = curl_multi_init(); $f = fopen('php://memory', 'r');
        $gone = curl_init(); @curl_close($gone); $x = 0;
        try { var_dump(is_scalar($r = %s(%s)) ? $r : gettype($r)); }
        catch (Throwable $e) { echo get_class($e), $e->getMessage(), "\\n"; }
    """ % (name, arguments) for arguments in WRONG if not (
        name == "curl_multi_exec" and arguments and "$" not in arguments.split(",")[-1]))


@pytest.mark.parametrize("throws", [False, True], ids=["told", "thrown"])
@pytest.mark.parametrize("name", FUNCTIONS)
def test_wrong_arguments_give_the_same_errors(curl, name, throws):
    curl.same(_wrong_calls(name, throws), *EVERYTHING)


@pytest.mark.parametrize("mode", ["both", "headers", "trace"])
@pytest.mark.parametrize("list_", [
    "(function () { yield 'A: 1'; throw new Exception('of the generator'); })()",
    "(function () { throw new Exception('of the generator'); yield 1; })()",
    "(function () { yield 'A: 1'; trigger_error('of the generator'); })()",
    "(function () { $g = yield 'A: 1'; return $g; })()"])
def test_iterator_that_fails_fails_for_us_alone(curl, list_, mode):
    bare, loaded = (curl.run(PRELUDE + """
        $try(function () use ($ch) { return curl_setopt($ch, CURLOPT_HTTPHEADER, %s); });
        $try(function () use ($ch) { return curl_setopt_array($ch, [CURLOPT_HTTPHEADER => %s]); });
        $show($ch);
    """ % (list_, list_), mode, loaded=on) for on in (False, True))
    assert loaded.result.outcome == bare.result.outcome


@pytest.mark.parametrize("mode", ["trace", "both"])
@pytest.mark.parametrize("list_", ["(function () { yield 'A: 1'; yield 'B: 2'; })()",
                                   "new ArrayIterator(['A: 1', 'B: 2'])"])
def test_iterator_that_is_a_header_list_is_read_and_sent_which_is_meant(
        curl, engine, list_, mode):
    """curl itself takes no header from one, or not in every engine."""
    if engine.handles_are_objects:
        pytest.skip("curl refuses one here")
    run = curl.run(PRELUDE + """
        $list = %s; curl_setopt($ch, CURLOPT_HTTPHEADER, $list); $show($ch); $show($ch);
    """ % list_, mode)
    assert [request.headers[-2:] for request in run.requests] == [["A: 1", "B: 2"]] * 2


def test_error_that_ends_the_request_in_our_reading_of_the_list_is_told_which_is_meant(curl):
    run = curl.run("""
        class Line { public $n = 0; function __toString() {
            if (++$this->n > 1) { trigger_error('deadly', E_USER_ERROR); } return 'A: 1'; } }
        $ch = curl_init("$url/a"); curl_setopt($ch, CURLOPT_HTTPHEADER, [new Line]); curl_exec($ch);
    """)
    assert run.result.status == 255 and b"Fatal error: deadly" in run.result.stdout, run.result


@pytest.mark.parametrize("count", [1, 2, 3])
def test_handlers_stay_however_many_an_element_restores_while_we_read_it(curl, count):
    curl.same(PRELUDE + """
        class Line { public $n = 0; function __toString() {
            for ($i = 0; $this->n > 0 && $i < %d; $i++) {
                restore_error_handler(); restore_exception_handler(); }
            $this->n++; return 'A: 1'; } }
        set_error_handler(function ($level, $text) { echo "[upper $level $text]\n"; });
        set_exception_handler(function ($e) { echo '[lower ', $e->getMessage(), ']'; });
        set_exception_handler(function ($e) { echo '[upper ', $e->getMessage(), ']'; });
        curl_setopt($ch, CURLOPT_HTTPHEADER, [new Line]); $show($ch); $show($ch);
        trigger_error('1'); restore_error_handler(); trigger_error('2'); restore_error_handler();
        trigger_error('3'); restore_exception_handler(); throw new Exception('4');
    """ % count, *EVERYTHING)


def test_iterator_whose_keys_repeat_leaves_the_last_line_of_each_which_is_meant(curl, engine):
    if engine.handles_are_objects:
        pytest.skip("curl refuses one here")
    run = curl.run(PRELUDE + """
        $lists = function () { yield from ['A: 1', 'B: 2', 'C: 3']; yield from ['D: 4', 'E: 5']; };
        curl_setopt($ch, CURLOPT_HTTPHEADER, $lists()); $show($ch);
    """)
    assert run.requests[0].headers[-4:] == run.requests[0].headers[-4:-3] + [
        "D: 4", "E: 5", "C: 3"]


@pytest.mark.parametrize("list_", [
    "new ArrayIterator(['B: 1'])", "(function () { yield 'B: 1'; })()", "[new stdClass]",
    "['B: 1', new stdClass]"])
@pytest.mark.parametrize("how", ["curl_setopt($ch, CURLOPT_HTTPHEADER, $list)",
                                 "curl_setopt_array($ch, [CURLOPT_HTTPHEADER => $list])"],
                         ids=["curl_setopt", "curl_setopt_array"])
def test_list_that_curl_refuses_changes_nothing(curl, engine, how, list_):
    if not engine.handles_are_objects:
        pytest.skip("curl refuses no list here")
    curl.same(PRELUDE + """
        $list = %s; curl_setopt($ch, CURLOPT_HTTPHEADER, ['A: 1']);
        $try(function () use ($ch, $list) { return %s; });
        echo $list instanceof Generator ? $list->current() : ''; $show($ch); $show($ch);
    """ % (list_, how), *EVERYTHING)


def test_callback_knows_its_handle(curl):
    curl.same(PRELUDE + """
        curl_setopt($ch, CURLOPT_HEADERFUNCTION, function ($h, $line) use ($ch) {
            echo $h === $ch ? '=' : '!'; return strlen($line); });
        curl_exec($ch); curl_exec($ch);
    """, *EVERYTHING)


def test_error_state_of_a_handle_is_the_transfer_s(curl):
    """What we ask curl afterwards must not change what the script asks next."""
    curl.same(PRELUDE + """
        curl_setopt($ch, CURLOPT_URL, 'http://127.0.0.1:1/'); curl_exec($ch);
        var_dump(curl_errno($ch), error_get_last());
        curl_setopt($ch, CURLOPT_URL, "$url/a"); curl_exec($ch);
        var_dump(curl_errno($ch), curl_error($ch), error_get_last());
    """, *EVERYTHING)


def test_error_get_last_and_json_state_stay_the_script_s(curl):
    curl.same("""
        @trigger_error('mine'); json_decode('{'); $ch = curl_init("$url/a");
        curl_setopt($ch, CURLOPT_RETURNTRANSFER, 1); curl_exec($ch); @curl_setopt($ch, 10023, []);
        echo error_get_last()['message'], json_last_error();
    """, *EVERYTHING)


@pytest.mark.parametrize("how", ["child", "other namespace", "dynamic", "by array_map"])
def test_call_by_any_route(curl, how):
    calls_of = {"child": "class C { static function f($ch) { return curl_exec($ch); } }"
                         "echo C::f($ch);",
                "other namespace": "echo eval('namespace N; return curl_exec($ch);');",
                "dynamic": "$f = 'curl_exec'; echo $f($ch);",
                "by array_map": "echo array_map('CURL_Exec', [$ch])[0];"}
    run = curl.same(PRELUDE + calls_of[how])
    assert caller_of(run.requests[0]) == calls(curl.collector.payload, "curl_exec")[0]["si"]
