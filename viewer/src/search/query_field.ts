/*
 * Where a query is written: what may come next is offered as one writes, mistakes are told with their
 * place, and the language is a click away.
 */
import { isAborted } from '../api/ask';
import { api } from '../api/services';
import type { Candidate, Completions } from '../api/types';
import { openDialog } from '../ui/dialog';
import { append, el, replace } from '../ui/dom';

export interface QueryFieldOptions {
	readonly label: string;
	readonly placeholder: string;
	readonly onQuery: (query: string) => void;
}

export interface QueryField {
	readonly element: HTMLElement;
	set(query: string): void;
}

const PATIENCE_MS = 120;
const MOST_OFFERED = 12;

const encoder = new TextEncoder();

/* The interface counts bytes, the page UTF-16 units. */
function bytesTo(text: string, units: number): number {
	return encoder.encode(text.slice(0, units)).length;
}

function unitsTo(text: string, bytes: number): number {
	return new TextDecoder().decode(encoder.encode(text).slice(0, bytes)).length;
}

const HELP: readonly (readonly [string, string])[] = [
	['>300ms', 'took longer'],
	['txn:/cart*', 'transactions whose name begins so; * is any text'],
	['app:shop', 'of this application'],
	['host:*.shop.example', 'asked for under such a host'],
	['path:/cart/7', 'of this path'],
	['status:5xx', 'with such a status; also status:404'],
	['is:failed', 'that failed; also is:web, is:cli'],
	['has:verdict', 'of which there is something to say; also has:sql, has:call, has:error'],
	['sql:"FROM product"', 'with a statement that has these words'],
	['fn:Cart::items', 'with a call of this function'],
	['error:"out of stock"', 'with such an error'],
	['queries:>100', 'with so many statements; also calls:, spans:, errors:'],
	['db:>1s  ext:>1s  cpu:>50ms  mem:>64MB', 'with so much of it'],
	['status:5xx OR error:timeout', 'either; terms in a row all have to hold'],
	['-path:/health*', 'not these'],
];

function openLanguage(): void {
	openDialog(
		'The query language',
		el('p', {}, 'A query is a list of terms; what is found fulfils all of them.'),
		el('dl', { class: 'terms' }, HELP.map(([term, text]) => [el('dt', {}, el('code', {}, term)), el('dd', {}, text)])),
	);
}

let fields = 0;

class Field implements QueryField {
	readonly element: HTMLElement;
	private readonly input: HTMLInputElement;
	private readonly list: HTMLElement;
	private readonly id = `query-${++fields}`;
	private question: AbortController | undefined;
	private timer = 0;
	private offered: Completions | undefined;
	/* What is offered is for this text alone. */
	private offeredFor = '';
	private chosen = -1;
	/* Since the field was come to: before, Tab goes on to what is next. */
	private isTyped = false;

	constructor(private readonly options: QueryFieldOptions) {
		this.list = el('div', { class: 'offers', id: `${this.id}-list`, role: 'listbox', 'aria-label': 'What may come next', hidden: true });
		this.input = el('input', {
			type: 'search',
			class: 'query-input mono',
			placeholder: options.placeholder,
			'aria-label': options.label,
			'data-search': true,
			spellcheck: 'false',
			autocomplete: 'off',
			autocapitalize: 'off',
			role: 'combobox',
			'aria-autocomplete': 'list',
			'aria-expanded': 'false',
			'aria-controls': this.list.id,
			on: {
				input: () => {
					this.isTyped = true;
					this.ask();
				},
				keydown: (event) => this.onKey(event),
				blur: () => this.close(),
				focus: () => {
					this.isTyped = false;
					this.ask();
				},
			},
		});
		this.element = el(
			'div',
			{ class: 'query' },
			el('div', { class: 'query-box' }, this.input, this.list),
			el('button', { type: 'button', on: { click: () => this.submit() } }, 'Find'),
			el('button', { type: 'button', class: 'plain', on: { click: openLanguage } }, 'Language'),
		);
	}

