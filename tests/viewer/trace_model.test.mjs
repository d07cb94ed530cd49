/* The model of a request's spans, its rows, its flame graph, and how answers are read. */
import assert from 'node:assert/strict';
import test from 'node:test';
import { chance } from './shop.mjs';
import { source } from './source.mjs';
import { cartAnswer, randomAnswer, row, span } from './spans.mjs';

const { AnswerSplitter } = await source('trace/split.ts');
const { ModelBuilder, titleOf, childrenOf, plain, codeAbove } = await source('trace/model.ts');
const { RowTree } = await source('trace/rows.ts');
const { FlameTree } = await source('trace/flame_tree.ts');
const { Zoom, ticks } = await source('trace/scale.ts');
const { statementGroups, failedNodes } = await source('trace/statements.ts');

function requestModel(answer) {
	const builder = new ModelBuilder();
	builder.add(0, answer.spans);
	return builder.request({ ...answer, spans: [] });
}

function traceModel(answer) {
	const builder = new ModelBuilder();
	answer.requests.filter((each) => each.spans).forEach((each, i) => builder.add(i, each.spans));
	return builder.trace(answer);
}

function visible(tree) {
	return tree.visible.map((each) => `${' '.repeat(each.depth)}${each.nodes.length > 1 ? `${each.nodes.length} × ` : ''}${each.label}`);
}

/* As the answer comes over the network: in pieces of any size. */
function split(text, spansAt, sizes) {
	const lists = [];
	const splitter = new AnswerSplitter(spansAt, (list, spans) => (lists[list] ??= []).push(...spans));
	const bytes = new TextEncoder().encode(text);
	for (let at = 0; at < bytes.length; ) {
		const size = sizes();
		splitter.push(bytes.slice(at, at + size));
		at += size;
	}
	return { around: splitter.end(), lists };
}

const HOSTILE = ['"spans":[{"name":"x"}]', '\\', '\\"', '],"spans":[', '</script>', 'ü€😀', '\u2028', '{"spans":[', '"'];

test('an answer that comes in pieces is what JSON says', () => {
	const answer = cartAnswer(40);
	HOSTILE.forEach((text, i) => (answer.spans[i + 2].name = text));
	answer.note = HOSTILE;
	answer.request.path = '"spans":[';
	for (let seed = 1; seed < 40; seed++) {
		const random = chance(seed);
		const sizes = () => 1 + Math.floor(random() * (seed % 2 ? 7 : 900));
		const { around, lists } = split(JSON.stringify(answer), 1, sizes);
		assert.deepEqual(lists, [answer.spans]);
		assert.deepEqual(around, { ...answer, spans: [] });
	}
});

test('a trace that comes in pieces keeps the lists of its requests apart', () => {
	const requests = [cartAnswer(3), { request: row() }, cartAnswer(5), { ...cartAnswer(1), spans: [] }];
	const answer = { trace_id: 't', requests, critical_path: [] };
	const { around, lists } = split(JSON.stringify(answer, null, 1), 3, () => 11);
	assert.deepEqual(lists, [requests[0].spans, requests[2].spans]);
	assert.deepEqual(around.requests.map((each) => each.spans?.length), [0, undefined, 0, 0]);
	assert.deepEqual(around.requests[0].findings, requests[0].findings);
});

test('what is no JSON is refused', () => {
	assert.throws(() => split('{"spans":[{"name":"a"},{"na', 1, () => 5));
	assert.throws(() => split('{"spans":[{"name":}]}', 1, () => 100));
});

test('a repeated statement is one row that opens', () => {
	const tree = new RowTree(requestModel(cartAnswer(61)));
	assert.deepEqual(visible(tree), ['GET /cart', ' Cart::items', '  61 × SELECT id FROM item WHERE id = ?', ' View::render']);
	const repeated = tree.visible[2];
	assert.equal(repeated.total, 610);
	tree.setOpen(repeated, true);
	tree.lay();
	assert.equal(tree.visible.length, 65);
	assert.equal(tree.visible[3].label, 'SELECT id FROM item WHERE id = ?');
	assert.equal(tree.visible[63].place, 61);
	assert.equal(tree.visible[63].siblings, 61);
	assert.equal(tree.rowOf[2], 3);
	tree.setOpen(repeated, false);
	tree.lay();
	assert.equal(tree.changes, '');
	assert.equal(tree.rowOf[2], 2);
});

test('two calls alike stand for themselves', () => {
	const tree = new RowTree(requestModel(cartAnswer(2)));
	assert.equal(tree.visible.length, 5);
});

