/* Above all: which request it is, its figures, and where its time went. */
import type { Layer, RequestRow } from '../api/types';
import { el, shortened, type Child } from '../ui/dom';
import { bytes, duration, plural, share, timeElement } from '../ui/format';
import { LAYERS, requestTitle, type Model } from './model';
import type { Surroundings } from './surroundings';

export const LAYER_TEXTS: Readonly<Record<Layer, string>> = { code: 'PHP code', database: 'database', cache: 'cache', http: 'HTTP calls', other: 'other' };

export function statusElement(row: RequestRow): Child {
	const isBad = row.failed || row.status >= 500;
	return row.web && row.status > 0 ? el('span', { class: isBad ? 'status bad' : 'status' }, String(row.status)) : row.failed && el('span', { class: 'status bad' }, 'failed');
}

function figure(name: string, value: Child): Child {
	return el('div', {}, el('dt', {}, name), el('dd', {}, value));
}

function counted(number: number, one: string, many: string, ms: number): string {
	return `${plural(number, one, many)}, ${duration(ms)}`;
}

/* The time by layer, as one bar with its legend; what overlaps counts in each. */
export function layerBar(layers: Readonly<Record<string, number>>): Child {
	const known = LAYERS.map((layer) => [layer, layers[layer] ?? 0] as const).filter(([, ms]) => ms > 0);
	const sum = known.reduce((total, [, ms]) => total + ms, 0);
	if (sum === 0) {
		return null;
	}
	return el(
		'div',
		{ class: 'layers' },
		el('div', { class: 'layer-bar', 'aria-hidden': 'true' }, known.map(([layer, ms]) => el('i', { class: `layer-${layer}`, style: { width: `${(ms / sum) * 100}%` } }))),
		el(
			'ul',
			{ class: 'layer-legend', 'aria-label': 'Time by layer' },
			known.map(([layer, ms]) => el('li', {}, el('i', { class: `layer-dot layer-${layer}` }), `${LAYER_TEXTS[layer]} `, el('b', {}, duration(ms)), ` ${share(ms / sum)}`)),
		),
	);
}

/* Of all requests together. */
export function layersOf(model: Model): Record<string, number> {
	if (!model.isTrace) {
		return { ...model.parts[0]?.details.layers };
	}
	// A call that waits for another request is that request's time.
	const sums: Record<string, number> = {};
	for (let i = 0; i < model.size; i++) {
		const layer = LAYERS[model.layer[i] ?? 0] ?? 'other';
		sums[layer] = (sums[layer] ?? 0) + (model.isRepeated[i] ? 0 : (model.self[i] ?? 0));
	}
	return sums;
}

function requestFigures(row: RequestRow): Child {
	return el(
		'dl',
		{ class: 'request-figures' },
		figure('took', el('b', {}, duration(row.duration_ms))),
		row.cpu_ms > 0 && figure('processor', duration(row.cpu_ms)),
		row.memory_bytes > 0 && figure('memory', bytes(row.memory_bytes)),
		row.queries > 0 && figure('database', counted(row.queries, 'query', 'queries', row.query_ms)),
		row.calls > 0 && figure('external', counted(row.calls, 'call', 'calls', row.external_ms)),
		row.failures > 0 && figure('errors', el('span', { class: 'bad' }, plural(row.failures, 'error'))),
		figure('spans', plural(row.spans, 'span')),
	);
}

export function requestHead(model: Model, row: RequestRow, surroundings: Surroundings): HTMLElement {
	const { links } = surroundings;
	const others = model.requestsOfTrace - 1;
	return el(
		'header',
		{ class: 'request-head' },
		el('div', { class: 'row' }, el('h1', { dir: 'auto' }, shortened(requestTitle(row), 300)), statusElement(row), el('div', { class: 'tools' }, surroundings.tools('request', row.id, row.pinned ?? false))),
		el(
			'p',
			{ class: 'row muted small' },
			el('span', {}, shortened(row.application, 100)),
			links?.transaction(row.application, row.name) ?? el('span', {}, shortened(row.name, 200)),
			timeElement(row.start_ms),
			row.host && el('span', {}, shortened(row.host, 100)),
			el('span', { class: 'mono' }, shortened(row.id, 60)),
			others > 0 && (links?.trace(row.trace_id, `${plural(others, 'more request')} of its trace`) ?? `${plural(others, 'more request')} of its trace`),
			links?.typical(row.id, 'Compare with the usual'),
			),
		requestFigures(row),
		layerBar(layersOf(model)),
	);
}

function requestLine(row: RequestRow, note: Child, indent: number, surroundings: Surroundings): Child {
	return el(
		'li',
		{ style: { '--indent': String(Math.min(8, indent)) } },
		el('span', { class: 'service' }, shortened(row.application, 60)),
		el('span', { class: 'cut' }, surroundings.links?.request(row.id, shortened(requestTitle(row), 200)) ?? shortened(requestTitle(row), 200)),
		statusElement(row),
		el('span', { class: 'number' }, duration(row.duration_ms)),
		el('span', { class: 'muted small note' }, note),
	);
}

const REQUESTS_AT_FIRST = 12;

/* The requests as they called each other. */
function requestTree(model: Model, surroundings: Surroundings): Child {
	const depths: number[] = [];
	const lines = model.parts.map((part, i) => {
		const { caller, shift_ms: shift, forked_from: forked } = part.details;
		const depth = caller ? (depths[caller.request] ?? 0) + 1 : 0;
		depths[i] = depth;
		const note = [shift !== undefined && shift !== 0 && `its clock was moved by ${duration(shift)}`, forked !== undefined && 'forked', shortened(part.row.verdict ?? '', 200)].filter(Boolean).join(' · ');
		return requestLine(part.row, note, depth, surroundings);
	});
	lines.push(...model.without.map((row) => requestLine(row, 'its document was not kept', 0, surroundings)));
	const list = el('ul', { class: 'request-tree', 'aria-label': 'Requests of the trace' }, lines.slice(0, REQUESTS_AT_FIRST));
	if (lines.length <= REQUESTS_AT_FIRST) {
		return list;
	}
	return [list, el('details', {}, el('summary', {}, `${lines.length - REQUESTS_AT_FIRST} more requests`), el('ul', { class: 'request-tree' }, lines.slice(REQUESTS_AT_FIRST)))];
}

export function traceHead(model: Model, surroundings: Surroundings): HTMLElement {
	const first = model.parts[0]?.row;
	const services = new Set(model.parts.map((part) => part.row.application)).size;
	return el(
		'header',
		{ class: 'request-head' },
		el('div', { class: 'row' }, el('h1', { dir: 'auto' }, 'Trace', first && ` of ${shortened(requestTitle(first), 300)}`), el('div', { class: 'tools' }, surroundings.tools('trace', model.id, model.parts.every((part) => part.row.pinned)))),
		el(
			'p',
			{ class: 'row muted small' },
			timeElement(model.begun),
			el('span', {}, `${plural(model.requestsOfTrace, 'request')} of ${plural(services, 'service')}`),
			el('span', { class: 'mono' }, shortened(model.id, 80)),
			model.leftOut > 0 && el('span', { class: 'warn' }, `${plural(model.leftOut, 'more request')} left out: too many to be shown`),
		),
		el('dl', { class: 'request-figures' }, figure('took', el('b', {}, duration(model.duration))), figure('spans', plural(model.size, 'span'))),
		layerBar(layersOf(model)),
		requestTree(model, surroundings),
	);
}
