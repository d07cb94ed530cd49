/* What is held of a page's tables in the address, so that a link has them as they were left. */
import { here, remember, type Own } from './address';

/* Where it is held, each by its name; an empty text is the usual. */
export interface Holder {
	readonly get: (name: string) => string;
	readonly set: (changes: Own) => void;
}

export const ADDRESS: Holder = { get: (name) => here().own[name] ?? '', set: (own) => remember({ own }) };

export interface HeldSort {
	readonly sort: string;
	readonly onSort: (sort: string) => void;
}

/* `name` tells tables of one page apart. */
export function heldSort(usual = '', name = 'sort', holder = ADDRESS): HeldSort {
	return { sort: holder.get(name) || usual, onSort: (sort) => holder.set({ [name]: sort }) };
}

/* FNV-1a: a name for a text of any length, short enough for an address. */
export function shortKey(...texts: readonly string[]): string {
	let hash = 0x811c9dc5;
	for (const text of texts) {
		for (let i = 0; i <= text.length; i++) {
			// The end of each counts, too.
			hash = Math.imul(hash ^ (i < text.length ? text.charCodeAt(i) : 0x10ffff), 0x01000193);
		}
	}
	return (hash >>> 0).toString(36);
}

export interface HeldRows<Row> {
	readonly keyOf: (row: Row) => string;
	readonly opened: ReadonlySet<string>;
	readonly onOpened: (keys: ReadonlySet<string>) => void;
}

/* Which rows are opened. */
export function heldRows<Row>(keyOf: (row: Row) => string, name = 'open', holder = ADDRESS): HeldRows<Row> {
	return {
		keyOf,
		opened: new Set(holder.get(name).split('.').filter(Boolean)),
		onOpened: (keys) => holder.set({ [name]: [...keys].join('.') }),
	};
}
