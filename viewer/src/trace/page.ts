/* One request, and a whole trace across services. */
import { statementQuery } from '../pages/queries';
import { api, exportParameters, EXPORT_FORMATS } from '../api/services';
import { addressOf, isAborted } from '../api/ask';
import { here, type Address } from '../state/address';
import { ADDRESS } from '../state/held';
import { openDialog } from '../ui/dialog';
import { el, replace, shortened, type Child } from '../ui/dom';
import { focusIfLost } from '../ui/focus';
import { count } from '../ui/format';
import { setPageCommands } from '../ui/keys';
import { pageLink, requestLink, transactionLink } from '../ui/link';
import type { Page } from '../ui/page';
import { command, emptyState, errorState } from '../ui/states';
import { askModel, type Kind } from './ask';
import { requestTitle, type Model } from './model';
import { nextTask } from './split';
import type { Links, Surroundings } from './surroundings';
import { TraceView } from './view';

/* What is done with more spans is done in several tasks. */
const LONG = 20000;

const LINKS: Links = {
	request: (id, ...children) => requestLink(id, ...children),
	trace: (id, ...children) => pageLink('trace', { id }, {}, ...children),
	statement: (statement, ...children) => pageLink('search', {}, { q: statementQuery(statement) }, ...children),
	transaction: (application, name) => transactionLink(application, name),
	typical: (id, ...children) => pageLink('compare', { a: id, what: 'typical' }, {}, ...children),
};

const FORMAT_TEXTS: Readonly<Record<(typeof EXPORT_FORMATS)[number], string>> = {
	html: 'One HTML file, to be opened without the collector',
	speedscope: 'For speedscope, a flame graph',
	perfetto: 'For Perfetto and tracing pages',
	json: 'JSON, everything that is known',
};

const FILE_ENDS: Readonly<Record<string, string>> = { html: 'html', speedscope: 'speedscope.json', perfetto: 'trace.json', json: 'json' };

function download(kind: Kind, id: string, format: (typeof EXPORT_FORMATS)[number]): HTMLElement {
	return el(
		'a',
		{ class: 'button', href: addressOf('/api/v1/export', exportParameters(id, format)), download: `${kind}-${id.slice(0, 16)}.${FILE_ENDS[format] ?? 'json'}` },
		el('b', {}, format === 'html' ? 'HTML file' : format),
		el('span', { class: 'muted' }, FORMAT_TEXTS[format]),
	);
}

function openShare(kind: Kind, id: string): void {
	openDialog(
		'Share',
		el('p', {}, 'A file holds what the collector keeps of it: what was taken out before that is not in it either.'),
		el('div', { class: 'downloads' }, EXPORT_FORMATS.map((format) => download(kind, id, format))),
		el('p', { class: 'muted' }, 'The same in a terminal: ', command(`kaq export --format html ${id.slice(0, 40)} > ${kind}.html`)),
	);
}

/* Kept, whatever else is thrown away. */
function pinButton(id: string, isPinned: boolean): HTMLElement {
	let isOn = isPinned;
	const show = () => {
		button.setAttribute('aria-pressed', String(isOn));
		button.textContent = isOn ? 'Pinned' : 'Pin';
	};
	const change = async () => {
		button.disabled = true;
		try {
			await (isOn ? api.unpin(id) : api.pin(id));
			isOn = !isOn;
			show();
		} catch (error) {
			openDialog('Pin', errorState('It', error));
		} finally {
			button.disabled = false;
		}
	};
	const button = el('button', { type: 'button', title: 'Keep it, whatever else is thrown away', on: { click: () => void change() } });
	show();
	return button;
}

const SURROUNDINGS: Omit<Surroundings, 'set'> = {
	links: LINKS,
	tools: (kind, id, isPinned) => [pinButton(id, isPinned), el('button', { type: 'button', class: 'primary', on: { click: () => openShare(kind, id) } }, 'Share')],
	get: ADDRESS.get,
};

