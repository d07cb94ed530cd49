/* Requests that fulfil a query: as points in which a box can be selected, and as a list. */
import { api } from '../api/services';
import type { RequestRow, Requests } from '../api/types';
import { queryField } from '../search/query_field';
import { boxText, isIn, parseBox, scatter, type Box } from '../search/scatter';
import { changed, elsewhere, go, here, timeOf, type Address } from '../state/address';
import { heldSort } from '../state/held';
import { el, replace, type Child } from '../ui/dom';
import { duration, plural, timeElement } from '../ui/format';
import type { Page } from '../ui/page';
import { Panel } from '../ui/panel';
import { emptyState } from '../ui/states';
import { table } from '../ui/table';
import { requestColumns } from './columns';

const MOST = 1000;

function orderOf(address: Address): 'newest' | 'slowest' {
	return address.own.order === 'slowest' ? 'slowest' : 'newest';
}

function orderSwitch(address: Address): HTMLElement {
	const order = orderOf(address);
	const button = (value: 'newest' | 'slowest', text: string) =>
		el(
			'button',
			{
				type: 'button',
				'aria-pressed': String(order === value),
				on: { click: () => go(changed(here(), { own: { order: value === 'newest' ? '' : value, box: '', sort: '' } })) },
			},
			text,
		);
	return el('div', { class: 'joined', role: 'group', 'aria-label': 'Order' }, button('newest', 'Newest'), button('slowest', 'Slowest'));
}

function selection(box: Box, requests: readonly RequestRow[]): HTMLElement {
	const { q } = here();
	const query = [q && `(${q})`, `duration:>=${Math.floor(box.least)}ms`, `duration:<=${Math.ceil(box.most)}ms`].filter(Boolean).join(' ');
	return el(
		'p',
		{ class: 'row selection' },
		el('b', {}, `${plural(requests.length, 'request')} in the box`),
		el('span', { class: 'muted' }, timeElement(box.from), ' to ', timeElement(box.to), `, ${duration(box.least)} to ${duration(box.most)}`),
		el(
			'button',
			{
				type: 'button',
				on: { click: () => go({ ...changed(here(), { q: query, own: { box: '' } }), from: String(Math.floor(box.from)), to: String(Math.ceil(box.to)) }) },
			},
			'Search in it',
		),
		el('button', { type: 'button', on: { click: () => go(changed(here(), { own: { box: '' } })) } }, 'Clear'),
	);
}

function said(found: Requests, address: Address): string {
	const first = orderOf(address) === 'slowest' ? 'slowest' : 'newest';
	const text = found.more ? `The ${first} ${plural(found.requests.length, 'request')} of more` : plural(found.requests.length, 'request');
	return `${text}${found.partial ? '; the time was up before all were looked at' : ''}`;
}

function results(found: Requests, address: Address): Child {
	if (found.requests.length === 0) {
		return emptyState(
			'No request was found.',
			address.q || address.app || address.host ? 'Take a longer time, or fewer terms.' : 'Take a longer time.',
		);
	}
	const box = parseBox(address.own.box);
	const starts = found.requests.map((each) => each.start_ms);
	const now = Date.now();
	// Where only the newest of many are shown, the time before them is left out.
	const from = found.more && orderOf(address) === 'newest' ? Math.min(...starts) : timeOf(address.from, now);
	const shown = box ? found.requests.filter((each) => isIn(each, box)) : found.requests;
	return [
		scatter({
			requests: found.requests,
			range: { from_ms: Math.min(from || now, ...starts), to_ms: Math.max(timeOf(address.to, now) || now, ...starts) },
			box,
			onBox: (chosen) => go(changed(here(), { own: { box: chosen ? boxText(chosen) : '' } }), 'replace'),
			onOpen: (request) => go(elsewhere(here(), 'request', { id: request.id }, { q: '' })),
		}),
		box && selection(box, shown),
		table({ caption: 'Requests', columns: requestColumns({ without: address.app ? ['application'] : [] }), rows: shown, ...heldSort() }),
	];
}

export function searchPage(): Page {
	const panel = new Panel('', { what: 'The requests' });
	const field = queryField({
		label: 'Query',
		placeholder: 'txn:/cart* sql:"FROM product" >300ms',
		onQuery: (q) => go(changed(here(), { q, own: { box: '' } })),
	});
	const head = el('div', { class: 'page-head' });
	// What was found for the question, so that another box asks nothing anew.
	let last: { readonly question: string; readonly box: string | undefined; readonly found: Requests } | undefined;
	const ask = async (address: Address, signal: AbortSignal): Promise<Requests> => {
		const parameters = { from: address.from, to: address.to, app: address.app, q: address.q, host: address.host, order: orderOf(address), limit: MOST };
		const question = JSON.stringify(parameters);
		const { box } = address.own;
		const isOtherBox = last?.question === question && last.box !== box;
		const found = last && isOtherBox ? last.found : await api.requests(parameters, signal);
		last = { question, box, found };
		return found;
	};
	return {
		element: el('div', { class: 'page' }, el('h1', {}, 'Search'), field.element, head, panel.element),
		title: (address) => (address.q ? address.q.slice(0, 80) : 'Search'),
		show: (address) => {
			field.set(address.q);
			void panel.fill(async (signal) => {
				replace(head, orderSwitch(address), el('span', { class: 'muted', role: 'status' }));
				const found = await ask(address, signal);
				replace(head, orderSwitch(address), el('span', { class: 'muted', role: 'status' }, said(found, address)));
				return results(found, address);
			});
		},
		end: () => panel.end(),
	};
}
