/*
 * Makes elements. Texts become text nodes, whatever is in them. Links lead within the pages, into the
 * interface or to what the page itself made, so that no recorded address is ever followed.
 */

import { keepingFocus } from './focus';

export type Child = Node | string | number | null | undefined | false | readonly Child[];

type Listeners = { readonly [Name in keyof HTMLElementEventMap]?: (event: HTMLElementEventMap[Name]) => void };

export interface Attributes {
	readonly on?: Listeners;
	/* Custom properties and others that hang on values, such as widths. */
	readonly style?: Readonly<Record<string, string>>;
	readonly [name: string]: string | number | boolean | undefined | Listeners | Readonly<Record<string, string>>;
}

const SAFE_LINK = /^(\/(?!\/)|#|blob:|data:application\/json)/;

const SVG = 'http://www.w3.org/2000/svg';

export function append(parent: Node, ...children: readonly Child[]): void {
	for (const child of children) {
		if (Array.isArray(child)) {
			append(parent, ...(child as readonly Child[]));
		} else if (child instanceof Node) {
			parent.appendChild(child);
		} else if (child !== null && child !== undefined && child !== false) {
			parent.appendChild(document.createTextNode(String(child as string | number)));
		}
	}
}

export function replace(parent: Element, ...children: readonly Child[]): void {
	keepingFocus(parent, () => {
		parent.replaceChildren();
		append(parent, ...children);
	});
}

function setAttribute(element: HTMLElement | SVGElement, name: string, value: Attributes[string]): void {
	if (value === undefined || value === false) {
		return;
	}
	if (name === 'on') {
		for (const [type, listener] of Object.entries(value as Listeners)) {
			element.addEventListener(type, listener as EventListener);
		}
	} else if (name === 'style') {
		for (const [property, text] of Object.entries(value as Readonly<Record<string, string>>)) {
			element.style.setProperty(property, text);
		}
	} else if (name.startsWith('on')) {
		throw new Error(`${name} is no attribute of ours`);
	} else if (name === 'href' && !SAFE_LINK.test(value as string)) {
		throw new Error('a link leads elsewhere');
	} else {
		element.setAttribute(name, value === true ? '' : String(value as string | number));
	}
}

export function el<Name extends keyof HTMLElementTagNameMap>(
	name: Name,
	attributes: Attributes = {},
	...children: readonly Child[]
): HTMLElementTagNameMap[Name] {
	const element = document.createElement(name);
	for (const [key, value] of Object.entries(attributes)) {
		setAttribute(element, key, value);
	}
	append(element, ...children);
	return element;
}

export function svg<Name extends keyof SVGElementTagNameMap>(
	name: Name,
	attributes: Attributes = {},
	...children: readonly Child[]
): SVGElementTagNameMap[Name] {
	const element = document.createElementNS(SVG, name);
	for (const [key, value] of Object.entries(attributes)) {
		setAttribute(element, key, value);
	}
	append(element, ...children);
	return element;
}

/* A text that is cut off where it does not fit, and whole on hover. */
export function cut(text: string, className = ''): HTMLElement {
	const shown = shortened(text, LONGEST_SHOWN);
	return el('span', { class: `cut ${className}`.trim(), title: shortened(text, LONGEST_TITLE) }, shown);
}

/* Recorded texts may be megabytes; nobody reads those in a row of a table. */
const LONGEST_SHOWN = 400;
const LONGEST_TITLE = 2000;

export function shortened(text: string, longest: number): string {
	return text.length > longest ? `${text.slice(0, longest)}…` : text;
}