/* Its figures are all that is left of it. */
function withoutSpans(model: Model): Child {
	const row = model.without[0];
	return emptyState(
		row ? `The calls of ${shortened(requestTitle(row), 200)} are not known: its document was not kept.` : 'There are no calls.',
		'More came than the store has room for. Failed and slow requests are kept first; "size_cap" in the configuration gives more room, and ',
		command('kaq pin'),
		' keeps a request whatever comes.',
	);
}

/* What of the view is held, in one order. */
function ownText({ own }: Address): string {
	return JSON.stringify(Object.entries(own).filter(([, value]) => value).sort());
}

class TracePage implements Page {
	readonly element = el('div', { class: 'page' });
	private view: TraceView | undefined;
	private model: Model | undefined;
	private question: AbortController | undefined;
	private shown = '';
	/* What the address said of the view when that was the same. */
	private own = '';
	private filters = '';
	private readonly surroundings: Surroundings = {
		...SURROUNDINGS,
		set: (changes) => {
			ADDRESS.set(changes);
			this.own = ownText(here());
		},
	};
	private name = '';

	constructor(private readonly kind: Kind) {}

	title(address: Address): string {
		return this.name || `${this.kind === 'request' ? 'Request' : 'Trace'} ${address.own.id ?? ''}`;
	}

	show(address: Address): void {
		const id = address.own.id ?? '';
		if (id === '') {
			replace(this.element, emptyState(`The address names no ${this.kind}.`, pageLink('search', {}, {}, 'Search requests')));
			return;
		}
		const { from, to, app, host } = address;
		const filters = [from, to, app, host].join(' ');
		const own = ownText(address);
		const isOtherView = own !== this.own;
		// Time and application narrow other pages: a request stays what it is.
		const isAskedAnew = !isOtherView && filters === this.filters;
		this.own = own;
		this.filters = filters;
		if (id !== this.shown || isAskedAnew) {
			this.shown = id;
			void this.ask(id);
		} else if (this.model && isOtherView) {
			// The browser's way back leads to what was chosen then.
			void this.fill(this.model, this.begin().signal);
		}
	}

	end(): void {
		this.question?.abort();
		this.view?.end();
	}

	/* What was begun before ends. */
	private begin(): AbortController {
		this.question?.abort();
		this.question = new AbortController();
		return this.question;
	}

	private async ask(id: string): Promise<void> {
		const question = this.begin();
		this.model = undefined;
		const progress = el('p', { class: 'muted', role: 'status' }, 'Asking the collector …');
		const waiting = setTimeout(() => focusIfLost(this.element, () => replace(this.element, progress)), 300);
		this.element.setAttribute('aria-busy', 'true');
		try {
			const model = await askModel(this.kind, id, question.signal, (spans) => replace(progress, `${count(spans)} spans have come …`));
			if (model.size > LONG) {
				await nextTask();
			}
			if (this.question === question) {
				await this.fill(model, question.signal);
			}
		} catch (error) {
			if (this.question === question && !isAborted(error)) {
				replace(this.element, errorState(this.kind === 'request' ? 'The request' : 'The trace', error, () => void this.ask(id)));
			}
		} finally {
			clearTimeout(waiting);
			if (this.question === question) {
				this.element.removeAttribute('aria-busy');
			}
		}
	}

	private async fill(model: Model, signal: AbortSignal): Promise<void> {
		this.view?.end();
		this.view = undefined;
		this.model = model;
		const row = model.parts[0]?.row ?? model.without[0];
		this.name = row ? `${shortened(requestTitle(row), 80)}${model.isTrace ? ' (trace)' : ''}` : '';
		document.title = `${this.name} – kaq`;
		if (model.size === 0) {
			replace(this.element, withoutSpans(model));
			return;
		}
		const view = new TraceView(model, this.surroundings);
		if (model.size > LONG) {
			await nextTask();
		}
		if (signal.aborted) {
			view.end();
			return;
		}
		this.view = view;
		focusIfLost(this.element, () => replace(this.element, view.element));
		view.restore();
		setPageCommands(view.commands);
	}
}

export function requestPage(): Page {
	return new TracePage('request');
}

export function tracePage(): Page {
	return new TracePage('trace');
}
