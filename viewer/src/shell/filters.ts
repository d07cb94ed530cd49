/* What narrows every page: time, application, host, and a box that searches from anywhere. */
import { api } from '../api/services';
import { changed, elsewhere, fixed, go, here, hrefOf, type Address } from '../state/address';
import { el, replace } from '../ui/dom';
import { rangeControl } from './range';

interface Known {
	readonly applications: readonly string[];
	readonly hosts: readonly string[];
}

async function namesOf(address: Address): Promise<Known> {
	const range = { from: address.from, to: address.to };
	const [known, asked] = await Promise.all([
		api.applications({ ...range, limit: 1000 }),
		api.hosts({ ...range, limit: 1000 }),
	]);
	const applications = new Set(known.applications.map((each) => each.application));
	const hosts = new Set(asked.hosts.map((each) => each.host));
	const sorted = (names: Set<string>) => [...names].filter(Boolean).sort((a, b) => a.localeCompare(b));
	return { applications: sorted(applications), hosts: sorted(hosts) };
}

function choice(label: string, all: string, onChoice: (value: string) => void) {
	const select = el('select', { 'aria-label': label, on: { change: () => onChoice(select.value) } });
	const update = (names: readonly string[], chosen: string) => {
		const every = chosen && !names.includes(chosen) ? [chosen, ...names] : names;
		replace(select, el('option', { value: '' }, all), every.map((name) => el('option', { value: name }, name)));
		select.value = chosen;
	};
	return { select, update };
}

function searchBox(): HTMLInputElement {
	const box: HTMLInputElement = el('input', {
		type: 'search',
		class: 'search-box',
		placeholder: 'Search  ( / )',
		'aria-label': 'Search requests',
		spellcheck: 'false',
		autocomplete: 'off',
		on: {
			keydown: (event) => {
				if (event.key === 'Enter') {
					go(elsewhere(here(), 'search', {}, { q: box.value.trim() }));
				} else if (event.key === 'Escape') {
					box.blur();
				}
			},
		},
	});
	return box;
}

async function copyLink(button: HTMLButtonElement): Promise<void> {
	const text = location.origin + hrefOf(fixed(here(), Date.now()));
	try {
		await navigator.clipboard.writeText(text);
		button.textContent = 'Copied';
	} catch {
		prompt('The link to this view', text);
	}
	setTimeout(() => (button.textContent = 'Copy link'), 1500);
}

export interface Filters {
	readonly element: HTMLElement;
	readonly search: HTMLInputElement;
	update(address: Address): void;
	/* What is offered is asked for anew with the next update. */
	forget(): void;
}

export function filters(): Filters {
	const range = rangeControl();
	const application = choice('Application', 'All applications', (app) => go(changed(here(), { app })));
	const host = choice('Host', 'All hosts', (name) => go(changed(here(), { host: name })));
	const search = searchBox();
	const copy: HTMLButtonElement = el('button', { type: 'button', class: 'copy-link', on: { click: () => void copyLink(copy) } }, 'Copy link');
	let offered: Known = { applications: [], hosts: [] };
	let askedFor = '';
	let questions = 0;
	const show = (address: Address) => {
		application.update(offered.applications, address.app);
		host.update(offered.hosts, address.host);
	};
	const update = (address: Address) => {
		range.update(address);
		show(address);
		const hasOwnBox = address.page === 'search' || address.page === 'live';
		search.hidden = hasOwnBox;
		const wanted = `${address.from} ${address.to}`;
		if (wanted !== askedFor) {
			askedFor = wanted;
			const question = ++questions;
			// The page itself says what is wrong where this fails.
			namesOf(address).then(
				(names) => {
					if (question === questions) {
						offered = names;
						show(here());
					}
				},
				() => (askedFor = ''),
			);
		}
	};
	const element = el('div', { class: 'filters' }, range.element, application.select, host.select, search, copy);
	return { element, search, update, forget: () => (askedFor = '') };
}
