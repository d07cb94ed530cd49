/* Requests as they end. */
import { addressOf, checkStream, isAborted } from '../api/ask';
import type { RequestRow } from '../api/types';
import { queryField } from '../search/query_field';
import { changed, go, here, type Address } from '../state/address';
import { el, replace } from '../ui/dom';
import { focusIfLost } from '../ui/focus';
import { plural } from '../ui/format';
import { term } from '../ui/link';
import type { Page } from '../ui/page';
import { command, emptyState, errorState } from '../ui/states';
import { growingTable, type GrowingTable } from '../ui/table';
import { requestColumns } from './columns';

const LIVE = '/api/v1/live';
const MOST = 200;
/* They stay in the order in which they ended. */
const COLUMNS = requestColumns({ without: [] }).map(({ key, title, cell, ...column }) => ({
	key,
	title,
	cell,
	...(column.align ? { align: column.align } : {}),
	...(column.isMain ? { isMain: column.isMain } : {}),
	...(column.className ? { className: column.className } : {}),
}));
/* So that a busy site does not have the page drawn for each request. */
const DRAW_MS = 250;

function queryOf(address: Address): string {
	return [address.q && `(${address.q})`, address.app && term('app', address.app), address.host && term('host', address.host)].filter(Boolean).join(' ');
}

function nothingYet(): HTMLElement {
	return emptyState(
		'Waiting for requests to end.',
		here().q || here().app || here().host ? 'Those that fulfil the filter are shown at once. ' : 'Each is shown at once. ',
		'If there should be some, ',
		command('kaq doctor'),
		' says what is missing.',
	);
}

class LivePage implements Page {
	readonly element: HTMLElement;
	readonly commands = [
		{
			keys: ['p', ' '],
			text: 'Pause, and go on',
			run: (): undefined => {
				this.pause();
				return undefined;
			},
		},
	];
	private readonly list = el('div', { class: 'panel' });
	private readonly state = el('span', { class: 'muted', role: 'status' });
	private readonly button: HTMLButtonElement;
	/* The way on after the collector has ended the stream. */
	private readonly again = el('button', { type: 'button', hidden: true, title: 'Ask anew ( r )', on: { click: () => this.listenAgain() } }, 'Listen again');
	private readonly field;
	private source: EventSource | undefined;
	private question: AbortController | undefined;
	private asked: string | undefined;
	private isListening = false;
	private table: GrowingTable<RequestRow> | undefined;
	/* Those that came and are not shown yet, the newest first. */
	private waiting: RequestRow[] = [];
	private seen = 0;
	private lost = 0;
	private held = 0;
	private isPaused = false;
	/* Whoever points at a row finds the same one when the button is released. */
	private isPointedAt = false;
	private drawing = 0;

	constructor() {
		this.button = el('button', { type: 'button', 'aria-pressed': 'false', on: { click: () => this.pause() } }, 'Pause');
		this.field = queryField({ label: 'Filter', placeholder: 'Filter: app:shop >200ms', onQuery: (q) => go(changed(here(), { q })) });
		for (const type of ['pointerenter', 'pointerdown'] as const) {
			this.list.addEventListener(type, () => this.pointAt(true));
		}
		for (const type of ['pointerleave', 'pointercancel'] as const) {
			this.list.addEventListener(type, () => this.pointAt(false));
		}
		this.element = el(
			'div',
			{ class: 'page' },
			el('h1', {}, 'Live'),
			this.field.element,
			el('div', { class: 'page-head' }, this.button, this.state, this.again),
			this.list,
		);
	}

	title(): string {
		return 'Live';
	}

	show(address: Address): void {
		this.field.set(address.q);
		const query = queryOf(address);
		if (query !== this.asked || !this.source) {
			this.asked = query;
			void this.listen(query);
		}
	}

