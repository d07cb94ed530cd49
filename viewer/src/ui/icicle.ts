/* An aggregated flame graph: each row of a profile below the calls around it, as wide as its time. */
import type { Layer, ProfileRow } from '../api/types';
import { shortKey } from '../state/held';
import { append, el, replace, shortened } from './dom';
import { focusOn } from './focus';
import { duration, plural, share } from './format';

const ROW = 20; /* pixels */
/* Of the width of what is looked at. */
const SMALLEST = 0.0015;
const LAYERS: Readonly<Record<Layer, string>> = { code: 'PHP', database: 'database', cache: 'cache', http: 'HTTP', other: 'other' };

interface Place {
	readonly row: number;
	readonly begin: number;
	readonly depth: number;
}

/* Which box is looked at, and what is told when that changes. */
export interface HeldBox {
	readonly key: string;
	readonly onLook: (key: string) => void;
}

class Icicle {
	readonly element: HTMLElement;
	private readonly boxes = el('div', { class: 'icicle-boxes' });
	private readonly path = el('p', { class: 'icicle-path row' });
	private readonly children: number[][];
	private onLook: (row: number) => void = () => undefined;

	constructor(
		private readonly rows: readonly ProfileRow[],
		private readonly requests: number,
		held: HeldBox,
	) {
		this.children = rows.map(() => []);
		rows.forEach((row, i) => this.children[row.parent]?.push(i));
		this.element = el('div', { class: 'icicle' }, this.path, this.boxes);
		const keys = this.keys();
		this.look(Math.max(0, keys.indexOf(held.key)));
		this.onLook = (row) => held.onLook(row === 0 ? '' : (keys[row] ?? ''));
	}

	/* Of each row, from what it is called and under what. */
	private keys(): readonly string[] {
		const keys: string[] = [];
		for (const row of this.rows) {
			keys.push(shortKey(keys[row.parent] ?? '', row.layer, row.name, row.detail ?? ''));
		}
		return keys;
	}

	/* What is looked at now has the focus. */
	private turnTo(top: number): void {
		this.look(top);
		const first = this.boxes.firstElementChild;
		if (first instanceof HTMLElement) {
			focusOn(first);
		}
	}

	/* From this row down. */
	private look(top: number): void {
		replace(this.boxes);
		const whole = this.rows[top]?.total_ms ?? 0;
		const waiting: Place[] = [{ row: top, begin: 0, depth: 0 }];
		let deepest = 0;
		for (let place = waiting.pop(); place; place = waiting.pop()) {
			const row = this.rows[place.row];
			const width = whole > 0 ? (row?.total_ms ?? 0) / whole : 1;
			if (!row || width < SMALLEST) {
				continue;
			}
			deepest = Math.max(deepest, place.depth);
			append(this.boxes, this.box(row, place, Math.min(width, 1 - place.begin)));
			let begin = place.begin;
			for (const child of this.children[place.row] ?? []) {
				waiting.push({ row: child, begin, depth: place.depth + 1 });
				begin += whole > 0 ? (this.rows[child]?.total_ms ?? 0) / whole : 0;
			}
		}
		this.boxes.style.setProperty('height', `${(deepest + 1) * ROW}px`);
		this.drawPath(top);
		this.onLook(top);
	}

	private box(row: ProfileRow, place: Place, width: number): HTMLElement {
		const each = row.total_ms / Math.max(1, this.requests);
		const text = [
			shortened(row.name, 300),
			row.detail && shortened(row.detail, 500),
			`${duration(each)} per request, ${duration(row.self_ms / Math.max(1, this.requests))} of it its own (${LAYERS[row.layer]})`,
			`${plural(row.count, 'call')} in ${plural(this.requests, 'request')}`,
		]
			.filter(Boolean)
			.join('\n');
		return el(
			'button',
			{
				type: 'button',
				class: `icicle-box layer-${row.layer}`,
				title: text,
				'aria-label': text.replaceAll('\n', '. '),
				style: { left: `${place.begin * 100}%`, width: `${Math.max(0, width) * 100}%`, top: `${place.depth * ROW}px` },
				on: { click: () => this.turnTo(place.row) },
			},
			el('span', {}, shortened(row.name, 100)),
		);
	}

	private drawPath(top: number): void {
		const above: number[] = [];
		for (let at = this.rows[top]?.parent ?? -1; at >= 0; at = this.rows[at]?.parent ?? -1) {
			above.unshift(at);
		}
		const row = this.rows[top];
		const part = (row?.total_ms ?? 0) / Math.max(1, this.rows[0]?.total_ms ?? 1);
		replace(
			this.path,
			above.map((at) => [el('button', { type: 'button', class: 'link', on: { click: () => this.turnTo(at) } }, shortened(this.rows[at]?.name ?? '', 60)), ' › ']),
			el('b', {}, shortened(row?.name ?? '', 100)),
			el('span', { class: 'muted' }, `${duration((row?.total_ms ?? 0) / Math.max(1, this.requests))} per request, ${share(part)}`),
		);
	}
}

export function icicle(rows: readonly ProfileRow[], requests: number, held: HeldBox): HTMLElement {
	return new Icicle(rows, requests, held).element;
}
