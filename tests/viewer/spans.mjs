/* Answers of the interface, made by hand. */
import { chance } from './shop.mjs';

export function row(members = {}) {
	return {
		id: 'a1', trace_id: 't1', application: 'Shop', name: '/cart', path: '/cart', method: 'GET', host: 'shop.example', instance: 'i1',
		start_ms: 1000, duration_ms: 100, cpu_ms: 10, memory_bytes: 1, status: 200, spans: 1, queries: 0, calls: 0, failures: 0,
		query_ms: 0, external_ms: 0, web: true, failed: false, ...members,
	};
}

export function span(name, parent, start, duration, members = {}) {
	return { name, parent, start_ms: start, duration_ms: duration, self_ms: duration, layer: 'code', shape: 0, ...members };
}

/* `spans` statements in a row below a function, each alike. */
export function cartAnswer(items = 61) {
	const end = items * 10 + 40;
	const spans = [span('main', -1, 0, end, { self_ms: 0, shape: 0 }), span('Cart::items', 0, 0, items * 10, { self_ms: 0, shape: 1 })];
	for (let i = 0; i < items; i++) {
		spans.push(span('PDO::query', 1, i * 10, 10, { layer: 'database', component: 'PDO', statement: 'SELECT id FROM item WHERE id = ?', shape: 2 }));
	}
	spans.push(span('View::render', 0, items * 10, 40, { shape: 3 }));
	return {
		request: row({ duration_ms: end, spans: spans.length }),
		requests_of_trace: 1,
		spans,
		critical_path: spans.slice(2).map((each, i) => ({ request: 0, span: i + 2, from_ms: each.start_ms, to_ms: each.start_ms + each.duration_ms })),
		findings: [{ kind: 'repeated-statement', sentence: '61 times the same statement', gain_ms: 600, count: items, spans: spans.slice(2, -1).map((_, i) => i + 2) }],
		layers: { code: 40, database: items * 10 },
	};
}

/* A tree of spans by chance, with self times as the collector works them out. */
export function randomAnswer(size, seed) {
	const random = chance(seed);
	const spans = [];
	const make = (parent, start, duration, depth) => {
		const index = spans.push(span(`f${Math.floor(random() * 6)}`, parent, start, duration, { shape: Math.floor(random() * 8) })) - 1;
		let at = start;
		let covered = 0;
		while (spans.length < size && depth < 12 && random() < 0.8) {
			at += Math.floor(random() * 4);
			const inner = Math.floor(random() * (start + duration - at));
			if (inner <= 0) {
				break;
			}
			make(index, at, inner, depth + 1);
			at += inner;
			covered += inner;
		}
		spans[index].self_ms = duration - covered;
	};
	make(-1, 0, 100000, 0);
	return { request: row({ duration_ms: 100000, spans: spans.length }), requests_of_trace: 1, spans, critical_path: [], findings: [], layers: {} };
}
