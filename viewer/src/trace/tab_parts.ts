/* The tabs of errors, of what was asked and answered, and of memory and processor time. */
import type { Fields, RequestOfTrace } from '../api/types';
import { el, shortened, type Child } from '../ui/dom';
import { bytes, duration, plural, share, times } from '../ui/format';
import { failureElements } from './details';
import { layerBar, statusElement } from './head';
import { requestTitle, titleOf, type Model, type Part } from './model';
import type { ViewState } from './state';
import { codeGroups, failedNodes, type CodeGroup } from './statements';
import { facts, fieldSection, longText, section, stackList } from './texts';

const ERRORS_AT_FIRST = 100;

export function errorsTab(state: ViewState, onShow: () => void): Child {
	const { model } = state;
	const nodes = failedNodes(model);
	if (nodes.length === 0) {
		return el('p', { class: 'muted' }, 'Nothing failed: no error, no uncaught exception, no call without an answer.');
	}
	const item = (node: number): Child => {
		const span = model.spans[node];
		const failures = failureElements(model, node);
		const show = () => {
			state.reveal(node);
			onShow();
		};
		return el(
			'li',
			{ class: 'error-item', 'data-row': true },
			el('p', { class: 'row' }, el('button', { type: 'button', class: 'link', on: { click: show } }, shortened(titleOf(model, node), 160)), el('span', { class: 'muted small' }, `${duration(model.start[node])} after the begin`)),
			failures.length > 0 ? failures : el('p', { class: 'bad' }, span?.endpoint ? (span.status ? `answered ${span.status}` : 'no answer') : 'failed'),
			(span?.stack ?? []).length > 0 && el('details', {}, el('summary', {}, 'Stack'), stackList(span?.stack ?? [])),
		);
	};
	const left = nodes.length - ERRORS_AT_FIRST;
	return [el('ol', { class: 'errors' }, nodes.slice(0, ERRORS_AT_FIRST).map(item)), left > 0 && el('p', { class: 'muted' }, `and ${plural(left, 'more')}; "n" in the waterfall goes through all`)];
}

function each(model: Model, show: (part: Part) => Child): Child {
	if (!model.isTrace) {
		return model.parts[0] && show(model.parts[0]);
	}
	return model.parts.map((part, i) =>
		el('details', { class: 'panel', open: i === 0 }, el('summary', {}, el('b', {}, shortened(part.row.application, 60)), ' ', shortened(requestTitle(part.row), 200), ' ', statusElement(part.row)), show(part)),
	);
}

function none(details: RequestOfTrace): Child {
	const { request_headers: sent, parameters, response_headers: received, custom_parameters: custom } = details;
	return [sent, parameters, received, custom].every((list) => (list ?? []).length === 0) && el('p', { class: 'muted' }, 'No headers and no parameters were recorded.');
}

export function requestTab(model: Model): Child {
	return each(model, ({ row, details }) => [
		facts([
			['Method', row.method],
			['Path', longText(row.path, undefined, 1000)],
			['Query', details.query_string && longText(details.query_string, undefined, 1000)],
			['Status', row.web && row.status > 0 && String(row.status)],
			['Host', row.host],
			['Instance', row.instance],
			['Group', details.application_group],
			['Session', details.session && el('span', { class: 'mono' }, shortened(details.session, 200))],
			['Received', details.bytes_in !== undefined && details.bytes_in > 0 && bytes(details.bytes_in)],
			['Sent', details.bytes_out !== undefined && details.bytes_out > 0 && bytes(details.bytes_out)],
		]),
		el('div', { class: 'columns' }, fieldSection('Parameters', details.parameters), fieldSection('Request headers', details.request_headers), fieldSection('Response headers', details.response_headers), fieldSection('What the script attached', details.custom_parameters)),
		none(details),
	]);
}

function pairs(list: readonly (readonly unknown[])[] | undefined): Fields {
	return (list ?? []).map(([name, value]) => [String(name), String(value)] as const);
}

const FUNCTIONS = 15;

/* Which functions of the code took the time, and how often they ran. */
function ownTimes(state: ViewState, part: Part, onShow: () => void): Child {
	const groups = codeGroups(state.model, part).slice(0, FUNCTIONS);
	const most = groups[0]?.self ?? 1;
	const item = ({ label, nodes, self }: CodeGroup): Child => {
		const show = () => {
			state.point(`function ${nodes[0] ?? 0}`, nodes);
			onShow();
		};
		return el(
			'li',
			{},
			el('button', { type: 'button', class: 'link', on: { click: show } }, shortened(label, 160)),
			el('span', { class: 'muted small' }, nodes.length > 1 ? times(nodes.length) : ''),
			el('span', { class: 'number' }, duration(self)),
			el('span', { class: 'bar', style: { '--part': `${(self / most) * 100}%` } }),
		);
	};
	return groups.length > 0 && section('PHP code by function, without what it calls', el('ol', { class: 'own-times' }, groups.map(item)));
}

export function resourcesTab(state: ViewState, onShow: () => void): Child {
	const { model } = state;
	return each(model, (part) => {
		const { row, details } = part;
		const wall = Math.max(1, row.duration_ms);
		return [
			el(
				'dl',
				{ class: 'meters' },
				row.memory_bytes > 0 && el('div', {}, el('dt', {}, 'Peak memory'), el('dd', {}, el('b', {}, bytes(row.memory_bytes)))),
				meter('Processor', row.cpu_ms, wall, `${duration(row.cpu_ms)} of ${duration(row.duration_ms)}: ${share(row.cpu_ms / wall)}`),
				meter('Databases', row.query_ms, wall, `${duration(row.query_ms)}: ${share(row.query_ms / wall)}`),
				meter('External calls', row.external_ms, wall, `${duration(row.external_ms)}: ${share(row.external_ms / wall)}`),
			),
			el('p', { class: 'muted small' }, 'Processor time is that of the whole process while the request ran: in a server with threads, other requests are in it.'),
			model.isTrace && section('Time by layer', layerBar(details.layers ?? {})),
			ownTimes(state, part, onShow),
			fieldSection('Sums that the script told', pairs(details.sums)),
			fieldSection('Averages that the script told', pairs(details.averages)),
		];
	});
}

function meter(name: string, value: number, whole: number, text: string): Child {
	return el('div', {}, el('dt', {}, name), el('dd', {}, el('span', { class: 'bar', style: { '--part': `${Math.min(100, (value / whole) * 100)}%` } }), text));
}