	private async listen(query: string): Promise<void> {
		this.end();
		const question = new AbortController();
		this.question = question;
		this.clear();
		this.say('Asking the collector …');
		try {
			// An EventSource does not tell what is wrong with its query.
			await checkStream(LIVE, { q: query }, question.signal);
		} catch (error) {
			if (!isAborted(error)) {
				this.say('');
				replace(this.list, errorState('The live requests', error, () => void this.listen(query)));
			}
			return;
		}
		if (!question.signal.aborted) {
			this.open(new EventSource(addressOf(LIVE, { q: query })));
		}
	}

	private open(source: EventSource): void {
		this.source = source;
		source.addEventListener('message', (event: MessageEvent<string>) => this.add(JSON.parse(event.data) as RequestRow));
		source.addEventListener('lost', (event: MessageEvent<string>) => {
			this.lost += Number(event.data) || 0;
			this.plan();
		});
		source.addEventListener('open', () => {
			this.isListening = true;
			this.draw();
		});
		source.addEventListener('error', () => {
			this.isListening = false;
			if (source.readyState === EventSource.CLOSED) {
				this.stopped();
			} else {
				this.say('The connection was lost; trying again …');
			}
		});
	}

	/* What came stays in sight until somebody asks anew. */
	private stopped(): void {
		this.end();
		this.showWaiting();
		this.say('The collector does not send any more.');
		this.again.hidden = false;
	}

	private listenAgain(): void {
		this.show(here());
		this.button.focus();
	}

	private clear(): void {
		this.again.hidden = true;
		this.isListening = false;
		this.table = undefined;
		this.waiting = [];
		this.seen = this.lost = this.held = 0;
		focusIfLost(this.list, () => replace(this.list, nothingYet()));
	}

	private add(request: RequestRow): void {
		this.seen++;
		this.waiting.unshift(request);
		this.waiting.length = Math.min(this.waiting.length, MOST);
		this.held += this.isPaused || this.isPointedAt ? 1 : 0;
		this.plan();
	}

	private plan(): void {
		this.drawing ||= window.setTimeout(() => {
			this.drawing = 0;
			this.draw();
		}, DRAW_MS);
	}

	private pause(): void {
		this.isPaused = !this.isPaused;
		this.held = 0;
		this.button.setAttribute('aria-pressed', String(this.isPaused));
		this.button.textContent = this.isPaused ? 'Go on' : 'Pause';
		this.draw();
	}

	private pointAt(isPointedAt: boolean): void {
		if (this.isPointedAt !== isPointedAt) {
			this.isPointedAt = isPointedAt;
			this.held = this.isPaused ? this.held : 0;
			this.draw();
		}
	}

	private say(text: string): void {
		this.state.textContent = text;
	}

	private draw(): void {
		if (!this.isListening) {
			return;
		}
		const since = `${plural(this.held, 'request')} since`;
		const isHeld = this.isPointedAt && this.table !== undefined;
		const parts = [
			this.isPaused ? `Paused; ${since}` : isHeld ? `Held still while you point at it; ${since}` : 'Listening',
			`${plural(this.seen, 'request')} so far`,
			this.lost > 0 && `${plural(this.lost, 'request')} passed too fast to be shown`,
		];
		this.say(parts.filter(Boolean).join(' · '));
		if (!this.isPaused && !isHeld) {
			this.showWaiting();
		}
	}

	private showWaiting(): void {
		if (this.waiting.length > 0) {
			this.table ??= this.begun();
			this.table.prepend(this.waiting.splice(0));
		}
	}

	private begun(): GrowingTable<RequestRow> {
		const made = growingTable({ caption: 'Requests, the newest first', columns: COLUMNS, most: MOST });
		replace(this.list, made.element);
		return made;
	}

	end(): void {
		this.question?.abort();
		this.source?.close();
		this.source = undefined;
		clearTimeout(this.drawing);
		this.drawing = 0;
	}
}

export function livePage(): Page {
	return new LivePage();
}
