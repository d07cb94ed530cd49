/* What is around every page: the way to the others, what narrows them, and the keys of all. */
import { elsewhere, go, here, hrefOf, type Address, type PageName } from '../state/address';
import { el, replace } from '../ui/dom';
import { setCommands, type Command } from '../ui/keys';
import { nextTheme, theme, type Theme } from '../ui/theme';
import { filters } from './filters';
import { openAbout, openHelp } from './help';
import { moveRange } from './range';

interface Entry {
	readonly page: PageName;
	readonly text: string;
	/* Behind `g`. */
	readonly key: string;
	/* Pages that are opened from this one. */
	readonly below?: readonly PageName[];
}

const ENTRIES: readonly Entry[] = [
	{ page: 'overview', text: 'Overview', key: 'o' },
	{ page: 'transactions', text: 'Transactions', key: 't', below: ['transaction'] },
	{ page: 'queries', text: 'Queries', key: 'q' },
	{ page: 'errors', text: 'Errors', key: 'e' },
	{ page: 'external', text: 'External', key: 'x' },
	{ page: 'map', text: 'Map', key: 'm' },
	{ page: 'search', text: 'Search', key: 's', below: ['request', 'trace'] },
	{ page: 'live', text: 'Live', key: 'l' },
	{ page: 'compare', text: 'Compare', key: 'c' },
	{ page: 'doctor', text: 'Doctor', key: 'd' },
];

const THEME_TEXTS: Readonly<Record<Theme, string>> = {
	system: 'Theme: as the system',
	light: 'Theme: light',
	dark: 'Theme: dark',
};

function navigation() {
	const list = el('nav', { id: 'pages', class: 'pages', 'aria-label': 'Pages' });
	const menu: HTMLButtonElement = el(
		'button',
		{
			type: 'button',
			class: 'menu',
			'aria-expanded': 'false',
			'aria-controls': 'pages',
			on: { click: () => toggle(menu.getAttribute('aria-expanded') !== 'true') },
		},
		'Menu',
	);
	const toggle = (isOpen: boolean) => {
		menu.setAttribute('aria-expanded', String(isOpen));
		list.classList.toggle('is-open', isOpen);
	};
	const update = (address: Address) => {
		const isCurrent = (entry: Entry) =>
			typeof address.page === 'string' && (entry.page === address.page || (entry.below?.includes(address.page) ?? false));
		replace(
			list,
			ENTRIES.map((entry) =>
				el(
					'a',
					{
						href: hrefOf(elsewhere(address, entry.page, {}, { q: '' })),
						...(isCurrent(entry) ? { 'aria-current': entry.page === address.page ? 'page' : 'true' } : {}),
					},
					entry.text,
				),
			),
		);
		toggle(false);
	};
	return { list, menu, update };
}

function themeButton(): { readonly element: HTMLButtonElement; readonly next: () => void } {
	const next = () => {
		nextTheme();
		name();
	};
	const element: HTMLButtonElement = el('button', { type: 'button', class: 'plain theme', on: { click: next } }, '◐');
	const name = () => {
		element.setAttribute('aria-label', THEME_TEXTS[theme()]);
		element.title = THEME_TEXTS[theme()];
	};
	name();
	return { element, next };
}

/* Focus goes from row to row of what is in a table or a list of results. */
function moveFocus(direction: 1 | -1): boolean {
	const rows = [...document.querySelectorAll<HTMLElement>('main [data-row]')].filter((row) => row.offsetParent !== null);
	const current = rows.findIndex((row) => row.contains(document.activeElement));
	const next = rows[current < 0 ? (direction > 0 ? 0 : rows.length - 1) : current + direction];
	if (!next) {
		return rows.length > 0;
	}
	const target = next.matches('a, button, [tabindex]') ? next : next.querySelector<HTMLElement>('a, button');
	target?.focus();
	target?.scrollIntoView({ block: 'nearest' });
	return true;
}

export interface Shell {
	readonly main: HTMLElement;
	update(address: Address): void;
}

function allCommands(search: () => void, theme: () => void, reload: () => void): Command[] {
	const does = (run: () => void) => () => {
		run();
		return undefined;
	};
	return [
		{ keys: ['/'], text: 'Search', run: does(search) },
		{ keys: ['ArrowDown', 'j'], text: 'Next row', run: () => moveFocus(1) },
		{ keys: ['ArrowUp', 'k'], text: 'Row before', run: () => moveFocus(-1) },
		{ keys: ['Enter'], text: 'Open the row', run: () => false },
		{ keys: ['['], text: 'Earlier', run: does(() => moveRange(-1)) },
		{ keys: [']'], text: 'Later', run: does(() => moveRange(1)) },
		{ keys: ['r'], text: 'Ask anew', run: does(reload) },
		{ keys: ['d'], text: 'Light, dark, or as the system', run: does(theme) },
		{ keys: ['?'], text: 'This help', run: does(openHelp) },
		...ENTRIES.map((entry) => ({
			keys: [`g ${entry.key}`],
			text: entry.text,
			run: does(() => go(elsewhere(here(), entry.page, {}, { q: '' }))),
		})),
	];
}

/*
 * Puts itself into the page, which `show` has ask anew. A page that has a box of its own for searching
 * names it `data-search`.
 */
export function startShell(show: () => void): Shell {
	const { list, menu, update: updateNavigation } = navigation();
	const narrowing = filters();
	const switcher = themeButton();
	const main = el('main', { id: 'main', tabindex: -1 });
	const search = () => {
		const own = document.querySelector<HTMLInputElement>('main [data-search]');
		(own ?? narrowing.search).focus();
		(own ?? narrowing.search).select();
	};
	const reload = () => {
		narrowing.forget();
		show();
	};
	setCommands(allCommands(search, switcher.next, reload));
	const brand = el('a', { class: 'brand', href: '/', 'aria-label': 'kaq, overview' }, 'kaq');
	const help = el('button', { type: 'button', class: 'plain', 'aria-label': 'Keys', title: 'Keys ( ? )', on: { click: openHelp } }, '?');
	const again = el('button', { type: 'button', class: 'plain', 'aria-label': 'Ask anew', title: 'Ask anew ( r )', on: { click: reload } }, '↻');
	document.body.append(
		el('a', { class: 'skip', href: '#main' }, 'To the content'),
		el(
			'header',
			{ class: 'top' },
			el('div', { class: 'top-pages' }, brand, menu, list, el('div', { class: 'top-tools' }, again, switcher.element, help)),
			narrowing.element,
		),
		main,
		el('footer', { class: 'foot' }, el('button', { type: 'button', class: 'plain', on: { click: openAbout } }, 'About')),
	);
	return {
		main,
		update: (address) => {
			updateNavigation(address);
			narrowing.update(address);
			brand.setAttribute('href', hrefOf(elsewhere(address, 'overview', {}, { q: '' })));
		},
	};
}