/* 4 calls of a function that each run a statement. */
function nested() {
	const answer = cartAnswer(0);
	answer.spans = [span('main', -1, 0, 100, { shape: 0 })];
	for (let i = 0; i < 4; i++) {
		answer.spans.push(span('Product::load', 0, i * 20, 20, { self_ms: 5, shape: 1 }));
		answer.spans.push(span('PDO::query', 1 + i * 2, i * 20 + 5, 15, { layer: 'database', statement: 'SELECT 1', shape: 2 }));
	}
	answer.critical_path = [];
	answer.findings = [];
	return answer;
}

test('what repeated calls call is put together, and they can be seen one by one', () => {
	const tree = new RowTree(requestModel(nested()));
	assert.deepEqual(visible(tree), ['GET /cart', ' 4 × Product::load', '  4 × SELECT 1', '  4 × the calls one by one']);
	tree.setOpen(tree.visible[3], true);
	tree.lay();
	assert.equal(visible(tree)[4], '   Product::load');
	assert.equal(visible(tree)[5], '    SELECT 1');
	const keys = tree.visible.map((each) => each.key);
	assert.equal(new Set(keys).size, keys.length, 'each row has a key of its own');
});

test('a span is revealed one by one or within what was put together', () => {
	const model = requestModel(nested());
	const tree = new RowTree(model);
	assert.equal(tree.reveal(4).label, 'SELECT 1');
	tree.lay();
	assert.equal(tree.visible.length, 4);
	const one = tree.reveal(4, '4');
	tree.lay();
	assert.deepEqual(one.nodes, [4]);
	assert.equal(one.above.nodes[0], 3);
	assert.ok(tree.visible.includes(one));
	const restored = new RowTree(model);
	restored.changes = tree.changes;
	restored.lay();
	assert.deepEqual(visible(restored), visible(tree));
});

test('silent calls are summed up', () => {
	const answer = nested();
	answer.spans.push(...[1, 2, 3].map((i) => span('curl_multi_exec', 0, 80 + i, 1, { layer: 'http', fold: 'polls', shape: 5 })));
	const tree = new RowTree(requestModel(answer));
	assert.ok(visible(tree).includes(' 3 × polls of transfers'));
});

test('every span has a visible row, whatever is open', () => {
	for (let seed = 1; seed < 15; seed++) {
		const model = requestModel(randomAnswer(600, seed));
		const tree = new RowTree(model);
		for (const all of [undefined, true, false]) {
			if (all !== undefined) {
				tree.setAll(all);
				tree.lay();
			}
			for (let node = 0; node < model.size; node++) {
				const shown = tree.visible[tree.rowOf[node]];
				assert.ok(shown, `span ${node}`);
				assert.ok(shown.from <= model.start[node] && shown.to >= model.end[node]);
			}
		}
		assert.equal(tree.visible.length, 1 + tree.below(tree.tops[0]).length);
		const again = new RowTree(model);
		again.changes = tree.changes;
		again.lay();
		assert.deepEqual(visible(again), visible(tree));
	}
});

test('a flame graph has all the time, and frames within each other', () => {
	for (let seed = 1; seed < 10; seed++) {
		const model = requestModel(randomAnswer(800, seed));
		const tree = new FlameTree(model);
		let [self, nodes] = [0, 0];
		const waiting = [...tree.tops];
		for (let frame = waiting.pop(); frame; frame = waiting.pop()) {
			self += frame.self;
			nodes += frame.nodes.length;
			const below = tree.below(frame);
			const sum = below.reduce((total, each) => total + each.value, 0);
			assert.equal(frame.value, frame.self + sum);
			below.forEach((each) => assert.ok(each.at >= frame.at && each.at + each.value <= frame.at + frame.value));
			waiting.push(...below);
		}
		assert.equal(self, 100000);
		assert.equal(nodes, model.size);
		assert.ok(tree.frameOf(model.size - 1).nodes.includes(model.size - 1));
	}
});

