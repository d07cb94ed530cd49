"""Requests as the extension would send them, for what finds and shows them."""
import base64
import json
import time

import sockets

# Recent, so that nothing is too old to be kept.
NOW = int(time.time() * 1000) - 60000


def span(number, start, end, name, component="PHP", parent=0, **members):
    """Times since the request's begin; of the root `parent` is None."""
    each = {"st": NOW + start, "et": NOW + end, "fn": name, "cn": component,
            "si": number if isinstance(number, str) else "%016x" % number, **members}
    if parent is not None:
        each["psi"] = parent if isinstance(parent, str) else "%016x" % parent
    return each


def document(spans, name="/cart", application="Shop", trace="0af7651916cd43dd8448eb211c80319c",
             **info):
    start, end = spans[0]["st"], spans[0]["et"]
    return {"apm": {
        "data": True, "application_info": {"application_name": application, "instance_id": "i1"},
        "transaction_info": {"t_name": name, "s_time": start, "e_time": end, "http_host": "shop",
                             "transaction_type": 1, "httpcode": 200, "http_method_name": "GET",
                             "cputime": 40, "memalloc": 4 << 20, "trace_id": trace, **info},
        "method_info": {"span_info": spans}, "app_parameters": {}}}


def send(collector, spans, **info):
    line = base64.b64encode(json.dumps(document(spans, **info)).encode()) + b"\n"
    sockets.send(collector.data, line)
    wait_for(collector, spans[0]["si"])


def wait_for(collector, request):
    """Until what was sent can be found."""
    for _ in range(100):
        if collector.run("find", "id:" + request).returncode == 0:
            return
        time.sleep(0.1)
    raise AssertionError("request %s was not kept" % request)


def send_cart(collector, request="00000000000000c1", items=61, **info):
    """A cart that asks for each of its items: 10 ms each, and 40 ms of rendering."""
    end = items * 10 + 40
    spans = [span(request, 0, end, "main", parent=None),
             span(1, 0, items * 10, "Cart::items", parent=request)]
    for i in range(items):
        spans.append(span(100 + i, i * 10, i * 10 + 10, "PDO::query", "PDO", parent=1, ex=True,
                          qs="SELECT id, name FROM item WHERE id = %d" % i))
    spans.append(span(2, items * 10, end, "View::render", parent=request))
    send(collector, spans, **info)
