/* Hosts that are called over HTTP. */
import { api } from '../api/services';
import type { CalledHost } from '../api/types';
import { shortKey } from '../state/held';
import { el, shortened, type Child } from '../ui/dom';
import { count, duration, shortCount, timeElement } from '../ui/format';
import { pageLink, requestLink, term, transactionLink } from '../ui/link';
import { emptyState } from '../ui/states';
import type { Column } from '../ui/table';
import { applicationColumn, curveColumn, errorColumn, partList, percentileColumns, timeColumns } from './columns';
import { groupCurve, groupPage, type GroupAnswer } from './groups';

export function hostCell(row: CalledHost): HTMLElement {
	return el('span', { class: 'cut', title: row.host }, row.host);
}

function columns(answer: GroupAnswer<CalledHost>, app: string): Column<CalledHost>[] {
	return [
		{ key: 'host', title: 'Host', isMain: true, by: (row) => row.host, cell: hostCell },
		...(app ? [] : [applicationColumn<CalledHost>()]),
		...timeColumns<CalledHost>('calls'),
		{ key: 'count', title: 'Calls', align: 'right', by: (row) => row.count, cell: (row) => el('span', { title: count(row.count) }, shortCount(row.count)) },
		...percentileColumns<CalledHost>(),
		{ key: 'longest', title: 'Longest', align: 'right', by: (row) => row.longest_ms, cell: (row) => duration(row.longest_ms) },
		errorColumn<CalledHost>(),
		curveColumn<CalledHost>('p95 over time', 'p95', answer.range, answer.step),
		{ key: 'last', title: 'Last', align: 'right', by: (row) => row.last_ms, cell: (row) => timeElement(row.last_ms) },
	];
}

function open(row: CalledHost, curve: Child): Child {
	return el(
		'div',
		{ class: 'stack' },
		el(
			'p',
			{ class: 'row' },
			requestLink(row.example, 'The request in which a call took longest'),
			pageLink('search', { order: 'slowest' }, { q: term('call', row.host), app: row.application }, 'The slowest requests that call it'),
		),
		partList('From', row.transactions, row.transactions_count, (name) => transactionLink(row.application, name)),
		curve,
	);
}

function noCall(): HTMLElement {
	return emptyState('No other host was called in this time.', 'Take a longer time. Calls are seen that scripts make with curl.');
}

export const externalPage = groupPage<CalledHost>({
	title: 'External',
	what: 'The external hosts',
	sort: 'time',
	ask: async (parameters, signal) => {
		const answer = await api.calls(parameters, signal);
		return { rows: answer.hosts, range: answer.range, step: parameters.step, more: answer.more };
	},
	columns: (answer, address) => columns(answer, address.app),
	open: (row, address) => open(row, groupCurve(address, { kind: 'host', text: row.host, app: row.application, shows: 'durations' })),
	keyOf: (row) => shortKey(row.application, row.host),
	ofHost: {
		title: 'Address',
		layer: 'http',
		name: (name, detail) => detail || name,
		cell: (name) => el('span', { class: 'cut', title: shortened(name, 1000) }, shortened(name, 200)),
		query: (name) => term('call', name.split('/', 1)[0] ?? ''),
		empty: noCall,
	},
	empty: noCall,
});
