/* Recorded texts in full: formatted where they are SQL, cut off at first where they are very long. */
import type { Fields, Frame } from '../api/types';
import { append, el, replace, type Child } from '../ui/dom';
import { bytes } from '../ui/format';
import { formatted, tokens } from './sql';

const AT_FIRST = 6000;
/* Longer ones are shown as they are: nobody reads them. */
const LONGEST_FORMATTED = 60000;

/* The beginning of a text, and a button for all of it. */
export function longText(text: string, show: (text: string) => Child = (shown) => shown, longest = AT_FIRST): HTMLElement {
	const box = el('div', { class: 'recorded', dir: 'auto' });
	if (text.length <= longest) {
		replace(box, show(text));
		return box;
	}
	const all = () => replace(box, show(text));
	replace(
		box,
		show(text.slice(0, longest)),
		'… ',
		el('button', { type: 'button', class: 'link', on: { click: all } }, `Show all of it (${bytes(text.length)})`),
	);
	return box;
}

export function copyButton(text: string, what: string): HTMLButtonElement {
	const copy = async () => {
		try {
			await navigator.clipboard.writeText(text);
			button.textContent = 'Copied';
		} catch {
			button.textContent = 'The browser refused';
		}
		setTimeout(() => (button.textContent = 'Copy'), 1500);
	};
	const button: HTMLButtonElement = el('button', { type: 'button', class: 'plain small', 'aria-label': `Copy ${what}`, on: { click: () => void copy() } }, 'Copy');
	return button;
}

function highlighted(sql: string): Child {
	if (sql.length > LONGEST_FORMATTED) {
		return sql;
	}
	return formatted(tokens(sql)).map((token) => (token.kind === 'space' || token.kind === 'word' || token.kind === 'sign' ? token.text : el('span', { class: `sql-${token.kind}` }, token.text)));
}

export function sqlElement(sql: string): HTMLElement {
	return el('pre', { class: 'sql', tabindex: 0, 'aria-label': 'SQL' }, longText(sql, highlighted));
}

export function fieldList(fields: Fields): HTMLElement {
	return el(
		'dl',
		{ class: 'fields' },
		fields.map(([name, value]) => [el('dt', {}, longText(name, undefined, 200)), el('dd', {}, value === '' ? el('span', { class: 'muted' }, '(empty)') : longText(value, undefined, 1500))]),
	);
}

/* A part of a panel, left out where there is nothing in it. */
export function section(title: string, content: Child, tools: Child = null): Child {
	return content !== null && content !== false && content !== undefined && content !== '' && el('section', { class: 'part' }, el('header', {}, el('h3', {}, title), tools), content);
}

export function fieldSection(title: string, fields: Fields | undefined): Child {
	return fields !== undefined && fields.length > 0 && section(`${title} (${fields.length})`, fieldList(fields));
}

export function place(file: string | undefined, line: number | undefined): string {
	return file ? `${file}${line ? `:${line}` : ''}` : '';
}

const FRAMES_AT_FIRST = 30;

/* The innermost first. */
export function stackList(stack: readonly Frame[]): HTMLElement {
	const item = (frame: Frame) =>
		el(
			'li',
			{},
			el('span', { class: 'mono' }, longText(`${frame.class ? `${frame.class}::` : ''}${frame.function ?? '(main)'}`, undefined, 300)),
			frame.file && el('span', { class: 'mono muted' }, longText(place(frame.file, frame.line), undefined, 300)),
		);
	const list = el('ol', { class: 'stack-list' }, stack.slice(0, FRAMES_AT_FIRST).map(item));
	const left = stack.length - FRAMES_AT_FIRST;
	if (left <= 0) {
		return list;
	}
	const more: HTMLButtonElement = el(
		'button',
		{
			type: 'button',
			class: 'link',
			on: {
				click: () => {
					append(list, stack.slice(FRAMES_AT_FIRST).map(item));
					more.remove();
				},
			},
		},
		`${left} more`,
	);
	return el('div', {}, list, more);
}

export function facts(list: readonly (readonly [string, Child])[]): HTMLElement {
	return el('dl', { class: 'facts' }, list.map(([name, value]) => value !== null && value !== undefined && value !== false && value !== '' && el('div', {}, el('dt', {}, name), el('dd', {}, value))));
}
