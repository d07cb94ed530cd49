/* Two windows of time side by side: which transactions, statements and errors changed. */
import { api } from '../api/services';
import type { FailureGroup, Statement, TopRow } from '../api/types';
import { applicationColumn } from '../pages/columns';
import { ofAllHosts } from '../pages/of_host';
import { exactly } from '../pages/scope';
import { timeOf, type Address } from '../state/address';
import { heldSort } from '../state/held';
import { el, shortened, type Child } from '../ui/dom';
import { bar } from '../ui/figures';
import { duration, perMinute, plural, share, shortCount, timeElement } from '../ui/format';
import { requestLink, transactionLink } from '../ui/link';
import { emptyState } from '../ui/states';
import { table, type Column } from '../ui/table';

export interface Windows {
	readonly before: { readonly from: string; readonly to: string };
	readonly after: { readonly from: string; readonly to: string };
}

const MOST = 1000;
const ROWS = 100;

export function windowsOf({ own }: Address): Windows | undefined {
	const { from1, to1, from2, to2 } = own;
	return from1 && to1 && from2 && to2 ? { before: { from: from1, to: to1 }, after: { from: from2, to: to2 } } : undefined;
}

interface Pair<Row> {
	readonly before: Row | undefined;
	readonly after: Row | undefined;
}

function pairs<Row>(before: readonly Row[], after: readonly Row[], key: (row: Row) => string): Pair<Row>[] {
	const found = new Map<string, Pair<Row>>(before.map((row) => [key(row), { before: row, after: undefined }]));
	for (const row of after) {
		found.set(key(row), { before: found.get(key(row))?.before, after: row });
	}
	return [...found.values()];
}

function minutes(window: { readonly from: string; readonly to: string }): number {
	const now = Date.now();
	return Math.max(1, (Math.min(now, timeOf(window.to, now)) - timeOf(window.from, now)) / 60000);
}

type Known = number | null | undefined;

/* By how much it grew, in words; nothing where that is less than a hundredth. */
function grownText(before: Known, after: Known): string {
	if (!before || !after) {
		return after ? 'new' : before ? 'gone' : '';
	}
	const percent = Math.round((after / before - 1) * 100);
	return percent === 0 ? '' : `${percent > 0 ? '+' : ''}${percent} %`;
}

/* `180 ms → 240 ms`, and by how much it grew. More is worse, unless it says nothing about that. */
function change(before: Known, after: Known, format: (value: Known) => string, tells: 'worse' | 'nothing' = 'worse'): HTMLElement {
	const grown = (after ?? 0) - (before ?? 0);
	const matters = tells === 'worse' && Math.abs(grown) > 0.1 * (before ?? 0);
	const level = !matters ? 'muted' : grown > 0 ? 'bad' : 'good';
	return el('span', { class: 'change' }, `${format(before)} → ${format(after)} `, el('span', { class: `${level} small` }, grownText(before, after)));
}

interface Totals {
	readonly total_ms: number;
}

/* Milliseconds a minute that it takes more. */
function growth(pair: Pair<Totals>, windows: Windows): number {
	return (pair.after?.total_ms ?? 0) / minutes(windows.after) - (pair.before?.total_ms ?? 0) / minutes(windows.before);
}

function growthColumn<Row extends Totals>(windows: Windows, rows: readonly Pair<Row>[]): Column<Pair<Row>> {
	const most = Math.max(1, ...rows.map((row) => Math.abs(growth(row, windows))));
	return {
		key: 'growth',
		title: 'Growth',
		help: 'How much more time it takes in a minute',
		align: 'right',
		by: (row) => growth(row, windows),
		cell: (row) => {
			const value = growth(row, windows);
			return el('span', { class: value > 0 ? '' : 'good' }, `${value > 0 ? '+' : ''}${duration(value)}/min`, bar(Math.abs(value) / most));
		},
	};
}

/* Where those of several are compared. */
function applicationOf<Row extends { readonly application: string }>(app: string): Column<Pair<Row>>[] {
	const name = ({ before, after }: Pair<Row>) => (after ?? before)?.application ?? '';
	const { cell, ...column } = applicationColumn();
	return app ? [] : [{ ...column, by: name, cell: (row) => cell({ application: name(row) }) }];
}

function transactions(rows: readonly Pair<TopRow>[], windows: Windows, app: string): HTMLElement {
	const columns: Column<Pair<TopRow>>[] = [
		{
			key: 'name',
			title: 'Transaction',
			isMain: true,
			by: (row) => (row.after ?? row.before)?.transaction ?? '',
			cell: (row) => transactionLink((row.after ?? row.before)?.application ?? '', (row.after ?? row.before)?.transaction ?? ''),
		},
		...applicationOf<TopRow>(app),
		growthColumn(windows, rows),
		{ key: 'mean', title: 'Mean', align: 'right', by: (row) => (row.after?.mean_ms ?? 0) - (row.before?.mean_ms ?? 0), cell: (row) => change(row.before?.mean_ms, row.after?.mean_ms, duration) },
		{ key: 'p95', title: 'p95', align: 'right', by: (row) => (row.after?.p95_ms ?? 0) - (row.before?.p95_ms ?? 0), cell: (row) => change(row.before?.p95_ms, row.after?.p95_ms, duration) },
		{
			key: 'rate',
			title: 'Rate',
			align: 'right',
			by: (row) => (row.after?.requests ?? 0) / minutes(windows.after),
			cell: (row) => change((row.before?.requests ?? 0) / minutes(windows.before), (row.after?.requests ?? 0) / minutes(windows.after), perMinute, 'nothing'),
		},
		{ key: 'queries', title: 'Queries', align: 'right', by: (row) => (row.after?.queries_per_request ?? 0) - (row.before?.queries_per_request ?? 0), cell: (row) => change(row.before?.queries_per_request, row.after?.queries_per_request, shortCount) },
		{ key: 'errors', title: 'Errors', align: 'right', by: (row) => (row.after?.error_share ?? 0) - (row.before?.error_share ?? 0), cell: (row) => change(row.before?.error_share, row.after?.error_share, share) },
	];
	return table({ caption: 'Transactions before and after', columns, rows, ...heldSort('growth') });
}

