/*
 * Requests as points, by when they began and how long they took, on a logarithmic scale. A box that
 * is dragged over them selects; a click on a point opens it.
 */
import type { RequestRow } from '../api/types';
import { el } from '../ui/dom';
import { duration, exactTime, plural } from '../ui/format';
import { timeTicks } from '../ui/ticks';
import { colour, onTheme } from '../ui/theme';

export interface Box {
	readonly from: number;
	readonly to: number;
	readonly least: number;
	readonly most: number;
}

export interface ScatterOptions {
	readonly requests: readonly RequestRow[];
	readonly range: { readonly from_ms: number; readonly to_ms: number };
	readonly box: Box | undefined;
	readonly onBox: (box: Box | undefined) => void;
	readonly onOpen: (request: RequestRow) => void;
}

const HEIGHT = 240;
const RIGHT = 10;
const TOP = 8;
const BOTTOM = 22;
const RADIUS = 3;
const NEAR = 8; /* pixels */

export function isIn(request: RequestRow, box: Box): boolean {
	const { start_ms: start, duration_ms: took } = request;
	return start >= box.from && start <= box.to && took >= box.least && took <= box.most;
}

export function boxText(box: Box): string {
	return [box.from, box.to, box.least, box.most].map(Math.round).join('~');
}

export function parseBox(text: string | undefined): Box | undefined {
	const [from, to, least, most] = (text ?? '').split('~').map(Number);
	return from !== undefined && to !== undefined && least !== undefined && most !== undefined && [from, to, least, most].every(Number.isFinite)
		? { from, to, least, most }
		: undefined;
}

class Scatter {
	readonly element: HTMLElement;
	private readonly canvas = el('canvas', { class: 'scatter-canvas' });
	private readonly readout = el('p', { class: 'scatter-readout muted small' });
	private width = 0;
	/* As wide as the words of the durations. */
	private left = 58;
	private readonly most: number;
	private drag: { readonly x: number; readonly y: number; toX: number; toY: number } | undefined;
	private near: RequestRow | undefined;

	constructor(private readonly options: ScatterOptions) {
		this.most = Math.max(100, ...options.requests.map((each) => each.duration_ms));
		this.canvas.setAttribute('role', 'img');
		this.canvas.setAttribute('aria-label', this.summary());
		this.element = el('div', { class: 'scatter' }, this.canvas, this.readout);
		this.say();
		this.listen();
		const forgetTheme = onTheme(() => this.draw());
		const sizes = new ResizeObserver(() => {
			if (!this.element.isConnected) {
				sizes.disconnect();
				forgetTheme();
			} else if (this.element.clientWidth !== this.width) {
				this.width = this.element.clientWidth;
				this.draw();
			}
		});
		sizes.observe(this.element);
	}

	private summary(): string {
		const durations = this.options.requests.map((each) => each.duration_ms);
		return `${plural(durations.length, 'request')} by time and duration, up to ${duration(this.most)}. The list below has them all.`;
	}

	/* Durations from 1 ms on; below that there is one line. */
	private y(ms: number): number {
		const part = Math.log(Math.max(1, ms)) / Math.log(this.most * 1.2);
		return HEIGHT - BOTTOM - part * (HEIGHT - TOP - BOTTOM);
	}

	private x(ms: number): number {
		const { from_ms: from, to_ms: to } = this.options.range;
		return this.left + ((ms - from) / Math.max(1, to - from)) * (this.width - this.left - RIGHT);
	}

	private timeAt(x: number): number {
		const { from_ms: from, to_ms: to } = this.options.range;
		return from + ((x - this.left) / Math.max(1, this.width - this.left - RIGHT)) * (to - from);
	}

	private durationAt(y: number): number {
		const part = (HEIGHT - BOTTOM - y) / (HEIGHT - TOP - BOTTOM);
		// Below the lowest line is everything that is shorter.
		return part <= 0.01 ? 0 : Math.exp(part * Math.log(this.most * 1.2));
	}

	private listen(): void {
		const { canvas } = this;
		canvas.addEventListener('pointerdown', (event) => {
			canvas.setPointerCapture(event.pointerId);
			this.drag = { x: event.offsetX, y: event.offsetY, toX: event.offsetX, toY: event.offsetY };
		});
		canvas.addEventListener('pointermove', (event) => {
			if (this.drag) {
				this.drag.toX = event.offsetX;
				this.drag.toY = event.offsetY;
			}
			this.near = this.nearest(event.offsetX, event.offsetY);
			canvas.classList.toggle('is-near', this.near !== undefined);
			this.say();
			this.draw();
		});
		canvas.addEventListener('pointerup', () => this.drop());
		canvas.addEventListener('pointercancel', () => (this.drag = undefined));
		canvas.addEventListener('pointerleave', () => {
			this.near = undefined;
			this.say();
			this.draw();
		});
	}

