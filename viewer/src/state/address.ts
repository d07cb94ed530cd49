/*
 * What the address says: which page, of which time, application and host, with which query. It is the
 * only place where that is held, so that a link restores a view exactly, and nothing but this file
 * knows how it is written.
 */
import { savePlace } from './place';

export const PAGES = [
	'overview',
	'transactions',
	'transaction',
	'request',
	'trace',
	'search',
	'live',
	'queries',
	'errors',
	'external',
	'map',
	'compare',
	'doctor',
] as const;

export type PageName = (typeof PAGES)[number];

/* Parameters of a page itself. */
export type Own = Readonly<Record<string, string>>;

export interface Address {
	/* Unknown pages are kept, so that it can be said which one there is not. */
	readonly page: PageName | { readonly unknown: string };
	/* `1h` for the last hour, or milliseconds since 1970. */
	readonly from: string;
	/* Milliseconds since 1970; empty: now. */
	readonly to: string;
	readonly app: string;
	readonly host: string;
	readonly q: string;
	readonly own: Own;
}

export const USUAL_RANGE = '1h';

/* What stays from page to page. */
const KEPT = ['from', 'to', 'app', 'host', 'q'] as const;

type Kept = (typeof KEPT)[number];

export type Changes = Partial<Pick<Address, Kept>> & { readonly own?: Own };

function isPage(name: string): name is PageName {
	return (PAGES as readonly string[]).includes(name);
}

export function parseAddress(path: string, search: string): Address {
	const name = path.replace(/^\/+|\/+$/g, '');
	const kept: Record<Kept, string> = { from: USUAL_RANGE, to: '', app: '', host: '', q: '' };
	const own: Record<string, string> = {};
	for (const [key, value] of new URLSearchParams(search)) {
		if ((KEPT as readonly string[]).includes(key)) {
			kept[key as Kept] = value || (key === 'from' ? USUAL_RANGE : '');
		} else {
			own[key] = value;
		}
	}
	let page: Address['page'] = name === '' ? 'overview' : isPage(name) ? name : { unknown: name };
	// What alerts link to.
	if (page === 'overview' && own.txn) {
		page = 'transaction';
	}
	return { page, ...kept, own };
}

export function hrefOf(address: Address): string {
	const search = new URLSearchParams();
	for (const key of KEPT) {
		if (address[key] && !(key === 'from' && address.from === USUAL_RANGE && !address.to)) {
			search.set(key, address[key]);
		}
	}
	for (const [key, value] of Object.entries(address.own)) {
		if (value) {
			search.set(key, value);
		}
	}
	const name = typeof address.page === 'string' ? address.page : address.page.unknown;
	const text = search.toString();
	return `/${name === 'overview' ? '' : name}${text ? `?${text}` : ''}`;
}

/* The same page, with some of it changed; own parameters are changed one by one, an empty one goes. */
export function changed(address: Address, changes: Changes): Address {
	return { ...address, ...changes, own: { ...address.own, ...changes.own } };
}

/* Another page, with what stays from page to page. */
export function elsewhere(address: Address, page: PageName, own: Own = {}, changes: Omit<Changes, 'own'> = {}): Address {
	return { ...address, ...changes, page, own };
}

const UNITS: Readonly<Record<string, number>> = { s: 1e3, m: 6e4, h: 36e5, d: 864e5, w: 6048e5 };

/* The time that `from` or `to` means: `1h` is an hour ago. NaN if it cannot be read. */
export function timeOf(text: string, now: number): number {
	if (text === '' || text === 'now') {
		return now;
	}
	const [, count, unit] = /^(\d+)([smhdw])$/.exec(text) ?? [];
	if (count !== undefined && unit !== undefined) {
		return now - Number(count) * (UNITS[unit] ?? NaN);
	}
	// There are no later days than those that a date can hold.
	return new Date(/^\d{9,}$/.test(text) ? Number(text) : text).getTime();
}

/* The same view at any later time: no time counts from now. */
export function fixed(address: Address, now: number): Address {
	const [from, to] = [timeOf(address.from, now), timeOf(address.to, now)];
	return Number.isNaN(from) || Number.isNaN(to) ? address : { ...address, from: String(from), to: String(to) };
}

type Listener = (address: Address) => void;

const listeners = new Set<Listener>();
let present: Address | undefined;

function read(): Address {
	return parseAddress(location.pathname, location.search);
}

export function here(): Address {
	present ??= read();
	return present;
}

function announce(): void {
	present = read();
	for (const each of [...listeners]) {
		each(present);
	}
}

/* Goes there; with `replace` the browser's way back does not lead through here. */
export function go(address: Address, how: 'push' | 'replace' = 'push'): void {
	const href = hrefOf(address);
	if (how === 'replace' || href === hrefOf(here())) {
		history.replaceState(history.state, '', href);
	} else {
		savePlace();
		history.pushState(null, '', href);
	}
	announce();
}

/* Holds something in the address that the page already shows, such as what is selected. */
export function remember(changes: Changes): void {
	present = changed(here(), changes);
	history.replaceState(history.state, '', hrefOf(present));
}

/* REQUIRES: it ends with the page, or with the program that is returned. */
export function onAddress(listener: Listener): () => void {
	listeners.add(listener);
	return () => listeners.delete(listener);
}

/* Has the browser's way back and links of the page lead through here, without loading anew. */
export function followLinks(): void {
	addEventListener('popstate', announce);
	document.addEventListener('click', (event) => {
		const link = event.target instanceof Element ? event.target.closest('a') : null;
		const href = link?.getAttribute('href') ?? '';
		const isPlain = event.button === 0 && !event.metaKey && !event.ctrlKey && !event.shiftKey && !event.altKey;
		const isOurs = href.startsWith('/') && !href.startsWith('/api/') && !link?.hasAttribute('download');
		if (link && isPlain && isOurs && !link.target && !event.defaultPrevented) {
			event.preventDefault();
			const target = new URL(href, location.origin);
			go(parseAddress(target.pathname, target.search));
		}
	});
}