	set(query: string): void {
		if (document.activeElement !== this.input || this.input.value.trim() !== query) {
			this.input.value = query;
		}
	}

	private submit(): void {
		this.close();
		this.options.onQuery(this.input.value.trim());
	}

	private onKey(event: KeyboardEvent): void {
		const candidates = this.offered?.candidates ?? [];
		const isOpen = !this.list.hidden && this.offeredFor === this.input.value;
		if (event.key === 'Enter') {
			if (isOpen && this.chosen >= 0) {
				this.take(candidates[this.chosen]);
			} else {
				this.submit();
			}
		} else if (event.key === 'Tab' && isOpen && !event.shiftKey && candidates.length > 0 && (this.isTyped || this.chosen >= 0)) {
			this.take(candidates[Math.max(0, this.chosen)]);
		} else if ((event.key === 'ArrowDown' || event.key === 'ArrowUp') && isOpen) {
			this.choose((this.chosen + (event.key === 'ArrowDown' ? 1 : candidates.length + (this.chosen < 0 ? 0 : -1))) % Math.max(1, candidates.length));
		} else if (event.key === 'Escape') {
			if (isOpen) {
				this.close();
			} else {
				this.input.blur();
			}
		} else {
			return;
		}
		event.preventDefault();
	}

	private ask(): void {
		clearTimeout(this.timer);
		this.timer = window.setTimeout(() => void this.complete(), PATIENCE_MS);
	}

	private async complete(): Promise<void> {
		this.question?.abort();
		this.question = new AbortController();
		const text = this.input.value;
		try {
			const cursor = bytesTo(text, this.input.selectionStart ?? text.length);
			this.offered = await api.completions(text, cursor, this.question.signal);
			this.offeredFor = text;
			this.offer(text);
		} catch (error) {
			if (!isAborted(error)) {
				this.close();
			}
		}
	}

	private offer(text: string): void {
		const { candidates } = this.offered ?? { candidates: [] };
		if (document.activeElement !== this.input || text !== this.input.value || candidates.length === 0) {
			this.close();
			return;
		}
		replace(this.list);
		candidates.slice(0, MOST_OFFERED).forEach((candidate, i) => {
			append(
				this.list,
				el(
					'div',
					{
						role: 'option',
						id: `${this.id}-${i}`,
						class: 'offer',
						'aria-selected': 'false',
						// Before the field loses the focus.
						on: {
							mousedown: (event) => {
								event.preventDefault();
								this.take(candidate);
							},
						},
					},
					el('code', {}, candidate.text),
					el('span', { class: 'muted' }, candidate.help ?? ''),
				),
			);
		});
		this.list.hidden = false;
		this.input.setAttribute('aria-expanded', 'true');
		this.choose(-1);
	}

	private choose(index: number): void {
		this.chosen = index;
		[...this.list.children].forEach((each, i) => {
			each.setAttribute('aria-selected', String(i === index));
			if (i === index) {
				each.scrollIntoView({ block: 'nearest' });
			}
		});
		if (index >= 0) {
			this.input.setAttribute('aria-activedescendant', `${this.id}-${index}`);
		} else {
			this.input.removeAttribute('aria-activedescendant');
		}
	}

	private take(candidate: Candidate | undefined): void {
		if (!candidate || !this.offered || this.offeredFor !== this.input.value) {
			return;
		}
		const text = this.input.value;
		const begin = unitsTo(text, this.offered.begin);
		const end = unitsTo(text, this.offered.end);
		this.input.setRangeText(candidate.text, begin, end, 'end');
		this.ask();
	}

	private close(): void {
		clearTimeout(this.timer);
		this.question?.abort();
		this.list.hidden = true;
		this.chosen = -1;
		this.input.setAttribute('aria-expanded', 'false');
		this.input.removeAttribute('aria-activedescendant');
	}
}

export function queryField(options: QueryFieldOptions): QueryField {
	return new Field(options);
}
