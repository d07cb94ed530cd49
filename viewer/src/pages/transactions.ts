/* All transactions with their figures. */
import { api } from '../api/services';
import type { Top, TopRow } from '../api/types';
import { changed, go, here, type Address } from '../state/address';
import { heldSort } from '../state/held';
import { el, type Child } from '../ui/dom';
import { apdexLevel } from '../ui/figures';
import { count, duration, perMinute, plural, score, share, shortCount } from '../ui/format';
import { transactionLink } from '../ui/link';
import type { Page } from '../ui/page';
import { Panel } from '../ui/panel';
import { emptyState } from '../ui/states';
import { table, type Column } from '../ui/table';
import { queryField } from '../search/query_field';
import { applicationColumn, curveColumn, errorColumn, percentileColumns, timeColumns } from './columns';
import { isEstimate } from './overview';
import { narrowedBy, stepFor } from './scope';

const MOST = 500;
const POINTS = 30;

function columns(top: Top, address: Address): Column<TopRow>[] {
	const step = top.step_ms ?? 60000;
	return [
		{
			key: 'name',
			title: 'Transaction',
			isMain: true,
			by: (row) => row.transaction,
			cell: (row) => transactionLink(row.application, row.transaction),
		},
		...(address.app ? [] : [applicationColumn<TopRow>()]),
		...timeColumns<TopRow>('requests'),
		{
			key: 'requests',
			title: 'Calls',
			help: 'Counted at the handshakes; ~ where that is estimated',
			align: 'right',
			by: (row) => row.requests,
			cell: (row) =>
				el('span', { title: `${count(row.requests)}; recorded: ${count(row.recorded)}` }, `${isEstimate(row) ? '~ ' : ''}${shortCount(row.requests)}`),
		},
		{ key: 'rate', title: 'Rate', align: 'right', by: (row) => row.calls_per_minute, cell: (row) => perMinute(row.calls_per_minute) },
		...percentileColumns<TopRow>(),
		curveColumn<TopRow>('p95 over time', 'p95', top.range, step),
		errorColumn<TopRow>(),
		{
			key: 'apdex',
			title: 'Apdex',
			help: `Satisfaction from 0 to 1 with ${duration(top.apdex_threshold_ms)}`,
			align: 'right',
			by: (row) => row.apdex,
			cell: (row) => el('span', { class: apdexLevel(row.apdex) }, score(row.apdex)),
		},
		{
			key: 'queries',
			title: 'Queries',
			help: 'Statements per call',
			align: 'right',
			by: (row) => row.queries_per_request,
			cell: (row) => shortCount(row.queries_per_request),
		},
		{ key: 'database', title: 'Database', help: 'Per call', align: 'right', by: (row) => row.database_ms, cell: (row) => duration(row.database_ms) },
		{ key: 'external', title: 'External', help: 'HTTP calls, per call', align: 'right', by: (row) => row.external_ms, cell: (row) => duration(row.external_ms) },
	];
}

/* What is added up where the stored requests have to be looked at one by one. */
function note(address: Address, top: Top): Child {
	const isFiltered = address.q || address.host;
	return [
		isFiltered && el('p', { class: 'muted small' }, 'Summed over the stored requests that fulfil the filter; calls that were not recorded are not counted.'),
		top.partial && el('p', { class: 'warn' }, 'The time was up before all stored requests were looked at: take a shorter range.'),
		top.more && el('p', { class: 'muted small' }, `These are the ${plural(MOST, 'transaction')} that took most time.`),
	];
}

function content(address: Address, top: Top): Child {
	if (top.transactions.length === 0) {
		return address.q || address.host || address.app
			? emptyState('No transaction fulfils the filters in this time.', 'Take a longer time, or another filter.')
			: emptyState('No request was seen in this time.', 'Take a longer time.');
	}
	const { total } = top;
	return [
		el(
			'p',
			{ class: 'muted' },
			`${plural(top.transactions.length, 'transaction')}, ${plural(total.requests, 'call')}, p95 ${duration(total.p95_ms)}, errors ${share(total.error_share)}`,
		),
		table({
			caption: 'Transactions',
			columns: columns(top, address),
			rows: top.transactions,
			...heldSort('time'),
		}),
		note(address, top),
	];
}

export function transactionsPage(): Page {
	const panel = new Panel('', { what: 'The transactions' });
	const field = queryField({
		label: 'Filter requests',
		placeholder: 'Filter: txn:/cart* is:failed >300ms',
		onQuery: (q) => go(changed(here(), { q })),
	});
	return {
		element: el('div', { class: 'page' }, el('h1', {}, 'Transactions'), field.element, panel.element),
		title: (address) => (address.app ? `Transactions of ${address.app}` : 'Transactions'),
		show: (address) => {
			field.set(address.q);
			void panel.fill(async (signal) =>
				content(address, await api.top({ ...narrowedBy(address), limit: MOST, step: stepFor(address, POINTS) }, signal)),
			);
		},
		end: () => panel.end(),
	};
}
