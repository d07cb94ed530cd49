/*
 * What is around the view of a request: the pages of the collector, or a file that somebody opened. In
 * the file there is nowhere to go to.
 */
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

export interface Surroundings {
	readonly links: Links | undefined;
	/* Beside the heading. */
	readonly tools: (kind: 'request' | 'trace', id: string, isPinned: boolean) => Child;
	/* What of the view is restored, by names, and where it is held. */
	readonly get: (name: string) => string;
	readonly set: (changes: Readonly<Record<string, string>>) => void;
}