function statements(rows: readonly Pair<Statement>[], windows: Windows, app: string): HTMLElement {
	const one = (row: Pair<Statement>) => row.after ?? row.before;
	const columns: Column<Pair<Statement>>[] = [
		{
			key: 'statement',
			title: 'Statement',
			isMain: true,
			by: (row) => one(row)?.statement ?? '',
			cell: (row) => el('code', { class: 'statement', title: shortened(one(row)?.statement ?? '', 2000) }, shortened(one(row)?.statement ?? '', 300)),
		},
		...applicationOf<Statement>(app),
		growthColumn(windows, rows),
		{
			key: 'rate',
			title: 'Executions',
			align: 'right',
			by: (row) => (row.after?.count ?? 0) / minutes(windows.after),
			cell: (row) => change((row.before?.count ?? 0) / minutes(windows.before), (row.after?.count ?? 0) / minutes(windows.after), perMinute),
		},
		{ key: 'mean', title: 'Mean', align: 'right', by: (row) => (row.after?.mean_ms ?? 0) - (row.before?.mean_ms ?? 0), cell: (row) => change(row.before?.mean_ms, row.after?.mean_ms, duration) },
		{ key: 'example', title: 'Example', cell: (row) => requestLink(one(row)?.example ?? '', 'open') },
	];
	return table({ caption: 'Statements before and after', columns, rows: rows.slice(0, ROWS), ...heldSort('growth', 'statements') });
}

function errorTable(rows: readonly FailureGroup[], app: string): HTMLElement {
	const columns: Column<FailureGroup>[] = [
		{ key: 'error', title: 'Error', isMain: true, cell: (row) => el('span', { class: 'error-message' }, el('b', {}, shortened(row.type, 100)), ' ', shortened(row.message, 300)) },
		...(app ? [] : [applicationColumn<FailureGroup>()]),
		{ key: 'count', title: 'Times', align: 'right', cell: (row) => shortCount(row.count) },
		{ key: 'first', title: 'First', align: 'right', cell: (row) => timeElement(row.first_ms) },
		{ key: 'example', title: 'Example', cell: (row) => requestLink(row.example, 'open') },
	];
	return table({ caption: 'Errors that are new', columns, rows });
}

export async function compareWindows(windows: Windows, address: Address, signal: AbortSignal): Promise<Child> {
	const scope = { app: address.app, limit: MOST, ...(address.own.txn ? { txn: exactly(address.own.txn) } : {}) };
	const narrowed = { host: address.host, q: address.q };
	const [before, after] = [
		{ ...scope, ...windows.before },
		{ ...scope, ...windows.after },
	];
	const [top1, top2, queries1, queries2, errors1, errors2] = await Promise.all([
		api.top({ ...before, ...narrowed }, signal),
		api.top({ ...after, ...narrowed }, signal),
		api.queries(before, signal),
		api.queries(after, signal),
		api.errors(before, signal),
		api.errors(after, signal),
	]);
	if (top1.transactions.length + top2.transactions.length === 0) {
		const isFiltered = address.app !== '' || address.host !== '' || address.q !== '';
		return emptyState('No request was seen in either of these times.', `Choose longer or other times above${isFiltered ? ', or all applications and hosts' : ''}.`);
	}
	const group = ({ application, key }: FailureGroup) => JSON.stringify([application, key]);
	const known = new Set(errors1.errors.map(group));
	const appeared = errors2.errors.filter((each) => !known.has(group(each)));
	const byGrowth = <Row extends Totals>(rows: Pair<Row>[]) => rows.sort((one, other) => growth(other, windows) - growth(one, windows));
	return el(
		'div',
		{ class: 'stack' },
		el(
			'p',
			{},
			'Before: ',
			timeElement(timeOf(windows.before.from, Date.now())),
			' to ',
			timeElement(timeOf(windows.before.to, Date.now())),
			`, ${plural(top1.total.requests, 'request')}, p95 ${duration(top1.total.p95_ms)}. After: `,
			timeElement(timeOf(windows.after.from, Date.now())),
			' to ',
			timeElement(timeOf(windows.after.to, Date.now())),
			`, ${plural(top2.total.requests, 'request')}, p95 ${duration(top2.total.p95_ms)}.`,
		),
		appeared.length > 0 && [el('h3', {}, 'Errors that are new'), ofAllHosts(address), errorTable(appeared, address.app)],
		el('h3', {}, 'Transactions'),
		transactions(byGrowth(pairs(top1.transactions, top2.transactions, (row) => JSON.stringify([row.application, row.transaction]))), windows, address.app),
		queries1.statements.length + queries2.statements.length > 0 && [
			el('h3', {}, 'Statements'),
			ofAllHosts(address),
			statements(byGrowth(pairs(queries1.statements, queries2.statements, (row) => JSON.stringify([row.application, row.statement, row.component, row.server, row.database]))), windows, address.app),
		],
	);
}
