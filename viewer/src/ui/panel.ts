/*
 * A part of a page that asks for what it shows. What was there stays, dimmed, until the answer is
 * there; a later question takes an earlier one back; a failure is said in the panel alone.
 */
import { isAborted } from '../api/ask';
import { el, replace, type Child } from './dom';
import { focusIfLost } from './focus';
import { errorState } from './states';

const PATIENCE_MS = 200;

export interface PanelOptions {
	/* Behind the title, such as a switch. */
	readonly tools?: readonly Child[];
	readonly className?: string;
	/* What a failure names; the title if it is left out. */
	readonly what?: string;
}

let panels = 0;

/* One question for several panels. Whoever tries again after it has failed asks it anew. */
export function shared<Answer>(ask: () => Promise<Answer>): () => Promise<Answer> {
	let asked: Promise<Answer> | undefined;
	return () =>
		(asked ??= ask().catch((error: unknown) => {
			asked = undefined;
			throw error;
		}));
}

export class Panel {
	readonly element: HTMLElement;
	readonly body = el('div', { class: 'panel-body' });
	private question: AbortController | undefined;
	private readonly what: string;

	constructor(title: string, options: PanelOptions = {}) {
		const id = `panel-${++panels}`;
		this.what = options.what ?? (title || 'This');
		this.element = el(
			'section',
			{ class: `panel ${options.className ?? ''}`.trim(), ...(title ? { 'aria-labelledby': id } : {}) },
			title !== '' && el('header', { class: 'panel-head' }, el('h2', { id }, title), options.tools),
			this.body,
		);
	}

	/* REQUIRES: `ask` passes the signal on. */
	async fill(ask: (signal: AbortSignal) => Promise<Child>): Promise<void> {
		this.question?.abort();
		const question = new AbortController();
		this.question = question;
		const waiting = setTimeout(() => this.element.classList.add('is-waiting'), PATIENCE_MS);
		this.element.setAttribute('aria-busy', 'true');
		try {
			const content = await ask(question.signal);
			if (this.question === question) {
				focusIfLost(this.element, () => replace(this.body, content));
			}
		} catch (error) {
			if (this.question === question && !isAborted(error)) {
				replace(this.body, errorState(this.what, error, () => void this.fill(ask)));
			}
		} finally {
			clearTimeout(waiting);
			if (this.question === question) {
				this.element.classList.remove('is-waiting');
				this.element.removeAttribute('aria-busy');
			}
		}
	}

	end(): void {
		this.question?.abort();
	}
}