function shop() {
	const shopSpans = [span('main', -1, 0, 100, { self_ms: 40 }), span('curl_exec', 0, 20, 60, { layer: 'http', endpoint: 'stock/x', host: 'http://stock/x', status: 200, self_ms: 60 })];
	const stockSpans = [span('main', -1, 0, 50, { self_ms: 20 }), span('PDO::query', 0, 10, 30, { layer: 'database', statement: 'SELECT 1', failed: true })];
	return {
		trace_id: 't1', start_ms: 5000, duration_ms: 100, left_out: 0,
		requests: [
			{ request: row(), start_ms: 0, spans: shopSpans, findings: [] },
			{ request: row({ id: 'b1', application: 'Stock', path: '/x' }), start_ms: 25, shift_ms: 7, caller: { request: 0, span: 1 }, spans: stockSpans, findings: [{ kind: 'slow-statement', sentence: 's', gain_ms: 30, count: 1, spans: [1] }] },
			{ request: row({ id: 'c1' }) },
		],
		critical_path: [{ request: 1, span: 1, from_ms: 35, to_ms: 65 }],
	};
}

test('a trace hangs requests below the calls that made them', () => {
	const model = traceModel(shop());
	assert.equal(model.size, 4);
	assert.deepEqual([...childrenOf(model, 1)], [2]);
	assert.equal(model.start[3], 35);
	assert.equal(model.self[1], 10, 'the call waits for the request');
	assert.deepEqual([...model.depth], [0, 1, 2, 3]);
	assert.equal(titleOf(model, 2), 'Stock GET /x');
	assert.equal(model.without.length, 1);
	assert.deepEqual(model.findings[0].nodes, [3]);
	assert.deepEqual([...model.stepNode], [3]);
	assert.deepEqual([...model.hasFailed], [1, 1, 1, 1]);
	assert.deepEqual(failedNodes(model), [3]);
	assert.equal(codeAbove(model, 3), 2);
});

test('what a forked process repeats is shown once', () => {
	const answer = shop();
	const child = { request: row({ id: 'd1' }), start_ms: 0, forked_from: 0, caller: { request: 0, span: 0 }, repeated_spans: [1], findings: [] };
	child.spans = [span('main', -1, 0, 90), span('a', 0, 1, 5), span('b', 1, 2, 2)];
	answer.requests.splice(2, 0, child);
	const model = traceModel(answer);
	const shown = new RowTree(model).visible.map((each) => each.label);
	assert.ok(!shown.includes('a'));
	assert.ok(shown.includes('b'));
});

test('answers that contradict themselves make a tree all the same', () => {
	const answer = cartAnswer(3);
	answer.spans[2].parent = 900;
	answer.spans[3].parent = 3;
	answer.spans[4].parent = -5;
	answer.critical_path.push({ request: 7, span: 1, from_ms: 0, to_ms: 1 }, { request: 0, span: 99999, from_ms: 0, to_ms: 1 });
	answer.findings[0].spans.push(-1, 4000);
	const model = requestModel(answer);
	assert.deepEqual([...model.parent].slice(2, 5), [0, 0, 0]);
	assert.equal(model.stepNode.length, answer.critical_path.length - 2);
	assert.equal(new RowTree(model).visible.length > 0, true);
});

test('statements are grouped by text and database', () => {
	const answer = cartAnswer(4);
	answer.spans[3].database_name = 'other';
	const groups = statementGroups(requestModel(answer));
	assert.deepEqual(groups.map((each) => [each.nodes.length, each.total, each.database]), [[3, 30, ''], [1, 10, 'other']]);
});

test('labels hold nothing that runs over the text beside them', () => {
	assert.equal(plain('a\n\tb\u0000c\u202Ed\u2066e'), 'a b c\uFFFDd\uFFFDe');
	assert.equal(plain('x'.repeat(1e6)).length, 301);
});

test('zoom stays within the whole and keeps the moment under the pointer', () => {
	const zoom = new Zoom(1000);
	zoom.by(0.1, 200);
	assert.deepEqual([zoom.from, zoom.to], [180, 280]);
	zoom.move(-500);
	assert.deepEqual([zoom.from, zoom.to], [0, 100]);
	zoom.by(1e-9);
	assert.ok(zoom.to - zoom.from >= 0.5);
	zoom.by(1e9);
	assert.ok(zoom.isWhole);
	zoom.set(990, 5000);
	assert.equal(zoom.to, 1000);
	assert.ok(new Zoom(0).to > 0);
});

test('ticks are round, and not too many', () => {
	for (const [from, to] of [[0, 1], [0, 310], [12.5, 13], [0, 9e6], [0, 0.5]]) {
		const { at, step } = ticks(from, to, 8);
		assert.ok(at.length > 0 && at.length <= 10, `${from} to ${to}: ${at.length}`);
		assert.ok(at.every((each) => each >= from && each <= to));
		assert.match(step.toExponential(), /^[125]e/);
	}
});
