/* Requests as they end. */
import { addressOf, checkStream } from '../api/ask';
import type { RequestRow } from '../api/types';
import { queryField } from '../search/query_field';
import { changed, go, here, type Address } from '../state/address';
import { el, replace, type Child } from '../ui/dom';
import { plural } from '../ui/format';
import { term } from '../ui/link';
import type { Page } from '../ui/page';
import { command, emptyState, errorState } from '../ui/states';
import { table } from '../ui/table';
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
	private readonly field;
	private source: EventSource | undefined;
	private asked: string | undefined;
	private rows: RequestRow[] = [];
	private seen = 0;
	private lost = 0;
	private held = 0;
	private isPaused = false;
	private drawing = 0;

	constructor() {
		this.button = el('button', { type: 'button', 'aria-pressed': 'false', on: { click: () => this.pause() } }, 'Pause');
		this.field = queryField({ label: 'Filter', placeholder: 'Filter: app:shop >200ms', onQuery: (q) => go(changed(here(), { q })) });
		this.element = el(
			'div',
			{ class: 'page' },
			el('h1', {}, 'Live'),
			this.field.element,
			el('div', { class: 'page-head' }, this.button, this.state),
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
		this.source?.close();
		this.rows = [];
		this.seen = this.lost = this.held = 0;
		this.draw();
		try {
			// An EventSource does not tell what is wrong with its query.
			await checkStream(LIVE, { q: query });
		} catch (error) {
			replace(this.list, errorState('The live requests', error, () => void this.listen(query)));
			return;
		}
		if (query !== this.asked) {
			return;
		}
		const source = new EventSource(addressOf(LIVE, { q: query }));
		this.source = source;
		source.addEventListener('message', (event: MessageEvent<string>) => this.add(JSON.parse(event.data) as RequestRow));
		source.addEventListener('lost', (event: MessageEvent<string>) => {
			this.lost += Number(event.data) || 0;
			this.plan();
		});
		source.addEventListener('open', () => this.draw());
		source.addEventListener('error', () => {
			this.say(source.readyState === EventSource.CLOSED ? 'The collector does not send any more.' : 'The connection was lost; trying again …');
		});
	}

	private add(request: RequestRow): void {
		this.seen++;
		if (this.isPaused) {
			this.held++;
		} else {
			this.rows.unshift(request);
			this.rows.length = Math.min(this.rows.length, MOST);
		}
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

	private say(text: string): void {
		this.state.textContent = text;
	}

	private draw(): void {
		const parts = [
			this.isPaused ? `Paused; ${plural(this.held, 'request')} since` : 'Listening',
			`${plural(this.seen, 'request')} so far`,
			this.lost > 0 && `${plural(this.lost, 'request')} passed too fast to be shown`,
		];
		this.say(parts.filter(Boolean).join(' · '));
		if (this.isPaused) {
			return;
		}
		// What has the focus keeps it.
		const focused = document.activeElement?.closest('a')?.getAttribute('href');
		replace(this.list, this.content());
		if (focused) {
			[...this.list.querySelectorAll('a')].find((each) => each.getAttribute('href') === focused)?.focus();
		}
	}

	private content(): Child {
		return this.rows.length === 0
			? emptyState(
					'Waiting for requests to end.',
					here().q || here().app || here().host ? 'Those that fulfil the filter are shown at once. ' : 'Each is shown at once. ',
					'If there should be some, ',
					command('kaq doctor'),
					' says what is missing.',
				)
			: table({ caption: 'Requests, the newest first', columns: COLUMNS, rows: this.rows });
	}

	end(): void {
		this.source?.close();
		clearTimeout(this.drawing);
	}
}

export function livePage(): Page {
	return new LivePage();
}
