// One JSON request per line on standard input, one JSON answer per line: {"extract": HEADERS} tells
// the span context that a W3C propagator finds in these headers, or null; {"inject": CONTEXT} tells
// the headers that it makes of one.
'use strict';

const readline = require('readline');
const api = require('@opentelemetry/api');
const { W3CTraceContextPropagator } = require('@opentelemetry/core');

const propagator = new W3CTraceContextPropagator();

function extract(headers) {
    const context = propagator.extract(api.ROOT_CONTEXT, headers, api.defaultTextMapGetter);
    return api.trace.getSpanContext(context) || null;
}

function inject(spanContext) {
    const headers = {};
    const context = api.trace.setSpanContext(api.ROOT_CONTEXT, spanContext);
    propagator.inject(context, headers, api.defaultTextMapSetter);
    return headers;
}

readline.createInterface({ input: process.stdin }).on('line', (line) => {
    const request = JSON.parse(line);
    const answer = request.extract ? extract(request.extract) : inject(request.inject);
    process.stdout.write(JSON.stringify(answer) + '\n');
});