	private drop(): void {
		const { drag } = this;
		this.drag = undefined;
		if (!drag) {
			return;
		}
		if (Math.abs(drag.toX - drag.x) < NEAR && Math.abs(drag.toY - drag.y) < NEAR) {
			if (this.near) {
				this.options.onOpen(this.near);
			} else {
				this.options.onBox(undefined);
			}
			return;
		}
		this.options.onBox({
			from: this.timeAt(Math.min(drag.x, drag.toX)),
			to: this.timeAt(Math.max(drag.x, drag.toX)),
			least: this.durationAt(Math.max(drag.y, drag.toY)),
			most: this.durationAt(Math.min(drag.y, drag.toY)),
		});
	}

	private nearest(x: number, y: number): RequestRow | undefined {
		let [best, found]: [number, RequestRow | undefined] = [NEAR * NEAR, undefined];
		for (const each of this.options.requests) {
			const distance = (this.x(each.start_ms) - x) ** 2 + (this.y(each.duration_ms) - y) ** 2;
			if (distance < best) {
				[best, found] = [distance, each];
			}
		}
		return found;
	}

	private say(): void {
		const { near } = this;
		this.readout.textContent = near
			? `${duration(near.duration_ms)}  ${near.application} ${near.name.slice(0, 100)}  ${exactTime(near.start_ms)}`.slice(0, 200)
			: 'Drag a box to see those requests alone; a click opens one.';
	}

	private draw(): void {
		const ratio = devicePixelRatio;
		const { canvas, width } = this;
		canvas.width = width * ratio;
		canvas.height = HEIGHT * ratio;
		const context = canvas.getContext('2d');
		if (!context || width === 0) {
			return;
		}
		context.scale(ratio, ratio);
		context.font = `11px ${getComputedStyle(document.body).fontFamily}`;
		this.left = 12 + Math.ceil(Math.max(...this.levels().map((ms) => context.measureText(duration(ms)).width)));
		this.drawAxes(context);
		this.drawPoints(context);
		this.drawBox(context);
	}

	private drawAxes(context: CanvasRenderingContext2D): void {
		context.fillStyle = colour('--muted');
		context.strokeStyle = colour('--line');
		context.textBaseline = 'middle';
		context.textAlign = 'right';
		for (const ms of this.levels()) {
			const y = Math.round(this.y(ms)) + 0.5;
			context.beginPath();
			context.moveTo(this.left, y);
			context.lineTo(this.width - RIGHT, y);
			context.stroke();
			context.fillText(duration(ms), this.left - 6, y);
		}
		const { from_ms: from, to_ms: to } = this.options.range;
		for (const { at, text } of timeTicks(from, to, Math.max(2, Math.floor((this.width - this.left) / 90)))) {
			// At the edges there is room to one side alone.
			const half = context.measureText(text).width / 2;
			const x = Math.max(this.left + half, Math.min(this.width - half, this.x(at)));
			context.textAlign = 'center';
			context.fillText(text, x, HEIGHT - 8);
		}
	}

	/* The powers of ten that have a line. */
	private levels(): readonly number[] {
		const levels: number[] = [];
		for (let ms = 1; ms <= this.most * 1.2; ms *= 10) {
			levels.push(ms);
		}
		return levels;
	}

	private drawPoints(context: CanvasRenderingContext2D): void {
		const { box, requests } = this.options;
		for (const isFailed of [false, true]) {
			context.fillStyle = colour(isFailed ? '--bad' : '--line-1');
			for (const each of requests) {
				if (each.failed === isFailed) {
					context.globalAlpha = box && !isIn(each, box) ? 0.15 : 0.75;
					context.beginPath();
					const [x, y] = [this.x(each.start_ms), this.y(each.duration_ms)];
					// Failed ones are not told by their colour alone.
					if (isFailed) {
						context.rect(x - RADIUS, y - RADIUS, 2 * RADIUS, 2 * RADIUS);
					} else {
						context.arc(x, y, RADIUS, 0, 2 * Math.PI);
					}
					context.fill();
				}
			}
		}
		context.globalAlpha = 1;
		if (this.near) {
			context.strokeStyle = colour('--text');
			context.strokeRect(this.x(this.near.start_ms) - 5.5, this.y(this.near.duration_ms) - 5.5, 11, 11);
		}
	}

	private drawBox(context: CanvasRenderingContext2D): void {
		const { box } = this.options;
		const { drag } = this;
		const edges = drag
			? [drag.x, drag.y, drag.toX, drag.toY]
			: box
				? [this.x(box.from), this.y(box.most), this.x(box.to), Math.min(HEIGHT - BOTTOM + 2, this.y(box.least) + (box.least < 1 ? 6 : 0))]
				: undefined;
		if (edges) {
			const [x = 0, y = 0, toX = 0, toY = 0] = edges;
			context.strokeStyle = colour('--accent');
			context.strokeRect(x, y, toX - x, toY - y);
			context.globalAlpha = 0.1;
			context.fillStyle = colour('--accent');
			context.fillRect(x, y, toX - x, toY - y);
			context.globalAlpha = 1;
		}
	}
}

export function scatter(options: ScatterOptions): HTMLElement {
	return new Scatter(options).element;
}
