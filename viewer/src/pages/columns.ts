/* Columns that several tables have. */
import type { CurveStep, Durations, Part, Range, RequestRow } from '../api/types';
import { el, shortened, type Child } from '../ui/dom';
import { bar, errorLevel } from '../ui/figures';
import { count, duration, share, timeElement, times } from '../ui/format';
import { requestLink } from '../ui/link';
import { sparkline } from '../ui/sparkline';
import type { Column } from '../ui/table';

interface TimedRow extends Durations {
	readonly total_ms: number;
	readonly time_share: number;
	readonly error_share: number | null;
}

export function timeColumns<Row extends TimedRow>(what: string): Column<Row>[] {
	return [
		{
			key: 'time',
			title: 'Time',
			help: `Share of the time of all ${what}`,
			align: 'right',
			by: (row) => row.time_share,
			cell: (row) => el('span', { title: duration(row.total_ms) }, share(row.time_share), bar(row.time_share)),
		},
	];
}

export function percentileColumns<Row extends Durations>(): Column<Row>[] {
	return [
		{ key: 'p50', title: 'p50', help: 'Half took no longer', align: 'right', by: (row) => row.p50_ms, cell: (row) => duration(row.p50_ms) },
		{ key: 'p95', title: 'p95', help: '95 of 100 took no longer', align: 'right', by: (row) => row.p95_ms, cell: (row) => duration(row.p95_ms) },
		{ key: 'p99', title: 'p99', help: '99 of 100 took no longer', align: 'right', by: (row) => row.p99_ms, cell: (row) => duration(row.p99_ms) },
	];
}

export function errorColumn<Row extends { readonly error_share: number | null }>(): Column<Row> {
	return {
		key: 'errors',
		title: 'Errors',
		help: 'Share that failed',
		align: 'right',
		by: (row) => row.error_share,
		cell: (row) => el('span', { class: errorLevel(row.error_share) }, share(row.error_share)),
	};
}

export function applicationColumn<Row extends { readonly application: string }>(): Column<Row> {
	return {
		key: 'application',
		title: 'Application',
		by: (row) => row.application,
		cell: (row) => el('span', { class: 'cut application-cell', title: row.application }, row.application),
	};
}

export type CurveValue = 'count' | 'failed' | 'p95' | 'total';

const PLACES: Readonly<Record<CurveValue, 1 | 2 | 3 | 4>> = { count: 1, failed: 2, p95: 3, total: 4 };

/* One value for each step of the range. How many there are of a step that goes on nobody knows. */
function valuesOf(curve: readonly CurveStep[], range: Range, step: number, value: CurveValue): (number | null)[] {
	const byTime = new Map(curve.map((each) => [each[0], each[PLACES[value]]]));
	const values: (number | null)[] = [];
	for (let at = Math.floor(range.from_ms / step) * step; at < range.to_ms; at += step) {
		const goesOn = at + step > range.to_ms && values.length > 0;
		values.push(value === 'p95' ? (byTime.get(at) ?? null) : goesOn ? null : (byTime.get(at) ?? 0));
	}
	return values;
}

export function curveColumn<Row extends { readonly curve?: readonly CurveStep[] }>(
	title: string,
	value: CurveValue,
	range: Range,
	step: number,
): Column<Row> {
	const format = value === 'p95' ? duration : count;
	return {
		key: `curve-${value}`,
		title,
		align: 'right',
		className: 'curve-cell',
		cell: (row) => {
			const values = valuesOf(row.curve ?? [], range, step, value);
			const known = values.filter((each): each is number => each !== null);
			const label = `${title}: ${known.length === 0 ? 'nothing' : `${format(Math.min(...known))} to ${format(Math.max(...known))}`}`;
			return sparkline(values, label, value === 'failed' ? 'is-bad' : '');
		},
	};
}

/* What has a part in it, the largest first, and how many more there are. */
export function partList(title: string, parts: readonly Part[], all: number, link?: (name: string) => Child): Child {
	return (
		parts.length > 0 &&
		el(
			'div',
			{ class: 'parts' },
			el('h3', {}, title),
			el(
				'ul',
				{},
				parts.map((part) =>
					el(
						'li',
						{},
						el('span', { class: 'part-name' }, link?.(part.name) ?? (shortened(part.name, 200) || '(main script)')),
						el('span', { class: 'muted number' }, times(part.count)),
						part.total_ms > 0 && el('span', { class: 'number' }, duration(part.total_ms)),
					),
				),
				all > parts.length && el('li', { class: 'muted' }, `and ${count(all - parts.length)} more`),
			),
		)
	);
}

type RequestColumn = 'name' | 'application';

/* Of a list of requests. */
export function requestColumns({ without }: { readonly without: readonly RequestColumn[] }): Column<RequestRow>[] {
	const has = (name: RequestColumn) => !without.includes(name);
	return [
		{
			key: 'start',
			title: 'Begin',
			by: (row) => row.start_ms,
			className: 'time-cell',
			cell: (row) => requestLink(row.id, timeElement(row.start_ms)),
		},
		...(has('name')
			? [
					{
						key: 'name',
						title: 'Request',
						isMain: true,
						by: (row: RequestRow) => row.name,
						cell: requestCell,
					},
				]
			: [{ key: 'path', title: 'Request', isMain: true, by: (row: RequestRow) => row.path, cell: requestCell }]),
		...(has('application') ? [applicationColumn<RequestRow>()] : []),
		{ key: 'duration', title: 'Duration', align: 'right', by: (row) => row.duration_ms, cell: (row) => el('b', {}, duration(row.duration_ms)) },
		{
			key: 'status',
			title: 'Status',
			align: 'right',
			by: (row) => row.status,
			cell: (row) => el('span', { class: row.failed ? 'bad' : '' }, row.web ? String(row.status) : 'cli', row.failed && el('span', { title: 'It failed' }, ' ✕')),
		},
		{ key: 'cpu', title: 'CPU', align: 'right', by: (row) => row.cpu_ms, cell: (row) => duration(row.cpu_ms) },
		{ key: 'queries', title: 'Queries', align: 'right', by: (row) => row.queries, cell: (row) => count(row.queries) },
		{ key: 'database', title: 'Database', align: 'right', by: (row) => row.query_ms, cell: (row) => duration(row.query_ms) },
		{ key: 'external', title: 'External', align: 'right', by: (row) => row.external_ms, cell: (row) => duration(row.external_ms) },
	];
}

function requestCell(row: RequestRow): HTMLElement {
	const text = [row.method, row.path || row.name].filter(Boolean).join(' ');
	return el(
		'div',
		{},
		el('span', { class: 'cut', title: shortened(`${row.host}${row.path}`, 1000) }, shortened(text, 300)),
		row.verdict ? el('span', { class: 'muted small cut', title: shortened(row.verdict, 1000) }, shortened(row.verdict, 300)) : null,
	);
}
