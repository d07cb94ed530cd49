/*
 * The calls of two requests as one tree: what is called from the same place and does the same stands in
 * one row, with when it ran in each of them on one scale of time.
 */
import type { Span } from '../api/types';
import { el, shortened } from '../ui/dom';
import { count, duration, plural } from '../ui/format';
import { table, type Column } from '../ui/table';

type Side = 'before' | 'after';

interface Ran {
	count: number;
	total_ms: number;
	/* From the begin of the first to the end of the last. */
	from_ms: number;
	to_ms: number;
}

export interface AlignedRow {
	readonly name: string;
	readonly detail: string;
	readonly depth: number;
	readonly below: AlignedRow[];
	before: Ran | undefined;
	after: Ran | undefined;
}

/* Rows that are shown; of more, those with the most time. */
const MOST = 150;
/* Of the longer request: rows with less are left out. */
const SMALLEST = 0.002;
const DEEPEST = 12;

function add(row: AlignedRow, side: Side, span: Span): void {
	const end = span.start_ms + span.duration_ms;
	const ran = row[side] ?? { count: 0, total_ms: 0, from_ms: span.start_ms, to_ms: end };
	ran.count++;
	ran.total_ms += span.duration_ms;
	ran.from_ms = Math.min(ran.from_ms, span.start_ms);
	ran.to_ms = Math.max(ran.to_ms, end);
	row[side] = ran;
}

function begin({ before, after }: AlignedRow): number {
	return Math.min(before?.from_ms ?? Infinity, after?.from_ms ?? Infinity);
}

function longest({ before, after }: AlignedRow): number {
	return Math.max(before?.total_ms ?? 0, after?.total_ms ?? 0);
}

export function growthOf({ before, after }: AlignedRow): number {
	return (after?.total_ms ?? 0) - (before?.total_ms ?? 0);
}

/* REQUIRES: spans stand behind the one that calls them. */
export function alignedTree(before: readonly Span[], after: readonly Span[]): readonly AlignedRow[] {
	const roots: AlignedRow[] = [];
	const known = new Map<AlignedRow | undefined, Map<string, AlignedRow>>();
	for (const [side, spans] of [['before', before], ['after', after]] as const) {
		const rows: AlignedRow[] = [];
		for (const span of spans) {
			const above = rows[span.parent];
			const detail = span.statement ?? span.endpoint ?? span.host ?? '';
			const alike = known.get(above) ?? new Map<string, AlignedRow>();
			known.set(above, alike);
			const key = JSON.stringify([span.name, detail]);
			let row = alike.get(key);
			if (!row) {
				row = { name: span.name, detail, depth: (above?.depth ?? -1) + 1, below: [], before: undefined, after: undefined };
				alike.set(key, row);
				(above?.below ?? roots).push(row);
			}
			add(row, side, span);
			rows.push(row);
		}
	}
	return roots;
}

/* From above to below, each by when it begins. Calls may be as deep as there are spans. */
function flat(roots: readonly AlignedRow[], least: number): AlignedRow[] {
	const lastFirst = (rows: readonly AlignedRow[]) => rows.filter((row) => longest(row) >= least).sort((one, other) => begin(other) - begin(one));
	const found: AlignedRow[] = [];
	const waiting = lastFirst(roots);
	for (let row = waiting.pop(); row; row = waiting.pop()) {
		found.push(row);
		for (const each of lastFirst(row.below)) {
			waiting.push(each);
		}
	}
	return found;
}

export function shownOf(roots: readonly AlignedRow[], whole: number): readonly AlignedRow[] {
	const rows = flat(roots, whole * SMALLEST);
	const least = rows.map(longest).sort((one, other) => other - one)[MOST - 1] ?? 0;
	// Of those that took as long as the last of them, the outer ones.
	return rows.length > MOST ? flat(roots, least).slice(0, MOST) : rows;
}

/* When the longer of both ended. */
export function wholeOf(before: readonly Span[], after: readonly Span[]): number {
	const end = (latest: number, span: Span) => Math.max(latest, span.start_ms + span.duration_ms);
	return after.reduce(end, before.reduce(end, 1));
}

function lane(ran: Ran | undefined, side: Side, whole: number): HTMLElement {
	const percent = (ms: number) => `${Math.min(100, (Math.max(0, ms) / whole) * 100)}%`;
	return el(
		'span',
		{ class: 'aligned-lane' },
		ran && el('i', { class: `aligned-bar is-${side}`, style: { left: percent(ran.from_ms), width: percent(ran.to_ms - ran.from_ms) } }),
	);
}

function ranText(ran: Ran | undefined): string {
	return ran ? `${duration(ran.total_ms)}${ran.count > 1 ? ` in ${count(ran.count)}` : ''}` : '–';
}

function columns(whole: number): Column<AlignedRow>[] {
	const when = ({ before, after }: AlignedRow) =>
		[before && `Before: ${duration(before.from_ms)} to ${duration(before.to_ms)}`, after && `After: ${duration(after.from_ms)} to ${duration(after.to_ms)}`].filter(Boolean).join('. ');
	return [
		{
			key: 'call',
			title: 'Call',
			isMain: true,
			cell: (row) =>
				el(
					'span',
					{ class: 'aligned-call cut', title: shortened(`${row.name} ${row.detail}`, 1000), style: { '--depth': String(Math.min(DEEPEST, row.depth)) } },
					el('b', {}, shortened(row.name, 100)),
					row.detail ? ` ${shortened(row.detail, 200)}` : '',
				),
		},
		{
			key: 'when',
			title: 'When',
			help: 'Before above, after below, from the begin of each request on',
			className: 'aligned-cell',
			cell: (row) => el('span', { class: 'aligned-lanes', role: 'img', 'aria-label': when(row), title: when(row) }, lane(row.before, 'before', whole), lane(row.after, 'after', whole)),
		},
		{ key: 'before', title: 'Before', align: 'right', cell: (row) => ranText(row.before) },
		{ key: 'after', title: 'After', align: 'right', cell: (row) => ranText(row.after) },
		{
			key: 'growth',
			title: 'Grew by',
			align: 'right',
			cell: (row) => {
				const grown = growthOf(row);
				const matters = Math.abs(grown) >= whole * 0.02;
				return el('span', { class: matters ? (grown > 0 ? 'bad' : 'good') : 'muted' }, grown === 0 ? '–' : `${grown > 0 ? '+' : ''}${duration(grown)}`);
			},
		},
	];
}

export function aligned(before: readonly Span[], after: readonly Span[]): HTMLElement {
	const whole = wholeOf(before, after);
	const roots = alignedTree(before, after);
	const rows = shownOf(roots, whole);
	return el(
		'div',
		{ class: 'aligned' },
		table({ caption: 'Calls side by side', columns: columns(whole), rows }),
		el('p', { class: 'muted small' }, `${plural(rows.length, 'row')} of calls that took ${duration(Math.max(whole * SMALLEST, Math.min(...rows.map(longest))))} and more; calls that do the same in the same place are one.`),
	);
}
