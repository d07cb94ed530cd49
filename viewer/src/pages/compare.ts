/* What differs: between two requests, against the typical one, or between two times. */
import { compareRequests } from '../compare/requests';
import { compareWindows, windowsOf } from '../compare/windows';
import { changed, elsewhere, go, here, timeOf, type Address } from '../state/address';
import { el, replace, type Child } from '../ui/dom';
import { momentField } from '../ui/moment';
import type { Page } from '../ui/page';
import { Panel } from '../ui/panel';
import { emptyState } from '../ui/states';
import { markList, marksOf } from './marks';

const KINDS = [
	['typical', 'A request and the typical one'],
	['requests', 'Two requests'],
	['windows', 'Two times'],
] as const;

type Kind = (typeof KINDS)[number][0];

function kindOf({ own }: Address): Kind {
	return KINDS.find(([kind]) => kind === own.what)?.[0] ?? (own.from1 ? 'windows' : own.b ? 'requests' : 'typical');
}

function kindSwitch(address: Address): HTMLElement {
	return el(
		'div',
		{ class: 'joined', role: 'group', 'aria-label': 'What is compared' },
		KINDS.map(([kind, text]) =>
			el('button', { type: 'button', 'aria-pressed': String(kindOf(address) === kind), on: { click: () => go(changed(here(), { own: { what: kind } })) } }, text),
		),
	);
}

function idField(label: string, name: string, address: Address): [HTMLElement, HTMLInputElement] {
	const input = el('input', { type: 'text', class: 'mono', name, value: address.own[name] ?? '', placeholder: 'its id', required: true, minlength: 4, size: 18, spellcheck: 'false', autocomplete: 'off' });
	return [el('label', { class: 'field' }, label, input), input];
}

function requestsForm(address: Address, kind: Kind): HTMLElement {
	const [aField, a] = idField(kind === 'typical' ? 'Request' : 'Before', 'a', address);
	const [bField, b] = idField('After', 'b', address);
	return el(
		'form',
		{
			class: 'row compare-form',
			on: {
				submit: (event) => {
					event.preventDefault();
					go(elsewhere(here(), 'compare', { what: kind, a: a.value.trim(), ...(kind === 'requests' ? { b: b.value.trim() } : {}) }));
				},
			},
		},
		aField,
		kind === 'requests' && bField,
		el('button', { type: 'submit' }, 'Compare'),
	);
}

function windowsForm(address: Address): HTMLElement {
	const now = Date.now();
	const [from, to] = [timeOf(address.from, now) || now - 3600000, timeOf(address.to, now) || now];
	const middle = Math.round((from + to) / 2);
	const field = (label: string, name: string, usual: number) => {
		const given = timeOf(address.own[name] ?? '', now);
		return [name, momentField(label, address.own[name] && given ? given : usual, name)] as const;
	};
	const fields = [field('Before, from', 'from1', from), field('to', 'to1', middle), field('After, from', 'from2', middle), field('to', 'to2', to)];
	return el(
		'form',
		{
			class: 'row compare-form',
			on: {
				submit: (event) => {
					event.preventDefault();
					const own = Object.fromEntries(fields.map(([name, moment]) => [name, moment.text()]));
					go(elsewhere(here(), 'compare', { what: 'windows', ...own, txn: address.own.txn ?? '' }));
				},
			},
		},
		fields.map(([, moment]) => moment.element),
		el('button', { type: 'submit' }, 'Compare'),
	);
}

async function content(address: Address, signal: AbortSignal): Promise<Child> {
	const { a, b } = address.own;
	const kind = kindOf(address);
	const windows = windowsOf(address);
	if (kind === 'windows') {
		return windows
			? compareWindows(windows, address, signal)
			: emptyState('Which times?', 'Say them above, or take a mark: the time before it is compared with the time after it.');
	}
	if (!a || (kind === 'requests' && !b)) {
		return emptyState('Which requests?', 'Their ids are on their pages, which also lead here; a search lists them.');
	}
	return compareRequests(a, kind === 'typical' ? undefined : b, signal);
}

export function comparePage(): Page {
	const panel = new Panel('', { what: 'The comparison' });
	const form = el('div', { class: 'stack' });
	const marks = el('div');
	// About the marks; what comes after another kind was chosen is too late.
	let asked: AbortController | undefined;
	return {
		element: el('div', { class: 'page' }, el('h1', {}, 'Compare'), form, marks, panel.element),
		title: () => 'Compare',
		show: (address) => {
			const kind = kindOf(address);
			replace(form, kindSwitch(address), kind === 'windows' ? windowsForm(address) : requestsForm(address, kind));
			replace(marks);
			asked?.abort();
			asked = undefined;
			if (kind === 'windows') {
				const question = new AbortController();
				asked = question;
				void marksOf(address, question.signal).then((found) => !question.signal.aborted && replace(marks, markList(found, address)));
			}
			void panel.fill((signal) => content(address, signal));
		},
		end: () => {
			asked?.abort();
			panel.end();
		},
	};
}
