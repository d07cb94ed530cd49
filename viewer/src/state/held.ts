/* What is held of a page's tables in the address, so that a link has them as they were left. */
import { here, remember } from './address';

export interface HeldSort {
	readonly sort: string;
	readonly onSort: (sort: string) => void;
}

/* `name` tells tables of one page apart. */
export function heldSort(usual = '', name = 'sort'): HeldSort {
	return { sort: here().own[name] ?? usual, onSort: (sort) => remember({ own: { [name]: sort } }) };
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
export function heldRows<Row>(keyOf: (row: Row) => string, name = 'open'): HeldRows<Row> {
	return {
		keyOf,
		opened: new Set((here().own[name] ?? '').split('.').filter(Boolean)),
		onOpened: (keys) => remember({ own: { [name]: [...keys].join('.') } }),
	};
}
