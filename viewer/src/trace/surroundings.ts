/*
 * What is around the view of a request: the pages of the collector, or a file that somebody opened. In
 * the file there is nowhere to go to.
 */
import type { Holder } from '../state/held';
import type { Child } from '../ui/dom';

export interface Links {
	readonly request: (id: string, ...children: readonly Child[]) => Child;
	readonly trace: (id: string, ...children: readonly Child[]) => Child;
	/* Requests that ran it. */
	readonly statement: (statement: string, ...children: readonly Child[]) => Child;
	readonly transaction: (application: string, name: string) => Child;
	/* What the request does differently from the usual one. */
	readonly typical: (id: string, ...children: readonly Child[]) => Child;
}

/* It holds what of the view is restored. */
export interface Surroundings extends Holder {
	readonly links: Links | undefined;
	/* Beside the heading. */
	readonly tools: (kind: 'request' | 'trace', id: string, isPinned: boolean) => Child;
}
