/* Two requests, or one and the typical one of its transaction: what grew, by count or by duration. */
import { api } from '../api/services';
import type { Comparison, Difference, RequestRow } from '../api/types';
import { aligned } from './aligned';
import { heldSort } from '../state/held';
import { el, shortened, type Child } from '../ui/dom';
import { bar } from '../ui/figures';
import { count, duration, plural, timeElement } from '../ui/format';
import { requestLink, transactionLink } from '../ui/link';
import { emptyState } from '../ui/states';
import { table, type Column } from '../ui/table';

const MOST = 300;

const CHANGES: Readonly<Record<Difference['change'], string>> = {
	added: 'only after',
	removed: 'only before',
	count: 'by how often',
	duration: 'by how long',
};

function sideText(title: string, request: RequestRow): HTMLElement {
	return el(
		'div',
		{ class: 'side' },
		el('h3', {}, title),
		el('p', {}, requestLink(request.id, `${request.method} ${shortened(request.path || request.name, 200)}`.trim())),
		el('p', { class: 'muted' }, transactionLink(request.application, request.name)),
		el('p', {}, el('b', {}, duration(request.duration_ms)), `, ${plural(request.queries, 'query', 'queries')}, `, timeElement(request.start_ms)),
		request.verdict ? el('p', { class: 'muted' }, shortened(request.verdict, 400)) : null,
	);
}

function typicalSide(requests: number, took: number): HTMLElement {
	return el(
		'div',
		{ class: 'side' },
		el('h3', {}, 'Before: the typical request'),
		el('p', {}, `The median of ${plural(requests, 'request')} of the same transaction that did not fail`),
		el('p', {}, el('b', {}, duration(took))),
	);
}

function growthCell(row: Difference, most: number): HTMLElement {
	const text = `${row.growth_ms > 0 ? '+' : ''}${duration(row.growth_ms)}`;
	return el('span', { class: row.growth_ms > 0 ? 'bad' : 'good' }, text, bar(Math.abs(row.growth_ms) / most));
}

function differences(rows: readonly Difference[]): HTMLElement {
	const most = Math.max(1, ...rows.map((row) => Math.abs(row.growth_ms)));
	const columns: Column<Difference>[] = [
		{
			key: 'name',
			title: 'Call',
			isMain: true,
			by: (row) => row.name,
			cell: (row) =>
				el(
					'div',
					{},
					el('code', { class: 'statement' }, el('b', {}, shortened(row.name, 200)), row.detail ? ` ${shortened(row.detail, 400)}` : ''),
					el('span', { class: 'muted small cut', title: shortened(row.path ?? '', 2000) }, shortened(row.path ?? '', 400)),
				),
		},
		{ key: 'growth', title: 'Growth', help: 'What it adds to the request, without what it calls', align: 'right', by: (row) => row.growth_ms, cell: (row) => growthCell(row, most) },
		{ key: 'change', title: 'Why', className: 'time-cell', by: (row) => CHANGES[row.change], cell: (row) => CHANGES[row.change] },
		{ key: 'count', title: 'Calls', align: 'right', by: (row) => row.count_after - row.count_before, cell: (row) => `${count(row.count_before)} → ${count(row.count_after)}` },
		{ key: 'self', title: 'Own time', align: 'right', by: (row) => row.self_after_ms, cell: (row) => `${duration(row.self_before_ms)} → ${duration(row.self_after_ms)}` },
		{ key: 'total', title: 'With its calls', align: 'right', by: (row) => row.total_after_ms, cell: (row) => `${duration(row.total_before_ms)} → ${duration(row.total_after_ms)}` },
	];
	return table({ caption: 'What differs', columns, rows, ...heldSort() });
}

/* Both with their calls, as far as these are kept. */
async function sideBySide(a: string, b: string, signal: AbortSignal): Promise<Child> {
	const [before, after] = await Promise.all([api.request(a, signal), api.request(b, signal)]);
	return before.spans && after.spans && [el('h3', {}, 'Side by side'), aligned(before.spans, after.spans)];
}

function shown(found: Comparison, beside: Child): Child {
	const before = found.typical ? found.typical.duration_ms : found.a.duration_ms;
	const after = found.typical ? found.a.duration_ms : (found.b?.duration_ms ?? 0);
	return el(
		'div',
		{ class: 'stack' },
		el(
			'div',
			{ class: 'columns' },
			found.typical ? typicalSide(found.typical.requests, found.typical.duration_ms) : sideText('Before', found.a),
			found.typical ? sideText('After: this request', found.a) : found.b && sideText('After', found.b),
		),
		el('p', { class: 'total-change' }, `${duration(before)} → ${duration(after)}: `, el('b', { class: after > before ? 'bad' : 'good' }, `${after > before ? '+' : ''}${duration(after - before)}`)),
		found.differences.length === 0 ? emptyState('They do the same, in the same time.') : [beside && el('h3', {}, 'What grew'), differences(found.differences)],
		beside,
	);
}

/* Without `b` it is the typical one. */
export async function compareRequests(a: string, b: string | undefined, signal: AbortSignal): Promise<Child> {
	const other = b === undefined ? { typical: true } : { b };
	const [found, beside] = await Promise.all([api.compare({ a, ...other, limit: MOST }, signal), b === undefined ? null : sideBySide(a, b, signal)]);
	return shown(found, beside);
}
