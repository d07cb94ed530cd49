/* Failures, grouped by class, place and message without what varies. */
import { api } from '../api/services';
import type { FailureGroup } from '../api/types';
import { shortKey } from '../state/held';
import { el, shortened, type Child } from '../ui/dom';
import { count, plural, shortCount, timeElement } from '../ui/format';
import { pageLink, requestLink, term, transactionLink } from '../ui/link';
import { emptyState } from '../ui/states';
import type { Column } from '../ui/table';
import { applicationColumn, curveColumn, partList } from './columns';
import { groupCurve, groupPage, type GroupAnswer } from './groups';

/* What a query can look for in it: the class, and the words up to the first that varies. */
function errorQuery(row: FailureGroup): string {
	const words = `${row.type} ${row.message.split('*')[0] ?? ''}`.trim().split(/\s+/).slice(0, 20).join(' ');
	return words ? term('error', words) : '';
}

export function failureCell(row: FailureGroup): HTMLElement {
	return el(
		'div',
		{},
		el('span', { class: 'error-message' }, el('b', {}, shortened(row.type, 120) || row.level), ' ', shortened(row.message, 300)),
		el('span', { class: 'muted small cut', title: row.place }, row.place),
	);
}

function columns(answer: GroupAnswer<FailureGroup>, app: string): Column<FailureGroup>[] {
	return [
		{ key: 'error', title: 'Error', isMain: true, by: (row) => `${row.type} ${row.message}`, cell: failureCell },
		...(app ? [] : [applicationColumn<FailureGroup>()]),
		{ key: 'level', title: 'Level', by: (row) => row.level, cell: (row) => el('span', { class: row.level === 'Error' ? 'bad' : 'warn' }, row.level) },
		{ key: 'count', title: 'Times', align: 'right', by: (row) => row.count, cell: (row) => el('span', { title: count(row.count) }, shortCount(row.count)) },
		{ key: 'requests', title: 'Requests', align: 'right', by: (row) => row.requests, cell: (row) => shortCount(row.requests) },
		{ key: 'fatal', title: 'Ended', help: 'Requests that it ended', align: 'right', by: (row) => row.fatal, cell: (row) => shortCount(row.fatal) },
		curveColumn<FailureGroup>('Over time', 'count', answer.range, answer.step),
		{ key: 'first', title: 'First', align: 'right', by: (row) => row.first_ms, cell: (row) => timeElement(row.first_ms) },
		{ key: 'last', title: 'Last', align: 'right', by: (row) => row.last_ms, cell: (row) => timeElement(row.last_ms) },
	];
}

function open(row: FailureGroup, curve: Child): Child {
	const query = errorQuery(row);
	return el(
		'div',
		{ class: 'stack' },
		el('p', { class: 'error-message' }, el('b', {}, shortened(row.type, 400)), ' ', shortened(row.message, 4000)),
		el('p', { class: 'muted' }, row.place, '. Seen from ', timeElement(row.first_ms), ' to ', timeElement(row.last_ms), `, in ${plural(row.requests, 'request')}.`),
		el('p', { class: 'row' }, requestLink(row.example, 'An example'), query && pageLink('search', {}, { q: query, app: row.application }, 'Requests with it')),
		partList('In', row.transactions, row.transactions_count, (name) => transactionLink(row.application, name)),
		curve,
	);
}

export const errorsPage = groupPage<FailureGroup>({
	title: 'Errors',
	what: 'The errors',
	sort: 'count',
	ask: async (parameters, signal) => {
		const answer = await api.errors(parameters, signal);
		return { rows: answer.errors, range: answer.range, step: parameters.step, more: answer.more };
	},
	columns: (answer, address) => columns(answer, address.app),
	open: (row, address) => open(row, groupCurve(address, { kind: 'error', text: row.key, app: row.application, shows: 'count' })),
	keyOf: (row) => shortKey(row.application, row.key),
	insteadOfHost: () => pageLink('search', {}, { q: 'has:error' }, 'Requests of this host with errors'),
	empty: (address) =>
		emptyState(
			'No error and no exception in this time.',
			address.app || address.own.txn ? 'Take a longer time, or all applications and transactions. A request can fail without one: ' : 'Take a longer time. A request can fail without one: ',
			pageLink('search', {}, { q: 'is:failed' }, 'requests that failed'),
			'.',
		),
});
